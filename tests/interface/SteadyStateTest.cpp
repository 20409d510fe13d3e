// What streams ask the system for: no memory and no lock, handles from their first block on.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <list>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "AllocationCounter.h"
#include "AudioHost.h"
#include "DspCore/FourierTransform.h"
#include "DspCore/RecyclingPool.h"
#include "DspCore/SampleRateConversion.h"
#include "TestSignals.h"
#include "interface/ProcessorState.h"
#include "neural/MemoryStream.h"
#include "neural/ModelOfAllLayers.h"
#include "neural/NeuralModel.h"
#include "neural/RandomGraph.h"
#include "processors/BaseSpectralProcessor.h"

namespace zevrant {
namespace {

using namespace modelwriter;

class SteadyState : public testing::Test {
  protected:
    void SetUp() override {
        if (!allocationsAreRecycled()) GTEST_SKIP() << "every request goes to the system in this build";
    }

    // Requests and locks of this thread while a step runs.
    template <class Step>
    static std::int64_t count(Step step) {
        const std::int64_t before = countAllocations() + countLocks();
        step();
        return countAllocations() + countLocks() - before;
    }

    // Those of the second half of a stream of steps.
    template <class Step>
    static std::int64_t count(int numOfSteps, Step step) {
        for (int i = 0; i < numOfSteps / 2; ++i) step();
        return count([&] {
            for (int i = numOfSteps / 2; i < numOfSteps; ++i) step();
        });
    }
};

TEST_F(SteadyState, theCountersSeeNewAndMallocAndLocksOfTheEngine) {
    const auto before = countAllocations();
    const auto* values = new std::vector<int>(3);
    EXPECT_GE(countAllocations(), before + 2);
    delete values;
    const auto between = countAllocations();
    FourierTransform().allocate(1024, true);  // takes its tables with malloc
    EXPECT_GT(countAllocations(), between);

    SampleRateConversion conversion;
    conversion.setFormat(makeFormat(1), makeFormat(1));
    const auto locks = countLocks();
    conversion.reset();  // under its lock
    EXPECT_EQ(countLocks(), locks + 1);
}

// Of 96 blocks of a mebibyte that a thread has freed, it keeps 64 for its next requests.
TEST_F(SteadyState, aThreadKeepsNoMoreFreeBlocksThanItsBound) {
    std::thread([] {
        std::vector<void*> blocks(96);
        for (int round = 0; round < 2; ++round) {
            const auto before = countAllocations();
            for (void*& block : blocks) block = allocateRecycled(std::size_t{1} << 20);
            EXPECT_EQ(countAllocations() - before, round == 0 ? 96 : 32);
            for (void* block : blocks) freeRecycled(block, std::size_t{1} << 20);
        }
    }).join();
}

TEST_F(SteadyState, alternatingTransforms) {
    for (int size : {2, 8, 32, 2048}) {
        FourierTransform transform;
        const Signal32 samples(2, size, 1.0f);
        const ComplexSignal32 column(2, size, 1.0f);
        ComplexSignal32 bins(2, size / 2 + 1), out(2, size);
        EXPECT_EQ(count(4,
                        [&] {
                            transform.forwardReal(samples, bins);
                            transform.forwardComplex(column, out);
                            transform.inverseComplex(column, out);
                            const Signal32 result = transform.inverseReal(transform.forwardReal(samples));
                        }),
                  0)
            << size;
    }
}

// A step that makes its results with the nodes of the base class, or brings its own.
class NodeStep : public BaseSpectralProcessor {
  public:
    using BaseSpectralProcessor::process;
    std::list<ComplexSignal32> process(const ComplexSignal32& spectrum) override {
        if (bringsNodes) return {spectrum};
        std::list<ComplexSignal32> results;
        for (int i = numOfFrames++ % 3; i > 0; --i) resultNodes.append(results, spectrum);
        return results;
    }
    std::size_t numOfReservedNodes() const { return resultNodes.numOfNodes(); }

    bool bringsNodes = false;
    int numOfFrames = 0;
};

// Steady means that every length of block and of output has come by once: a second pass over the same blocks
// asks for nothing.
TEST_F(SteadyState, framingInBlocksOfAnyLength) {
    struct Sizes {
        int fft, window, hop;
    };
    for (const Sizes& sizes : {Sizes{2048, 2048, 512}, {2048, 1024, 512}, {64, 48, 16}})
        for (unsigned longest : {1u, 480u, 5000u}) {
            NodeStep processor;
            processor.setFormat(makeFormat(2), makeFormat(2));
            processor.setBlocking(sizes.fft, sizes.window, sizes.hop);
            EXPECT_EQ(count(4,
                            [&] {
                                processor.reset();
                                processor.numOfFrames = 0;
                                std::mt19937 engine(1);
                                for (int total = 0, length = 0; total < 20000; total += length) {
                                    length = 1 + static_cast<int>(engine() % longest);
                                    processor.process(Signal32(2, length, 0.5f));
                                }
                            }),
                      0)
                << sizes.fft << "/" << sizes.window << "/" << sizes.hop << " in blocks of " << longest;
        }
    NodeStep generous;  // whose nodes are not hoarded
    generous.bringsNodes = true;
    generous.setFormat(makeFormat(2), makeFormat(2));
    generous.setBlocking(64, 64, 16);
    for (int i = 0; i < 1000; ++i) generous.process(Signal32(2, 64, 0.5f));
    EXPECT_LE(generous.numOfReservedNodes(), 64u);
}

// One block at a time takes the converter's own lock, and nothing else.
TEST_F(SteadyState, rateConversion) {
    for (double inputRate : {44100.0, 48000.0})
        for (double outputRate : {16000.0, 44100.0, 48000.0})
            for (int blockSize : {1, 333, 4096}) {
                SampleRateConversion conversion;
                conversion.setFormat(makeFormat(2, inputRate), makeFormat(2, outputRate));
                EXPECT_EQ(count(500, [&] { conversion.process(Signal32(2, blockSize, 0.5f)); }), 250)
                    << inputRate << " to " << outputRate << " in blocks of " << blockSize;
            }
}

TEST_F(SteadyState, framesThroughAllLayersAndTwoRates) {
    // Down to half the frames and up again, beside a branch that waits for it in a queue.
    ModelWriter rates("");
    rates.setChannels(2, 2).setPacking(Packing::magnitudes(8));
    rates.addLayer("down", "input", Conv{.weights = makeWeights({2, 3, 2, 4}), .timeStride = 2});
    rates.addLayer("up", "down", TransposedConv{.weights = makeWeights({2, 3, 2, 4}), .timeStride = 2});
    rates.addLayer("sum", {"up", "input"}, Arithmetic{}).setOutput("sum");
    for (const Bytes& bytes :
         {makeModelOfAllLayers(0x100a, TensorStorage::SinglePrecision, Packing::magnitudes(9)),
          makeModelOfAllLayers(0x100a, TensorStorage::HalfPrecision, Packing::complexGroups(3, 12, 2)),
          makeModelOfAllLayers(0x1004, TensorStorage::SinglePrecision, Packing::complexBins(9)),
          ModelWriter("")
              .setChannels(2, 2)
              .setPacking(Packing::rectifiedParts(2, 7))
              .setOutput("input")
              .toBytes(),
          rates.toBytes()}) {
        NeuralModel<float> model;
        ASSERT_TRUE(model.loadModel(streamOver(bytes)));
        std::vector<ComplexSignal32> results;
        std::size_t numOfResults = 0;
        EXPECT_EQ(count(200,
                        [&] {
                            model.process(ComplexSignal32(2, 17, {0.5f, -0.25f}), results);
                            numOfResults += results.size();
                        }),
                  0);
        EXPECT_GT(numOfResults, 90u);
    }
}

// What a host's calls ask for that adds blocks of these lengths and takes what is ready after each, on this
// thread or on a new one.
std::int64_t countRequestsOfHost(ProcessorState* handle, const std::vector<int>& lengths,
                                 bool takesElsewhere) {
    static const Audio sound = makeNoise(2, ProcessorState::longestBlock, 3);
    static std::vector<float> taken(4 * std::size_t{ProcessorState::longestBlock});
    const float* in[] = {sound[0].data(), sound[1].data()};
    float* const out[] = {taken.data(), taken.data() + taken.size() / 2};
    std::int64_t numOfRequests = 0;
    const auto counted = [&](auto call) {
        const std::int64_t before = countAllocations() + countLocks();
        call();
        numOfRequests += countAllocations() + countLocks() - before;
    };
    const auto take = [&] {
        counted([&] { zevrantGetAudio(handle, out, zevrantGetNumOfPendingSamples(handle)); });
    };
    for (int length : lengths) {
        counted([&] { zevrantAddAudio(handle, in, length); });
        if (takesElsewhere)
            std::thread(take).join();
        else
            take();
    }
    return numOfRequests;
}

// Every layer, branches of other rates and delays, and the models that ship.
TEST_F(SteadyState, aHandleFromItsFirstBlockOn) {
    const TemporaryFolder folder;
    std::vector<std::string> paths;
    for (const char* name : {"center-sides", "harmonic-percussive", "hiss-reduction"})
        paths.push_back(std::string(MODELS_FOLDER "/") + name + ".zevrant");
    const auto addModel = [&](const Bytes& bytes) {
        paths.push_back(
            folder.makeFile("model" + std::to_string(paths.size()), {bytes.begin(), bytes.end()}));
    };
    addModel(makeModelOfAllLayers(0x100a, TensorStorage::SinglePrecision, Packing::magnitudes(9)));
    addModel(makeModelOfAllLayers(0x100a, TensorStorage::HalfPrecision, Packing::complexGroups(3, 12, 2)));
    addModel(makeModelOfAllLayers(0x1004, TensorStorage::SinglePrecision, Packing::complexBins(9)));
    for (int stride : {2, 3, 7}) {
        ModelWriter rates("rates");
        rates.setSampleRate(48000).setFrames(64, 64, 16).setChannels(2, 2).setPacking(Packing::magnitudes(8));
        rates.addLayer("down", "input", Conv{.weights = makeWeights({3, 3, 2, 4}), .timeStride = stride});
        rates.addLayer("up", "down",
                       TransposedConv{.weights = makeWeights({3, 3, 2, 4}), .timeStride = stride});
        rates.addLayer("late", "input", Conv{.weights = makeWeights({4, 1, 2, 2}), .timeOffset = 5 * stride});
        rates.addLayer("sum", {"up", "input", "late"}, Arithmetic{Arithmetic::Add}).setOutput("sum");
        addModel(rates.toBytes());
    }
    for (unsigned seed = 1; seed <= 20; ++seed) {
        test::RandomGraph graph(seed);
        const auto& input = graph.getInput();
        if (graph.getOutput().numOfFrequencies < input.numOfFrequencies) continue;  // too few to unpack
        graph.writer.setFrames(64, 64, 32).setChannels(input.numOfChannels, 1);
        addModel(graph.writer.setPacking(Packing::magnitudes(input.numOfFrequencies)).toBytes());
    }

    std::mt19937 random(1);
    for (const std::string& path : paths)
        for (int length : {1, 479, ProcessorState::longestBlock, 0}) {
            std::vector<int> lengths(length == 1 ? 5000 : 20, length);
            if (length == 0)
                for (int& drawn : lengths)
                    drawn = 1 + static_cast<int>(random() % ProcessorState::longestBlock);
            for (double sampleRate : {48000.0, 96000.0}) {
                ProcessorState* handle = zevrantCreateProcessor(path.c_str(), 2, sampleRate);
                ASSERT_NE(handle, nullptr) << path;
                for (int round = 0; round < 4; ++round) {
                    zevrantSetParameterValue(handle, 512, round % 2 == 0 ? 0.0f : 30.0f);
                    const bool takesElsewhere = round >= 2 && length != 1;
                    EXPECT_EQ(countRequestsOfHost(handle, lengths, takesElsewhere), 0)
                        << path << ", blocks of " << length << ", round " << round;
                    zevrantResetProcessorState(handle);
                }
                zevrantDeleteProcessor(handle);
            }
        }
}

TEST_F(SteadyState, aHandleWithAnyControlsAndFormat) {
    ModelFolder models;
    for (int mode : {0, 1})
        for (int channels : {1, 2})
            for (float sensitivity : {0.0f, -30.0f, 30.0f})
                for (int blockSize : {64, 100, 1024}) {
                    AudioHost host = models.open(
                        {.delay = 2, .processingMode = mode, .busGains = {0.4f, 0.3f}}, channels, 48000.0);
                    ProcessorState* handle = host.handle.get();
                    for (int id : {512, 513, 514}) zevrantSetParameterValue(handle, id, sensitivity);
                    std::vector<float> samples(static_cast<std::size_t>(channels * blockSize), 0.1f);
                    const float* in[] = {samples.data(), samples.data()};
                    float* const out[] = {samples.data(), samples.data() + samples.size() - blockSize};
                    const auto inRows = [&] {
                        zevrantAddAudio(handle, in, blockSize);
                        while (zevrantGetAudio(handle, out, blockSize)) {
                        }
                    };
                    const auto interleaved = [&] {
                        zevrantAddAudioInterleaved(handle, samples.data(), blockSize);
                        while (zevrantGetAudioInterleaved(handle, samples.data(), blockSize)) {
                        }
                    };
                    EXPECT_EQ(count([&] {
                                  for (int i = 0; i < 200; ++i) inRows(), interleaved();
                              }),
                              0)
                        << "mode " << mode << ", " << channels << " channels, sensitivity " << sensitivity
                        << ", blocks of " << blockSize;
                }
}

// Which starts with the first tensors: only they tell their shape.
TEST_F(SteadyState, tensorsThroughAHandle) {
    ModelFolder models;
    ModelState* model = zevrantCreateModel(models.write({.channels = 2, .delay = 1}).c_str());
    const int shape[] = {1, 129, 2};
    std::vector<float> tensor(258, 0.5f);
    EXPECT_EQ(count(20,
                    [&] {
                        zevrantAddTensor(model, tensor.data(), 3, shape);
                        zevrantGetTensor(model, tensor.data());
                    }),
              0);
    zevrantDeleteModel(model);
}

// What a host does with a handle, from create to delete, with everything that it took out.
std::vector<float> liveOnce(const std::string& path) {
    struct Deleter {
        void operator()(ProcessorState* handle) const { zevrantDeleteProcessor(handle); }
        void operator()(ModelState* handle) const { zevrantDeleteModel(handle); }
    };
    std::vector<float> noise = makeNoise(1, 400, 7)[0], taken(400), all;
    const float* in[] = {noise.data(), noise.data()};
    float* const out[] = {taken.data(), taken.data()};
    const std::unique_ptr<ProcessorState, Deleter> processor(
        zevrantCreateProcessor(path.c_str(), 2, 48000.0));
    const auto stream = [&] {
        zevrantAddAudio(processor.get(), in, 200);
        zevrantAddAudioInterleaved(processor.get(), noise.data(), 150);
        const int pending = zevrantGetNumOfPendingSamples(processor.get());
        if (zevrantGetAudio(processor.get(), out, pending)) all.insert(all.end(), out[0], out[0] + pending);
    };
    zevrantSetParameterValue(processor.get(), 512, 30.0f);
    try {
        stream();
    } catch (const std::bad_alloc&) {  // a reset mends whatever it has cut short
    }
    all.clear();
    zevrantResetProcessorState(processor.get());
    stream();

    const std::unique_ptr<ModelState, Deleter> model(zevrantCreateModel(path.c_str()));
    const int shape[] = {2, 9, 2};
    for (int i = 0; i < 3; ++i) zevrantAddTensor(model.get(), noise.data(), 3, shape);
    if (zevrantGetTensor(model.get(), taken.data())) all.push_back(taken[0]);
    zevrantResetModelState(model.get());
    return all;
}

// Wherever memory runs out, that is std::bad_alloc or null for the call at hand, and the handle can be
// deleted; under the sanitizers, without a leak. A reset makes a handle as good as new.
TEST(FailingMemory, endsTheCallAndNothingElse) {
    ModelFolder models;
    const std::string path = models.folder.getPath("all");
    ModelWriter rates("rates");
    rates.setSampleRate(48000).setFrames(32, 32, 16).setChannels(2, 2).setPacking(Packing::magnitudes(9));
    rates.addLayer("down", "input", Conv{.weights = makeWeights({2, 3, 2, 4}), .timeStride = 2});
    rates.addLayer("up", "down", TransposedConv{.weights = makeWeights({2, 3, 2, 4}), .timeStride = 2});
    rates.addLayer("sum", {"up", "input"}, Arithmetic{}).setOutput("sum");
    for (const Bytes& bytes :
         {makeModelOfAllLayers(0x100a, TensorStorage::HalfPrecision, Packing::magnitudes(9)),
          rates.toBytes()}) {
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        std::vector<float> expected;
        std::thread([&] { expected = liveOnce(path); }).join();
        ASSERT_GT(expected.size(), 100u);
        bool hasFailed = true;
        int n = 0;
        for (; hasFailed; ++n)
            std::thread([&] {  // whose pool of blocks is empty
                const auto before = countAllocations();
                failAllocationAfter(n);
                try {
                    EXPECT_EQ(liveOnce(path), expected) << "request " << n;
                } catch (const std::bad_alloc&) {
                } catch (const std::exception& error) {
                    ADD_FAILURE() << error.what() << ", request " << n;
                }
                hasFailed = countAllocations() - before > n;
                failAllocationAfter(-1);
            })
                .join();
        EXPECT_GT(n, 300);
    }
}

}  // namespace
}  // namespace zevrant
