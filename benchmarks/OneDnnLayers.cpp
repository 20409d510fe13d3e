#include "OneDnnLayers.h"

#ifdef ZEVRANT_HAS_ONEDNN

#include <omp.h>

#include <algorithm>
#include <memory>
#include <oneapi/dnnl/dnnl.hpp>
#include <unordered_map>

namespace onednn {

namespace {

using dnnl::memory;
using Tag = memory::format_tag;

struct Run {
    dnnl::engine engine{dnnl::engine::kind::cpu, 0};
    dnnl::stream stream{engine};
    std::vector<memory> buffers;
    dnnl::primitive primitive;
    std::unordered_map<int, memory> arguments;

    void add(int argument, const memory::desc& description) {
        memory buffer(description, engine);
        auto* values = static_cast<float*>(buffer.get_data_handle());
        for (std::size_t i = 0; i < description.get_size() / sizeof(float); ++i)
            values[i] = 0.001f * static_cast<float>(i % 1999) - 1.0f;
        arguments.emplace(argument, buffer);
    }
    void operator()() {
        primitive.execute(stream, arguments);
        stream.wait();
    }
};

memory::desc describe(const memory::dims& dims, Tag tag = Tag::any) {
    return {dims, memory::data_type::f32, tag};
}

std::function<void()> wrap(std::shared_ptr<Run> run) {
    return [run] { (*run)(); };
}

}  // namespace

// Time is the height and frequency the width of an image of one output row.
std::function<void()> makeConvolution(const zevrant::kernels::Convolution& shape, int groups) {
    omp_set_num_threads(1);
    auto run = std::make_shared<Run>();
    const long inputs = groups > 1 ? groups : long(shape.numOfInputs), outputs = shape.numOfOutputs;
    const memory::dims weights = groups > 1
                                     ? memory::dims{groups, 1, 1, shape.numOfSlices, shape.numOfTaps}
                                     : memory::dims{outputs, inputs, shape.numOfSlices, shape.numOfTaps};
    const long right = (shape.outputFrequencies - 1) * shape.frequencyStride + shape.numOfTaps + shape.start -
                       shape.inputFrequencies;
    const dnnl::convolution_forward::desc description(
        dnnl::prop_kind::forward_inference, dnnl::algorithm::convolution_direct,
        describe({1, inputs, shape.numOfSlices, shape.inputFrequencies}), describe(weights),
        describe({outputs}), describe({1, outputs, 1, shape.outputFrequencies}), {1, shape.frequencyStride},
        {0, -shape.start}, {0, right});
    const dnnl::convolution_forward::primitive_desc primitive(description, run->engine);
    run->add(DNNL_ARG_SRC, primitive.src_desc());
    run->add(DNNL_ARG_WEIGHTS, primitive.weights_desc());
    run->add(DNNL_ARG_BIAS, primitive.bias_desc());
    run->add(DNNL_ARG_DST, primitive.dst_desc());
    run->primitive = dnnl::convolution_forward(primitive);
    return wrap(run);
}

std::function<void()> makeTransposed(const zevrant::kernels::TransposedConvolution& shape) {
    omp_set_num_threads(1);
    auto run = std::make_shared<Run>();
    const long right = (shape.inputFrequencies - 1) * shape.frequencyStride + shape.numOfTaps + shape.start -
                       shape.outputFrequencies;
    const dnnl::deconvolution_forward::desc description(
        dnnl::prop_kind::forward_inference, dnnl::algorithm::deconvolution_direct,
        describe({1, shape.numOfInputs, 1, shape.inputFrequencies}),
        describe({shape.numOfOutputs, shape.numOfInputs, shape.numOfSlots, shape.numOfTaps}),
        describe({shape.numOfOutputs}),
        describe({1, shape.numOfOutputs, shape.numOfSlots, shape.outputFrequencies}),
        {1, shape.frequencyStride}, {0, -shape.start}, {0, right});
    const dnnl::deconvolution_forward::primitive_desc primitive(description, run->engine);
    run->add(DNNL_ARG_SRC, primitive.src_desc());
    run->add(DNNL_ARG_WEIGHTS, primitive.weights_desc());
    run->add(DNNL_ARG_BIAS, primitive.bias_desc());
    run->add(DNNL_ARG_DST, primitive.dst_desc());
    run->primitive = dnnl::deconvolution_forward(primitive);
    return wrap(run);
}

// A batch of one matrix by one column for each channel.
std::function<void()> makeDense(int numOfFrequencies, int numOfChannels) {
    omp_set_num_threads(1);
    auto run = std::make_shared<Run>();
    const long f = numOfFrequencies, c = numOfChannels;
    const dnnl::matmul::desc description(describe({c, f, f}), describe({c, f, 1}), describe({c, f, 1}));
    const dnnl::matmul::primitive_desc primitive(description, run->engine);
    run->add(DNNL_ARG_SRC, primitive.src_desc());
    run->add(DNNL_ARG_WEIGHTS, primitive.weights_desc());
    run->add(DNNL_ARG_DST, primitive.dst_desc());
    run->primitive = dnnl::matmul(primitive);
    return wrap(run);
}

}  // namespace onednn

#else

namespace onednn {

std::function<void()> makeConvolution(const zevrant::kernels::Convolution&, int) {
    return {};
}
std::function<void()> makeTransposed(const zevrant::kernels::TransposedConvolution&) {
    return {};
}
std::function<void()> makeDense(int, int) {
    return {};
}

}  // namespace onednn

#endif
