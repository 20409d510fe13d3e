#include "PeerLayers.h"

#ifdef ZEVRANT_HAS_XNNPACK

#include <xnnpack.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <utility>

namespace xnnpack {

namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();

// Operators one after the other, over buffers that they share with nobody.
struct Run {
    std::vector<xnn_operator_t> steps;
    std::vector<std::unique_ptr<std::vector<float>>> buffers;

    ~Run() {
        for (xnn_operator_t step : steps) xnn_delete_operator(step);
    }
    float* takeBuffer(std::size_t count) {
        // Kernels may read a few bytes behind the end.
        buffers.push_back(std::make_unique<std::vector<float>>(count + XNN_EXTRA_BYTES));
        std::vector<float>& values = *buffers.back();
        for (std::size_t i = 0; i < values.size(); ++i)
            values[i] = 0.001f * static_cast<float>(i % 1999) - 1.0f;
        return values.data();
    }
    bool add(xnn_status status, const xnn_operator_t& step) {  // which the same call may have made
        if (status == xnn_status_success) steps.push_back(step);
        return status == xnn_status_success;
    }
    void operator()() {
        for (xnn_operator_t step : steps) xnn_run_operator(step, nullptr);
    }
};

template <class Build>
void addForm(PeerForms& forms, std::string name, const Build& build) {
    if (xnn_initialize(nullptr) != xnn_status_success) return;
    auto run = std::make_shared<Run>();
    if (build(*run)) forms.push_back({std::move(name), [run] { (*run)(); }});
}

struct Image {
    std::ptrdiff_t inputs, outputs, groups, kernelHeight, kernelWidth, inputWidth, outputWidth, stride, left;
};

bool addConvolution(Run& run, const Image& image) {
    const auto size = [](std::ptrdiff_t count) { return static_cast<std::size_t>(count); };
    const auto number = [](std::ptrdiff_t count) { return static_cast<std::uint32_t>(count); };
    const auto [inputs, outputs, groups, height, taps, width, outputWidth, stride, left] = image;
    const std::ptrdiff_t right = (outputWidth - 1) * stride + taps - left - width;
    const float* kernel = run.takeBuffer(size(outputs * (inputs / groups) * height * taps));
    const float* bias = run.takeBuffer(size(outputs));
    xnn_operator_t step = nullptr;
    return run.add(xnn_create_convolution2d_nhwc_f32(
                       0, number(std::max<std::ptrdiff_t>(right, 0)), 0, number(left), number(height),
                       number(taps), 1, number(stride), 1, 1, number(groups), size(inputs / groups),
                       size(outputs / groups), size(inputs), size(outputs), kernel, bias, -kInfinity,
                       kInfinity, 0, &step),
                   step) &&
           xnn_setup_convolution2d_nhwc_f32(
               step, 1, size(height), size(width), run.takeBuffer(size(height * width * inputs)),
               run.takeBuffer(size(outputWidth * outputs)), nullptr) == xnn_status_success;
}

bool addTransposed(Run& run, const Image& image) {
    const auto size = [](std::ptrdiff_t count) { return static_cast<std::size_t>(count); };
    const auto number = [](std::ptrdiff_t count) { return static_cast<std::uint32_t>(count); };
    const auto [inputs, outputs, groups, height, taps, width, outputWidth, stride, left] = image;
    const std::ptrdiff_t right = (width - 1) * stride + taps - left - outputWidth;
    const float* kernel = run.takeBuffer(size(outputs * inputs * height * taps));
    const float* bias = run.takeBuffer(size(outputs));
    xnn_operator_t step = nullptr;
    return run.add(xnn_create_deconvolution2d_nhwc_f32(0, number(right), 0, number(left), number(height),
                                                       number(taps), 1, number(stride), 1, 1, 1, size(inputs),
                                                       size(outputs), size(inputs), size(outputs), kernel,
                                                       bias, -kInfinity, kInfinity, 0, &step),
                   step) &&
           xnn_setup_deconvolution2d_nhwc_f32(
               step, 1, 1, size(width), 0, 0, run.takeBuffer(size(width * inputs)),
               run.takeBuffer(size(height * outputWidth * outputs)), nullptr) == xnn_status_success;
}

template <class Create, class SetUp>
PeerForms makeElementWise(int count, const Create& create, const SetUp& setUp) {
    PeerForms forms;
    const auto n = static_cast<std::size_t>(count);
    addForm(forms, "one row", [&](Run& run) {
        xnn_operator_t step = nullptr;
        return run.add(create(n, &step), step) &&
               setUp(step, run.takeBuffer(n), run.takeBuffer(n)) == xnn_status_success;
    });
    return forms;
}

}  // namespace

PeerForms makeConvolution(const zevrant::kernels::Convolution& shape, int groups) {
    PeerForms forms;
    Image image = {groups > 1 ? groups : shape.numOfInputs,
                   shape.numOfOutputs,
                   groups,
                   shape.numOfSlices,
                   shape.numOfTaps,
                   shape.inputFrequencies,
                   shape.outputFrequencies,
                   shape.frequencyStride,
                   -shape.start};
    addForm(forms, "slices as height", [&](Run& run) { return addConvolution(run, image); });
    if (groups > 1 || shape.numOfSlices == 1) return forms;
    image.inputs *= image.kernelHeight;
    image.kernelHeight = 1;
    addForm(forms, "slices as channels", [&](Run& run) { return addConvolution(run, image); });
    return forms;
}

PeerForms makeTransposed(const zevrant::kernels::TransposedConvolution& shape) {
    PeerForms forms;
    const Image rows = {shape.numOfInputs,       shape.numOfOutputs,    1,
                        shape.numOfSlots,        shape.numOfTaps,       shape.inputFrequencies,
                        shape.outputFrequencies, shape.frequencyStride, -shape.start};
    Image channels = rows;
    channels.outputs *= channels.kernelHeight;
    channels.kernelHeight = 1;
    addForm(forms, "slots as height", [&](Run& run) { return addTransposed(run, rows); });
    addForm(forms, "slots as channels", [&](Run& run) { return addTransposed(run, channels); });
    addForm(forms, "a convolution for each phase", [&](Run& run) {
        Image phase = channels;
        phase.kernelWidth /= phase.stride;
        phase.outputWidth = phase.inputWidth;
        phase.stride = 1;
        bool isDone = true;
        for (std::ptrdiff_t p = 0; p < rows.stride; ++p) {
            phase.left = p == 0 ? phase.kernelWidth / 2 : 0;
            isDone = isDone && addConvolution(run, phase);
        }
        return isDone;
    });
    return forms;
}

PeerForms makeDense(int numOfFrequencies, int numOfChannels) {
    PeerForms forms;
    const auto f = static_cast<std::size_t>(numOfFrequencies);
    addForm(forms, "fully connected, one after the other", [&](Run& run) {
        for (int c = 0; c < numOfChannels; ++c) {
            xnn_operator_t step = nullptr;
            if (!run.add(
                    xnn_create_fully_connected_nc_f32(f, f, f, f, run.takeBuffer(f * f), run.takeBuffer(f),
                                                      -kInfinity, kInfinity, 0, &step),
                    step) ||
                xnn_setup_fully_connected_nc_f32(step, 1, run.takeBuffer(f), run.takeBuffer(f), nullptr) !=
                    xnn_status_success)
                return false;
        }
        return true;
    });
    addForm(forms, "grouped convolution", [&](Run& run) {
        const std::ptrdiff_t width = std::ptrdiff_t{numOfFrequencies} * numOfChannels;
        return addConvolution(run, {width, width, numOfChannels, 1, 1, 1, 1, 1, 0});
    });
    return forms;
}

PeerForms makeElu(int count) {
    return makeElementWise(
        count,
        [](std::size_t n, xnn_operator_t* step) { return xnn_create_elu_nc_f32(n, n, n, 1.0f, 0, step); },
        [](xnn_operator_t step, const float* in, float* out) {
            return xnn_setup_elu_nc_f32(step, 1, in, out, nullptr);
        });
}

PeerForms makeSigmoid(int count) {
    return makeElementWise(
        count,
        [](std::size_t n, xnn_operator_t* step) { return xnn_create_sigmoid_nc_f32(n, n, n, 0, step); },
        [](xnn_operator_t step, const float* in, float* out) {
            return xnn_setup_sigmoid_nc_f32(step, 1, in, out, nullptr);
        });
}

}  // namespace xnnpack

#else

namespace xnnpack {

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

}  // namespace xnnpack

#endif
