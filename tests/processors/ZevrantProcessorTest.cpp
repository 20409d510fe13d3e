// Private members are reached with access control off.
#include "processors/ZevrantProcessor.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <complex>
#include <limits>
#include <stdexcept>

#include "TestModels.h"
#include "TestSignals.h"
#include "files/TemporaryFolder.h"

namespace zevrant {
namespace {

using Complex = std::complex<double>;

class ZevrantProcessorTest : public testing::Test {
  protected:
    File makeModel(const TestModel& model) {
        const std::string path = folder.getPath("model" + std::to_string(numOfFiles++));
        describeModel(model).write(path);
        return File(path);
    }

    // A processor on these files, with a host of this many channels.
    static void prepare(ZevrantProcessor& processor, const std::vector<File>& files, int numOfChannels = 1,
                        double sampleRate = 48000.0) {
        ASSERT_TRUE(processor.loadModelFiles(files));
        const AudioFormat format = makeFormat(numOfChannels, sampleRate);
        ASSERT_TRUE(processor.setFormat(format, format));
    }

    TemporaryFolder folder;
    int numOfFiles = 0;
};

// ---- loading and formats ----------------------------------------------------------------------

TEST_F(ZevrantProcessorTest, modelsHaveToAgreeInAllButTheTransform) {
    const TestModel usual{.channels = 2};
    const std::pair<TestModel, bool> cases[] = {
        {{.channels = 2, .fftSize = 512}, true},        {{.channels = 2, .busGains = {1.0f, 0.5f}}, true},
        {{.channels = 2, .processingMode = 1}, true},   {{.channels = 2, .windowSize = 128}, false},
        {{.channels = 2, .hopSize = 128}, false},       {{.channels = 1}, false},
        {{.channels = 2, .sampleRate = 44100.0}, false}};
    for (const auto& [model, loads] : cases)
        EXPECT_EQ(ZevrantProcessor().loadModelFiles({makeModel(usual), makeModel(model)}), loads)
            << "case " << numOfFiles / 2;
    EXPECT_FALSE(ZevrantProcessor().loadModelFiles({makeModel(usual), File(folder.getPath("none"))}));
    EXPECT_FALSE(ZevrantProcessor().loadModelFiles({File(folder.makeFile("text", "no model"))}));
}

TEST_F(ZevrantProcessorTest, withoutModelsNoFormatCanBeSet) {
    ZevrantProcessor processor;
    EXPECT_FALSE(processor.setFormat(makeFormat(1), makeFormat(1)));
    EXPECT_TRUE(processor.loadModelFiles({}));
    EXPECT_FALSE(processor.setFormat(makeFormat(1), makeFormat(1)));
    processor.updateBlockSize();
    EXPECT_EQ(processor.windowSize, 0);
    EXPECT_EQ(processor.getNumOfOutputBusses(false), 0);
}

TEST_F(ZevrantProcessorTest, busNamesOfAllModelsFollowEachOther) {
    ZevrantProcessor processor;
    const File first = makeModel({.busGains = {1.0f, 1.0f}, .names = {"A", "B", "R1"}}),
               second = makeModel({.names = {"C", "R2"}});
    for (int round = 0; round < 2; ++round) {  // a second load forgets the first
        ASSERT_TRUE(processor.loadModelFiles({first, second}));
        EXPECT_EQ(processor.getNumOfOutputBusses(true), 5 + 5 * round);  // models keep their own lists
        EXPECT_EQ(processor.getOutputBusName(3), round == 0 ? "C" : "A");
        for (int index : {-1, 10, 1000}) EXPECT_EQ(processor.getOutputBusName(index), "");
    }
}

// Below the model's rate the exponent is the smallest that reaches the ratio, from there on the nearest.
TEST_F(ZevrantProcessorTest, frameSizesFollowTheRateByAPowerOfTwo) {
    ZevrantProcessor processor;
    ASSERT_TRUE(processor.loadModelFiles({makeModel({.fftSize = 256, .windowSize = 250, .hopSize = 70})}));
    std::vector<double> ratios{0.5, 0.91875, 1.0, 1.5, 2.0, 4.0, 0.25, std::nextafter(1.0, 0.0)};
    for (double ratio = 0.06; ratio < 20.0; ratio *= 1.0321) ratios.push_back(ratio);
    for (double ratio : ratios) {
        int exponent = -10;
        if (ratio < 1.0)
            while (std::ldexp(1.0, exponent) < ratio) ++exponent;
        else
            while (std::ldexp(1.0, exponent) * std::sqrt(2.0) <= ratio) ++exponent;
        const double factor = std::ldexp(1.0, exponent);
        ASSERT_TRUE(processor.setFormat(makeFormat(1, ratio * 48000.0), makeFormat(1, ratio * 48000.0)));
        EXPECT_EQ(processor.blockSizeExponent, exponent) << ratio;
        EXPECT_EQ(processor.fftSize, std::lrint(256 * factor)) << ratio;
        EXPECT_EQ(processor.windowSize, std::lrint(250 * factor)) << ratio;
        EXPECT_EQ(processor.hopSize, std::lrint(70 * factor)) << ratio;
    }
    // Ties go to the even number: 250 / 4 = 62.5 and 70 / 4 = 17.5.
    ASSERT_TRUE(processor.setFormat(makeFormat(1, 12000.0), makeFormat(1, 12000.0)));
    EXPECT_EQ(processor.windowSize, 62);
    EXPECT_EQ(processor.hopSize, 18);
    ASSERT_TRUE(processor.loadModelFiles({makeModel({.hopSize = 32})}));
    EXPECT_EQ(processor.hopSize, 8) << "another model follows the format that is set";
}

TEST_F(ZevrantProcessorTest, oddRatesEndInNoFormatOrAnException) {
    ZevrantProcessor processor;
    ASSERT_TRUE(processor.loadModelFiles({makeModel({})}));
    const auto set = [&](double rate) {
        return processor.setFormat(makeFormat(1, rate), makeFormat(1, rate));
    };
    for (double rate : {0.0, -48000.0, std::numeric_limits<double>::quiet_NaN()}) {
        EXPECT_TRUE(set(rate));
        EXPECT_EQ(processor.blockSizeExponent, 0);
        EXPECT_THROW(processor.process(Signal32(1, 4096, 0.0f)), std::exception);
    }
    for (double rate : {std::numeric_limits<double>::infinity(), 1e300, 1e13})
        EXPECT_THROW(set(rate), std::length_error) << rate;
    // Far below the model's rate nothing is left of a window: audio passes.
    EXPECT_TRUE(set(1e-300));
    EXPECT_EQ(processor.process(Signal32(1, 100, 0.5f)).numOfSamples, 100);
}

TEST_F(ZevrantProcessorTest, latencyIsTheFramingAndTheSlowestModel) {
    for (int hopSize : {64, 128})  // windows of four and of two hops
        for (int first : {0, 1, 5})
            for (int second : {0, 3}) {
                ZevrantProcessor processor;
                prepare(processor,
                        {makeModel({.hopSize = hopSize, .delay = first}),
                         makeModel({.hopSize = hopSize, .delay = second})},
                        1, 96000.0);
                const int hop = 2 * hopSize, framing = hopSize == 64 ? 2 : 1;
                EXPECT_EQ(processor.getLatency(hop), (framing + std::max(first, second)) * hop);
                EXPECT_EQ(processor.getLatency(1), (framing + 1 + std::max(first, second)) * hop);
                processor.neuralModels[0].latencyInFrames = std::numeric_limits<int>::max();
                EXPECT_THROW(processor.getLatency(1), std::length_error);
                processor.neuralModels[0].latencyInFrames = processor.neuralModels[1].latencyInFrames = -5;
                EXPECT_EQ(processor.getLatency(hop), framing * hop) << "never less than none";
            }
}

// ---- one frame --------------------------------------------------------------------------------

TEST_F(ZevrantProcessorTest, resultsThatDoNotFillTheirBussesAreRefused) {
    ZevrantProcessor processor;
    processor.modelOutputFormat = makeFormat(2);
    processor.outputBusNames = {"A", "B", "C", "R"};
    processor.busOutputs.resize(3);
    const auto append = [&](int first, int numOfBusses, int numOfRows) {
        processor.appendToBusOutputs(first, numOfBusses, {noiseSpectrum(numOfRows, 9, 1)});
        return first;
    };
    EXPECT_EQ(append(1, 2, 5), 3) << "more rows than are used";
    EXPECT_THROW(append(1, 2, 3), std::out_of_range);
    EXPECT_THROW(append(2, 2, 4), std::out_of_range);
    EXPECT_EQ(append(2, -3, 4), -1) << "no busses: only the index moves";
    EXPECT_THROW(append(-1, 1, 4), std::out_of_range);
    EXPECT_TRUE(processor.busOutputs[0].empty() && processor.busOutputs[2].size() == 1);
    EXPECT_THROW(processor.ensureChannelFormat(ComplexSignal32(), 2), std::exception);
}

// The formula of a sensitivity in double, for masks that are far from its steep parts.
Complex shape(float sensitivity, Complex mask) {
    const double m = std::abs(mask), curve = std::exp(0.0075 * sensitivity);
    if (m == 0.0) return 0.0;
    const double base = curve < 1.0 ? m + 1e-12 : 0.5 - 0.5 * std::cos(m * M_PI) + 1e-12;
    return mask * std::pow(base, curve - 1.0);
}

// What the processor makes of a frame, from the model's own results, bin by bin in double.
struct FrameOracle {
    ZevrantProcessor& processor;
    int hostChannels, modelChannels, numOfBusses;
    bool spectra;

    Complex adapt(const ComplexSignal32& signal, int first, int count, int wanted, int c, int i) const {
        if (count == wanted) return signal.getReadChannelPtr(first + c)[i];
        Complex mean = 0.0;
        for (int k = 0; k < count; ++k)
            mean += Complex(signal.getReadChannelPtr(first + k)[i]) / double(count);
        return mean;
    }

    // Every bus in turn, the residual at the end.
    std::vector<Complex> calc(const ComplexSignal32& frame, const ComplexSignal32& result, int c,
                              int i) const {
        const Complex in = frame.getReadChannelPtr(c)[i], whole = spectra ? in : 1.0;
        Complex sum = 0.0;
        std::vector<Complex> busses;
        for (int bus = 0; bus <= numOfBusses; ++bus) {
            Complex value = bus == numOfBusses
                                ? whole - sum
                                : adapt(result, bus * modelChannels, modelChannels, hostChannels, c, i);
            if (!spectra) value = shape(processor.getSensitivity(bus), value);
            sum += value;
            busses.push_back(double{processor.getGain(bus)} * value * (spectra ? 1.0 : in));
        }
        return busses;
    }
};

// A receiver gets each bus, and listening changes nothing.
TEST_F(ZevrantProcessorTest, aFrameIsTheMixOfItsBusses) {
    const std::vector three{0.45f, 0.25f, 0.15f};
    for (const TestModel& description :
         {TestModel{.channels = 1, .busGains = {0.6f}},
          TestModel{.channels = 2, .delay = 2, .busGains = three},
          TestModel{.channels = 1, .delay = 2, .processingMode = 1, .busGains = three},
          TestModel{.channels = 2, .processingMode = -3, .busGains = {0.6f}}})
        for (int hostChannels : {1, 2, 3}) {
            const int numOfBusses = static_cast<int>(description.busGains.size());
            SCOPED_TRACE(testing::Message() << "mode " << description.processingMode << ", " << hostChannels
                                            << " channels on " << description.channels << ", " << numOfBusses
                                            << " busses, delay " << description.delay);
            const File file = makeModel(description);
            ZevrantProcessor processor, listening;
            for (ZevrantProcessor* each : {&processor, &listening}) {
                prepare(*each, {file}, hostChannels);
                for (int bus = 0; bus <= numOfBusses; ++bus) {
                    each->setGain(bus, 0.3f + 0.4f * static_cast<float>(bus));
                    each->setSensitivity(bus, 40.0f - 30.0f * static_cast<float>(bus));
                }
            }
            std::vector<ComplexSignal32> received;
            listening.setBusReceiver([&](int bus, const ComplexSignal32& spectrum) {
                EXPECT_EQ(bus, static_cast<int>(received.size()));
                received.push_back(spectrum);
            });
            NeuralModel<float> model;
            ASSERT_TRUE(model.loadModel(file));
            const FrameOracle oracle{processor, hostChannels, description.channels, numOfBusses,
                                     description.processingMode != 0};
            std::list<ComplexSignal32> frames;
            for (unsigned n = 0; n < 6; ++n) {
                frames.push_back(noiseSpectrum(hostChannels, 129, n, 2.0f));
                received.clear();
                const auto output = processor.process(frames.back()),
                           usual = listening.process(frames.back());
                const auto results =
                    model.process(processor.ensureChannelFormat(frames.back(), description.channels));
                ASSERT_EQ(output.size(), n < static_cast<unsigned>(description.delay) ? 0u : 1u);
                ASSERT_EQ(usual.size(), output.size());
                ASSERT_EQ(received.size(), output.empty() ? 0u : static_cast<std::size_t>(numOfBusses + 1));
                if (output.empty()) continue;
                EXPECT_EQ(rowsOf(output.front()), rowsOf(usual.front()));
                double error = 0.0;
                for (int c = 0; c < hostChannels; ++c)
                    for (int i = 0; i < 129; ++i) {
                        Complex mix = output.front().getReadChannelPtr(c)[i];
                        std::size_t bus = 0;
                        for (const Complex& part : oracle.calc(frames.front(), results.at(0), c, i)) {
                            mix -= part;
                            const Complex alone = received[bus++].getReadChannelPtr(c)[i];
                            error = std::max(error, std::abs(alone - part));
                        }
                        error = std::max(error, std::abs(mix));
                    }
                EXPECT_LT(error, 2e-5);
                frames.pop_front();
            }
        }
}

// None leaves an empty frame, more than the controls stop it.
TEST_F(ZevrantProcessorTest, oddNumbersOfBusses) {
    ZevrantProcessor processor;
    describeModel({}).setBusses({"Residual"}).write(folder.getPath("none"));
    prepare(processor, {File(folder.getPath("none"))});
    EXPECT_EQ(processor.process(noiseSpectrum(1, 129, 1)).front().numOfChannels, 0);
    EXPECT_THROW(processor.process(Signal32(1, 1024, 0.0f)), std::exception);
    for (std::size_t numOfBusses : {15u, 16u}) {
        ZevrantProcessor many;
        prepare(many, {makeModel({.busGains = std::vector(numOfBusses, 0.01f)})});
        if (numOfBusses == 15)
            EXPECT_EQ(many.process(noiseSpectrum(1, 129, 1)).size(), 1u);
        else
            EXPECT_THROW(many.process(noiseSpectrum(1, 129, 1)), std::out_of_range);
    }
}

// ---- several models ---------------------------------------------------------------------------

TEST_F(ZevrantProcessorTest, severalModelsWaitForBussesThatNoneFills) {
    ZevrantProcessor processor;
    const File file = makeModel({.delay = 1, .processingMode = 1});
    prepare(processor, {file, file, file});
    processor.setMaskExtrapolationEnabled(false);
    ASSERT_EQ(processor.busOutputs.size(), 5u);
    for (std::size_t n = 1; n <= 40; ++n) {
        EXPECT_TRUE(processor.process(noiseSpectrum(1, 129, static_cast<unsigned>(n))).empty());
        EXPECT_EQ(processor.inputFrames.size(), n);
        // Each file fills the lists after those of the file before it.
        for (std::size_t list = 0; list < 5; ++list)
            EXPECT_EQ(processor.busOutputs[list].size(), list < 3 ? n - 1 : 0u);
    }
    EXPECT_FALSE(processor.neuralModels[2].maskExtrapolationEnabled);
    processor.reset();
    EXPECT_TRUE(processor.inputFrames.empty());
    processor.process(noiseSpectrum(1, 129, 1));  // which every model keeps back
    for (const auto& list : processor.busOutputs) EXPECT_TRUE(list.empty());

    // The threads of the pool flush denormals, which this one does not.
    for (int i = 0; i < 2; ++i) processor.process(ComplexSignal32(1, 129, {FLT_MIN / 2.0f, -FLT_MIN / 2.0f}));
    EXPECT_EQ(rowsOf(processor.busOutputs[0].back()), rowsOf(ComplexSignal32(1, 129, 0.0f)));
}

// Two busses: the model fills the first, nothing the second until the test does.
TEST_F(ZevrantProcessorTest, aListThatStaysEmptyKeepsMemoryBoundedAndFramesAligned) {
    ZevrantProcessor processor;
    const TestModel options{.fftSize = 32, .windowSize = 32, .hopSize = 16, .processingMode = 1};
    ASSERT_TRUE(processor.loadModelFiles({makeModel(options)}));
    processor.outputBusNames.push_front("Late");
    ASSERT_TRUE(processor.setFormat(makeFormat(1), makeFormat(1)));
    ASSERT_EQ(processor.busOutputs.size(), 2u);
    const auto makeFrame = [](int n) { return noiseSpectrum(1, 17, static_cast<unsigned>(n)); };
    constexpr int bound = static_cast<int>(ZevrantProcessor::mostFrames), excess = 100;
    for (int n = 0; n < bound + excess; ++n) EXPECT_TRUE(processor.process(makeFrame(n)).empty());
    EXPECT_EQ(processor.inputFrames.size(), std::size_t{bound});
    EXPECT_EQ(processor.busOutputs[0].size(), std::size_t{bound});
    EXPECT_EQ(rowsOf(processor.inputFrames.front()), rowsOf(makeFrame(excess)));
    EXPECT_EQ(rowsOf(processor.busOutputs[0].front()), rowsOf(makeFrame(excess)));

    // The late results come at last, from the first frame on: those of dropped frames are dropped.
    for (int n = 0; n < excess + 3; ++n) {
        int busIndex = 1;
        processor.appendToBusOutputs(busIndex, 1, {makeFrame(n)});
    }
    ASSERT_EQ(processor.busOutputs[1].size(), 3u);
    EXPECT_EQ(rowsOf(processor.busOutputs[1].front()), rowsOf(makeFrame(excess)));

    // A list that is filled without end is bounded as well.
    for (int n = 0; n < bound + excess; ++n) {
        int busIndex = 1;
        processor.appendToBusOutputs(busIndex, 1, {makeFrame(0)});
    }
    EXPECT_EQ(processor.busOutputs[1].size(), std::size_t{bound});
    processor.numOfOutdatedResults[1] = 3;
    processor.reset();
    int busIndex = 1;
    processor.appendToBusOutputs(busIndex, 1, {makeFrame(0)});
    EXPECT_EQ(processor.busOutputs[1].size(), 1u) << "nothing is outdated behind a reset";
}

TEST_F(ZevrantProcessorTest, whatAModelThrowsInThePoolArrivesWhenAllModelsAreDone) {
    auto failing = describeModel({});
    failing.setPacking(modelwriter::Packing::frameHistory(0, 129, 1));
    failing.write(folder.getPath("failing"));
    const File good = makeModel({}), bad(folder.getPath("failing"));
    for (const auto& files : {std::vector{good, bad}, std::vector{bad, good, good}}) {
        ZevrantProcessor processor;
        prepare(processor, files);
        for (unsigned n = 0; n < 50; ++n) {
            EXPECT_THROW(processor.process(noiseSpectrum(1, 129, n)), std::runtime_error);
            processor.reset();  // would race with a model that still runs
        }
    }
}

}  // namespace
}  // namespace zevrant
