#include "cli/StemProcessor.h"

#include <utility>

#include "DspCore/AudioFormat.h"
#include "DspCore/VectorOperations.h"
#include "files/File.h"

namespace zevrant::cli {

bool StemProcessor::open(const File& modelFile, int numOfChannels, double sampleRate) {
    AudioFormat format;
    format.createDefaultChannelMapping(numOfChannels);
    format.sampleRate = sampleRate;
    if (!processor.loadModelFiles({modelFile}) || !processor.setFormat(format, format)) return false;
    processor.setBusReceiver([this](int bus, const ComplexSignal32& spectrum) { receiveBus(bus, spectrum); });

    AudioFormat stemFormat = format;
    stemFormat.createDefaultChannelMapping(numOfChannels * processor.getNumOfOutputBusses(true));
    if (!setFormat(format, stemFormat)) return false;
    setBlocking(processor.fftSize, processor.windowSize, processor.hopSize);
    return true;
}

int StemProcessor::getLatency(int blockSize) const {
    return processor.getLatency(blockSize);
}

void StemProcessor::reset() {
    BaseSpectralProcessor::reset();
    processor.reset();
    resultNodes.clear(frames);
}

std::list<ComplexSignal32> StemProcessor::process(const ComplexSignal32& spectrum) {
    processor.process(spectrum);
    return std::exchange(frames, {});
}

void StemProcessor::receiveBus(int bus, const ComplexSignal32& spectrum) {
    const int numOfBusses = processor.getNumOfOutputBusses(true);
    const int channels = spectrum.numOfChannels;
    if (bus == 0) stems = ComplexSignal32(numOfBusses * channels, spectrum.numOfSamples);
    for (int c = 0; c < channels; ++c)
        vo::copy(spectrum.getReadChannelPtr(c), stems.getWriteChannelPtr(bus * channels + c),
                 spectrum.numOfSamples);
    if (bus == numOfBusses - 1) resultNodes.append(frames, std::exchange(stems, {}));
}

}  // namespace zevrant::cli
