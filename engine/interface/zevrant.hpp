/// @file
/// The interface for C++ hosts: the functions of zevrant.h as two handles that own themselves. Header-only,
/// C++20; every member is one inline call of the C function of its name, so it costs what that call costs.
///
///   auto processor = zevrant::Processor::create("model.zevrant", 2, 48000.0);
///   if (!processor) return fail();
///   processor->setBusGain(1, 0.0f);
///   processor->addAudio(input, 480);               // input: a table of channel pointers
///   while (processor->getAudio(output, 480)) play(output, 480);
///
/// Handles move and do not copy. A handle that was moved from is empty: it may be assigned to, destroyed or
/// asked for with `if (handle)`, and nothing else. Counts are samples per channel. Units, ranges and threads
/// are those of zevrant.h: [host] and [audio] calls on one handle never overlap, [any] may run during them.
/// What leaves an audio or tensor call as an exception is a standard one.
#pragma once

#include <array>
#include <cassert>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "zevrant.h"

namespace zevrant {

/// No handle could be made: a file is missing or is no model, models disagree, or the format is impossible.
class CreationError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// The name of the vector arithmetic that this build runs on. [any]
inline std::string getVectorArithmeticWrapperName() {
    std::array<char, 256> name{};  // one byte stays for the terminator, which the C function does not promise
    zevrantGetVectorArithmeticWrapperName(name.data(), static_cast<int>(name.size()) - 1);
    return name.data();
}

/// Audio in, audio out, through one model or several.
class Processor {
  public:
    /// What a parameter may be.
    struct Range {
        float minimum;  ///< lowest value
        float maximum;  ///< highest value
    };

    /// Opens a processor on one model file; throws CreationError when that fails. [host]
    Processor(const std::string& modelPath, int numOfChannels, double sampleRate)
        : Processor(zevrantCreateProcessor(modelPath.c_str(), numOfChannels, sampleRate), numOfChannels) {
        if (!handle) throw CreationError("cannot open a processor on " + modelPath);
    }

    /// The same on several model files, whose busses follow each other in the order of the paths. [host]
    Processor(std::span<const std::string> modelPaths, int numOfChannels, double sampleRate)
        : Processor(createStemSeparator(modelPaths, numOfChannels, sampleRate), numOfChannels) {
        if (!handle) throw CreationError("cannot open a processor on these models");
    }

    /// As the constructors, with an empty optional for a failure. [host]
    static std::optional<Processor> create(const std::string& modelPath, int numOfChannels,
                                           double sampleRate) {
        return wrap(zevrantCreateProcessor(modelPath.c_str(), numOfChannels, sampleRate), numOfChannels);
    }

    /// The same on several model files. [host]
    static std::optional<Processor> create(std::span<const std::string> modelPaths, int numOfChannels,
                                           double sampleRate) {
        return wrap(createStemSeparator(modelPaths, numOfChannels, sampleRate), numOfChannels);
    }

    /// Takes a block of planar audio, one pointer per channel, and processes the frames that it completes.
    /// [audio]
    void addAudio(std::span<const float* const> channels, int numOfSamples) {
        assert(static_cast<int>(channels.size()) == channelsPerFrame);
        // The C function reads the table and takes it without the const that it keeps.
        zevrantAddAudio(handle.get(), const_cast<const float**>(channels.data()), numOfSamples);
    }

    /// The same from interleaved audio, frame by frame; a last frame that is not whole is left out. [audio]
    void addAudioInterleaved(std::span<const float> samples) {
        zevrantAddAudioInterleaved(handle.get(), samples.data(), countFrames(samples.size()));
    }

    /// Processed samples that are ready. [audio]
    int getNumOfPendingSamples() const { return zevrantGetNumOfPendingSamples(handle.get()); }

    /// Takes the oldest processed samples, one pointer per channel: all that are asked for, or, with false,
    /// none and the channels stay as they are. Zero samples may be asked for once audio has been ready.
    /// [audio]
    [[nodiscard]] bool getAudio(std::span<float* const> channels, int numOfSamples) {
        assert(static_cast<int>(channels.size()) == channelsPerFrame);
        return zevrantGetAudio(handle.get(), channels.data(), numOfSamples);
    }

    /// The same into an interleaved buffer: as many whole frames as it holds. [audio]
    [[nodiscard]] bool getAudioInterleaved(std::span<float> samples) {
        return zevrantGetAudioInterleaved(handle.get(), samples.data(), countFrames(samples.size()));
    }

    /// Drops all audio and starts the models anew; parameters stay. [host]
    void reset() { zevrantResetProcessorState(handle.get()); }

    /// Reads a parameter by its number in the table of zevrant.h. [any]
    float getParameterValue(int id) const { return zevrantGetParameterValue(handle.get(), id); }

    /// Writes a parameter by its number. [any]
    void setParameterValue(int id, float value) { zevrantSetParameterValue(handle.get(), id, value); }

    /// The range of a parameter by its number. [any]
    Range getParameterRange(int id) const {
        Range range{};
        zevrantGetParameterRange(handle.get(), id, &range.minimum, &range.maximum);
        return range;
    }

    /// Level of bus 1 against bus 0 in decibels, -96 to 0. [any]
    float getResidualGain() const { return getParameterValue(1); }

    /// Sets that level, and puts bus 0 back to gain 1. [any]
    void setResidualGain(float decibel) { setParameterValue(1, decibel); }

    /// Whether masks continue above the bins that the model sees. [any]
    bool getMaskExtrapolationEnabled() const { return getParameterValue(3) >= 0.5f; }

    /// Lets masks continue, or not. [any]
    void setMaskExtrapolationEnabled(bool enabled) { setParameterValue(3, enabled ? 1.0f : 0.0f); }

    /// Linear gain of a bus. [any]
    float getBusGain(int bus) const { return getParameterValue(256 + bus); }

    /// Sets the linear gain of a bus, 0 or more. [any]
    void setBusGain(int bus, float gain) { setParameterValue(256 + bus, gain); }

    /// Sensitivity of a bus, -100 to 100. [any]
    float getBusSensitivity(int bus) const { return getParameterValue(512 + bus); }

    /// Sets the sensitivity of a bus: above 0 its mask separates harder, below 0 more gently. [any]
    void setBusSensitivity(int bus, float sensitivity) { setParameterValue(512 + bus, sensitivity); }

    /// Number of busses, the residual included, which is the last one. [any]
    int getNumOfOutputBusses() const { return zevrantGetNumOfOutputBusses(handle.get()); }

    /// The name of a bus, cut at 255 bytes; empty for a bus that does not exist. [any]
    std::string getOutputBusName(int bus) const {
        std::array<char, 256> name{};
        zevrantGetOutputBusName(handle.get(), bus, name.data(), static_cast<int>(name.size()));
        return name.data();
    }

    /// The first model's figures, and the latency in samples at the host's rate. [any]
    ProcessorInfo getInfo() const {
        ProcessorInfo info{};
        zevrantGetProcessorInfo(handle.get(), &info);
        return info;
    }

    /// Channels in and out, as given at creation. [any]
    int getNumOfChannels() const { return channelsPerFrame; }

    /// Whether there is a handle, which a move takes away.
    explicit operator bool() const noexcept { return handle != nullptr; }

    /// The C handle, which stays the processor's.
    ProcessorState* get() const noexcept { return handle.get(); }

    /// Hands the C handle over; the caller deletes it.
    [[nodiscard]] ProcessorState* release() noexcept { return handle.release(); }

  private:
    struct Delete {
        void operator()(ProcessorState* state) const noexcept { zevrantDeleteProcessor(state); }
    };

    Processor(ProcessorState* state, int channels) : handle(state), channelsPerFrame(channels) {}

    static std::optional<Processor> wrap(ProcessorState* state, int numOfChannels) {
        if (!state) return std::nullopt;
        return Processor(state, numOfChannels);
    }

    static ProcessorState* createStemSeparator(std::span<const std::string> modelPaths, int numOfChannels,
                                               double sampleRate) {
        std::vector<const char*> paths;
        paths.reserve(modelPaths.size());
        for (const auto& path : modelPaths) paths.push_back(path.c_str());
        return zevrantCreateStemSeparator(static_cast<int>(paths.size()), paths.data(), numOfChannels,
                                          sampleRate);
    }

    int countFrames(std::size_t numOfValues) const {
        return static_cast<int>(numOfValues / static_cast<std::size_t>(channelsPerFrame));
    }

    std::unique_ptr<ProcessorState, Delete> handle;
    int channelsPerFrame;
};

/// One model, run directly on tensors.
class Model {
  public:
    using Shape = std::array<int, 3>;  ///< time, frequency, channels; channels are contiguous

    /// Opens a model file; throws CreationError when that fails. [host]
    explicit Model(const std::string& modelPath) : Model(zevrantCreateModel(modelPath.c_str())) {
        if (!handle) throw CreationError("cannot open the model " + modelPath);
    }

    /// As the constructor, with an empty optional for a failure. [host]
    static std::optional<Model> create(const std::string& modelPath) {
        Model model(zevrantCreateModel(modelPath.c_str()));
        if (!model) return std::nullopt;
        return model;
    }

    /// Runs the model on one tensor, whose elements lie row by row. Throws std::length_error when data is
    /// shorter than the shape says. [audio]
    void addTensor(std::span<const float> data, const Shape& shape) {
        if (data.size() < countElements(shape)) throw std::length_error("fewer elements than the shape has");
        zevrantAddTensor(handle.get(), data.data(), static_cast<int>(shape.size()), shape.data());
    }

    /// The shape of the last result; none before the first result and while the model holds results back.
    /// [audio]
    std::optional<Shape> getResultTensorShape() const {
        Shape shape{};
        if (!zevrantGetResultTensorShape(handle.get(), static_cast<int>(shape.size()), shape.data()))
            return std::nullopt;
        return shape;
    }

    /// Copies the last result, which stays and can be read again. False, and data as it was, when there is
    /// none or it has no elements. Throws std::length_error when data has too little room. [audio]
    [[nodiscard]] bool getTensor(std::span<float> data) const {
        const auto shape = getResultTensorShape();
        if (!shape) return false;
        if (data.size() < countElements(*shape)) throw std::length_error("less room than the result takes");
        return zevrantGetTensor(handle.get(), data.data());
    }

    /// Starts the model anew; the last result stays. [host]
    void reset() { zevrantResetModelState(handle.get()); }

    /// What the file says about the model. [any]
    ModelInfo getInfo() const {
        ModelInfo info{};
        zevrantGetModelInfo(handle.get(), &info);
        return info;
    }

    /// Whether there is a handle, which a move takes away.
    explicit operator bool() const noexcept { return handle != nullptr; }

    /// The C handle, which stays the model's.
    ModelState* get() const noexcept { return handle.get(); }

    /// Hands the C handle over; the caller deletes it.
    [[nodiscard]] ModelState* release() noexcept { return handle.release(); }

    /// Elements of a tensor; 0 when a size is negative, so that the engine gets to refuse the shape.
    static std::size_t countElements(const Shape& shape) {
        std::size_t count = 1;
        for (const int size : shape) count *= size > 0 ? static_cast<std::size_t>(size) : 0;
        return count;
    }

  private:
    struct Delete {
        void operator()(ModelState* state) const noexcept { zevrantDeleteModel(state); }
    };

    explicit Model(ModelState* state) : handle(state) {}

    std::unique_ptr<ModelState, Delete> handle;
};

}  // namespace zevrant
