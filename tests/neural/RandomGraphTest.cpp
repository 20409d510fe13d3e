#include "neural/RandomGraph.h"

#include <complex>
#include <list>
#include <memory>

#include "files/TemporaryFolder.h"
#include "interface/zevrant.h"
#include "processors/ZevrantProcessor.h"

namespace zevrant::test {
namespace {

constexpr unsigned numOfGraphs = 48;

struct ModelDeleter {
    void operator()(ModelState* model) const { zevrantDeleteModel(model); }
};
using ModelHandle = std::unique_ptr<ModelState, ModelDeleter>;

ModelHandle openModel(const RandomGraph& graph) {
    const TemporaryFolder folder;
    graph.writer.write(folder.getPath("graph.model"));
    return ModelHandle(zevrantCreateModel(folder.getPath("graph.model").c_str()));
}

// All slices of the input, as many per call as the pattern says in turn; the values of all results.
std::vector<float> run(ModelState* model, const RandomGraph& graph, const std::vector<int>& pattern) {
    const Sequence &input = graph.getInput(), &expected = graph.getOutput();
    std::vector<float> values;
    std::size_t turn = 0;
    for (int t = 0; t < input.numOfSlices;) {
        const int count = std::min(pattern[turn++ % pattern.size()], input.numOfSlices - t);
        const Tensor<float> slices = slicesOf(input, t, count);
        zevrantAddTensor(model, slices.getReadPointer(), 3, slices.shape.data());
        t += count;
        int shape[3] = {0, 0, 0};
        if (!zevrantGetResultTensorShape(model, 3, shape)) continue;
        EXPECT_EQ(shape[1], expected.numOfFrequencies);
        EXPECT_EQ(shape[2], expected.numOfChannels);
        std::vector<float> result(static_cast<std::size_t>(shape[0]) * shape[1] * shape[2]);
        EXPECT_TRUE(zevrantGetTensor(model, result.data()));
        values.insert(values.end(), result.begin(), result.end());
    }
    return values;
}

// What has come out is the beginning of the definition, and at most what strides hold back is missing.
void expectDefinition(const std::vector<float>& values, const RandomGraph& graph) {
    const Sequence& whole = graph.getOutput();
    const std::size_t sliceLength = static_cast<std::size_t>(whole.numOfFrequencies) * whole.numOfChannels;
    ASSERT_EQ(values.size() % sliceLength, 0u);
    const int slices = static_cast<int>(values.size() / sliceLength);
    ASSERT_LE(slices, whole.numOfSlices);
    ASSERT_GE(slices, whole.numOfSlices - graph.getMostHeldBack());
    Sequence begun(slices, whole.numOfFrequencies, whole.numOfChannels);
    std::copy_n(whole.values.begin(), values.size(), begun.values.begin());
    expectWithin(values, begun);
}

class RandomGraphs : public testing::TestWithParam<unsigned> {};
INSTANTIATE_TEST_SUITE_P(Seeds, RandomGraphs, testing::Range(0u, numOfGraphs));

TEST_P(RandomGraphs, streamAsTheirWholeSequencesTell) {
    const bool together = GetParam() % 3 == 0;
    const RandomGraph graph(GetParam(), together);
    const ModelHandle model = openModel(graph);
    ASSERT_NE(model, nullptr);
    ModelInfo info;
    zevrantGetModelInfo(model.get(), &info);
    EXPECT_EQ(info.latency, graph.measureLatency());

    const std::vector<float> values = run(model.get(), graph, {1});
    ASSERT_NO_FATAL_FAILURE(expectDefinition(values, graph));

    zevrantResetModelState(model.get());
    const std::vector<float> again =
        run(model.get(), graph, together ? std::vector{3, 1, 2, 5} : std::vector{1});
    ASSERT_NO_FATAL_FAILURE(expectDefinition(again, graph));
    const std::size_t common = std::min(values.size(), again.size());
    EXPECT_TRUE(
        std::equal(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(common), again.begin()))
        << "another split or a reset changes bits";
}

// A graph that makes a mask for each of two busses from the magnitudes of spectra, run by the processor frame
// by frame: what comes out is each frame under the sum of its masks, the second at half gain, without the
// residual.
TEST(RandomGraph, masksInTheProcessorAreThoseOfTheirWholeSequences) {
    constexpr int numOfFrames = 30, fftSize = 16, bins = fftSize / 2 + 1;
    for (unsigned seed = 100; seed < 108; ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        const std::vector<float> parts = noise(2 * numOfFrames * bins, seed);
        std::vector<ComplexSignal32> spectra;
        Sequence magnitudes(numOfFrames, bins, 1);
        for (int t = 0; t < numOfFrames; ++t) {
            spectra.emplace_back(1, bins);
            for (int k = 0; k < bins; ++k) {
                const auto i = static_cast<std::size_t>(2 * (t * bins + k));
                spectra.back().getWriteChannelPtr(0)[k] = {parts[i], parts[i + 1]};
                magnitudes.at(t, k, 0) = Bounded::rounded(std::hypot(parts[i], parts[i + 1]), 0.0, 4.0);
            }
        }
        RandomGraph graph(seed, magnitudes, 2);
        graph.writer.setFrames(fftSize, fftSize, fftSize / 2)
            .setPacking(modelwriter::Packing::magnitudes(bins))
            .setBusses({"Voice", "Drums", "Residual"});
        const TemporaryFolder folder;
        graph.writer.write(folder.getPath("graph.model"));
        ZevrantProcessor processor;
        ASSERT_TRUE(processor.loadModelFiles({File(folder.getPath("graph.model"))}));
        AudioFormat mono;
        mono.createDefaultChannelMapping(1);
        mono.sampleRate = 48000.0;
        ASSERT_TRUE(processor.setFormat(mono, mono));
        processor.setGain(1, 0.5f);
        processor.setGain(2, 0.0f);

        std::list<ComplexSignal32> results;
        for (const ComplexSignal32& spectrum : spectra)
            results.splice(results.end(), processor.process(spectrum));
        const Sequence& masks = graph.getOutput();
        ASSERT_LE(static_cast<int>(results.size()), masks.numOfSlices);
        ASSERT_GE(static_cast<int>(results.size()), masks.numOfSlices - graph.getMostHeldBack());
        int t = 0;
        for (const ComplexSignal32& result : results) {
            for (int k = 0; k < bins; ++k) {
                const Bounded mask = masks.at(t, k, 0) + masks.at(t, k, 1) * 0.5;
                const Bounded shaped = Bounded::rounded(mask.value, mask.error, 2 * functionRoundings);
                const std::complex<float> in = spectra[static_cast<std::size_t>(t)].getReadChannelPtr(0)[k];
                const std::complex<float> out = result.getReadChannelPtr(0)[k];
                // A complex product with a mask that is real to rounding.
                const double spill = 4.0 * FLT_EPSILON;
                for (const auto& [x, y] :
                     {std::pair{in.real(), out.real()}, std::pair{in.imag(), out.imag()}}) {
                    const Bounded expected = shaped * Bounded(x);
                    ASSERT_NEAR(y, expected.value, expected.error + spill) << "frame " << t << ", bin " << k;
                }
            }
            ++t;
        }
    }
}

TEST(RandomGraph, theSeedsReachEveryKindOfLayer) {
    std::set<std::string> kinds;
    int strided = 0;
    for (unsigned seed = 0; seed < numOfGraphs; ++seed) {
        const RandomGraph graph(seed, seed % 3 == 0);
        kinds.insert(graph.kindsInUse.begin(), graph.kindsInUse.end());
        strided += graph.getMostHeldBack() > 0;
    }
    EXPECT_EQ(kinds.size(), 17u) << testing::PrintToString(kinds);
    EXPECT_GT(strided, 10) << "graphs with a stride in time";
}

}  // namespace
}  // namespace zevrant::test
