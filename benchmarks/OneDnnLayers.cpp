#include "PeerLayers.h"

#ifdef ZEVRANT_HAS_ONEDNN

#include <omp.h>

#include <algorithm>
#include <array>
#include <memory>
#include <oneapi/dnnl/dnnl.hpp>
#include <unordered_map>
#include <utility>

namespace onednn {

namespace {

using dnnl::memory;
using Tag = memory::format_tag;

// One or more primitives, one after the other.
struct Run {
    dnnl::engine engine{dnnl::engine::kind::cpu, 0};
    dnnl::stream stream{engine};
    std::vector<std::pair<dnnl::primitive, std::unordered_map<int, memory>>> steps;

    template <class Primitive, class Description>
    void add(const Description& description, const std::vector<std::pair<int, memory::desc>>& tensors) {
        std::unordered_map<int, memory> arguments;
        for (const auto& [argument, tensor] : tensors) {
            memory buffer(tensor, engine);
            auto* values = static_cast<float*>(buffer.get_data_handle());
            for (std::size_t i = 0; i < tensor.get_size() / sizeof(float); ++i)
                values[i] = 0.001f * static_cast<float>(i % 1999) - 1.0f;
            arguments.emplace(argument, buffer);
        }
        steps.emplace_back(Primitive(description), std::move(arguments));
    }
    void operator()() {
        for (auto& [primitive, arguments] : steps) primitive.execute(stream, arguments);
        stream.wait();
    }
};

memory::desc describe(const memory::dims& dims, Tag tag = Tag::any) {
    return {dims, memory::data_type::f32, tag};
}

// build(run) adds the steps of a form; a form that the library does not take is left out.
template <class Build>
void addForm(PeerForms& forms, std::string name, const Build& build) {
    omp_set_num_threads(1);
    auto run = std::make_shared<Run>();
    try {
        build(*run);
    } catch (const dnnl::error&) {
        return;
    }
    forms.push_back({std::move(name), [run] { (*run)(); }});
}

template <class Forward>
void addWithBias(Run& run, const typename Forward::desc& description) {
    const typename Forward::primitive_desc primitive(description, run.engine);
    run.add<Forward>(primitive, {{DNNL_ARG_SRC, primitive.src_desc()},
                                 {DNNL_ARG_WEIGHTS, primitive.weights_desc()},
                                 {DNNL_ARG_BIAS, primitive.bias_desc()},
                                 {DNNL_ARG_DST, primitive.dst_desc()}});
}

// Images of height and width, channels first in dims; the height of the output is 1 or that of the kernel.
struct Image {
    long inputs, outputs, groups, kernelHeight, kernelWidth, inputWidth, outputWidth, stride, left;
};

void addConvolution(Run& run, const Image& image, dnnl::algorithm algorithm, Tag tag) {
    const auto [inputs, outputs, groups, height, taps, width, outputWidth, stride, left] = image;
    const memory::dims weights = groups > 1
                                     ? memory::dims{groups, outputs / groups, inputs / groups, height, taps}
                                     : memory::dims{outputs, inputs, height, taps};
    const long right = (outputWidth - 1) * stride + taps - left - width;
    addWithBias<dnnl::convolution_forward>(run, {dnnl::prop_kind::forward_inference,
                                                 algorithm,
                                                 describe({1, inputs, height, width}, tag),
                                                 describe(weights),
                                                 describe({outputs}),
                                                 describe({1, outputs, 1, outputWidth}, tag),
                                                 {1, stride},
                                                 {0, left},
                                                 {0, right}});
}

void addTransposed(Run& run, const Image& image, Tag tag) {
    const auto [inputs, outputs, groups, height, taps, width, outputWidth, stride, left] = image;
    const long right = (width - 1) * stride + taps - left - outputWidth;
    addWithBias<dnnl::deconvolution_forward>(run, {dnnl::prop_kind::forward_inference,
                                                   dnnl::algorithm::deconvolution_direct,
                                                   describe({1, inputs, 1, width}, tag),
                                                   describe({outputs, inputs, height, taps}),
                                                   describe({outputs}),
                                                   describe({1, outputs, height, outputWidth}, tag),
                                                   {1, stride},
                                                   {0, left},
                                                   {0, right}});
}

PeerForms makeElementWise(int count, dnnl::algorithm algorithm, float alpha) {
    PeerForms forms;
    addForm(forms, "eltwise", [&](Run& run) {
        const dnnl::eltwise_forward::desc description(dnnl::prop_kind::forward_inference, algorithm,
                                                      describe({1, count}, Tag::ab), alpha, 0.0f);
        const dnnl::eltwise_forward::primitive_desc primitive(description, run.engine);
        run.add<dnnl::eltwise_forward>(
            primitive, {{DNNL_ARG_SRC, primitive.src_desc()}, {DNNL_ARG_DST, primitive.dst_desc()}});
    });
    return forms;
}

constexpr std::array<std::pair<const char*, Tag>, 2> kLayouts = {{{"any", Tag::any}, {"nhwc", Tag::nhwc}}};

}  // namespace

// Time is the height of an image of one output row, or its slices are channels side by side.
PeerForms makeConvolution(const zevrant::kernels::Convolution& shape, int groups) {
    PeerForms forms;
    Image image = {groups > 1 ? groups : long(shape.numOfInputs),
                   shape.numOfOutputs,
                   groups,
                   shape.numOfSlices,
                   shape.numOfTaps,
                   shape.inputFrequencies,
                   shape.outputFrequencies,
                   shape.frequencyStride,
                   -shape.start};
    const auto add = [&](const std::string& form) {
        for (const auto& [layout, tag] : kLayouts) {
            addForm(forms, form + ", " + layout,
                    [&](Run& run) { addConvolution(run, image, dnnl::algorithm::convolution_direct, tag); });
            addForm(forms, form + ", automatic, " + layout,
                    [&](Run& run) { addConvolution(run, image, dnnl::algorithm::convolution_auto, tag); });
        }
    };
    add("slices as height");
    if (groups > 1 || shape.numOfSlices == 1) return forms;
    image.inputs *= image.kernelHeight;
    image.kernelHeight = 1;
    add("slices as channels");
    return forms;
}

// Slots are rows of the output, or channels side by side. The taps of each phase of the stride are a plain
// convolution as well.
PeerForms makeTransposed(const zevrant::kernels::TransposedConvolution& shape) {
    PeerForms forms;
    const Image rows = {shape.numOfInputs,       shape.numOfOutputs,    1,
                        shape.numOfSlots,        shape.numOfTaps,       shape.inputFrequencies,
                        shape.outputFrequencies, shape.frequencyStride, -shape.start};
    Image channels = rows;
    channels.outputs *= channels.kernelHeight;
    channels.kernelHeight = 1;
    for (const auto& [layout, tag] : kLayouts) {
        addForm(forms, std::string("slots as height, ") + layout,
                [&, &used = tag](Run& run) { addTransposed(run, rows, used); });
        addForm(forms, std::string("slots as channels, ") + layout,
                [&, &used = tag](Run& run) { addTransposed(run, channels, used); });
        addForm(forms, std::string("a convolution for each phase, ") + layout, [&, &used = tag](Run& run) {
            Image phase = channels;
            phase.kernelWidth /= phase.stride;
            phase.outputWidth = phase.inputWidth;
            phase.stride = 1;
            for (long p = 0; p < rows.stride; ++p) {
                phase.left = p == 0 ? phase.kernelWidth / 2 : 0;
                addConvolution(run, phase, dnnl::algorithm::convolution_direct, used);
            }
        });
    }
    return forms;
}

// A matrix for each channel: as a batch of products with a column or with a row, as inner products one after
// the other, and as a convolution with a group for each channel.
PeerForms makeDense(int numOfFrequencies, int numOfChannels) {
    PeerForms forms;
    const long f = numOfFrequencies, c = numOfChannels;
    const auto addProduct = [&](const std::string& name, const memory::desc& source,
                                const memory::desc& weights, const memory::desc& result) {
        addForm(forms, name, [&](Run& run) {
            const dnnl::matmul::primitive_desc primitive(dnnl::matmul::desc(source, weights, result),
                                                         run.engine);
            run.add<dnnl::matmul>(primitive, {{DNNL_ARG_SRC, primitive.src_desc()},
                                              {DNNL_ARG_WEIGHTS, primitive.weights_desc()},
                                              {DNNL_ARG_DST, primitive.dst_desc()}});
        });
    };
    addProduct("matrices by columns", describe({c, f, f}), describe({c, f, 1}), describe({c, f, 1}));
    addProduct("rows by matrices, any", describe({c, 1, f}), describe({c, f, f}), describe({c, 1, f}));
    for (const Tag tag : {Tag::abc, Tag::acb})
        addProduct(tag == Tag::abc ? "rows by matrices" : "rows by transposed matrices",
                   describe({c, 1, f}, Tag::abc), describe({c, f, f}, tag), describe({c, 1, f}, Tag::abc));
    for (const Tag tag : {Tag::any, Tag::ab, Tag::ba})
        addForm(forms, tag == Tag::any ? "inner products, any" : "inner products", [&](Run& run) {
            for (long channel = 0; channel < c; ++channel)
                addWithBias<dnnl::inner_product_forward>(
                    run, {dnnl::prop_kind::forward_inference, describe({1, f}, Tag::ab),
                          describe({f, f}, tag), describe({f}), describe({1, f}, Tag::ab)});
        });
    for (const auto& [layout, tag] : kLayouts)
        addForm(forms, std::string("grouped convolution, ") + layout, [&, &used = tag](Run& run) {
            addConvolution(run, {c * f, c * f, c, 1, 1, 1, 1, 1, 0}, dnnl::algorithm::convolution_direct,
                           used);
        });
    return forms;
}

PeerForms makeElu(int count) {
    return makeElementWise(count, dnnl::algorithm::eltwise_elu, 1.0f);
}
PeerForms makeSigmoid(int count) {
    return makeElementWise(count, dnnl::algorithm::eltwise_logistic, 0.0f);
}

}  // namespace onednn

#else

namespace onednn {

PeerForms makeConvolution(const zevrant::kernels::Convolution&, int) {
    return {};
}
PeerForms makeTransposed(const zevrant::kernels::TransposedConvolution&) {
    return {};
}
PeerForms makeDense(int, int) {
    return {};
}
PeerForms makeElu(int) {
    return {};
}
PeerForms makeSigmoid(int) {
    return {};
}

}  // namespace onednn

#endif
