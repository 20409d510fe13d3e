#include "processors/BaseSpectralProcessor.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <complex>
#include <functional>
#include <limits>
#include <numbers>
#include <numeric>
#include <ostream>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "files/TemporaryFolder.h"

namespace zevrant {
namespace {

using Rows = std::vector<std::vector<double>>;  // [channels][samples]
using Step = std::function<std::list<ComplexSignal32>(const ComplexSignal32&)>;

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

AudioFormat makeFormat(int numOfChannels, double sampleRate = 48000.0) {
    AudioFormat format;
    format.createDefaultChannelMapping(numOfChannels);
    format.sampleRate = sampleRate;
    return format;
}

void prepare(StepProcessor& processor, const Sizes& sizes, int numOfInputs, int numOfOutputs) {
    processor.setFormat(makeFormat(numOfInputs), makeFormat(numOfOutputs));
    processor.setBlocking(sizes.fft, sizes.window, sizes.hop);
}

Signal32 makeNoise(int numOfChannels, int numOfSamples, unsigned seed) {
    Signal32 signal(numOfChannels, numOfSamples);
    std::mt19937 engine(seed);
    std::uniform_real_distribution<float> uniform(-1.0f, 1.0f);
    for (int c = 0; c < numOfChannels; ++c)
        for (int i = 0; i < numOfSamples; ++i) signal.getWriteChannelPtr(c)[i] = uniform(engine);
    return signal;
}

// Puts the whole of a signal through in the blocks that nextLength gives, and joins what comes out.
Signal32 run(StepProcessor& processor, const Signal32& input, const std::function<int()>& nextLength) {
    SignalQueue<Signal32> outputs;
    for (int start = 0; start < input.numOfSamples;) {
        const int length = std::min(nextLength(), input.numOfSamples - start);
        outputs.add(processor.process(input.extractSection(start, length)));
        start += length;
    }
    return outputs.peek(static_cast<int>(outputs.numOfSamples));
}

std::function<int()> inBlocksOf(int length) {
    return [length] { return length; };
}

std::function<int()> inRandomBlocks(unsigned seed) {
    return [engine = std::mt19937(seed)]() mutable {
        return std::uniform_int_distribution<int>(1, 5000)(engine);
    };
}

// The framing as a calculation on the whole stream at once, in double, for steps that act on a frame in
// the time domain: zeros before the stream, all frames, then for every hop the two segments that meet.
class WholeStream {
  public:
    // What a step makes of the frame of this index: any number of frames of fft samples.
    using Action =
        std::function<std::vector<std::vector<double>>(int index, const std::vector<double>& frame)>;

    explicit WholeStream(const Sizes& s)
        : sizes(s), isLong(s.window >= 3 * s.hop), numOfTailHops(isLong ? 1 : 0) {}

    static double hann(int i, int length) {
        return 0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * (i + 0.5) / length);
    }

    double analysis(int i) const { return isLong ? hann(i, sizes.window) : std::sqrt(hann(i, sizes.window)); }

    double synthesis(int i) const {
        if (!isLong) return analysis(i) / sizes.fft;
        const int inShort = i - (sizes.window - 2 * sizes.hop) / 2;
        if (inShort < 0 || inShort >= 2 * sizes.hop) return 0.0;
        return hann(inShort, 2 * sizes.hop) / (hann(i, sizes.window) * sizes.window);
    }

    std::vector<double> calcTransformInput(const std::vector<double>& stream, int start) const {
        std::vector<double> frame(static_cast<std::size_t>(sizes.fft));
        for (int i = 0; i < sizes.window; ++i)
            frame[sizes.fft - sizes.window + i] = stream[start + i] * analysis(i);
        return frame;
    }

    std::vector<double> prime(const float* samples, int count) const {
        std::vector<double> stream(static_cast<std::size_t>(sizes.window - (numOfTailHops + 1) * sizes.hop));
        stream.insert(stream.end(), samples, samples + count);
        return stream;
    }

    std::vector<double> process(const float* samples, int count, const Action& action) const {
        const std::vector<double> stream = prime(samples, count);
        std::vector<std::vector<double>> frames;
        int index = 0;
        for (std::size_t start = 0; start + sizes.window <= stream.size(); start += sizes.hop)
            for (const auto& result : action(index++, calcTransformInput(stream, static_cast<int>(start)))) {
                frames.emplace_back(result.end() - sizes.window, result.end());
                for (int i = 0; i < sizes.window; ++i) frames.back()[i] *= synthesis(i) * sizes.fft;
            }
        std::vector<double> output;
        const int older = sizes.window - sizes.hop * (numOfTailHops + 1), younger = older - sizes.hop;
        for (std::size_t f = 0; f + 1 < frames.size(); ++f)
            for (int i = 0; i < sizes.hop; ++i)
                output.push_back(frames[f][older + i] + frames[f + 1][younger + i]);
        return output;
    }

    const Sizes sizes;
    const bool isLong;
    const int numOfTailHops;
};

std::vector<std::vector<double>> passOn(int, const std::vector<double>& frame) {
    return {frame};
}

// Rounding noise of a forward and an inverse transform, a little over a unit roundoff per stage each, on
// frames of unit samples; the long window's synthesis raises it by what it takes back of the analysis.
double calcTolerance(const WholeStream& oracle) {
    double gain = 1.0;
    for (int i = 0; i < oracle.sizes.window; ++i)
        gain = std::max(gain, oracle.synthesis(i) * oracle.sizes.fft);
    return gain * FLT_EPSILON * (4.0 + 2.0 * std::log2(oracle.sizes.fft));
}

void expectRow(const Signal32& output, int channel, const std::vector<double>& expected, double tolerance) {
    ASSERT_EQ(output.numOfSamples, static_cast<int>(expected.size()));
    const float* row = output.getReadChannelPtr(channel);
    for (int i = 0; i < output.numOfSamples; ++i)
        ASSERT_NEAR(row[i], expected[i], tolerance) << "sample " << i;
}

TEST(BaseSpectralProcessor, anIdentityStepGivesTheSumOfTwoFramesThatTheRulesTell) {
    for (const Sizes& sizes : allSizes) {
        SCOPED_TRACE(testing::Message() << sizes);
        StepProcessor processor;
        prepare(processor, sizes, 2, 2);
        const Signal32 input = makeNoise(2, 12 * sizes.window + 17, 1);
        const Signal32 output = run(processor, input, inBlocksOf(sizes.hop));
        const WholeStream oracle(sizes);
        for (int c = 0; c < 2; ++c) {
            const float* samples = input.getReadChannelPtr(c);
            expectRow(output, c, oracle.process(samples, input.numOfSamples, passOn), calcTolerance(oracle));
        }
    }
}

TEST(BaseSpectralProcessor, windowsOfTwoAndFourHopsGiveTheInputBack) {
    for (const Sizes& sizes : {Sizes{2048, 2048, 1024}, {2048, 2048, 512}, {4096, 2048, 1024}, {64, 64, 16}})
        for (unsigned seed : {1u, 2u, 3u}) {
            SCOPED_TRACE(testing::Message() << sizes);
            StepProcessor processor;
            prepare(processor, sizes, 2, 2);
            const Signal32 input = makeNoise(2, 60000, seed);
            const Signal32 output = run(processor, input, inRandomBlocks(seed));
            ASSERT_GT(output.numOfSamples, 60000 - 3 * sizes.hop);
            for (int c = 0; c < 2; ++c)
                for (int i = 0; i < output.numOfSamples; ++i)
                    ASSERT_NEAR(output.getReadChannelPtr(c)[i], input.getReadChannelPtr(c)[i], 3e-6) << i;
        }
}

// Cutting is exact: however the stream is cut into blocks, every frame sees the same samples.
TEST(BaseSpectralProcessor, blockLengthsDoNotChangeASingleBit) {
    for (const Sizes& sizes : allSizes) {
        SCOPED_TRACE(testing::Message() << sizes);
        StepProcessor processor;
        prepare(processor, sizes, 2, 2);
        const Signal32 input = makeNoise(2, 10000, 2);
        const Signal32 expected = run(processor, input, inBlocksOf(input.numOfSamples));
        for (const auto& blocks :
             {inBlocksOf(1), inBlocksOf(100), inBlocksOf(sizes.hop), inRandomBlocks(3)}) {
            processor.reset();
            const Signal32 output = run(processor, input, blocks);
            ASSERT_EQ(output.numOfSamples, expected.numOfSamples);
            for (int c = 0; c < 2; ++c)
                for (int i = 0; i < output.numOfSamples; ++i)
                    ASSERT_EQ(output.getReadChannelPtr(c)[i], expected.getReadChannelPtr(c)[i]) << i;
        }
    }
}

// The whole road into the step: its spectrum is the transform of fft - window zeros and the windowed frame.
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
        const Signal32 input = makeNoise(3, 5 * sizes.window, 4);
        EXPECT_EQ(run(processor, input, inBlocksOf(7)).numOfSamples, 0);
        const WholeStream oracle(sizes);
        for (std::size_t f = 0; f < seen.size(); ++f) {
            ASSERT_EQ(seen[f].numOfChannels, 3);
            ASSERT_EQ(seen[f].numOfSamples, sizes.fft / 2 + 1);
            for (int c = 0; c < 3; ++c) {
                const auto stream = oracle.prime(input.getReadChannelPtr(c), input.numOfSamples);
                const auto frame = oracle.calcTransformInput(stream, static_cast<int>(f) * sizes.hop);
                for (int k = 0; k <= sizes.fft / 2; ++k) {
                    std::complex<double> sum;
                    for (int n = 0; n < sizes.fft; ++n)
                        sum += frame[n] * std::polar(1.0, -2.0 * std::numbers::pi * k * n / sizes.fft);
                    const std::complex<double> bin(seen[f].getReadChannelPtr(c)[k]);
                    ASSERT_NEAR(std::abs(bin - sum), 0.0, double{FLT_EPSILON} * sizes.fft) << "bin " << k;
                }
            }
        }
        EXPECT_EQ(static_cast<int>(seen.size()),
                  (5 * sizes.window - (oracle.numOfTailHops + 1) * sizes.hop) / sizes.hop + 1);
    }
}

// A linear phase turns the frame around within the transform, so what leaves at the end comes back in the
// zeros before the frame and is cut off: the section is the end of the transform, not its start.
TEST(BaseSpectralProcessor, theFrameIsTakenFromTheEndOfTheTransform) {
    constexpr int shift = 5;
    for (const Sizes& sizes : {Sizes{128, 64, 32}, {128, 96, 24}, {64, 64, 16}, {64, 50, 20}}) {
        SCOPED_TRACE(testing::Message() << sizes);
        StepProcessor processor;
        processor.step = [&](const ComplexSignal32& spectrum) {
            ComplexSignal32 turned = spectrum;
            auto* row = turned.getWriteChannelPtr(0);
            for (int k = 0; k <= sizes.fft / 2; ++k)
                row[k] *=
                    std::complex<float>(std::polar(1.0, -2.0 * std::numbers::pi * k * shift / sizes.fft));
            return std::list<ComplexSignal32>{turned};
        };
        prepare(processor, sizes, 1, 1);
        const Signal32 input = makeNoise(1, 4000, 5);
        const Signal32 output = run(processor, input, inBlocksOf(333));
        const auto turn = [](int, std::vector<double> frame) {
            std::rotate(frame.begin(), frame.end() - shift, frame.end());
            return std::vector<std::vector<double>>{frame};
        };
        const WholeStream oracle(sizes);
        expectRow(output, 0, oracle.process(input.getReadChannelPtr(0), input.numOfSamples, turn),
                  4.0 * calcTolerance(oracle));
    }
}

TEST(BaseSpectralProcessor, aStepMayReturnNoneOrSeveralFramesForOne) {
    const std::vector<float> gains[] = {{1.0f}, {}, {0.5f, -2.0f}, {}, {}, {1.0f, 1.5f, -1.0f}, {0.25f}};
    const auto gainsOf = [&](int frame) -> const std::vector<float>& {
        return gains[frame % std::ssize(gains)];
    };
    for (const Sizes& sizes : {Sizes{64, 64, 32}, {64, 64, 16}, {128, 96, 32}, {128, 100, 40}}) {
        SCOPED_TRACE(testing::Message() << sizes);
        StepProcessor processor;
        processor.step = [&, frame = 0](const ComplexSignal32& spectrum) mutable {
            std::list<ComplexSignal32> results;
            for (float gain : gainsOf(frame++)) results.push_back(spectrum * std::complex<float>(gain));
            return results;
        };
        prepare(processor, sizes, 2, 2);
        const Signal32 input = makeNoise(2, 5000, 6);
        const Signal32 output = run(processor, input, inBlocksOf(77));
        const auto scale = [&](int index, const std::vector<double>& frame) {
            std::vector<std::vector<double>> results;
            for (float gain : gainsOf(index)) {
                results.push_back(frame);
                for (double& value : results.back()) value *= gain;
            }
            return results;
        };
        const WholeStream oracle(sizes);
        for (int c = 0; c < 2; ++c)
            expectRow(output, c, oracle.process(input.getReadChannelPtr(c), input.numOfSamples, scale),
                      2.0 * calcTolerance(oracle));
    }
}

TEST(BaseSpectralProcessor, outputGrowsByAHopPerFrameOfABlock) {
    StepProcessor processor;
    int numOfResults = 1;
    processor.step = [&](const ComplexSignal32& spectrum) {
        return std::list<ComplexSignal32>(static_cast<std::size_t>(numOfResults), spectrum);
    };
    prepare(processor, {2048, 2048, 1024}, 1, 1);
    const Signal32 block = makeNoise(1, 1024, 7);
    for (auto [results, hops] : {std::pair{1, 0}, {1, 1}, {1, 1}, {0, 0}, {1, 1}, {2, 2}, {0, 0}, {3, 3}}) {
        numOfResults = results;
        const Signal32 output = processor.process(block);
        EXPECT_EQ(output.numOfChannels, 1);
        EXPECT_EQ(output.numOfSamples, 1024 * hops);
        EXPECT_LE(processor.outputFrames.size(), 1u);
    }
}

// What a host measures: the most samples that the output ever lies behind the input.
TEST(BaseSpectralProcessor, latencyIsWhatTheOutputLiesBehindInWholeHops) {
    for (const Sizes& sizes : allSizes)
        for (int blockSize : {1, 2, 7, sizes.hop, 3 * sizes.hop, sizes.hop + 1, 2 * sizes.window + 3}) {
            SCOPED_TRACE(testing::Message() << sizes << " in blocks of " << blockSize);
            StepProcessor processor;
            prepare(processor, sizes, 1, 1);
            const Signal32 block(1, blockSize, 0.0f);
            int lag = 0, most = 0;
            for (int total = 0; total < 4 * sizes.window + 2 * blockSize * sizes.hop && total < 60000;
                 total += blockSize) {
                lag += blockSize - processor.process(block).numOfSamples;
                most = std::max(most, lag);
            }
            const int latency = processor.getLatency(blockSize);
            EXPECT_EQ(latency % sizes.hop, 0);
            if (blockSize * sizes.hop < 30000) {
                const int numOfHops = processor.numOfTailHops + processor.numOfOverlapFrames;
                EXPECT_EQ(most, numOfHops * sizes.hop - std::gcd(blockSize, sizes.hop));
            }
            EXPECT_LE(most, latency);
            EXPECT_GT(most, latency - sizes.hop);
        }
    EXPECT_EQ(StepProcessor().getLatency(100), 0);
}

TEST(BaseSpectralProcessor, resetGivesTheStreamOfANewProcessor) {
    for (const Sizes& sizes : {Sizes{256, 256, 128}, {256, 256, 64}, {512, 256, 80}}) {
        StepProcessor processor;
        prepare(processor, sizes, 2, 2);
        const Signal32 input = makeNoise(2, 5000, 8);
        const Signal32 expected = run(processor, input, inBlocksOf(123));
        run(processor, makeNoise(2, 777, 9), inBlocksOf(50));
        processor.reset();
        EXPECT_TRUE(processor.outputFrames.empty());
        const Signal32 output = run(processor, input, inBlocksOf(123));
        ASSERT_EQ(output.numOfSamples, expected.numOfSamples);
        for (int c = 0; c < 2; ++c)
            EXPECT_TRUE(std::equal(output.getReadChannelPtr(c),
                                   output.getReadChannelPtr(c) + output.numOfSamples,
                                   expected.getReadChannelPtr(c)));
    }
}

TEST(BaseSpectralProcessor, channelsOfInputAndOutputAreCountedApart) {
    for (auto [numOfInputs, numOfOutputs] : {std::pair{1, 3}, {3, 1}, {2, 4}}) {
        StepProcessor processor;
        processor.step = [n = numOfOutputs](const ComplexSignal32& spectrum) {
            ComplexSignal32 result(n, spectrum.numOfSamples);
            for (int c = 0; c < n; ++c)
                std::copy_n(spectrum.getReadChannelPtr(c % spectrum.numOfChannels), spectrum.numOfSamples,
                            result.getWriteChannelPtr(c));
            return std::list<ComplexSignal32>{result};
        };
        prepare(processor, {256, 256, 64}, numOfInputs, numOfOutputs);
        EXPECT_EQ(processor.getAnalysisWindow().numOfChannels, numOfInputs);
        EXPECT_EQ(processor.synthesisWindow.numOfChannels, numOfOutputs);
        const Signal32 input = makeNoise(numOfInputs, 3000, 10);
        const Signal32 output = run(processor, input, inBlocksOf(64));
        ASSERT_EQ(output.numOfChannels, numOfOutputs);
        const WholeStream oracle({256, 256, 64});
        for (int c = 0; c < numOfOutputs; ++c) {
            const float* samples = input.getReadChannelPtr(c % numOfInputs);
            expectRow(output, c, oracle.process(samples, 3000, passOn), calcTolerance(oracle));
        }
    }
}

TEST(BaseSpectralProcessor, isTransparentWithoutBlocking) {
    StepProcessor processor;
    const Signal32 input = makeNoise(2, 100, 11);
    EXPECT_EQ(processor.process(input).data, input.data);
    EXPECT_EQ(processor.getAnalysisWindow().data, nullptr);
    prepare(processor, {64, 64, 16}, 2, 2);
    EXPECT_EQ(processor.process(input).numOfSamples % 16, 0);
    processor.setBlocking(0, 0, 0);
    EXPECT_EQ(processor.process(input).data, input.data);
    EXPECT_EQ(processor.getLatency(7), 0);
    EXPECT_EQ(processor.inputQueue.numOfSamples, 0);
}

TEST(BaseSpectralProcessor, windowsWaitForAnOutputFormat) {
    StepProcessor processor;
    for (double rate : {0.0, -1.0, std::numeric_limits<double>::quiet_NaN()}) {
        processor.setFormat(makeFormat(2, rate), makeFormat(2, rate));
        processor.setBlocking(64, 64, 16);
        EXPECT_EQ(processor.analysisWindow.data, nullptr);
        EXPECT_EQ(processor.numOfTailHops, 0);
        EXPECT_EQ(processor.inputQueue.numOfSamples, 0) << "no priming without a format";
    }
    EXPECT_EQ(processor.process(Signal32(2, 63, 0.0f)).numOfSamples, 0);
    EXPECT_THROW(processor.process(Signal32(2, 1, 0.0f)), std::exception) << "a frame without windows";
    prepare(processor, {64, 64, 16}, 2, 2);
    EXPECT_EQ(processor.numOfTailHops, 1);
    EXPECT_EQ(processor.inputQueue.numOfSamples, 32);
    const Signal32 window = processor.getAnalysisWindow();
    EXPECT_EQ(window.data, processor.analysisWindow.data) << "shares its storage";
}

// What no frame can be made of ends in an exception, and a reset makes the processor whole again.
TEST(BaseSpectralProcessor, impossibleSizesAndShapesThrowBeforeMemoryIsTouched) {
    const Signal32 input = makeNoise(2, 1000, 12);
    for (const Sizes& sizes : {Sizes{64, 64, 0},
                               {64, 64, -1},
                               {64, 65, 16},
                               {0, 64, 16},
                               {-64, 64, 32},
                               {64, 64, 64},
                               {64, 64, 33},
                               {64, 64, 100},
                               {64, 10, 1000}}) {
        SCOPED_TRACE(testing::Message() << sizes);
        StepProcessor processor;
        prepare(processor, sizes, 2, 2);
        EXPECT_THROW(for (int i = 0; i < 4; ++i) processor.process(input), std::exception);
        processor.setBlocking(64, 64, 32);
        EXPECT_EQ(processor.process(input).numOfSamples, 960);
    }

    const auto shape = [](int numOfChannels, int numOfBins) {
        return [=](const ComplexSignal32&) {
            return std::list<ComplexSignal32>{ComplexSignal32(numOfChannels, numOfBins, 1.0f)};
        };
    };
    for (const Sizes& sizes : {Sizes{64, 64, 16}, {64, 48, 24}})
        for (const Step& step : std::initializer_list<Step>{shape(1, 33), shape(3, 33), shape(0, 33),
                                                            shape(2, 9), shape(2, 1), shape(2, 0)}) {
            StepProcessor processor;
            processor.step = step;
            prepare(processor, sizes, 2, 2);
            EXPECT_THROW(processor.process(input), std::exception);
        }

    StepProcessor processor;
    prepare(processor, {64, 64, 16}, 2, 2);
    EXPECT_THROW(processor.processBlock(makeNoise(3, 64, 13)), std::exception);
    EXPECT_THROW(processor.processBlock(makeNoise(2, 65, 13)), std::exception);
    EXPECT_THROW(processor.processBlock(Signal32()), std::exception);
    EXPECT_EQ(processor.processBlock(makeNoise(2, 64, 13)).size(), 1u);
}

TEST(BaseSpectralProcessor, aChangeOfChannelsLosesWhatIsQueued) {
    StepProcessor processor;
    prepare(processor, {64, 64, 16}, 2, 2);
    processor.process(makeNoise(2, 20, 14));
    processor.process(makeNoise(1, 10, 15));
    EXPECT_EQ(processor.inputQueue.numOfSamples, 10);
    EXPECT_EQ(processor.inputQueue.numOfChannels, -1);
}

// Audio of a file through a host's eyes: an output that starts with getLatency zeros and then always has
// the samples that a block brought. The file that comes back is the first one, later by the latency.
TEST(BaseSpectralProcessor, aSoundFileComesBackDelayedByTheLatencyToWithinMinus120Decibels) {
    const TemporaryFolder folder;
    const int length = 3 * 48000, sampleRate = 48000;
    const auto write = [&](const std::string& name, const Signal32& signal) {
        SF_INFO info{};
        info.channels = signal.numOfChannels;
        info.samplerate = sampleRate;
        info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
        SNDFILE* file = sf_open(folder.getPath(name).c_str(), SFM_WRITE, &info);
        std::vector<float> frame(static_cast<std::size_t>(signal.numOfChannels));
        for (int i = 0; i < signal.numOfSamples; ++i) {
            for (int c = 0; c < signal.numOfChannels; ++c) frame[c] = signal.getReadChannelPtr(c)[i];
            EXPECT_EQ(sf_writef_float(file, frame.data(), 1), 1);
        }
        sf_close(file);
    };
    const auto read = [&](const std::string& name) {
        SF_INFO info{};
        SNDFILE* file = sf_open(folder.getPath(name).c_str(), SFM_READ, &info);
        Signal32 signal(info.channels, static_cast<int>(info.frames));
        std::vector<float> frame(static_cast<std::size_t>(info.channels));
        for (int i = 0; i < signal.numOfSamples; ++i) {
            EXPECT_EQ(sf_readf_float(file, frame.data(), 1), 1);
            for (int c = 0; c < signal.numOfChannels; ++c) signal.getWriteChannelPtr(c)[i] = frame[c];
        }
        sf_close(file);
        return signal;
    };

    // A rising tone over noise, at full scale: 20 Hz to 20 kHz, exponential.
    Signal32 original = makeNoise(2, length, 16);
    for (int c = 0; c < 2; ++c)
        for (int i = 0; i < length; ++i) {
            const double rate = std::log(1000.0) / length;
            const double phase = 2.0 * std::numbers::pi * 20.0 / sampleRate * std::expm1(rate * i) / rate;
            float& sample = original.getWriteChannelPtr(c)[i];
            sample = static_cast<float>(0.7 * std::sin(phase + c) + 0.3 * sample);
        }
    write("in.wav", original);

    for (const Sizes& sizes : {Sizes{2048, 2048, 1024}, {2048, 2048, 512}}) {
        StepProcessor processor;
        prepare(processor, sizes, 2, 2);
        const int latency = processor.getLatency(1);  // blocks are not whole hops
        SignalQueue<Signal32> output;
        output.add(Signal32(2, latency, 0.0f));
        SignalQueue<Signal32> input;
        input.add(read("in.wav"));
        input.add(Signal32(2, latency, 0.0f));
        SignalQueue<Signal32> delivered;
        const auto nextLength = inRandomBlocks(17);
        while (input.numOfSamples > 0) {
            const int count = static_cast<int>(std::min<std::int64_t>(nextLength(), input.numOfSamples));
            output.add(processor.process(input.get(count)));
            ASSERT_GE(output.numOfSamples, count) << "the output ran dry";
            delivered.add(output.get(count));
        }
        write("out.wav", delivered.get(length + latency));

        const Signal32 result = read("out.wav");
        ASSERT_EQ(result.numOfSamples, length + latency);
        double worst = 0.0;
        for (int c = 0; c < 2; ++c) {
            const float* row = result.getReadChannelPtr(c);
            for (int i = 0; i < latency; ++i) ASSERT_EQ(row[i], 0.0f);
            for (int i = 0; i < length; ++i)
                worst =
                    std::max(worst, std::abs(double{row[latency + i]} - original.getReadChannelPtr(c)[i]));
        }
        const double level = 20.0 * std::log10(worst);
        RecordProperty("peakErrorInDecibels" + std::to_string(sizes.hop), std::to_string(level));
        EXPECT_LT(level, -120.0) << sizes;
    }
}

}  // namespace
}  // namespace zevrant
