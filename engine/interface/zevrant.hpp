/// @file
/// The interface for C++ hosts: the functions of zevrant.h as two handles that own themselves. Header-only,
/// C++20. A member calls the C function of its name and costs what that call costs; only creating (which says
/// what is wrong with a file or a format) and adding audio (which looks for samples that are not finite) do a
/// little more.
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
/// What leaves an audio or tensor call as an exception is a standard one. Loading a model from memory, the
/// exact reason why one was refused, and calls that never throw are the separation library's
/// (zevrant_separation.h).
#pragma once

#if !defined(__cplusplus) || (__cplusplus < 202002L && !(defined(_MSVC_LANG) && _MSVC_LANG >= 202002L))
#error "zevrant.hpp needs C++20"
#else

#include <algorithm>
#include <array>
#include <bit>
#include <cassert>
#include <cmath>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "zevrant.h"

/// The version of this header and of the library that it came with: the build takes its number from here.
#define ZEVRANT_VERSION_MAJOR 0
#define ZEVRANT_VERSION_MINOR 1
#define ZEVRANT_VERSION_PATCH 0
#define ZEVRANT_DETAIL_TEXT(number) #number
#define ZEVRANT_DETAIL_DOTTED(major, minor, patch) \
    ZEVRANT_DETAIL_TEXT(major) "." ZEVRANT_DETAIL_TEXT(minor) "." ZEVRANT_DETAIL_TEXT(patch)
#define ZEVRANT_VERSION \
    ZEVRANT_DETAIL_DOTTED(ZEVRANT_VERSION_MAJOR, ZEVRANT_VERSION_MINOR, ZEVRANT_VERSION_PATCH)

namespace zevrant {

/// ZEVRANT_VERSION of the header that the program was compiled with. [any]
inline constexpr std::string_view getVersion() noexcept {
    return ZEVRANT_VERSION;
}

/// No handle could be made. The text names the file or the argument.
class CreationError : public std::runtime_error {
  public:
    /// What went wrong, as far as it can be told from outside the library.
    enum class Kind {
        Missing,         ///< there is no such file
        NotReadable,     ///< it is there and cannot be read
        NoModel,         ///< it does not start as a model file does
        UnusableFormat,  ///< the channel count is below 1, or the sample rate is not a positive number
        OutOfMemory,     ///< no memory
        Refused          ///< a damaged model, models that disagree, or a format that the frames cannot follow
    };

    CreationError(Kind kindOfFailure, const std::string& text)
        : std::runtime_error(text), kind(kindOfFailure) {}

    Kind getKind() const noexcept { return kind; }  ///< what went wrong

  private:
    Kind kind;
};

namespace detail {

/// Throws CreationError unless the file is there, can be read and starts as a model does.
inline void requireModelFile(const std::string& path) {
    constexpr std::string_view magic = "zevrant.model";
    using Kind = CreationError::Kind;
    std::error_code error;
    const auto type = std::filesystem::status(path, error).type();
    if (type == std::filesystem::file_type::not_found)
        throw CreationError(Kind::Missing, path + ": no such file");
    if (type == std::filesystem::file_type::directory)
        throw CreationError(Kind::NotReadable, path + ": is a folder");
    if (type != std::filesystem::file_type::regular) return;  // what is read once is left to the library
    std::ifstream file(path, std::ios::binary);
    if (!file) throw CreationError(Kind::NotReadable, path + ": cannot be read");
    std::array<char, 4 + magic.size()> start{};  // the length of the magic as an int32, and the magic
    file.read(start.data(), static_cast<std::streamsize>(start.size()));
    if (std::string_view(start.data() + 4, magic.size()) != magic)
        throw CreationError(Kind::NoModel, path + ": no zevrant model");
}

/// Calls a create function of zevrant.h and gives its handle, or throws CreationError with what is known.
template <class Create>
auto createOrThrow(const std::string& path, const Create& create) {
    using Kind = CreationError::Kind;
    std::string reason;
    try {
        if (auto* handle = create()) return handle;
    } catch (const std::bad_alloc&) {
        throw CreationError(Kind::OutOfMemory, path + ": no memory");
    } catch (const std::exception& error) {
        reason = std::string(" (") + error.what() + ")";
    }
    throw CreationError(Kind::Refused,
                        path + ": refused" + reason + "; 'zevrant check' tells what is wrong with a model");
}

/// Neither infinite nor not-a-number. By its bits, since a host may be compiled to assume that there are no
/// others.
inline bool isFinite(float sample) noexcept {
    return (std::bit_cast<std::uint32_t>(sample) & 0x7f800000u) != 0x7f800000u;
}

}  // namespace detail

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
        : Processor(std::span(&modelPath, 1), numOfChannels, sampleRate) {}

    /// The same on several model files, whose busses follow each other in the order of the paths. [host]
    Processor(std::span<const std::string> modelPaths, int numOfChannels, double sampleRate)
        : handle(open(modelPaths, numOfChannels, sampleRate)), channelsPerFrame(numOfChannels) {}

    /// As the constructors, with an empty optional for a failure. [host]
    static std::optional<Processor> create(const std::string& modelPath, int numOfChannels,
                                           double sampleRate) {
        return create(std::span(&modelPath, 1), numOfChannels, sampleRate);
    }

    /// The same on several model files. [host]
    static std::optional<Processor> create(std::span<const std::string> modelPaths, int numOfChannels,
                                           double sampleRate) {
        try {
            return Processor(modelPaths, numOfChannels, sampleRate);
        } catch (const CreationError&) {
            return std::nullopt;
        }
    }

    /// Takes a block of planar audio, one pointer per channel, and processes the frames that it completes.
    /// [audio]
    void addAudio(std::span<const float* const> channels, int numOfSamples) {
        assert(static_cast<int>(channels.size()) == channelsPerFrame);
        const auto length = static_cast<std::size_t>(std::max(numOfSamples, 0));
        const auto hasOnlyNumbers = [length](const float* row) {
            return std::all_of(row, row + length, detail::isFinite);
        };
        if (!replacesNonFinite || std::all_of(channels.begin(), channels.end(), hasOnlyNumbers)) {
            // The C function reads the table and takes it without the const that it keeps.
            return zevrantAddAudio(handle.get(), const_cast<const float**>(channels.data()), numOfSamples);
        }
        replaced.resize(channels.size() * length);
        std::vector<const float*> rows;
        for (const float* row : channels) {
            float* copy = replaced.data() + rows.size() * length;
            copyFinite({row, length}, copy);
            rows.push_back(copy);
        }
        zevrantAddAudio(handle.get(), rows.data(), numOfSamples);
    }

    /// The same from interleaved audio, frame by frame; a last frame that is not whole is left out. [audio]
    void addAudioInterleaved(std::span<const float> samples) {
        if (replacesNonFinite && !std::all_of(samples.begin(), samples.end(), detail::isFinite)) {
            replaced.resize(samples.size());
            copyFinite(samples, replaced.data());
            samples = replaced;
        }
        zevrantAddAudioInterleaved(handle.get(), samples.data(), countFrames(samples.size()));
    }

    /// Whether samples that are not finite become 0 before they enter, as they do at first. One such sample
    /// otherwise stays in the model's memory: for a second, or with some models until a reset. A block
    /// without any is not copied; one with them takes memory. [host]
    void setReplacingNonFinite(bool enabled) noexcept { replacesNonFinite = enabled; }

    /// How many samples have been replaced so far, over all channels. [audio]
    std::int64_t getNumOfReplacedSamples() const noexcept { return numOfReplacedSamples; }

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

    /// Writes a parameter by its number. A value that is not a number is ignored. [any]
    void setParameterValue(int id, float value) {
        if (detail::isFinite(value) || std::isinf(value)) zevrantSetParameterValue(handle.get(), id, value);
    }

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

    static ProcessorState* open(std::span<const std::string> modelPaths, int numOfChannels,
                                double sampleRate) {
        using Kind = CreationError::Kind;
        if (numOfChannels < 1)
            throw CreationError(Kind::UnusableFormat, std::to_string(numOfChannels) + " channels");
        if (!(sampleRate > 0.0) || std::isinf(sampleRate))
            throw CreationError(Kind::UnusableFormat, "a sample rate of " + std::to_string(sampleRate));
        if (modelPaths.empty()) throw CreationError(Kind::Missing, "no model file is named");
        std::vector<const char*> paths;
        for (const auto& path : modelPaths) {
            detail::requireModelFile(path);
            paths.push_back(path.c_str());
        }
        const std::string name = paths.size() == 1 ? modelPaths.front() : "these models";
        return detail::createOrThrow(name, [&] {
            return zevrantCreateStemSeparator(static_cast<int>(paths.size()), paths.data(), numOfChannels,
                                              sampleRate);
        });
    }

    void copyFinite(std::span<const float> samples, float* copy) {
        for (const float sample : samples) {
            const bool isFinite = detail::isFinite(sample);
            *copy++ = isFinite ? sample : 0.0f;
            numOfReplacedSamples += isFinite ? 0 : 1;
        }
    }

    int countFrames(std::size_t numOfValues) const {
        return static_cast<int>(numOfValues / static_cast<std::size_t>(channelsPerFrame));
    }

    std::unique_ptr<ProcessorState, Delete> handle;
    int channelsPerFrame;
    bool replacesNonFinite = true;
    std::int64_t numOfReplacedSamples = 0;
    std::vector<float> replaced;  // the copy of a block that had such samples
};

/// One model, run directly on tensors.
class Model {
  public:
    using Shape = std::array<int, 3>;  ///< time, frequency, channels; channels are contiguous

    /// Opens a model file; throws CreationError when that fails. [host]
    explicit Model(const std::string& modelPath) {
        detail::requireModelFile(modelPath);
        handle.reset(detail::createOrThrow(modelPath, [&] { return zevrantCreateModel(modelPath.c_str()); }));
    }

    /// As the constructor, with an empty optional for a failure. [host]
    static std::optional<Model> create(const std::string& modelPath) {
        try {
            return Model(modelPath);
        } catch (const CreationError&) {
            return std::nullopt;
        }
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

    std::unique_ptr<ModelState, Delete> handle;
};

}  // namespace zevrant

#endif  // C++20
