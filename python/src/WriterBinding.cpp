#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include "Arrays.h"
#include "Bindings.h"
#include "modelwriter/ModelWriter.h"

namespace zevrant::python {

namespace mw = zevrant::modelwriter;

namespace {

// The fields of one record, by the names of the dataclasses in zevrant/layers.py. What is wrong with a value
// is told with the layer and the field.
class Fields {
  public:
    Fields(std::string nameOfLayer, py::dict fieldsOfLayer)
        : layer(std::move(nameOfLayer)), fields(std::move(fieldsOfLayer)) {}

    int getInt(const char* field) const { return toInt(get(field), field); }

    int toInt(py::handle value, const char* field) const {
        if (!PyIndex_Check(value.ptr())) fail(field, "an integer", value);
        const Py_ssize_t number = PyNumber_AsSsize_t(value.ptr(), nullptr);
        if (number < std::numeric_limits<int>::min() || number > std::numeric_limits<int>::max())
            fail(field, "an integer of 32 bits", value);
        return static_cast<int>(number);
    }

    float getFloat(const char* field) const {
        const double number = PyFloat_AsDouble(get(field).ptr());
        if (PyErr_Occurred()) {
            PyErr_Clear();
            fail(field, "a number", get(field));
        }
        return static_cast<float>(number);
    }

    // None is a tensor that is left out. Any numbers serve; they are rounded to single precision.
    mw::WeightTensor getTensor(const char* field) const { return toTensor(get(field), field); }

    mw::WeightTensor toTensor(py::handle value, const char* field) const {
        if (value.is_none()) return {};
        const auto array = py::array_t<float, py::array::c_style | py::array::forcecast>::ensure(value);
        if (!array) {
            PyErr_Clear();
            fail(field, "an array of numbers", value);
        }
        if (array.ndim() > 8) fail(field, "an array of up to 8 axes", value);
        mw::WeightTensor tensor;
        for (py::ssize_t axis = 0; axis < array.ndim(); ++axis) {
            if (array.shape(axis) > std::numeric_limits<int>::max()) fail(field, "axes of 32 bits", value);
            tensor.shape.push_back(static_cast<int>(array.shape(axis)));
        }
        tensor.values.assign(array.data(), array.data() + array.size());
        if (tensor.shape.empty()) tensor.shape.push_back(1);
        return tensor;
    }

    py::handle get(const char* field) const { return fields[field]; }

    [[noreturn]] void fail(const char* field, const char* wanted, py::handle value) const {
        throw py::type_error("layer \"" + layer + "\", " + field + ": wanted " + wanted + ", got " +
                             describe(value) + " (" + std::string(py::str(py::repr(value))).substr(0, 60) +
                             ")");
    }

  private:
    std::string layer;
    py::dict fields;
};

std::vector<mw::FrequencyRescale::Band> getBands(const Fields& fields) {
    constexpr const char* wanted = "pairs of a first input and taps";
    const py::handle value = fields.get("bands");
    if (!PySequence_Check(value.ptr())) fields.fail("bands", wanted, value);
    std::vector<mw::FrequencyRescale::Band> bands;
    for (const py::handle band : value) {
        if (!PyTuple_Check(band.ptr()) || PyTuple_Size(band.ptr()) != 2) fields.fail("bands", wanted, band);
        const auto pair = py::reinterpret_borrow<py::tuple>(band);
        bands.push_back({fields.toInt(pair[0], "bands"), fields.toTensor(pair[1], "bands")});
    }
    return bands;
}

mw::SingleSourceLayer makeLayer(const std::string& kind, const Fields& fields) {
    const auto tensor = [&](const char* name) { return fields.getTensor(name); };
    const auto integer = [&](const char* name) { return fields.getInt(name); };
    if (kind == "Conv")
        return mw::Conv{.weights = tensor("weights"),
                        .bias = tensor("bias"),
                        .timeStride = integer("time_stride"),
                        .frequencyStride = integer("frequency_stride"),
                        .timeDilation = integer("time_dilation"),
                        .reservedParameter = integer("reserved"),
                        .timeOffset = integer("time_offset")};
    if (kind == "TransposedConv") {
        mw::TransposedConv layer{.weights = tensor("weights"),
                                 .bias = tensor("bias"),
                                 .timeStride = integer("time_stride"),
                                 .frequencyStride = integer("frequency_stride"),
                                 .timeDilation = integer("time_dilation"),
                                 .reservedParameter = integer("reserved"),
                                 .timeOffset = integer("time_offset")};
        if (!fields.get("output_channels").is_none()) layer.outputChannels = integer("output_channels");
        return layer;
    }
    if (kind == "ReLU") return mw::ReLU{};
    if (kind == "ELU") return mw::ELU{};
    if (kind == "Sigmoid") return mw::Sigmoid{};
    if (kind == "HardSigmoid") return mw::HardSigmoid{};
    if (kind == "Softplus") return mw::Softplus{};
    if (kind == "LeakyReLU") return mw::LeakyReLU{fields.getFloat("alpha")};
    if (kind == "Norm") return mw::Norm{integer("mode"), tensor("gain"), tensor("offset")};
    if (kind == "PreNorm") return mw::PreNorm{tensor("level_weights")};
    if (kind == "ARPreNorm")
        return mw::ARPreNorm{fields.getFloat("attack"), fields.getFloat("release"),
                             fields.getFloat("epsilon")};
    if (kind == "Dense") return mw::Dense{tensor("weights"), tensor("bias")};
    if (kind == "SeparableChannelConv")
        return mw::SeparableChannelConv{tensor("time_kernel"), tensor("frequency_kernel")};
    if (kind == "SelfAttention")
        return mw::SelfAttention{tensor("channel_matrix"), tensor("position_bias"), integer("start_delay"),
                                 tensor("time_weights")};
    if (kind == "FrequencyRescale") return mw::FrequencyRescale{getBands(fields)};
    throw py::type_error("a layer of kind " + kind + " does not take one source");
}

mw::MergingLayer makeMergingLayer(const std::string& kind, const Fields& fields) {
    if (kind == "Concat") return mw::Concat{};
    if (kind == "Arithmetic") return mw::Arithmetic{fields.getInt("operation")};
    throw py::type_error("a layer of kind " + kind + " takes one source");
}

mw::Packing makePacking(int code, int fineBins, int otherBins, int extra) {
    switch (code) {
        case 1:
            return mw::Packing::magnitudes(otherBins);
        case 2:
            return mw::Packing::rectifiedParts(fineBins, otherBins);
        case 4:
            return mw::Packing::complexBins(otherBins);
        case 5:
            return mw::Packing::frameHistory(fineBins, otherBins, extra);
        case 6:
            return mw::Packing::complexGroups(fineBins, otherBins, extra);
        default:
            throw py::value_error("packing " + std::to_string(code) + " is not known");
    }
}

}  // namespace

void bindWriter(py::module_& module) {
    module.attr("EARLIEST_VERSION") = mw::earliestVersion;
    module.attr("LATEST_VERSION") = mw::latestVersion;

    py::class_<mw::ModelWriter>(module, "Writer")
        .def(py::init<std::string, int>(), py::arg("name"), py::arg("version"))
        .def("set_info_text",
             [](mw::ModelWriter& writer, const std::string& text) { writer.setInfoText(text); })
        .def("set_sample_rate", [](mw::ModelWriter& writer, double hertz) { writer.setSampleRate(hertz); })
        .def("set_channels",
             [](mw::ModelWriter& writer, int input, int output) { writer.setChannels(input, output); })
        .def("set_processing_mode", [](mw::ModelWriter& writer, int mode) { writer.setProcessingMode(mode); })
        .def("set_busses",
             [](mw::ModelWriter& writer, const std::vector<std::string>& names) { writer.setBusses(names); })
        .def("set_frames", [](mw::ModelWriter& writer, int fft, int window,
                              int hop) { writer.setFrames(fft, window, hop); })
        .def("set_packing",
             [](mw::ModelWriter& writer, int code, int fine, int other, int extra, int outputCode) {
                 // The numbers of the output packing are the input's, so they are written alike.
                 const auto outputFine = outputCode == 1 || outputCode == 4 ? 0 : fine;
                 const auto outputOther = fine + other - outputFine;
                 writer.setPacking(makePacking(code, fine, other, extra),
                                   makePacking(outputCode, outputFine, outputOther, extra));
             })
        .def("set_half_precision",
             [](mw::ModelWriter& writer, bool isHalf) {
                 writer.setTensorStorage(isHalf ? mw::TensorStorage::HalfPrecision
                                                : mw::TensorStorage::SinglePrecision);
             })
        .def("add_layer",
             [](mw::ModelWriter& writer, const std::string& name, const std::string& source,
                const std::string& kind, const py::dict& fields) {
                 writer.addLayer(name, source, makeLayer(kind, Fields(name, fields)));
             })
        .def("add_merging_layer",
             [](mw::ModelWriter& writer, const std::string& name, const std::vector<std::string>& sources,
                const std::string& kind, const py::dict& fields) {
                 writer.addLayer(name, sources, makeMergingLayer(kind, Fields(name, fields)));
             })
        .def("add_raw_layer",
             [](mw::ModelWriter& writer, const std::string& name, int typeCode, const py::bytes& payload) {
                 const std::string bytes = payload;
                 writer.addRawLayer(name, typeCode, mw::Bytes(bytes.begin(), bytes.end()));
             })
        .def("set_output",
             [](mw::ModelWriter& writer, const std::string& source) { writer.setOutput(source); })
        .def("to_bytes",
             [](const mw::ModelWriter& writer) {
                 const mw::Bytes bytes = writer.toBytes();
                 return py::bytes(reinterpret_cast<const char*>(bytes.data()), bytes.size());
             })
        .def("write", [](const mw::ModelWriter& writer, const std::filesystem::path& path) {
            const py::gil_scoped_release release;
            writer.write(path);
        });
}

}  // namespace zevrant::python
