// Number formats, the rate converter and the transforms on any values, lengths and rates, each held against
// an identity of its own.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "Choices.h"
#include "DspCore/FourierTransform.h"
#include "DspCore/NumberFormatConversion.h"
#include "DspCore/SampleRateConversion.h"
#include "Execution.h"

namespace {

using namespace zevrant;
using namespace zevrant::fuzz;

Signal32 makeSignal(Choices& choices, int numOfChannels, int numOfSamples, bool isFinite) {
    const int seed = choices.takeByte() & (isFinite ? ~1 : ~0);
    Signal32 signal(numOfChannels, numOfSamples);
    for (int c = 0; c < numOfChannels; ++c) {
        const auto values = makeValues(static_cast<std::size_t>(numOfSamples), seed + 2 * c);
        std::copy(values.begin(), values.end(), signal.getWriteChannelPtr(c));
    }
    return signal;
}

// What a format holds comes back from it unchanged when it goes there a second time, interleaved or planar.
void convertFormats(Choices& choices) {
    NumberFormatConversion conversion;
    conversion.setFormat(static_cast<NumberFormat>(choices.takeByte() % 7), choices.takeByte() % 2 != 0);
    const int numOfChannels = 1 + choices.takeByte() % 9, numOfSamples = choices.takeByte();
    const std::size_t offset =
        static_cast<std::size_t>(choices.takeByte() % 8);  // memory need not be aligned
    const Signal32 signal = makeSignal(choices, numOfChannels, numOfSamples, false);
    const std::size_t planeSize = static_cast<std::size_t>(numOfSamples * conversion.frameSize);
    std::vector<std::uint8_t> memory(offset + static_cast<std::size_t>(numOfChannels) * planeSize),
        again = memory;
    Signal32 back(numOfChannels, numOfSamples), planar = back;

    conversion.convertFromSignal32(signal, static_cast<void*>(memory.data() + offset));
    conversion.convertToSignal32(static_cast<void*>(memory.data() + offset), back);
    std::vector<void*> planes;
    for (int c = 0; c < numOfChannels; ++c) {
        planes.push_back(again.data() + offset + static_cast<std::size_t>(c) * planeSize);
        Signal32 channel(1, numOfSamples);
        if (numOfSamples > 0)
            std::copy_n(back.getReadChannelPtr(c), numOfSamples, channel.getWriteChannelPtr(0));
        conversion.convertFromSignal32(channel, planes.back());
    }
    conversion.convertToSignal32(planes.data(), planar);
    if (numOfSamples == 0) return;
    for (int c = 0; c < numOfChannels; ++c)
        for (int i = 0; i < numOfSamples; ++i) {
            const float x = signal.getReadChannelPtr(c)[i], y = back.getReadChannelPtr(c)[i],
                        z = planar.getReadChannelPtr(c)[i];
            if (!std::isnan(x)) require(y == z, "a format holds what it has held");
            if (std::abs(x) < 0.99f)
                require(std::abs(x - y) <= 0x1p-7f, "a format is near to what it is given");
        }
}

// The stream is the same however it is cut, but for the rounding of the position.
void convertRates(Choices& choices) {
    AudioFormat input, output;
    const int numOfChannels = 1 + choices.takeByte() % 3;
    input.createDefaultChannelMapping(numOfChannels);
    output.createDefaultChannelMapping(numOfChannels);
    input.sampleRate = choices.takeOneOf({48000.0, 44100.0, 8000.0, 192000.0, -1.0});
    output.sampleRate = choices.takeOneOf({48000.0, 44100.0, 8000.0, 192000.0, 11025.0});
    const bool isUsual = input.sampleRate > 0.0;
    if (!isUsual) input.sampleRate = 0.01 * choices.takeRaw<std::uint32_t>();
    SampleRateConversion whole, pieces;
    const bool isSet = attempt([&] {
        whole.setFormat(input, output);
        pieces.setFormat(input, output);
    });
    if (!isSet) return;
    const int length = choices.takeRaw<std::uint16_t>() % 2048;
    if (output.sampleRate / input.sampleRate * length > 1e6) return;
    const Signal32 signal = makeSignal(choices, numOfChannels, length, true);
    std::vector<float> expected, actual;
    const auto append = [](const Signal32& from, std::vector<float>& to) {
        if (from.numOfSamples > 0)
            to.insert(to.end(), from.getReadChannelPtr(0), from.getReadChannelPtr(0) + from.numOfSamples);
    };
    const bool isDone = attempt([&] {
        append(whole.process(signal), expected);
        for (int start = 0; start < length;) {
            const int size = std::min(length - start, 1 + choices.takeByte());
            Signal32 block(numOfChannels, size);
            for (int c = 0; c < numOfChannels; ++c)
                std::copy_n(signal.getReadChannelPtr(c) + start, size, block.getWriteChannelPtr(c));
            append(pieces.process(block), actual);
            start += size;
        }
    });
    if (!isDone || !isUsual) return;
    // What a call gives is counted without the part of a sample that the last one has gone ahead.
    const double mostAhead = 1.0 + output.sampleRate / input.sampleRate;
    const double ahead = static_cast<double>(actual.size()) - static_cast<double>(expected.size());
    require(ahead >= 0.0 && ahead <= mostAhead, "pieces make as many samples as the whole");
    for (std::size_t i = 0; i < std::min(expected.size(), actual.size()); ++i)
        require(std::abs(expected[i] - actual[i]) < 1e-5f, "pieces make the samples of the whole");
}

// An inverse of a forward transform is so many times the signal, for any power of two. Other lengths only
// run.
void transform(Choices& choices) {
    const int kind = choices.takeByte();
    const int length = kind % 4 == 0 ? choices.takeRaw<std::uint16_t>() % 3000 : 2 << (kind / 4 % 12);
    const bool isPower = length > 1 && (length & (length - 1)) == 0;
    const int numOfChannels = 1 + choices.takeByte() % 2;
    const Signal32 signal = makeSignal(choices, numOfChannels, length, isPower);
    FourierTransform fourier;
    Signal32 back;
    const bool isDone = attempt([&] {
        const ComplexSignal32 bins = fourier.forwardReal(signal);
        back = fourier.inverseReal(bins);
        fourier.inverseComplex(fourier.forwardComplex(bins));
    });
    require(isDone || !isPower, "a transform of a usual length does not throw");
    if (!isPower) return;
    for (int c = 0; c < numOfChannels; ++c)
        for (int i = 0; i < length; ++i)
            require(std::abs(back.getReadChannelPtr(c)[i] / static_cast<float>(length) -
                             signal.getReadChannelPtr(c)[i]) < 1e-4f,
                    "a transform comes back");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Execution execution;
    Choices choices({data, size});
    const int kind = choices.takeByte() % 3;
    if (kind == 0) convertFormats(choices);
    if (kind == 1) convertRates(choices);
    if (kind == 2) transform(choices);
    return 0;
}
