#include <algorithm>
#include <chrono>
#include <cstdint>
#include <exception>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include "Arrays.h"
#include "Bindings.h"
#include "neural/ActivationLayers.h"
#include "neural/ConvLayer.h"
#include "neural/DenseLayers.h"
#include "neural/FrequencyRescaleLayer.h"
#include "neural/MergeLayers.h"
#include "neural/NeuralModel.h"
#include "neural/NormLayers.h"
#include "neural/SelfAttentionLayer.h"
#include "neural/TransposedConvLayer.h"
#include "separation/MemoryStream.h"
#include "separation/Model.h"
#include "simd/FloatingPointState.h"

namespace zevrant::python {

py::handle getModelError() {
    static PyObject* const error = PyErr_NewExceptionWithDoc(
        "zevrant.ModelError", "A file that is no model, or a model whose numbers make a step impossible.",
        PyExc_RuntimeError, nullptr);
    return error;
}

namespace {

[[noreturn]] void failAsModel(const std::string& text) {
    PyErr_SetString(getModelError().ptr(), text.c_str());
    throw py::error_already_set();
}

// The stream in which a layer's constructor finds the name of its source.
std::shared_ptr<InputStream> nameAsStream(const std::string& name) {
    const auto length = static_cast<std::int32_t>(name.size());
    return std::make_shared<separation::MemoryStream>(std::make_shared<const std::string>(
        std::string(reinterpret_cast<const char*>(&length), sizeof length) + name));
}

// What comes out of a place in the graph, all slices behind each other.
struct Slices {
    std::vector<float> values;
    int times = 0, frequencies = 0, channels = 0;

    void append(const Tensor<float>& tensor) {
        const SliceAxes axes = requireSlices(tensor);
        if (axes.times < 1) return;
        require(times == 0 || (axes.frequencies == frequencies && axes.channels == channels),
                "slices of one layer differ in shape");
        frequencies = axes.frequencies;
        channels = axes.channels;
        times += axes.times;
        const float* first = tensor.getReadPointer();
        values.insert(values.end(), first, first + tensor.getNumOfElements());
    }

    py::object toArray() const {
        if (times == 0) return py::none();
        return makeArray(values.data(), {times, frequencies, channels});
    }
};

// Listens to a layer without being one more output: it answers that nothing was reached, so that no layer
// holds slices back because of it.
class TapLayer : public BaseLayer<float> {
  public:
    TapLayer(const LayerMap& layers, const std::string& source)
        : BaseLayer<float>(layers, nameAsStream(source), LayerTypeEnum::Output) {}

    bool push(const Tensor<float>& tensor, BaseLayer<float>*) override {
        slices.append(tensor);
        return false;
    }

    Slices slices;
};

// Tells how long a layer works on its own. A push runs the graph depth-first, so between the latest tap
// before and the first consumer of a layer nothing but this layer has run: each layer has a tap in front of
// its consumers and one behind them, and all share one clock.
class ClockTap : public BaseLayer<float> {
  public:
    using Clock = std::chrono::steady_clock;

    ClockTap(const LayerMap& layers, const std::string& source, Clock::time_point& latestTap, double* total)
        : BaseLayer<float>(layers, nameAsStream(source), LayerTypeEnum::Output),
          latest(latestTap),
          seconds(total) {
        if (!seconds) return;
        auto& consumersOfSource = std::get<std::shared_ptr<BaseLayer<float>>>(layers.at(source))->consumers;
        consumersOfSource.splice(consumersOfSource.begin(), consumersOfSource,
                                 std::prev(consumersOfSource.end()));
    }

    bool push(const Tensor<float>&, BaseLayer<float>*) override {
        if (seconds) *seconds += std::chrono::duration<double>(Clock::now() - latest).count();
        latest = Clock::now();
        return false;
    }

  private:
    Clock::time_point& latest;
    double* seconds;  // null for the tap behind the others
};

py::object toArray(const Tensor<float>& tensor) {
    if (tensor.shape.empty() || tensor.getNumOfElements() <= 0) return py::none();
    requireElements(tensor, tensor.getNumOfElements(), "a tensor without its elements");
    return makeArray(tensor.getReadPointer(), {tensor.shape.begin(), tensor.shape.end()});
}

// The kind of a layer and its fields, by the names of the dataclasses in zevrant/layers.py.
std::pair<const char*, py::dict> describeLayer(const BaseLayer<float>& layer) {
    using namespace py::literals;
    if (const auto* conv = dynamic_cast<const ConvLayer<float>*>(&layer))
        return {"Conv",
                py::dict("weights"_a = toArray(conv->weights), "bias"_a = toArray(conv->bias),
                         "time_stride"_a = conv->timeStride, "frequency_stride"_a = conv->frequencyStride,
                         "time_dilation"_a = conv->timeDilation, "reserved"_a = conv->reservedParameter,
                         "time_offset"_a = conv->timeOffset)};
    if (const auto* conv = dynamic_cast<const TransposedConvLayer<float>*>(&layer))
        return {"TransposedConv",
                py::dict("weights"_a = toArray(conv->weights), "bias"_a = toArray(conv->bias),
                         "output_channels"_a = conv->outputChannels, "time_stride"_a = conv->timeStride,
                         "frequency_stride"_a = conv->frequencyStride, "time_dilation"_a = conv->timeDilation,
                         "reserved"_a = conv->reservedParameter, "time_offset"_a = conv->timeOffset)};
    if (const auto* norm = dynamic_cast<const NormLayer<float>*>(&layer))
        return {"Norm", py::dict("mode"_a = norm->normMode, "gain"_a = toArray(norm->gain),
                                 "offset"_a = toArray(norm->offset))};
    if (const auto* norm = dynamic_cast<const PreNormLayer<float>*>(&layer))
        return {"PreNorm", py::dict("level_weights"_a = toArray(norm->levelWeights))};
    if (const auto* norm = dynamic_cast<const ARPreNormLayer<float>*>(&layer))
        return {"ARPreNorm", py::dict("attack"_a = norm->attackCoefficient,
                                      "release"_a = norm->releaseCoefficient, "epsilon"_a = norm->epsilon)};
    if (const auto* dense = dynamic_cast<const DenseLayer<float>*>(&layer))
        return {"Dense", py::dict("weights"_a = toArray(dense->weights), "bias"_a = toArray(dense->bias))};
    if (const auto* conv = dynamic_cast<const SeparableChannelConvLayer<float>*>(&layer))
        return {"SeparableChannelConv", py::dict("time_kernel"_a = toArray(conv->timeKernel),
                                                 "frequency_kernel"_a = toArray(conv->frequencyKernel))};
    if (const auto* attention = dynamic_cast<const SelfAttentionLayer<float>*>(&layer))
        return {"SelfAttention", py::dict("channel_matrix"_a = toArray(attention->channelMatrix),
                                          "position_bias"_a = toArray(attention->positionBias),
                                          "start_delay"_a = attention->startDelay,
                                          "time_weights"_a = toArray(attention->timeWeights))};
    if (const auto* rescale = dynamic_cast<const FrequencyRescaleLayer<float>*>(&layer)) {
        py::list bands;
        for (const auto& [firstBin, taps] : rescale->weights)
            bands.append(py::make_tuple(firstBin, toArray(taps)));
        return {"FrequencyRescale", py::dict("bands"_a = bands)};
    }
    if (const auto* arithmetic = dynamic_cast<const ArithmeticLayer<float>*>(&layer))
        return {"Arithmetic", py::dict("operation"_a = arithmetic->operation)};
    if (dynamic_cast<const ConcatLayer<float>*>(&layer)) return {"Concat", py::dict()};
    if (const auto* leaky = dynamic_cast<const LeakyReLULayer<float>*>(&layer))
        return {"LeakyReLU", py::dict("alpha"_a = leaky->alpha)};
    switch (layer.type) {
        case LayerTypeEnum::ReLU:
            return {"ReLU", py::dict()};
        case LayerTypeEnum::ELU:
            return {"ELU", py::dict()};
        case LayerTypeEnum::Sigmoid:
            return {"Sigmoid", py::dict()};
        case LayerTypeEnum::HardSigmoid:
            return {"HardSigmoid", py::dict()};
        case LayerTypeEnum::Softplus:
            return {"Softplus", py::dict()};
        default:
            return {"Input", py::dict()};
    }
}

// A network by itself: tensors in, tensors out. One thread at a time is let in; the others wait.
class TensorModel {
  public:
    explicit TensorModel(separation::Model opened) : model(std::move(opened)), network(model.makeNetwork()) {}

    // [T, rows, columns] -> [T', F, C], or None where nothing came out.
    py::object push(py::handle input) {
        const FloatArray tensor = requireInput(input);
        Slices slices;
        withModel([&] { pushSlices(network, tensor, [&] { collect(network, slices); }); });
        return slices.toArray();
    }

    void reset() {
        withModel([&] { network.reset(); });
    }

    // What these layers put out for this input, from the start of a stream; on a network of its own.
    py::dict getLayerOutputs(py::handle input, const std::vector<std::string>& names) {
        const FloatArray tensor = requireInput(input);
        std::map<std::string, Slices> outputs;
        std::string unknown;
        withModel([&] {
            NeuralModel<float> copy = model.makeNetwork();
            std::map<std::string, std::unique_ptr<TapLayer>> taps;
            for (const std::string& name : names) {
                if (name == "output") continue;
                if (!copy.layers.count(name)) {
                    unknown = name;
                    return;
                }
                taps.emplace(name, std::make_unique<TapLayer>(copy.layers, name));
            }
            Slices results;
            pushSlices(copy, tensor, [&] { collect(copy, results); });
            for (auto& [name, tap] : taps) outputs[name] = std::move(tap->slices);
            if (outputs.size() < names.size()) outputs["output"] = std::move(results);
        });
        if (!unknown.empty()) throw py::key_error("no layer is called \"" + unknown + "\"");
        py::dict arrays;
        for (const auto& [name, slices] : outputs) arrays[py::str(name)] = slices.toArray();
        return arrays;
    }

    // Seconds that these layers take for this input, all slices together.
    std::map<std::string, double> getLayerTimes(py::handle input, const std::vector<std::string>& names) {
        const FloatArray tensor = requireInput(input);
        std::map<std::string, double> seconds;
        withModel([&] {
            NeuralModel<float> copy = model.makeNetwork();
            ClockTap::Clock::time_point latest{};
            double ofOthers = 0.0;
            std::vector<std::unique_ptr<ClockTap>> taps;
            for (const auto& [name, layer] : copy.layers) {
                if (name == "output") continue;
                const bool isWanted = std::find(names.begin(), names.end(), name) != names.end();
                taps.push_back(std::make_unique<ClockTap>(copy.layers, name, latest,
                                                          isWanted ? &seconds[name] : &ofOthers));
                taps.push_back(std::make_unique<ClockTap>(copy.layers, name, latest, nullptr));
            }
            Slices results;
            pushSlices(copy, tensor, [&] { collect(copy, results); });
        });
        return seconds;
    }

    // A list of (name, kind, names of sources, fields), in the order of the names.
    py::list getLayers() {
        const std::lock_guard lock(mutex);
        std::map<const BaseLayer<float>*, std::string> names;
        std::map<std::string, std::vector<std::string>> sources;
        for (const auto& [name, entry] : network.layers) names[getLayer(entry)] = name;
        for (const auto& [name, entry] : network.layers)
            for (const BaseLayer<float>* consumer : getLayer(entry)->consumers)
                if (names.count(consumer)) sources[names[consumer]].push_back(name);
        py::list list;
        for (const auto& [name, entry] : network.layers) {
            const BaseLayer<float>* layer = getLayer(entry);
            if (const auto* merging = dynamic_cast<const BaseQueuedLayer<float>*>(layer)) {
                sources[name].clear();
                for (const BaseLayer<float>* source : merging->inputLayers)
                    sources[name].push_back(names[source]);
            }
            const auto [kind, fields] = layer == network.outputLayer.get()
                                            ? std::pair<const char*, py::dict>{"Output", py::dict()}
                                            : describeLayer(*layer);
            list.append(py::make_tuple(name, kind, sources[name], fields));
        }
        return list;
    }

    py::dict getInfo() const {
        using namespace py::literals;
        const BinLayout layout{network.inputPacking, 0, 0, 0, 0};
        return py::dict(
            "name"_a = network.modelName, "info_text"_a = network.modelInfoText,
            "sample_rate"_a = network.sampleRate, "input_channels"_a = network.numOfInputChannels,
            "output_channels"_a = network.numOfOutputChannels,
            "busses"_a =
                std::vector<std::string>(network.outputBusNames.begin(), network.outputBusNames.end()),
            "processing_mode"_a = network.processingMode, "fft_size"_a = network.fftSize,
            "window_size"_a = network.windowSize, "hop_size"_a = network.hopSize,
            "input_packing"_a = network.inputPacking, "output_packing"_a = network.outputPacking,
            "bins"_a = network.numBins, "fine_bins"_a = network.numFineBins,
            "group_size"_a = network.binGroupSize, "rows"_a = network.tensorFrequencies,
            "columns"_a = network.numOfInputChannels * (layout.isComplex() ? 2 : network.numHistoryFrames),
            "latency_in_frames"_a = network.latencyInFrames,
            "latency_milliseconds"_a = network.latencyMilliseconds);
    }

  private:
    using LayerEntry = LayerMap::mapped_type;

    static const BaseLayer<float>* getLayer(const LayerEntry& entry) {
        return std::get<std::shared_ptr<BaseLayer<float>>>(entry).get();
    }

    // Runs without the interpreter's lock and tells failures of the model in Python's terms.
    template <class Work>
    void withModel(const Work& work) {
        std::string failure;
        {
            const py::gil_scoped_release release;
            const std::lock_guard lock(mutex);
            const ScopedFlushDenormals flushDenormals;
            try {
                work();
                return;
            } catch (const std::bad_alloc&) {
                throw;
            } catch (const std::exception& error) {
                failure = error.what();
            }
        }
        failAsModel(failure);
    }

    FloatArray requireInput(py::handle input) const {
        const BinLayout layout{network.inputPacking, 0, 0, 0, 0};
        const int columns = network.numOfInputChannels * (layout.isComplex() ? 2 : network.numHistoryFrames);
        const std::string wanted = "a float32 array [time, " + std::to_string(network.tensorFrequencies) +
                                   ", " + std::to_string(columns) + "]";
        FloatArray array = requireFloats(input, 3, wanted.c_str());
        if (array.shape(1) != network.tensorFrequencies || array.shape(2) != columns)
            throw py::value_error("wanted " + wanted + ", got " + describe(input));
        return array;
    }

    template <class Collect>
    static void pushSlices(NeuralModel<float>& model, const FloatArray& input, const Collect& collect) {
        const auto values = input.unchecked<3>();
        Tensor<float> slice;
        for (py::ssize_t t = 0; t < values.shape(0); ++t) {
            slice.ensureShape({1, static_cast<int>(values.shape(1)), static_cast<int>(values.shape(2))});
            slice.ensureUniqueForOverwrite();
            float* out = slice.getWritePointer();
            for (py::ssize_t f = 0; f < values.shape(1); ++f)
                for (py::ssize_t c = 0; c < values.shape(2); ++c) *out++ = values(t, f, c);
            model.inputLayer->push(slice, nullptr);
            collect();
        }
    }

    static void collect(NeuralModel<float>& model, Slices& slices) {
        Tensor<float> result;
        model.outputLayer->takeResults(result);
        slices.append(result);
    }

    const separation::Model model;
    NeuralModel<float> network;
    std::mutex mutex;
};

}  // namespace

void bindModel(py::module_& module) {
    module.attr("ModelError") = getModelError();
    py::class_<TensorModel>(module, "TensorModel")
        .def_static("from_memory",
                    [](const py::bytes& content) {
                        const std::string bytes = content;
                        const py::gil_scoped_release release;
                        return std::make_unique<TensorModel>(
                            separation::Model::fromMemory(bytes.data(), bytes.size(), "model"));
                    })
        .def_static("open",
                    [](const std::string& path) {
                        const py::gil_scoped_release release;
                        return std::make_unique<TensorModel>(separation::Model::open(path));
                    })
        .def("push", &TensorModel::push)
        .def("reset", &TensorModel::reset)
        .def("layer_outputs", &TensorModel::getLayerOutputs)
        .def("layer_times", &TensorModel::getLayerTimes)
        .def("layers", &TensorModel::getLayers)
        .def("info", &TensorModel::getInfo);
}

}  // namespace zevrant::python
