#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include "Arrays.h"
#include "Bindings.h"
#include "audiofiles/Audio.h"
#include "audiofiles/Error.h"
#include "audiofiles/Interruption.h"
#include "audiofiles/Pass.h"
#include "audiofiles/SampleFormat.h"
#include "audiofiles/StemFiles.h"
#include "separation/Model.h"
#include "separation/Separator.h"

namespace zevrant::python {

using separation::Model;
using separation::Output;
using separation::Separator;

namespace {

// Where the controls of the busses stand while a whole piece is separated.
struct Controls {
    void applyTo(Separator& separator) const {
        separator.setMaskExtrapolationEnabled(extrapolatesMasks);
        for (const auto& [bus, gain] : gains) separator.setGain(bus, gain);
        for (const auto& [bus, sensitivity] : sensitivities) separator.setSensitivity(bus, sensitivity);
    }

    std::vector<std::pair<int, float>> gains;
    std::vector<std::pair<int, float>> sensitivities;
    bool extrapolatesMasks = true;
    int channelsPerGroup = 0;
    bool resamples = false;
};

constexpr int mostChannels = 1024;

// Blocks in, blocks out. One thread at a time is let in; the others wait.
class Processor {
  public:
    Processor(const std::string& pathOrName, int numOfChannels, double sampleRate, int channelsPerGroup)
        : model(open(pathOrName, numOfChannels)),
          separator(model, Output::Mix, numOfChannels, sampleRate, channelsPerGroup),
          numOfZerosLeft(separator.getLatency()) {}

    static Model open(const std::string& pathOrName, int channels = 1) {
        if (channels < 1 || channels > mostChannels)
            throw py::value_error("wanted 1 to " + std::to_string(mostChannels) + " channels, got " +
                                  std::to_string(channels));
        const py::gil_scoped_release release;
        return Model::open(pathOrName);
    }

    FloatArray process(py::handle block) {
        const FloatArray in = requireFloats(block, 2, "a float32 array [channels, samples]");
        const int numOfChannels = separator.getNumOfInputChannels();
        if (in.shape(0) != numOfChannels || in.shape(1) > mostSamples)
            throw py::value_error("wanted a float32 array [" + std::to_string(numOfChannels) +
                                  ", samples], got " + describe(block));
        const auto numOfSamples = static_cast<int>(in.shape(1));
        FloatArray out({numOfChannels, numOfSamples});
        const py::gil_scoped_release release;
        const std::lock_guard lock(mutex);
        if (numOfSamples > 0) separator.add(getRows(in), numOfSamples);
        take(out, numOfSamples);
        return out;
    }

    FloatArray flush() {
        const int latency = separator.getLatency();
        FloatArray out({separator.getNumOfInputChannels(), latency});
        const py::gil_scoped_release release;
        const std::lock_guard lock(mutex);
        if (latency > 0) {
            const std::vector<float> zeros(static_cast<std::size_t>(latency), 0.0f);
            inRows.assign(static_cast<std::size_t>(separator.getNumOfInputChannels()), zeros.data());
            separator.add(inRows.data(), latency);
        }
        take(out, latency);
        start();
        return out;
    }

    void reset() {
        const py::gil_scoped_release release;
        const std::lock_guard lock(mutex);
        start();
    }

    const Model model;
    Separator separator;

  private:
    static constexpr py::ssize_t mostSamples = 1 << 24;

    void start() {
        separator.reset();
        numOfZerosLeft = separator.getLatency();
    }

    // The rows of an array as they lie, or of a copy where samples are not side by side.
    const float* const* getRows(const FloatArray& array) {
        const auto channels = static_cast<std::size_t>(array.shape(0));
        const auto length = static_cast<std::size_t>(array.shape(1));
        const bool isPlain = array.strides(1) == sizeof(float) || array.shape(1) < 2;
        inRows.resize(channels);
        if (!isPlain) copied.resize(channels * length);
        for (std::size_t c = 0; c < channels; ++c) {
            inRows[c] = array.data(static_cast<py::ssize_t>(c), 0);
            if (isPlain) continue;
            float* row = copied.data() + c * length;
            for (std::size_t i = 0; i < length; ++i)
                row[i] = *array.data(static_cast<py::ssize_t>(c), static_cast<py::ssize_t>(i));
            inRows[c] = row;
        }
        return inRows.data();
    }

    // Silence for the latency, and then what the separator has ready.
    void take(FloatArray& out, int numOfSamples) {
        const int numOfZeros = std::min(numOfSamples, numOfZerosLeft);
        outRows.clear();
        for (py::ssize_t c = 0; c < out.shape(0); ++c) {
            float* row = out.mutable_data() + c * out.shape(1);
            std::fill_n(row, numOfZeros, 0.0f);
            outRows.push_back(row + numOfZeros);
        }
        numOfZerosLeft -= numOfZeros;
        if (numOfSamples > numOfZeros) separator.take(outRows.data(), numOfSamples - numOfZeros);
    }

    std::mutex mutex;
    int numOfZerosLeft;
    std::vector<const float*> inRows;
    std::vector<float*> outRows;
    std::vector<float> copied;
};

// An array as audio that is read from front to back.
class ArrayReader : public audiofiles::AudioReader {
  public:
    ArrayReader(FloatArray audioToRead, int sampleRate) : audio(std::move(audioToRead)) {
        name = "array";
        description.numOfChannels = static_cast<int>(audio.shape(0));
        description.sampleRate = sampleRate;
        description.numOfSamples = audio.shape(1);
    }

    int read(float* interleaved, int numOfSamples) override {
        const auto values = audio.unchecked<2>();
        const auto count = static_cast<int>(std::min<py::ssize_t>(numOfSamples, audio.shape(1) - position));
        for (py::ssize_t c = 0; c < audio.shape(0); ++c)
            for (int i = 0; i < count; ++i) interleaved[i * audio.shape(0) + c] = values(c, position + i);
        position += count;
        return count;
    }

  private:
    FloatArray audio;
    py::ssize_t position = 0;
};

// Tells a callback of Python how far a pass has come, some times a second.
class Progress {
  public:
    explicit Progress(py::object callbackOrNone) : callback(std::move(callbackOrNone)) {}

    void add(std::int64_t count) {
        done += count;
        if (callback.is_none()) return;
        const auto now = Clock::now();
        if (now - latest < std::chrono::milliseconds(50) && done != total) return;
        latest = now;
        const py::gil_scoped_acquire acquire;
        callback(done, total < 0 ? py::object(py::none()) : py::object(py::int_(total)));
    }

    std::int64_t total = -1;  // samples; below 0: not known

  private:
    using Clock = std::chrono::steady_clock;

    py::object callback;
    std::int64_t done = 0;
    Clock::time_point latest{};
};

constexpr int blockSize = 4096;

// Lets a signal such as Ctrl-C stop a pass.
void checkSignals() {
    const py::gil_scoped_acquire acquire;
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
}

double getWorkingRate(const Model& model, const audiofiles::AudioReader& reader, const Controls& controls) {
    return controls.resamples ? model.network.sampleRate : reader.description.sampleRate;
}

// [busses, channels, samples]
FloatArray separate(const std::string& pathOrName, py::handle audio, int sampleRate, const Controls& controls,
                    const py::object& callback) {
    const FloatArray in = requireFloats(audio, 2, "a float32 array [channels, samples]");
    if (in.shape(0) < 1 || in.shape(0) > mostChannels || sampleRate < 1)
        throw py::value_error("wanted 1 to " + std::to_string(mostChannels) +
                              " channels and a sample rate above 0, got " + describe(audio));
    const Model model = Processor::open(pathOrName);
    const auto numOfBusses = static_cast<py::ssize_t>(model.getBusNames().size());
    const py::ssize_t numOfChannels = in.shape(0), numOfSamples = in.shape(1);
    FloatArray stems({numOfBusses, numOfChannels, numOfSamples});
    float* const rows = stems.mutable_data();

    ArrayReader reader(in, sampleRate);
    Progress progress(callback);
    progress.total = numOfSamples;
    const py::gil_scoped_release release;
    const double workingRate = getWorkingRate(model, reader, controls);
    Separator separator(model, Output::Busses, static_cast<int>(numOfChannels), workingRate,
                        controls.channelsPerGroup);
    controls.applyTo(separator);
    py::ssize_t position = 0;
    const auto receive = [&](const audiofiles::PassBlock& block) {
        for (py::ssize_t row = 0; row < numOfBusses * numOfChannels; ++row)
            for (int i = 0; i < block.numOfSamples; ++i)
                rows[row * numOfSamples + position + i] =
                    block.output[static_cast<py::ssize_t>(i) * block.numOfOutputChannels + row];
        position += block.numOfSamples;
        progress.add(block.numOfSamples);
    };
    audiofiles::runPass(reader, separator, workingRate, blockSize, receive);
    return stems;
}

// Paths of the stems, in the order of the busses.
std::vector<std::string> separateFile(const std::string& pathOrName, const std::string& input,
                                      const std::string& folder, const std::string& extension,
                                      const std::string& sampleFormat, const Controls& controls,
                                      const py::object& callback) {
    const Model model = Processor::open(pathOrName);
    Progress progress(callback);
    const py::gil_scoped_release release;
    const auto reader = audiofiles::openAudio(input);
    progress.total = reader->description.numOfSamples;
    audiofiles::AudioDescription description = reader->description;
    if (!sampleFormat.empty()) {
        description.sampleFormat = audiofiles::parseSampleFormat(sampleFormat);
        if (description.sampleFormat == 0)
            throw std::invalid_argument(
                "sample_format is \"pcm16\", \"pcm24\", \"pcm32\", \"float\" or "
                "\"double\", not \"" +
                sampleFormat + "\"");
    }
    const double workingRate = getWorkingRate(model, *reader, controls);
    Separator separator(model, Output::Busses, description.numOfChannels, workingRate,
                        controls.channelsPerGroup);
    controls.applyTo(separator);

    audiofiles::ProtectedFiles inputs;
    inputs.add(input);
    inputs.add(model.path);
    audiofiles::OutputFolder outputFolder(folder);
    std::vector<std::unique_ptr<audiofiles::AudioWriter>> writers;
    std::vector<std::string> paths;
    const std::string ending = extension.empty() ? audiofiles::chooseExtension(description) : extension;
    for (const std::string& name : audiofiles::makeFileNames(model.getBusNames())) {
        paths.push_back((std::filesystem::path(folder) / (name + "." + ending)).string());
        writers.push_back(audiofiles::createAudio(paths.back(), description, inputs));
    }

    const auto numOfChannels = static_cast<std::size_t>(description.numOfChannels);
    std::vector<float> stem;
    const auto receive = [&](const audiofiles::PassBlock& block) {
        const auto length = static_cast<std::size_t>(block.numOfSamples);
        stem.resize(length * numOfChannels);
        for (std::size_t bus = 0; bus < writers.size(); ++bus) {
            for (std::size_t i = 0; i < length; ++i)
                std::copy_n(block.output + (i * writers.size() + bus) * numOfChannels, numOfChannels,
                            stem.data() + i * numOfChannels);
            writers[bus]->write(stem.data(), block.numOfSamples);
        }
        progress.add(block.numOfSamples);
    };
    audiofiles::runPass(*reader, separator, workingRate, blockSize, receive);
    for (const auto& writer : writers) writer->close();
    for (const auto& writer : writers) writer->commit();
    outputFolder.keep();
    return paths;
}

void translateErrors(std::exception_ptr pointer) {
    try {
        if (pointer) std::rethrow_exception(pointer);
    } catch (const separation::Error& error) {
        using enum separation::ErrorKind;
        PyObject* kind = getModelError().ptr();
        if (error.kind == BadArgument || error.kind == BadFormat) kind = PyExc_ValueError;
        if (error.kind == NoSuchModel) kind = PyExc_FileNotFoundError;
        PyErr_SetString(kind, error.what());
    } catch (const audiofiles::Error& error) {
        using enum audiofiles::ErrorKind;
        PyObject* kind = PyExc_OSError;
        if (error.kind == Unsupported) kind = PyExc_ValueError;
        if (error.kind == Failed) kind = PyExc_RuntimeError;
        PyErr_SetString(kind, error.what());
    }
}

}  // namespace

void bindSeparation(py::module_& module) {
    py::register_exception_translator(&translateErrors);
    audiofiles::setInterruptionCheck(&checkSignals);
    module.def("list_models", &separation::listModels);

    py::class_<Controls>(module, "Controls")
        .def(py::init<>())
        .def_readwrite("gains", &Controls::gains)
        .def_readwrite("sensitivities", &Controls::sensitivities)
        .def_readwrite("extrapolates_masks", &Controls::extrapolatesMasks)
        .def_readwrite("channels_per_group", &Controls::channelsPerGroup)
        .def_readwrite("resamples", &Controls::resamples);
    module.def("separate", &separate);
    module.def("separate_file", &separateFile);
    module.def("get_bus_names",
               [](const std::string& pathOrName) { return Processor::open(pathOrName).getBusNames(); });

    py::class_<Processor>(module, "Processor")
        .def(py::init<const std::string&, int, double, int>())
        .def("process", &Processor::process, py::arg("block"))
        .def("flush", &Processor::flush)
        .def("reset", &Processor::reset)
        .def_property_readonly("latency", [](const Processor& p) { return p.separator.getLatency(); })
        .def_property_readonly("channels",
                               [](const Processor& p) { return p.separator.getNumOfInputChannels(); })
        .def_property_readonly("busses", [](const Processor& p) { return p.model.getBusNames(); })
        .def_property(
            "mask_extrapolation",
            [](const Processor& p) { return p.separator.getMaskExtrapolationEnabled(); },
            [](Processor& p, bool enabled) { p.separator.setMaskExtrapolationEnabled(enabled); })
        .def("get_gain", [](const Processor& p, int bus) { return p.separator.getGain(bus); })
        .def("set_gain", [](Processor& p, int bus, float gain) { p.separator.setGain(bus, gain); })
        .def("get_sensitivity", [](const Processor& p, int bus) { return p.separator.getSensitivity(bus); })
        .def("set_sensitivity",
             [](Processor& p, int bus, float value) { p.separator.setSensitivity(bus, value); });
}

}  // namespace zevrant::python
