#include "audiofiles/Pass.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <string>
#include <vector>

#include "audiofiles/Error.h"
#include "audiofiles/Interruption.h"
#include "audiofiles/Resampler.h"

namespace zevrant::audiofiles {

using separation::Separator;

namespace {

// How much longer than it reports a model may keep samples back before that counts as for ever.
constexpr double mostExtraSeconds = 30.0;

// Frames of interleaved audio that wait for what belongs to them.
class FrameQueue {
  public:
    explicit FrameQueue(int channels) : numOfChannels(static_cast<std::size_t>(channels)) {}

    void append(const float* interleaved, std::size_t numOfFrames) {
        if (start > values.size() / 2) {  // moves no value more than once on average
            values.erase(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(start));
            start = 0;
        }
        values.insert(values.end(), interleaved, interleaved + numOfFrames * numOfChannels);
    }
    std::int64_t getLength() const {
        return static_cast<std::int64_t>((values.size() - start) / numOfChannels);
    }
    void append(const std::vector<float>& interleaved) {
        append(interleaved.data(), interleaved.size() / numOfChannels);
    }
    void appendZeros(std::int64_t numOfFrames) {
        values.resize(values.size() + static_cast<std::size_t>(numOfFrames) * numOfChannels);
    }
    const float* getFront() const { return values.data() + start; }
    float* getFront() { return values.data() + start; }
    void drop(std::int64_t numOfFrames) { start += static_cast<std::size_t>(numOfFrames) * numOfChannels; }

  private:
    std::size_t numOfChannels;
    std::vector<float> values;
    std::size_t start = 0;
};

// One value that is not a number would silence every stem for good, and the null depth with them. Returns how
// many there were.
std::int64_t replaceOddValues(float* values, std::int64_t numOfValues) {
    std::int64_t count = 0;
    for (std::int64_t i = 0; i < numOfValues; ++i)
        if (!std::isfinite(values[i])) {
            values[i] = 0.0f;
            ++count;
        }
    return count;
}

class Pass {
  public:
    Pass(AudioReader& source, Separator& engine, double rate, int block,
         const std::function<void(const PassBlock&)>& receiver)
        : reader(source),
          separator(engine),
          workingRate(rate),
          blockSize(block),
          receive(receiver),
          waiting(source.description.numOfChannels),
          converted(source.description.numOfChannels),
          made(engine.getNumOfOutputChannels()) {
        const double sampleRate = reader.description.sampleRate;
        if (workingRate == sampleRate) return;
        toEngine.emplace(sampleRate, workingRate, separator.getNumOfInputChannels());
        fromEngine.emplace(workingRate, sampleRate, separator.getNumOfOutputChannels());
        aroundEngine.emplace(workingRate, sampleRate, separator.getNumOfInputChannels());
    }

    PassResult run() {
        std::vector<float> block(static_cast<std::size_t>(reader.description.numOfChannels) *
                                 static_cast<std::size_t>(blockSize));
        while (const int count = reader.read(block.data(), blockSize)) {
            checkInterruption();
            numOfReplacedValues += replaceOddValues(block.data(), count * reader.description.numOfChannels);
            waiting.append(block.data(), static_cast<std::size_t>(count));
            if (toEngine)
                convert([&](std::vector<float>& out) { toEngine->process(block.data(), count, out); });
            else
                addToEngine(block.data(), count);
        }
        if (toEngine) convert([&](std::vector<float>& out) { toEngine->finish(out); });
        flushEngine();
        if (toEngine) finishConversion();
        return {numOfSamplesDone, numOfReplacedValues};
    }

  private:
    // Runs what a conversion gives through the engine, and the way back past it.
    template <class Conversion>
    void convert(const Conversion& conversion) {
        atWorkingRate.clear();
        conversion(atWorkingRate);
        const auto channels = static_cast<std::size_t>(separator.getNumOfInputChannels());
        const std::size_t step = channels * static_cast<std::size_t>(blockSize);
        for (std::size_t start = 0; start < atWorkingRate.size(); start += step) {
            const float* part = atWorkingRate.data() + start;
            const auto count = static_cast<int>(std::min(step, atWorkingRate.size() - start) / channels);
            back.clear();
            aroundEngine->process(part, count, back);
            converted.append(back);
            addToEngine(part, count);
        }
    }

    void finishConversion() {
        back.clear();
        aroundEngine->finish(back);
        converted.append(back);
        back.clear();
        fromEngine->finish(back);
        made.append(back);
        // Both conversions round the length, by a sample in all.
        for (FrameQueue* queue : {&converted, &made})
            queue->appendZeros(std::max<std::int64_t>(waiting.getLength() - queue->getLength(), 0));
        handOutConverted();
    }

    void addToEngine(const float* interleaved, int numOfSamples) {
        numOfSamplesAdded += numOfSamples;
        addToEngineOnly(interleaved, numOfSamples);
    }

    void addToEngineOnly(const float* interleaved, int numOfSamples) {
        separator.addInterleaved(interleaved, numOfSamples);
        drainEngine();
    }

    // Takes what is ready, but no more than went in: what zeros at the end led to is left out.
    void drainEngine() {
        const std::int64_t rest = numOfSamplesAdded - numOfSamplesTaken;
        const auto count = static_cast<int>(std::min<std::int64_t>(separator.getNumOfPendingSamples(), rest));
        if (count < 1) return;
        output.resize(static_cast<std::size_t>(count) *
                      static_cast<std::size_t>(separator.getNumOfOutputChannels()));
        separator.takeInterleaved(output.data(), count);
        numOfSamplesTaken += count;
        if (fromEngine) {
            back.clear();
            fromEngine->process(output.data(), count, back);
            made.append(back);
            handOutConverted();
        } else {
            handOut(output.data(), count);
        }
    }

    void flushEngine() {
        const std::vector<float> zeros(
            static_cast<std::size_t>(separator.getNumOfInputChannels()) * static_cast<std::size_t>(blockSize),
            0.0f);
        const std::int64_t most =
            separator.getLatency() + static_cast<std::int64_t>(mostExtraSeconds * workingRate) + blockSize;
        for (std::int64_t added = 0; numOfSamplesTaken < numOfSamplesAdded; added += blockSize) {
            checkInterruption();
            if (added > most)
                throw Error(ErrorKind::Failed, "the model keeps back " +
                                                   std::to_string(numOfSamplesAdded - numOfSamplesTaken) +
                                                   " samples beyond its latency");
            addToEngineOnly(zeros.data(), blockSize);
        }
    }

    void handOut(const float* interleaved, int count) {
        receive({waiting.getFront(), interleaved, count, separator.getNumOfOutputChannels()});
        waiting.drop(count);
        numOfSamplesDone += count;
    }

    // Adds what the conversion there and back lost to the last bus, of which the mix is a special case.
    void handOutConverted() {
        const auto count =
            static_cast<int>(std::min({made.getLength(), converted.getLength(), waiting.getLength()}));
        if (count < 1) return;
        const int channels = separator.getNumOfInputChannels();
        const int stride = separator.getNumOfOutputChannels();
        const float residualGain = separator.getGain(separator.getNumOfBusses() - 1);
        float* lastBus = made.getFront() + (stride - channels);
        for (int i = 0; i < count; ++i)
            for (int c = 0; c < channels; ++c)
                lastBus[i * stride + c] += residualGain * (waiting.getFront()[i * channels + c] -
                                                           converted.getFront()[i * channels + c]);
        handOut(made.getFront(), count);
        made.drop(count);
        converted.drop(count);
    }

    AudioReader& reader;
    Separator& separator;
    double workingRate;
    int blockSize;
    const std::function<void(const PassBlock&)>& receive;
    FrameQueue waiting;    // input whose output is still to come
    FrameQueue converted;  // the input after the way there and back
    FrameQueue made;       // output at the reader's rate that waits for the two others
    std::optional<Resampler> toEngine, fromEngine, aroundEngine;
    std::vector<float> output, atWorkingRate, back;
    std::int64_t numOfSamplesAdded = 0;  // at the working rate, without the zeros at the end
    std::int64_t numOfSamplesTaken = 0;  // at the working rate
    std::int64_t numOfSamplesDone = 0;   // at the reader's rate
    std::int64_t numOfReplacedValues = 0;
};

}  // namespace

PassResult runPass(AudioReader& reader, Separator& separator, double workingRate, int blockSize,
                   const std::function<void(const PassBlock&)>& receive) {
    return Pass(reader, separator, workingRate, blockSize, receive).run();
}

}  // namespace zevrant::audiofiles
