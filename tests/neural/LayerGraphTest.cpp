#include <gtest/gtest.h>

#include <algorithm>
#include <complex>
#include <numeric>
#include <random>
#include <utility>

#include "modelwriter/ModelWriter.h"
#include "neural/BaseLayer.h"
#include "neural/MemoryStream.h"
#include "neural/ModelLimits.h"
#include "neural/NeuralModel.h"

namespace zevrant {
namespace {

using namespace modelwriter;
using Shape = std::vector<int>;

Tensor<float> makeTensor(const Shape& shape, float first = 0.0f) {
    Tensor<float> tensor(shape);
    std::iota(tensor.data->data, tensor.data->data + std::max(0, tensor.data->size), first);
    return tensor;
}

std::vector<float> valuesOf(const Tensor<float>& tensor) {
    const int count = tensor.getNumOfElements();
    return {tensor.getReadPointer(), tensor.getReadPointer() + count};
}

// Passes everything on, and writes down what it was called for.
class Witness : public BaseLayer<float> {
  public:
    Witness(std::string ownName, std::vector<std::string>& sharedLog)
        : name(std::move(ownName)), log(sharedLog) {}
    Witness(const LayerMap& layers, const std::string& source, std::string ownName,
            std::vector<std::string>& sharedLog)
        : BaseLayer<float>(layers, streamOver(encodeLayer(source, modelwriter::ReLU{})), LayerType::ReLU),
          name(std::move(ownName)),
          log(sharedLog) {}
    bool push(const Tensor<float>& tensor, BaseLayer<float>* sender) override {
        log.push_back("push " + name);
        lastSender = sender;
        const bool result = forward(tensor);
        log.push_back("end " + name);
        return result || answer;
    }
    void reset() override { log.push_back("reset " + name); }
    int measureLatency(int timeScale) override {
        return latency * timeScale + measureConsumers(timeScale * scale);
    }
    void triggerForward() override {
        log.push_back("trigger " + name);
        BaseLayer<float>::triggerForward();
    }

    std::string name;
    std::vector<std::string>& log;
    BaseLayer<float>* lastSender = nullptr;
    bool answer = false;
    int latency = 0;
    int scale = 1;
};

class LayerGraph : public testing::Test {
  protected:
    LayerGraph() { layers["input"] = input; }

    std::shared_ptr<Witness> add(const std::string& name, const std::string& source) {
        auto layer = std::make_shared<Witness>(layers, source, name, log);
        layers[name] = layer;
        return layer;
    }

    LayerMap layers;
    std::shared_ptr<InputLayer<float>> input = std::make_shared<InputLayer<float>>();
    std::vector<std::string> log;
};

TEST_F(LayerGraph, runsDepthFirstInFileOrder) {
    add("b", "input");
    add("a", "input");
    add("b1", "b");
    add("b2", "b");
    add("b11", "b1");
    const auto end = add("a1", "a");
    EXPECT_FALSE(input->push(makeTensor({1, 1, 1}), nullptr));
    EXPECT_EQ(log, (std::vector<std::string>{"push b", "push b1", "push b11", "end b11", "end b1", "push b2",
                                             "end b2", "end b", "push a", "push a1", "end a1", "end a"}));
    EXPECT_EQ(end->lastSender, std::get<std::shared_ptr<BaseLayer<float>>>(layers["a"]).get());
    log.clear();
    input->triggerForward();
    EXPECT_EQ(log, (std::vector<std::string>{"trigger b", "trigger b1", "trigger b11", "trigger b2",
                                             "trigger a", "trigger a1"}));
}

TEST_F(LayerGraph, answersAreOredAndEveryConsumerIsAsked) {
    const auto first = add("first", "input"), second = add("second", "input");
    for (int answers = 0; answers < 4; ++answers) {
        first->answer = answers & 1;
        second->answer = answers & 2;
        log.clear();
        EXPECT_EQ(input->push({}, nullptr), answers > 0);
        EXPECT_EQ(log.size(), 4u);
    }
}

TEST_F(LayerGraph, latencyIsTheWorstPathWithItsTimeScales) {
    const auto strided = add("strided", "input"), behind = add("behind", "strided"),
               beside = add("beside", "input");
    strided->latency = 3;
    strided->scale = 2;
    behind->latency = 1;
    EXPECT_EQ(input->measureLatency(1), 5);
    EXPECT_EQ(input->measureLatency(4), 20);
    beside->latency = 6;
    EXPECT_EQ(input->measureLatency(1), 6);
    beside->latency = -6;
    behind->latency = strided->latency = -1;
    EXPECT_EQ(input->measureLatency(1), 0);  // the maximum starts from 0

    // A layer that two rates lead to answers for each of them, in whatever order it is asked.
    strided->latency = 1;
    beside->latency = 5;
    strided->consumers.push_back(beside.get());
    for (int order = 0; order < 2; ++order, input->consumers.reverse())
        EXPECT_EQ(input->measureLatency(1), 1 + 2 * 5);
    EXPECT_EQ(InputLayer<float>().measureLatency(1), 0);
}

TEST_F(LayerGraph, sourcesHaveToStandThereAlready) {
    try {
        add("a", "b");
        FAIL() << "an unknown source";
    } catch (const std::out_of_range& error) {
        EXPECT_STREQ(error.what(), "map::at:  key not found");
    }
    layers["complex"] = std::shared_ptr<BaseLayer<std::complex<float>>>();
    EXPECT_THROW(add("a", "complex"), std::bad_variant_access);
    layers["null"] = std::shared_ptr<BaseLayer<float>>();
    EXPECT_THROW(add("a", "null"), std::invalid_argument);
    EXPECT_TRUE(input->consumers.empty());
}

TEST_F(LayerGraph, aLayerThatDiesTakesItsLinksWithIt) {
    add("a", "input");
    const auto survivor = add("a1", "a");
    layers["a"] = std::make_shared<Witness>("other", log);  // replaced, as by a second record of that name
    EXPECT_TRUE(input->consumers.empty());
    input->push({}, nullptr);
    EXPECT_TRUE(log.empty());
    input = nullptr;
    layers.clear();
    survivor->push({}, nullptr);
}

// Chains up to the longest allowed still run. Each skip doubles the ways through the graph: too many for a
// trigger, and nothing for slices.
TEST(LayerGraphLimits, graphsThatNoStackCouldWalkAreRefusedWhileTheyAreBuilt) {
    for (int length : {limits::layersOnAPath - 1, limits::layersOnAPath}) {
        ModelWriter model("chain");
        model.addLayer("0", "input", modelwriter::ReLU{});
        for (int i = 1; i < length; ++i)
            model.addLayer(std::to_string(i), std::to_string(i - 1), modelwriter::ReLU{});
        const auto stream = streamOver(model.setOutput(std::to_string(length - 1)).toBytes());
        NeuralModel<float> loaded;
        if (length == limits::layersOnAPath) {
            EXPECT_THROW(loaded.loadModel(stream), std::length_error);
            continue;
        }
        ASSERT_TRUE(loaded.loadModel(stream));
        loaded.inputLayer->push(makeTensor({1, 2, 2}), nullptr);
        EXPECT_EQ(valuesOf(loaded.outputLayer->getResults()), (std::vector{0.0f, 1.0f, 2.0f, 3.0f}));
        loaded.inputLayer->triggerForward();
    }
    for (bool isTriggered : {false, true}) {
        ModelWriter model("skips");
        std::string last = "first";
        model.addLayer(last, "input",
                       modelwriter::Conv{.weights = {{1, 1, 1, 1}, {1.0f}}, .timeOffset = isTriggered});
        for (int i = 0; i < 60; ++i) {
            const std::string aside = "r" + std::to_string(i), joined = "m" + std::to_string(i);
            model.addLayer(aside, last, modelwriter::ReLU{}).addLayer(joined, {last, aside}, Arithmetic{});
            last = joined;
        }
        NeuralModel<float> loaded;
        const auto stream = streamOver(model.setOutput(last).toBytes());
        if (isTriggered) {
            EXPECT_THROW(loaded.loadModel(stream), std::length_error);
            continue;
        }
        ASSERT_TRUE(loaded.loadModel(stream));
        loaded.inputLayer->push(makeTensor({1, 1, 1}, 1), nullptr);
        EXPECT_EQ(valuesOf(loaded.outputLayer->getResults()), std::vector{0x1p60f});
    }
}

// Some hundred bytes that ask for minutes: forty times a choice of two time scales, slices by the million,
// and 50,000 layers on one source.
TEST(LayerGraphLimits, fewBytesNeverCostMuch) {
    const WeightTensor one{{1, 1, 1, 1}, {1.0f}};
    ModelWriter scales("scales"), slices("slices"), wide("wide");
    std::string last = "input";
    for (int i = 0; i < 40; ++i) {
        const std::string n = std::to_string(i);
        scales.addLayer("a" + n, last, ReLU{}).addLayer("b" + n, last, ReLU{});
        scales.addLayer("t" + n, last, TransposedConv{.weights = one, .timeStride = -1, .timeOffset = 1});
        scales.addLayer("m" + n, {"a" + n, "t" + n, "b" + n}, Arithmetic{});
        last = "m" + n;
    }
    scales.setOutput(last);
    last = "input";
    for (int i = 0; i < 3; ++i, last = std::to_string(i - 1))
        slices.addLayer(std::to_string(i), last, TransposedConv{.weights = one, .timeStride = 127});
    slices.setOutput(last);
    for (int i = 0; i < 50000; ++i) wide.addLayer(std::to_string(i), "input", ReLU{});
    wide.setOutput("input");

    NeuralModel<float> loaded;
    EXPECT_TRUE(loaded.loadModel(streamOver(scales.toBytes())));
    EXPECT_EQ(loaded.latencyInFrames, 1);  // + 1 and - 1 in turn
    EXPECT_THROW(loaded.loadModel(streamOver(slices.toBytes())), std::length_error);
    EXPECT_TRUE(loaded.loadModel(streamOver(wide.toBytes())));
    EXPECT_EQ(loaded.inputLayer->consumers.size(), 50001u);
}

// A queue that nothing empties ends in an error before it takes much, and a reset gives all of it back. So do
// tensors that the file does not hold, and kernels that grow when they are packed.
TEST(LayerGraphLimits, memoryIsBoundedByTheFile) {
    ModelWriter model("twice");
    const auto stream = streamOver(model.addLayer("r", "input", ReLU{})
                                       .addLayer("m", {"r", "r"}, Arithmetic{})
                                       .setOutput("m")
                                       .toBytes());
    NeuralModel<float> loaded;
    ASSERT_TRUE(loaded.loadModel(stream));
    const Tensor<float> mebibyte = makeTensor({1, 1 << 18, 1});
    for (int round = 0; round < 2; ++round) {
        for (int i = 0; i < 60; ++i) loaded.inputLayer->push(mebibyte, nullptr);
        EXPECT_THROW(for (int i = 0; i < 10; ++i) loaded.inputLayer->push(mebibyte, nullptr),
                     std::length_error);
        loaded.reset();
    }
    constexpr int numOfInputs = 1 << 23;
    ModelWriter columns("columns");  // one output, a whole vector of them when packed
    columns.addLayer("c", "input",
                     Conv{.weights = {{1, 1, numOfInputs, 1}, std::vector<float>(numOfInputs, 1.0f)}});
    Bytes bytes = columns.setOutput("c").toBytes();
    bytes.resize(200);
    EXPECT_THROW(loaded.loadModel(streamOver(bytes)), std::length_error);
}

TEST(OutputLayer, joinsWhatArrivedInOrder) {
    OutputLayer<float> output;
    Tensor<float> result;
    std::mt19937 random(1);
    for (int round = 0; round < 50; ++round) {
        std::vector<float> expected;
        int times = 0;
        for (int i = static_cast<int>(random() % 4); i >= 0; --i) {
            const Tensor<float> slices =
                makeTensor({static_cast<int>(random() % 4), 3, 2}, 10.0f * static_cast<float>(i));
            EXPECT_TRUE(output.push(slices, nullptr));
            times += slices.shape[0];
            for (float value : valuesOf(slices)) expected.push_back(value);
        }
        if (round % 2 == 0)
            result = output.getResults();
        else
            output.takeResults(result);
        EXPECT_EQ(result.shape, (Shape{times, 3, 2}));
        EXPECT_EQ(valuesOf(result), expected);
    }
    const Tensor<float> pushed = makeTensor({1, 3, 2});
    output.push(pushed, nullptr);
    EXPECT_NE(output.getResults().data, pushed.data);
    output.push(pushed, nullptr);
    output.reset();
    output.takeResults(result);
    EXPECT_TRUE(result.shape.empty() && output.getResults().shape.empty());
}

TEST(OutputLayer, resultsThatFitNoCommonShapeAreAnError) {
    OutputLayer<float> output;
    const auto arrive = [&](std::initializer_list<Shape> shapes) {
        EXPECT_TRUE(output.results.empty()) << "those of an error are gone, too";
        for (const Shape& shape : shapes) output.push(makeTensor(shape), nullptr);
    };
    arrive({{}, {2, 3, 4}});  // two slices of nothing
    EXPECT_THROW(output.getResults(), std::length_error);
    arrive({{1, 2, 2}, {1, 3, 2}});
    EXPECT_THROW(output.getResults(), std::length_error);
    arrive({{4}});
    EXPECT_THROW(output.getResults(), std::out_of_range);
    arrive({{1, 1, 2, 5}});
    EXPECT_THROW(output.getResults(), std::length_error);
    arrive({{}, {}});
    EXPECT_EQ(output.getResults().shape, (Shape{0, 0, 0}));
    makeTensor({2, 3, 2});           // leaves its memory to the next of its size
    arrive({{1, 3, 2}, {1, 2, 2}});  // shorter ones fit
    const Tensor<float> joined = output.getResults();
    EXPECT_EQ(joined.shape, (Shape{2, 3, 2}));
    EXPECT_EQ(valuesOf(joined).at(10), 0.0f);
    EXPECT_EQ(valuesOf(joined).at(11), 0.0f);
    Tensor<float> hollow;
    hollow.shape = {1, 2, 2};
    output.push(hollow, nullptr);
    EXPECT_THROW(output.getResults(), std::invalid_argument);
}

// Writes down the sets of slices that it is given.
class Merger : public BaseQueuedLayer<float> {
  public:
    Merger(const LayerMap& layers, const std::vector<std::string>& sources)
        : BaseQueuedLayer<float>(layers, streamOver(encodeLayer(sources, Concat{})), latestVersion,
                                 LayerType::Concat) {}
    using BaseQueuedLayer<float>::push;
    bool push(const std::vector<Tensor<float>>& inputs, std::vector<BaseLayer<float>*> sources) override {
        EXPECT_EQ(sources, inputLayers);
        auto& set = sets.emplace_back();
        for (const Tensor<float>& input : inputs) {
            EXPECT_EQ(input.shape, (Shape{1, 2, 3}));
            set.push_back(valuesOf(input));
        }
        return answer;
    }
    std::vector<std::vector<std::vector<float>>> sets;
    bool answer = true;
};

class QueuedLayer : public testing::Test {
  protected:
    QueuedLayer() {
        for (const char* name : {"a", "b", "c"}) layers[name] = std::make_shared<InputLayer<float>>();
    }
    InputLayer<float>& source(const std::string& name) {
        return static_cast<InputLayer<float>&>(*std::get<std::shared_ptr<BaseLayer<float>>>(layers[name]));
    }
    LayerMap layers;
};

TEST_F(QueuedLayer, matchesSlicesByTheirOrderHoweverTheyArrive) {
    for (unsigned seed = 0; seed < 40; ++seed) {
        SCOPED_TRACE(seed);
        Merger merger(layers, {"c", "a", "b"});
        std::mt19937 random(seed);
        const std::vector<std::string> names{"c", "a", "b"};
        std::vector<std::vector<std::vector<float>>> sent(3);  // per source, per slice
        std::size_t numOfSets = 0;
        for (int push = 0; push < 60; ++push) {
            const std::size_t queue = random() % 3;
            const int T = static_cast<int>(random() % 4);
            Tensor<float> tensor = makeTensor({T, 2, 3}, static_cast<float>(random() % 1000));
            for (int t = 0; t < T; ++t)
                sent[queue].emplace_back(tensor.data->data + 6 * t, tensor.data->data + 6 * (t + 1));
            const bool result = source(names[queue]).push(tensor, nullptr);
            tensor.setToZero();  // the queue keeps slices of its own

            const std::size_t before =
                std::exchange(numOfSets, std::min({sent[0].size(), sent[1].size(), sent[2].size()}));
            ASSERT_EQ(merger.sets.size(), numOfSets);
            EXPECT_EQ(result, numOfSets > before);
            for (std::size_t i = before; i < numOfSets; ++i)
                for (std::size_t q = 0; q < 3; ++q) ASSERT_EQ(merger.sets[i][q], sent[q][i]);
            auto queueOfLayer = merger.queues.begin();
            for (std::size_t q = 0; q < 3; ++q, ++queueOfLayer)
                ASSERT_EQ(queueOfLayer->tensors.size(), sent[q].size() - numOfSets);
        }
    }
}

TEST_F(QueuedLayer, impossiblePushesThrowBeforeTheyTouchAnything) {
    Merger merger(layers, {"a", "b"});
    InputLayer<float> stranger;
    EXPECT_THROW(merger.push(makeTensor({1, 2, 3}), &stranger), std::invalid_argument);
    EXPECT_THROW(merger.push(makeTensor({1, 2, 3}), nullptr), std::invalid_argument);
    EXPECT_THROW(source("a").push(makeTensor({1, 2}), nullptr), std::out_of_range);
    EXPECT_THROW(source("a").push(makeTensor({2, 3, 4, 0}), nullptr), std::invalid_argument);
    Merger lonely(layers, {});
    EXPECT_THROW(lonely.forwardFromQueue(), std::invalid_argument);
    EXPECT_TRUE(merger.queues.front().tensors.empty());
}

TEST(NeuralModel, resetReachesAllLayersInKeyOrder) {
    std::vector<std::string> log;
    NeuralModel<float> model;
    for (const char* name : {"zz", "a", "m"}) model.layers[name] = std::make_shared<Witness>(name, log);
    EXPECT_EQ(NeuralModel<float>(model).inputLayer, model.inputLayer) << "copies share the graph";
    model.reset();
    EXPECT_EQ(log, (std::vector<std::string>{"reset a", "reset m", "reset zz"}));
    EXPECT_THROW(NeuralModel<float>().process(ComplexSignal32(1, 4)), std::logic_error);
}

}  // namespace
}  // namespace zevrant
