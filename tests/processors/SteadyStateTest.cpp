// What the time and frequency road asks the system for once it is running: nothing.
#include <gtest/gtest.h>

#include <complex>
#include <list>
#include <random>
#include <vector>

#include "AllocationCounter.h"
#include "DspCore/FourierTransform.h"
#include "DspCore/SampleRateConversion.h"
#include "TestSignals.h"
#include "processors/BaseSpectralProcessor.h"

namespace zevrant {
namespace {

TEST(AllocationCounter, seesNewAndMallocAlike) {
    const auto before = countAllocations();
    const auto* values = new std::vector<int>(3);
    EXPECT_GE(countAllocations(), before + 2);
    delete values;
    const auto between = countAllocations();
    FourierTransform().allocate(1024, true);  // takes its tables with malloc
    EXPECT_GT(countAllocations(), between);
}

TEST(SteadyState, alternatingTransformsRebuildNothing) {
    if (!allocationsAreRecycled()) GTEST_SKIP();
    for (int size : {2, 8, 32, 2048}) {
        FourierTransform transform;
        const Signal32 samples(2, size, 1.0f);
        const ComplexSignal32 column(2, size, 1.0f);
        ComplexSignal32 bins(2, size / 2 + 1), out(2, size);
        Signal32 back(2, size);
        std::int64_t before = 0;
        for (int round = 0; round < 10; ++round) {
            if (round == 1) before = countAllocations();
            transform.forwardReal(samples, bins);
            transform.forwardComplex(column, out);
            transform.inverseReal(bins, back);
            transform.inverseComplex(column, out);
            const Signal32 result = transform.inverseReal(transform.forwardReal(samples));
        }
        EXPECT_EQ(countAllocations(), before) << size;
    }
}

// A step that makes its results with the nodes of the base class, in the number that its frame calls for.
class NodeStep : public BaseSpectralProcessor {
  public:
    using BaseSpectralProcessor::process;
    std::list<ComplexSignal32> process(const ComplexSignal32& spectrum) override {
        std::list<ComplexSignal32> results;
        const int numOfResults = varies ? numOfFrames++ % 3 : 1;
        for (int i = 0; i < numOfResults; ++i) resultNodes.append(results, spectrum);
        return results;
    }

    bool varies = false;
    int numOfFrames = 0;
};

// Steady means that every length of block and of output has come by once: a second pass over the same
// blocks asks for nothing.
TEST(SteadyState, framingAsksTheSystemForNothing) {
    if (!allocationsAreRecycled()) GTEST_SKIP();
    struct Sizes {
        int fft, window, hop;
    };
    for (const Sizes& sizes : {Sizes{2048, 2048, 512}, {2048, 2048, 1024}, {2048, 1024, 512}, {64, 48, 16}})
        for (int blockSize : {1, 64, 480, 4096, 0})  // 0 stands for random lengths
            for (bool varies : {false, true}) {
                NodeStep processor;
                processor.varies = varies;
                processor.setFormat(makeFormat(2), makeFormat(2));
                processor.setBlocking(sizes.fft, sizes.window, sizes.hop);
                std::int64_t before = 0;
                for (int pass = 0; pass < 3; ++pass) {
                    if (pass == 2) before = countAllocations();
                    processor.reset();
                    processor.numOfFrames = 0;
                    std::mt19937 engine(1);
                    for (int total = 0; total < 40000;) {
                        const int length = blockSize > 0 ? blockSize : 1 + static_cast<int>(engine() % 5000);
                        const Signal32 output = processor.process(Signal32(2, length, 0.5f));
                        total += length;
                    }
                }
                EXPECT_EQ(countAllocations(), before)
                    << sizes.fft << "/" << sizes.window << "/" << sizes.hop << " in blocks of " << blockSize;
            }
}

// A step that brings list nodes of its own costs those, and the reserve does not grow with them.
TEST(SteadyState, nodesOfAStepAreNotHoarded) {
    struct OwnNodes : NodeStep {
        using BaseSpectralProcessor::process;
        std::list<ComplexSignal32> process(const ComplexSignal32& spectrum) override { return {spectrum}; }
        std::size_t numOfReservedNodes() const { return resultNodes.numOfNodes(); }
    } processor;
    processor.setFormat(makeFormat(2), makeFormat(2));
    processor.setBlocking(64, 64, 16);
    for (int i = 0; i < 1000; ++i) processor.process(Signal32(2, 64, 0.5f));
    EXPECT_LE(processor.numOfReservedNodes(), 64u);
}

// Once the queue has reached its longest, which 20 blocks see to, or 250 of one sample.
TEST(SteadyState, rateConversionAsksTheSystemForNothing) {
    if (!allocationsAreRecycled()) GTEST_SKIP();
    for (double inputRate : {44100.0, 48000.0})
        for (double outputRate : {16000.0, 44100.0, 48000.0})
            for (int blockSize : {1, 64, 333, 4096}) {
                SampleRateConversion conversion;
                conversion.setFormat(makeFormat(2, inputRate), makeFormat(2, outputRate));
                std::int64_t before = 0;
                for (int block = 0; block < 500; ++block) {
                    if (block == (blockSize == 1 ? 250 : 20)) before = countAllocations();
                    conversion.process(Signal32(2, blockSize, 0.5f));
                }
                EXPECT_EQ(countAllocations(), before)
                    << inputRate << " to " << outputRate << " in blocks of " << blockSize;
            }
}

}  // namespace
}  // namespace zevrant
