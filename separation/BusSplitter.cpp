#include "separation/BusSplitter.h"

#include <utility>

#include "DspCore/AudioFormat.h"
#include "DspCore/VectorOperations.h"

namespace zevrant::separation {

BusSplitter::BusSplitter(ZevrantProcessor& spectralStep) : processor(spectralStep) {
    processor.setBusReceiver([this](int bus, const ComplexSignal32& spectrum) { receiveBus(bus, spectrum); });
    inputFormat = processor.inputFormat;
    outputFormat.createDefaultChannelMapping(processor.outputFormat.getNumOfChannels() *
                                             processor.getNumOfOutputBusses(true));
    outputFormat.sampleRate = processor.outputFormat.sampleRate;
    setBlocking(processor.fftSize, processor.windowSize, processor.hopSize);
}

BusSplitter::~BusSplitter() {
    processor.setBusReceiver({});
}

int BusSplitter::getLatency(int blockSize) const {
    return processor.getLatency(blockSize);
}

void BusSplitter::reset() {
    BaseSpectralProcessor::reset();
    processor.reset();
    resultNodes.clear(frames);
}

std::list<ComplexSignal32> BusSplitter::process(const ComplexSignal32& spectrum) {
    std::list<ComplexSignal32> mixes = processor.process(spectrum);
    processor.recycle(mixes);
    return std::exchange(frames, {});
}

void BusSplitter::receiveBus(int bus, const ComplexSignal32& spectrum) {
    const int numOfBusses = processor.getNumOfOutputBusses(true);
    const int channels = spectrum.numOfChannels;
    if (bus == 0) busses = ComplexSignal32(numOfBusses * channels, spectrum.numOfSamples);
    for (int c = 0; c < channels; ++c)
        vo::copy(spectrum.getReadChannelPtr(c), busses.getWriteChannelPtr(bus * channels + c),
                 spectrum.numOfSamples);
    if (bus == numOfBusses - 1) resultNodes.append(frames, std::exchange(busses, {}));
}

}  // namespace zevrant::separation
