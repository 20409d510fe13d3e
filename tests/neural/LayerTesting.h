#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "TestSignals.h"
#include "neural/BaseLayer.h"
#include "neural/MemoryStream.h"
#include "neural/WholeSequence.h"
#include "simd/TargetOverride.h"

// A layer by itself: its record written by hand, a source to hang it on, and a sink that keeps what it
// forwards.
namespace zevrant::test {

constexpr int newestVersion = 0x100a;

// The bytes of a layer record of one file version, item by item.
class Record {
  public:
    explicit Record(int fileVersion = newestVersion) : version(fileVersion) {}

    template <class Number>
    Record& number(Number value) {
        const auto* first = reinterpret_cast<const std::uint8_t*>(&value);
        bytes.insert(bytes.end(), first, first + sizeof value);
        return *this;
    }
    Record& int8(int value) { return number(static_cast<std::int8_t>(value)); }
    Record& int16(int value) { return number(static_cast<std::int16_t>(value)); }
    Record& string(const std::string& text) {
        number(static_cast<std::int32_t>(text.size()));
        bytes.insert(bytes.end(), text.begin(), text.end());
        return *this;
    }
    Record& tensor(const Weights& weights) {
        if (version >= 0x1009) int8(1);
        int8(static_cast<int>(weights.shape.size()));
        for (int dimension : weights.shape) number(std::int32_t{dimension});
        for (float value : weights.values) number(value);
        return *this;
    }
    // The start of a layer with several inputs.
    Record& sources(const std::vector<std::string>& names) {
        int16(static_cast<int>(names.size()));
        for (const std::string& name : names) string(name);
        return *this;
    }

    int version;
    std::vector<std::uint8_t> bytes;
};

inline Weights noiseWeights(std::vector<int> shape, unsigned seed) {
    const auto count = static_cast<std::size_t>(std::max(0, Tensor<float>::countElements(shape)));
    return {std::move(shape), noise(count, seed)};
}

inline Tensor<float> tensorOf(const std::vector<int>& shape, const std::vector<float>& values) {
    Tensor<float> tensor(shape);
    EXPECT_EQ(tensor.getNumOfElements(), static_cast<int>(values.size()));
    std::copy(values.begin(), values.end(), tensor.getWritePointer());
    return tensor;
}

inline Sequence noiseSequence(int slices, int frequencies, int channels, unsigned seed) {
    Sequence sequence(slices, frequencies, channels);
    const std::vector<float> values = noise(sequence.values.size(), seed);
    std::copy(values.begin(), values.end(), sequence.values.begin());
    return sequence;
}

// Slices first to first + count - 1 as one tensor.
inline Tensor<float> slicesOf(const Sequence& sequence, int first, int count) {
    Tensor<float> tensor({count, sequence.numOfFrequencies, sequence.numOfChannels});
    const auto length = static_cast<std::size_t>(sequence.numOfFrequencies) * sequence.numOfChannels;
    const auto begin = sequence.values.begin() + static_cast<std::ptrdiff_t>(length * first);
    std::transform(begin, begin + static_cast<std::ptrdiff_t>(length * count), tensor.getWritePointer(),
                   [](const Bounded& value) { return static_cast<float>(value.value); });
    return tensor;
}

inline void append(std::vector<float>& values, const Tensor<float>& tensor) {
    const int count = std::max(0, tensor.getNumOfElements());
    if (count > 0) values.insert(values.end(), tensor.getReadPointer(), tensor.getReadPointer() + count);
}

// Copies every tensor that arrives, and may keep it as well, as an output layer does.
class Sink : public BaseLayer<float> {
  public:
    bool push(const Tensor<float>& tensor, BaseLayer<float>*) override {
        shapes.push_back(tensor.shape);
        append(values, tensor);
        if (keeps) kept.push_back(tensor);
        return answer;
    }
    // Whether what was kept is what arrived.
    bool isUnchanged() const {
        std::vector<float> now;
        for (const Tensor<float>& tensor : kept) append(now, tensor);
        return !keeps || now == values;
    }
    void triggerForward() override { ++numOfTriggers; }

    // Slices that arrived, over all pushes.
    int countSlices() const {
        int slices = 0;
        for (const auto& shape : shapes) slices += shape.empty() ? 0 : shape[0];
        return slices;
    }
    void clear() {
        shapes.clear();
        values.clear();
        kept.clear();
    }

    std::vector<std::vector<int>> shapes;
    std::vector<float> values;
    std::vector<Tensor<float>> kept;
    int numOfTriggers = 0;
    bool answer = true, keeps = false;
};

// A layer built from a record behind sources named "input", "input1", ..., with a sink behind it.
template <class Layer>
struct LayerUnderTest {
    explicit LayerUnderTest(const Record& record, int numOfSources = 1) {
        for (int i = 0; i < numOfSources; ++i) {
            sources.push_back(std::make_shared<InputLayer<float>>());
            const std::string name = i == 0 ? "input" : "input" + std::to_string(i);
            layers[name] = std::shared_ptr<BaseLayer<float>>(sources.back());
        }
        stream = streamOver(record.bytes);
        layer = std::make_unique<Layer>(layers, stream, record.version);
        layer->consumers.push_back(&sink);
    }

    // Whether the constructor has taken all bytes of the record.
    bool readsAll() const { return stream->getPosition() == stream->getLength(); }

    bool push(const Tensor<float>& tensor, int source = 0) {
        return sources[static_cast<std::size_t>(source)]->push(tensor, nullptr);
    }

    // All slices, as many per push as the pattern says in turn. The sender keeps its tensors, and nobody
    // writes to them.
    void pushAll(const Sequence& sequence, const std::vector<int>& pattern = {1}) {
        std::vector<float> sent, now;
        std::vector<Tensor<float>> tensors;
        for (int t = 0; t < sequence.numOfSlices; t += tensors.back().shape[0]) {
            const int count = std::min(pattern[tensors.size() % pattern.size()], sequence.numOfSlices - t);
            tensors.push_back(slicesOf(sequence, t, count));
            append(sent, tensors.back());
            push(tensors.back());
        }
        for (const Tensor<float>& tensor : tensors) append(now, tensor);
        EXPECT_EQ(now, sent) << "the layer has written to its input";
    }

    std::vector<std::shared_ptr<InputLayer<float>>> sources;
    LayerMap layers;
    std::shared_ptr<InputStream> stream;
    Sink sink;
    std::unique_ptr<Layer> layer;
};

// Every value stands within the bound of its definition, and there are as many.
inline void expectWithin(const std::vector<float>& actual, const Sequence& expected) {
    ASSERT_EQ(actual.size(), expected.values.size());
    for (std::size_t i = 0; i < actual.size(); ++i)
        ASSERT_TRUE(expected.values[i].contains(actual[i]))
            << "value " << i << " is " << actual[i] << " and not " << expected.values[i].value << " +- "
            << expected.values[i].error;
}

// The instruction sets of this machine whose multiply-adds are fused: there a plain loop of fused operations
// in the stated order gives the very same bits.
inline std::vector<simd::Target> getFusingTargets() {
    std::vector<simd::Target> targets = simd::getUsableTargets();
    std::erase_if(targets, [](const simd::Target& target) {
        return !target.name.starts_with("AVX") && !target.name.starts_with("NEON");
    });
    return targets;
}

// Pushed in several ways, and once more after a reset in mid-stream, a layer gives the definition.
template <class Layer>
void expectStreamsAs(const Record& record, const Sequence& input, const Sequence& expected,
                     const std::vector<std::vector<int>>& patterns = {{1}, {3, 1, 2}, {1000}}) {
    LayerUnderTest<Layer> test(record);
    EXPECT_TRUE(test.readsAll()) << "the record has bytes that were not read";
    for (const std::vector<int>& pattern : patterns) {
        SCOPED_TRACE(testing::Message() << pattern.front() << " slices in the first push");
        test.sink.keeps = &pattern == &patterns.front();
        test.pushAll(input, pattern);
        ASSERT_NO_FATAL_FAILURE(expectWithin(test.sink.values, expected));
        EXPECT_TRUE(test.sink.isUnchanged()) << "the layer has written to its old output";
        test.layer->reset();
        test.pushAll(noiseSequence(3, input.numOfFrequencies, input.numOfChannels, 99));
        test.layer->reset();
        test.sink.clear();
    }
}

// In addition, the values are those of the definition's steps to the bit on all that can fuse them.
template <class Layer>
void expectStreamsInOrder(const Record& record, const Sequence& input, const Sequence& expected,
                          const std::vector<std::vector<int>>& patterns = {{1}, {3, 1, 2}, {1000}}) {
    ASSERT_NO_FATAL_FAILURE(expectStreamsAs<Layer>(record, input, expected, patterns));
    for (const simd::Target& target : getFusingTargets()) {
        const simd::ScopedTarget scope(target);
        LayerUnderTest<Layer> test(record);
        test.pushAll(input);
        ASSERT_EQ(test.sink.values.size(), expected.values.size());
        for (std::size_t i = 0; i < expected.values.size(); ++i)
            ASSERT_EQ(test.sink.values[i], expected.values[i].steps)
                << "value " << i << " of another order of terms, " << target.name;
    }
}

}  // namespace zevrant::test
