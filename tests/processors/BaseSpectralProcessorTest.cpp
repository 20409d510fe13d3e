#include "processors/BaseSpectralProcessor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <functional>
#include <limits>
#include <numbers>
#include <numeric>
#include <ostream>
#include <stdexcept>

#include "TestSignals.h"

namespace zevrant {
namespace {

using Step = std::function<std::list<ComplexSignal32>(const ComplexSignal32&)>;
using Frames = std::vector<std::vector<double>>;

class StepProcessor : public BaseSpectralProcessor {
  public:
    using BaseSpectralProcessor::process;
    std::list<ComplexSignal32> process(const ComplexSignal32& spectrum) override { return step(spectrum); }

    Step step = [](const ComplexSignal32& spectrum) { return std::list<ComplexSignal32>{spectrum}; };
};

struct Sizes {
    int fft, window, hop;
    friend std::ostream& operator<<(std::ostream& out, const Sizes& sizes) {
        return out << sizes.fft << "/" << sizes.window << "/" << sizes.hop;
    }
};

// Around the border of three hops between the two kinds of windows, whole ratios and others, with and
// without zeros in front of the frame.
const Sizes allSizes[] = {{2048, 2048, 1024}, {2048, 2048, 512}, {1024, 1024, 128}, {64, 64, 32},
                          {64, 64, 16},       {32, 2, 1},        {256, 192, 64},    {256, 192, 65},
                          {256, 192, 63},     {256, 192, 96},    {512, 256, 128},   {512, 256, 64},
                          {512, 250, 100},    {256, 255, 85},    {16, 3, 1},        {128, 100, 33},
                          {128, 100, 34},     {2048, 1536, 512}};

void prepare(StepProcessor& processor, const Sizes& sizes, int numOfInputs, int numOfOutputs) {
    processor.setFormat(makeFormat(numOfInputs), makeFormat(numOfOutputs));
    processor.setBlocking(sizes.fft, sizes.window, sizes.hop);
}

// Puts the whole of a signal through in blocks of a length, and joins what comes out.
Signal32 run(StepProcessor& processor, const Signal32& input, int blockLength) {
    SignalQueue<Signal32> outputs;
    for (int start = 0; start < input.numOfSamples; start += blockLength)
        outputs.add(processor.process(
            input.extractSection(start, std::min(blockLength, input.numOfSamples - start))));
    return outputs.peek(static_cast<int>(outputs.numOfSamples));
}

// The framing as a calculation on the whole stream at once, in double, for steps that act on a frame in
// the time domain: zeros before the stream, all frames, then for every hop the two segments that meet.
struct WholeStream {
    // What a step makes of the frame of this index: any number of frames of fft samples.
    using Action = std::function<Frames(int index, const std::vector<double>& frame)>;

    explicit WholeStream(const Sizes& s)
        : sizes(s), isLong(s.window >= 3 * s.hop), numOfTailHops(isLong ? 1 : 0) {}

    static double hann(int i, int length) {
        return 0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * (i + 0.5) / length);
    }

    double analysis(int i) const { return isLong ? hann(i, sizes.window) : std::sqrt(hann(i, sizes.window)); }

    double synthesis(int i) const {
        if (!isLong) return analysis(i);
        const int inShort = i - (sizes.window - 2 * sizes.hop) / 2;
        if (inShort < 0 || inShort >= 2 * sizes.hop) return 0.0;
        return hann(inShort, 2 * sizes.hop) / hann(i, sizes.window) * sizes.fft / sizes.window;
    }

    // The frames that go into the transform: zeros, then the windowed samples.
    Frames cut(const float* samples, int count) const {
        std::vector<double> stream(static_cast<std::size_t>(sizes.window - (numOfTailHops + 1) * sizes.hop));
        stream.insert(stream.end(), samples, samples + count);
        Frames frames;
        for (std::size_t start = 0; start + sizes.window <= stream.size(); start += sizes.hop) {
            auto& frame = frames.emplace_back(static_cast<std::size_t>(sizes.fft));
            for (int i = 0; i < sizes.window; ++i)
                frame[sizes.fft - sizes.window + i] = stream[start + i] * analysis(i);
        }
        return frames;
    }

    std::vector<double> process(const float* samples, int count, const Action& action) const {
        Frames frames;
        int index = 0;
        for (const auto& frame : cut(samples, count))
            for (const auto& result : action(index++, frame)) {
                frames.emplace_back(result.end() - sizes.window, result.end());
                for (int i = 0; i < sizes.window; ++i) frames.back()[i] *= synthesis(i);
            }
        std::vector<double> output;
        const int older = sizes.window - sizes.hop * (numOfTailHops + 1), younger = older - sizes.hop;
        for (std::size_t f = 0; f + 1 < frames.size(); ++f)
            for (int i = 0; i < sizes.hop; ++i)
                output.push_back(frames[f][older + i] + frames[f + 1][younger + i]);
        return output;
    }

    // Rounding noise of a forward and an inverse transform, a little over a unit roundoff per stage each,
    // on frames of unit samples; the long window's synthesis raises it by what it takes back of the
    // analysis.
    double calcTolerance() const {
        double gain = 1.0;
        for (int i = 0; i < sizes.window; ++i) gain = std::max(gain, synthesis(i));
        return gain * FLT_EPSILON * (4.0 + 2.0 * std::log2(sizes.fft));
    }

    const Sizes sizes;
    const bool isLong;
    const int numOfTailHops;
};

// A step that hands every frame on, and one that makes none, one or several of it with gains of their own
// and turns them in time, which it does in the spectrum; each with other counts of channels.
TEST(BaseSpectralProcessor, outputIsTheSumOfTwoFramesThatTheRulesTell) {
    const struct {
        std::vector<std::vector<float>> gains;  // of frame after frame, and from the first again
        int shift;
    } steps[] = {{{{1.0f}}, 0}, {{{1.0f}, {}, {0.5f, -2.0f}, {}, {}, {1.0f, 1.5f, -1.0f}, {0.25f}}, 5}};
    const std::pair<int, int> channelCounts[] = {{2, 2}, {1, 3}, {3, 1}, {2, 4}, {1, 1}};
    std::size_t turn = 0;
    for (const Sizes& sizes : allSizes)
        for (const auto& [gains, shift] : steps) {
            const auto [numOfInputs, numOfOutputs] = channelCounts[turn++ % 5];
            SCOPED_TRACE(testing::Message() << sizes << ", " << numOfInputs << " to " << numOfOutputs);
            const auto gainsOf = [&gains = gains](int frame) -> auto& {
                return gains[frame % gains.size()];
            };
            StepProcessor processor;
            processor.step = [&, numOfInputs = numOfInputs, numOfOutputs = numOfOutputs, shift = shift,
                              frame = 0](const ComplexSignal32& spectrum) mutable {
                std::list<ComplexSignal32> results;
                for (float gain : gainsOf(frame++)) {
                    auto& result = results.emplace_back(numOfOutputs, spectrum.numOfSamples);
                    for (int c = 0; c < numOfOutputs; ++c)
                        for (int k = 0; k < spectrum.numOfSamples; ++k)
                            result.getWriteChannelPtr(c)[k] = spectrum.getReadChannelPtr(c % numOfInputs)[k] *
                                                              std::complex<float>(std::polar<double>(
                                                                  gain, -2.0 * M_PI * k * shift / sizes.fft));
                }
                return results;
            };
            prepare(processor, sizes, numOfInputs, numOfOutputs);
            const Signal32 input = noiseSignal(numOfInputs, 12 * sizes.window + 17, 1);
            const Signal32 output = run(processor, input, sizes.hop + 7);
            ASSERT_EQ(output.numOfChannels, numOfOutputs);
            const WholeStream oracle(sizes);
            const double tolerance = (shift == 0 ? 1.0 : 8.0) * oracle.calcTolerance();
            const auto act = [&, shift = shift](int index, const std::vector<double>& frame) {
                Frames results;
                for (float gain : gainsOf(index)) {
                    auto& result = results.emplace_back(frame);
                    std::rotate(result.begin(), result.end() - shift, result.end());
                    for (double& value : result) value *= gain;
                }
                return results;
            };
            for (int c = 0; c < numOfOutputs; ++c) {
                const float* samples = input.getReadChannelPtr(c % numOfInputs);
                const auto expected = oracle.process(samples, input.numOfSamples, act);
                ASSERT_EQ(output.numOfSamples, static_cast<int>(expected.size()));
                for (int i = 0; i < output.numOfSamples; ++i)
                    ASSERT_NEAR(output.getReadChannelPtr(c)[i], expected[i], tolerance)
                        << "channel " << c << ", sample " << i;
            }
        }
}

// The road into the step: its spectrum is the transform of fft - window zeros and the windowed frame.
TEST(BaseSpectralProcessor, theStepSeesTheWindowedFrameAtTheEndOfTheTransform) {
    for (const Sizes& sizes : {Sizes{64, 64, 32}, {64, 64, 16}, {64, 48, 16}, {64, 40, 20}, {32, 3, 1}}) {
        SCOPED_TRACE(testing::Message() << sizes);
        StepProcessor processor;
        std::vector<ComplexSignal32> seen;
        processor.step = [&](const ComplexSignal32& spectrum) {
            seen.push_back(spectrum);
            return std::list<ComplexSignal32>();
        };
        prepare(processor, sizes, 3, 2);
        const Signal32 input = noiseSignal(3, 5 * sizes.window, 4);
        EXPECT_EQ(run(processor, input, 7).numOfSamples, 0);
        for (int c = 0; c < 3; ++c) {
            const auto frames = WholeStream(sizes).cut(input.getReadChannelPtr(c), input.numOfSamples);
            ASSERT_EQ(seen.size(), frames.size());
            for (std::size_t f = 0; f < seen.size(); ++f) {
                ASSERT_EQ(seen[f].numOfSamples, sizes.fft / 2 + 1);
                const auto expected = calcDft(frames[f].data(), sizes.fft, -1.0);
                for (int k = 0; k <= sizes.fft / 2; ++k)
                    ASSERT_NEAR(std::abs(std::complex<double>(seen[f].getReadChannelPtr(c)[k]) - expected[k]),
                                0.0, double{FLT_EPSILON} * sizes.fft)
                        << "bin " << k;
            }
        }
    }
}

TEST(BaseSpectralProcessor, isTransparentWithoutBlocking) {
    StepProcessor processor;
    const Signal32 input = noiseSignal(2, 100, 11);
    EXPECT_EQ(processor.process(input).data, input.data);
    EXPECT_EQ(processor.getLatency(7), 0);
    prepare(processor, {64, 64, 16}, 2, 2);
    EXPECT_EQ(processor.process(input).numOfSamples % 16, 0);
    processor.setBlocking(0, 0, 0);
    EXPECT_EQ(processor.process(input).data, input.data);
    EXPECT_EQ(processor.inputQueue.numOfSamples, 0);
}

TEST(BaseSpectralProcessor, windowsWaitForAnOutputFormat) {
    StepProcessor processor;
    prepare(processor, {64, 64, 16}, 2, 2);
    EXPECT_EQ(processor.inputQueue.numOfSamples, 32);
    EXPECT_EQ(processor.getAnalysisWindow().data, processor.analysisWindow.data) << "shares its storage";
    StepProcessor unset;
    unset.setFormat(makeFormat(2, -1.0), makeFormat(2, std::numeric_limits<double>::quiet_NaN()));
    unset.setBlocking(64, 64, 16);
    EXPECT_EQ(unset.getAnalysisWindow().data, nullptr);
    EXPECT_EQ(unset.inputQueue.numOfSamples, 0) << "no priming without a format";
    EXPECT_THROW(unset.process(Signal32(2, 64, 0.0f)), std::exception) << "a frame without windows";
}

// What no frame can be made of ends in an exception, and other sizes make the processor whole again.
TEST(BaseSpectralProcessor, impossibleSizesAndShapesThrowBeforeMemoryIsTouched) {
    const Signal32 input = noiseSignal(2, 1000, 12);
    StepProcessor processor;
    for (const Sizes& sizes : {Sizes{64, 64, 0},
                               {64, 64, -1},
                               {64, 65, 16},
                               {0, 64, 16},
                               {-64, 64, 32},
                               {64, 64, 64},
                               {64, 64, 33},
                               {64, 64, 100},
                               {64, 10, 1000}}) {
        prepare(processor, sizes, 2, 2);
        EXPECT_THROW(for (int i = 0; i < 4; ++i) processor.process(input), std::exception) << sizes;
        processor.setBlocking(64, 64, 32);
        EXPECT_EQ(processor.process(input).numOfSamples, 960) << sizes;
    }
    for (const Signal32& block : {noiseSignal(3, 64, 13), noiseSignal(2, 65, 13), Signal32()})
        EXPECT_THROW(processor.processBlock(block), std::exception);
    for (const Sizes& sizes : {Sizes{64, 64, 16}, {64, 48, 24}})
        for (auto [channels, bins] : {std::pair{1, 33}, {3, 33}, {0, 33}, {2, 9}, {2, 0}}) {
            const ComplexSignal32 result(channels, bins, 1.0f);
            processor.step = [&](const ComplexSignal32&) { return std::list<ComplexSignal32>{result}; };
            prepare(processor, sizes, 2, 2);
            EXPECT_THROW(processor.process(input), std::exception) << channels << ", " << bins;
        }
}

}  // namespace
}  // namespace zevrant
