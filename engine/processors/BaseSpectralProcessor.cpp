#include "processors/BaseSpectralProcessor.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <utility>

#include "DspCore/VectorOperations.h"
#include "DspCore/WindowFunctions.h"

namespace zevrant {

namespace {

// Result nodes beyond this many are given back, for steps that bring nodes of their own.
constexpr std::size_t mostResultNodes = 64;

void require(bool condition, const char* text) {
    if (!condition) throw std::out_of_range(text);
}

}  // namespace

BaseSpectralProcessor::BaseSpectralProcessor() = default;
BaseSpectralProcessor::~BaseSpectralProcessor() = default;

void BaseSpectralProcessor::setBlocking(int newFftSize, int newWindowSize, int newHopSize) {
    fftSize = newFftSize;
    windowSize = newWindowSize;
    hopSize = newHopSize;
    generateWindows();
    if (outputFormat.isSet() && windowSize >= 1) fourierTransform.allocate(fftSize);
    reset();
}

Signal32 BaseSpectralProcessor::getAnalysisWindow() const {
    return analysisWindow;
}

void BaseSpectralProcessor::generateWindows() {
    if (!outputFormat.isSet()) return;
    const int numOfInputs = inputFormat.getNumOfChannels();
    const int numOfOutputs = outputFormat.getNumOfChannels();
    const bool isLong = windowSize >= 3 * std::int64_t{hopSize};
    numOfOverlapFrames = 2;
    numOfTailHops = isLong ? 1 : 0;

    if (!isLong) {
        const float scale = 1.0f / static_cast<float>(fftSize);
        analysisWindow = WindowFunctions::generateSqrtHannWindow(numOfInputs, windowSize);
        synthesisWindow = WindowFunctions::generateSqrtHannWindow(numOfOutputs, windowSize) * scale;
        return;
    }

    analysisWindow = WindowFunctions::generateHannWindow(1, windowSize);
    synthesisWindow = Signal32(1, windowSize, 0.0f);
    float* row = synthesisWindow.getWriteChannelPtr(0);
    if (hopSize > 0) {
        const Signal32 shortWindow = WindowFunctions::generateHannWindow(1, 2 * hopSize);
        vo::copy(shortWindow.getReadChannelPtr(0), row + (windowSize - 2 * hopSize) / 2, 2 * hopSize);
    }
    const Signal32 scaled = analysisWindow * static_cast<float>(windowSize);
    vo::divide(scaled.getReadChannelPtr(0), row, row, windowSize);
    analysisWindow = analysisWindow.createMultichannelSignal(numOfInputs);
    synthesisWindow = synthesisWindow.createMultichannelSignal(numOfOutputs);
}

int BaseSpectralProcessor::getLatency(int blockSize) const {
    if (hopSize == 0) return 0;
    const bool inWholeHops = std::int64_t{blockSize} % hopSize == 0;
    return static_cast<int>((std::int64_t{numOfTailHops} + numOfOverlapFrames - (inWholeHops ? 1 : 0)) *
                            hopSize);
}

void BaseSpectralProcessor::reset() {
    frameNodes.clear(outputFrames);
    inputQueue.reset();
    if (!inputFormat.isSet()) return;

    // A count below 0 arms the queue's channel count and adds no samples.
    using Limits = std::numeric_limits<int>;
    const std::int64_t count = windowSize - (std::int64_t{numOfTailHops} + 1) * hopSize;
    const int numOfZeros = static_cast<int>(std::clamp<std::int64_t>(count, Limits::min(), Limits::max()));
    Signal32 priming(inputFormat.getNumOfChannels(), std::max(numOfZeros, 0), 0.0f);
    priming.numOfSamples = numOfZeros;
    inputQueue.add(priming);
}

Signal32 BaseSpectralProcessor::process(const Signal32& input) {
    if (windowSize < 1) return input;
    requireHop();
    inputQueue.add(input);
    while (takeFrame()) {
    }

    const int numOfChannels = outputFormat.getNumOfChannels();
    const std::int64_t numOfHops = std::ssize(outputFrames) - std::int64_t{numOfOverlapFrames} + 1;
    if (numOfHops < 1) return Signal32(numOfChannels, 0);
    if (numOfHops > std::numeric_limits<int>::max() / hopSize)
        throw std::length_error("more output than one signal holds");
    Signal32 result(numOfChannels, static_cast<int>(numOfHops) * hopSize);
    for (int hop = 0; hop < numOfHops; ++hop) {
        requireOldestFrames(numOfChannels);
        sumOldestFrames(result, hop * hopSize, 0, hopSize);
        frameNodes.removeFront(outputFrames);
    }
    return result;
}

void BaseSpectralProcessor::processQueued(SignalQueue<Signal32>& ready) {
    requireHop();
    const int numOfChannels = outputFormat.getNumOfChannels();
    do {
        while (std::ssize(outputFrames) >= numOfOverlapFrames) {
            requireOldestFrames(numOfChannels);
            ready.append(numOfChannels, hopSize, [&](Signal32& result, int column, int start, int count) {
                sumOldestFrames(result, column, start, count);
            });
            frameNodes.removeFront(outputFrames);
        }
    } while (takeFrame());
}

void BaseSpectralProcessor::requireHop() const {
    if (hopSize < 1) throw std::invalid_argument("framing needs a hop of one sample or more");
}

// Moves one hop of the input on to the frames that it leads to. False when there is less than a frame.
bool BaseSpectralProcessor::takeFrame() {
    if (inputQueue.numOfSamples < windowSize) return false;
    const Signal32 block = inputQueue.peek(windowSize);
    inputQueue.skip(hopSize);
    outputFrames.splice(outputFrames.end(), processBlock(block));
    return true;
}

// An output hop is the sum of segments of the oldest numOfOverlapFrames frames, the latest segment of the
// oldest frame first.
void BaseSpectralProcessor::requireOldestFrames(int numOfChannels) const {
    require(numOfOverlapFrames > 0, "an output hop needs a frame");
    const std::int64_t newest = windowSize - (std::int64_t{numOfTailHops} + 1) * hopSize;
    auto frame = outputFrames.begin();
    for (int j = 0; j < numOfOverlapFrames; ++j, ++frame) {
        const std::int64_t offset = newest - std::int64_t{j} * hopSize;
        require(offset >= 0 && offset + hopSize <= frame->numOfSamples,
                "an output hop lies outside its frame");
        require(frame->numOfChannels >= numOfChannels, "a frame lacks output channels");
    }
}

// Writes count samples of the hop, from its sample start on, to column onward of the result.
void BaseSpectralProcessor::sumOldestFrames(Signal32& result, int column, int start, int count) const {
    const std::ptrdiff_t newest = windowSize - (std::ptrdiff_t{numOfTailHops} + 1) * hopSize + start;
    for (int c = 0; c < result.numOfChannels; ++c) {
        float* out = result.getWriteChannelPtr(c) + column;
        auto frame = outputFrames.begin();
        const float* sum = frame->getReadChannelPtr(c) + newest;
        if (numOfOverlapFrames == 1) vo::copy(sum, out, count);
        for (int j = 1; j < numOfOverlapFrames; ++j) {
            ++frame;
            vo::add(sum, frame->getReadChannelPtr(c) + newest - std::ptrdiff_t{j} * hopSize, out, count);
            sum = out;
        }
    }
}

std::list<Signal32> BaseSpectralProcessor::processBlock(const Signal32& block) {
    std::list<Signal32> frames;
    std::list<ComplexSignal32> results = process(fourierTransform.forwardReal(windowForTransform(block)));
    while (!results.empty()) {
        frameNodes.append(frames, windowForOutput(fourierTransform.inverseReal(results.front())));
        if (resultNodes.numOfNodes() < mostResultNodes)
            resultNodes.removeFront(results);
        else
            results.pop_front();
    }
    return frames;
}

// The windowed block at the end of fftSize samples that are otherwise 0.
Signal32 BaseSpectralProcessor::windowForTransform(const Signal32& block) const {
    const int length = block.numOfSamples;
    require(block.numOfChannels > 0 && length > 0, "a frame without samples");
    require(block.numOfChannels <= analysisWindow.numOfChannels && length <= analysisWindow.numOfSamples,
            "a frame larger than the analysis window");
    if (fftSize == windowSize) return block * analysisWindow;

    const std::int64_t offset = std::int64_t{fftSize} - windowSize;
    require(offset >= 0 && offset + length <= fftSize, "a frame longer than the transform");
    Signal32 padded(block.numOfChannels, fftSize);
    for (int c = 0; c < block.numOfChannels; ++c) {
        float* row = padded.getWriteChannelPtr(c);
        float* windowed = row + offset;
        std::fill(row, windowed, 0.0f);
        vo::multiply(block.getReadChannelPtr(c), analysisWindow.getReadChannelPtr(c), windowed, length);
        std::fill(windowed + length, row + fftSize, 0.0f);
    }
    return padded;
}

// The synthesis frame in a transform's result: its last windowSize samples, windowed.
Signal32 BaseSpectralProcessor::windowForOutput(Signal32 time) const {
    const bool isWhole = fftSize == windowSize;
    const int length = isWhole ? time.numOfSamples : windowSize;
    const std::int64_t offset = isWhole ? 0 : std::int64_t{fftSize} - windowSize;
    require(offset >= 0 && offset + length <= time.numOfSamples, "a result shorter than the transform");
    require(time.numOfChannels <= synthesisWindow.numOfChannels && length <= synthesisWindow.numOfSamples,
            "a result larger than the synthesis window");

    Signal32 frame = isWhole ? std::move(time) : Signal32(time.numOfChannels, length);
    const Signal32& in = isWhole ? frame : time;  // NOLINT(bugprone-use-after-move): whole in one place
    for (int c = 0; c < frame.numOfChannels; ++c) {
        float* row = frame.getWriteChannelPtr(c);
        vo::multiply(in.getReadChannelPtr(c) + offset, synthesisWindow.getReadChannelPtr(c), row, length);
    }
    return frame;
}

}  // namespace zevrant
