/// @file
/// The interface of the separation library for C++ hosts: the functions of zevrant_separation.h as a handle
/// that owns itself. Header-only, C++20; every member is one inline call of the C function of its name.
///
///   zevrant::Separation separation({.model = "harmonic-percussive", .sampleRate = 44100.0,
///                                   .longestBlock = 512, .output = zevrant::Separation::Busses});
///   separation.setLevel(1, -12.0f);
///   if (separation.add(input, 512) == ZEVRANT_SEPARATION_OK)  // input: a table of channel pointers
///       status = separation.take(stems, 512);                 // stems: one for each output channel
///
/// Failures are thrown as SeparationError with the status and the sentence of the C interface; add and take,
/// which run on audio threads, answer with the status instead and never throw. Handles move and do not copy.
/// A handle that was moved from is empty: it may be assigned to, destroyed or asked for with `if (handle)`,
/// and nothing else. Units, ranges and threads are those of zevrant_separation.h.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "zevrant_separation.h"

namespace zevrant {

/// What a call answers instead of success.
class SeparationError : public std::runtime_error {
  public:
    /// The status, and the sentence that tells why.
    SeparationError(ZevrantSeparationStatus statusOfCall, const std::string& text)
        : std::runtime_error(text), status(statusOfCall) {}

    const ZevrantSeparationStatus status;  ///< never ZEVRANT_SEPARATION_OK
};

/// A stream of audio through a model.
class Separation {
  public:
    using Status = ZevrantSeparationStatus;  ///< what a call answers

    /// What comes out.
    enum Output : std::int32_t { Mix = ZEVRANT_SEPARATION_MIX, Busses = ZEVRANT_SEPARATION_BUSSES };

    /// How a stream is opened; see ZevrantSeparationOptions.
    struct Options {
        std::string model{};                      ///< path or name; with modelBytes a name for messages
        std::span<const std::byte> modelBytes{};  ///< the content of a model file instead
        int numOfChannels = 2;                    ///< that go in
        double sampleRate = 48000.0;              ///< hertz
        int longestBlock = 1024;                  ///< samples
        Output output = Mix;                      ///< the mix or every bus
        int flags = 0;                            ///< of ZevrantSeparationFlags
    };

    /// Opens a stream; throws SeparationError when that fails. [host]
    explicit Separation(const Options& options) {
        ZevrantSeparationOptions asked{};
        asked.size = sizeof asked;
        asked.model = options.model.empty() ? nullptr : options.model.c_str();
        asked.modelBytes = options.modelBytes.data();
        asked.numOfModelBytes = options.modelBytes.size();
        asked.sampleRate = options.sampleRate;
        asked.numOfChannels = options.numOfChannels;
        asked.longestBlock = options.longestBlock;
        asked.output = options.output;
        asked.flags = options.flags;
        ZevrantSeparation* opened = nullptr;
        const Status status = zevrantSeparationOpen(&asked, &opened);
        handle.reset(opened);
        require(status);
        const ZevrantSeparationInfo info = getInfo();
        numOfInputs = static_cast<std::size_t>(info.numOfChannels);
        numOfOutputs = static_cast<std::size_t>(info.numOfOutputChannels);
    }

    /// Takes a block in, one pointer per channel. [audio]
    [[nodiscard]] Status add(std::span<const float* const> channels, int numOfSamples) noexcept {
        if (channels.size() < numOfInputs) return ZEVRANT_SEPARATION_INVALID_ARGUMENT;
        return zevrantSeparationAdd(handle.get(), channels.data(), numOfSamples);
    }

    /// The same from interleaved audio; a last frame that is not whole is left out. [audio]
    [[nodiscard]] Status addInterleaved(std::span<const float> samples) noexcept {
        return zevrantSeparationAddInterleaved(handle.get(), samples.data(),
                                               countFrames(samples, numOfInputs));
    }

    /// Samples that can be taken. [audio]
    int getNumOfPendingSamples() const noexcept {
        return zevrantSeparationGetNumOfPendingSamples(handle.get());
    }

    /// Takes the oldest samples, one pointer per output channel, null for those that are left out: all that
    /// are asked for, or none. [audio]
    [[nodiscard]] Status take(std::span<float* const> channels, int numOfSamples) noexcept {
        if (channels.size() < numOfOutputs) return ZEVRANT_SEPARATION_INVALID_ARGUMENT;
        return zevrantSeparationTake(handle.get(), channels.data(), numOfSamples);
    }

    /// The same into an interleaved buffer: as many whole frames as it holds. [audio]
    [[nodiscard]] Status takeInterleaved(std::span<float> samples) noexcept {
        return zevrantSeparationTakeInterleaved(handle.get(), samples.data(),
                                                countFrames(samples, numOfOutputs));
    }

    /// Ends a recording: the latency's samples can be taken as well. [audio]
    void flush() { require(zevrantSeparationFlush(handle.get())); }

    /// Drops all audio and starts anew; controls stay. [host]
    void reset() { require(zevrantSeparationReset(handle.get())); }

    /// Level of a bus in decibels, -INFINITY to 40. [any]
    void setLevel(int bus, float decibel) { require(zevrantSeparationSetLevel(handle.get(), bus, decibel)); }

    /// The level that was set. [any]
    float getLevel(int bus) const noexcept { return zevrantSeparationGetLevel(handle.get(), bus); }

    /// Sensitivity of a bus, -100 to 100. [any]
    void setSensitivity(int bus, float value) {
        require(zevrantSeparationSetSensitivity(handle.get(), bus, value));
    }

    /// The sensitivity that was set. [any]
    float getSensitivity(int bus) const noexcept {
        return zevrantSeparationGetSensitivity(handle.get(), bus);
    }

    /// Lets masks continue above the bins that the model sees, or end there. [any]
    void setMaskExtrapolation(bool isEnabled) {
        require(zevrantSeparationSetMaskExtrapolation(handle.get(), isEnabled));
    }

    /// Whether masks continue. [any]
    bool getMaskExtrapolation() const noexcept { return zevrantSeparationGetMaskExtrapolation(handle.get()); }

    /// What the stream is. [host]
    ZevrantSeparationInfo getInfo() const {
        ZevrantSeparationInfo info{};
        info.size = sizeof info;
        require(zevrantSeparationGetInfo(handle.get(), &info));
        return info;
    }

    /// Names of all busses, the residual last. [host]
    std::vector<std::string> getBusNames() const {
        std::vector<std::string> names;
        for (int bus = 0; bus < getInfo().numOfBusses; ++bus)
            names.push_back(readText([&](char* text, std::size_t size) {
                return zevrantSeparationGetBusName(handle.get(), bus, text, size);
            }));
        return names;
    }

    /// What the model's file calls it. [host]
    std::string getModelName() const { return getModelText(ZEVRANT_SEPARATION_MODEL_NAME); }

    /// What the model's file says about it. [host]
    std::string getModelDescription() const { return getModelText(ZEVRANT_SEPARATION_MODEL_DESCRIPTION); }

    /// Samples that were infinite or no number. [any]
    std::int64_t getNumOfReplacedSamples() const noexcept {
        return zevrantSeparationGetNumOfReplacedSamples(handle.get());
    }

    /// The sentence of the last failure, such as one that add or take answered; empty where there was none.
    /// [any]
    std::string getLastError() const {
        char text[512] = "";
        zevrantSeparationGetLastError(handle.get(), text, sizeof text);
        return text;
    }

    /// Gives the stream the model of the next one while audio goes on, and leaves that one empty. Throws
    /// SeparationError, with ZEVRANT_SEPARATION_LATENCY_DIFFERS where only the latency stands against it.
    /// [host, also during audio calls]
    void swap(Separation& next, bool allowsOtherLatency = false) {
        next.require(zevrantSeparationSwap(handle.get(), next.handle.get(), allowsOtherLatency));
    }

    /// Frees the model that a swap has replaced; whether no swap is on its way. [host, also during audio
    /// calls]
    bool finishSwap() noexcept { return zevrantSeparationFinishSwap(handle.get()); }

    /// Names of the models that can be opened by name. [host]
    static std::vector<std::string> listModels() {
        const std::string list = readText(zevrantSeparationListModels);
        std::vector<std::string> names;
        for (std::size_t start = 0; start < list.size();) {
            const std::size_t end = std::min(list.find('\n', start), list.size());
            names.push_back(list.substr(start, end - start));
            start = end + 1;
        }
        return names;
    }

    /// Whether there is a handle, which a move takes away.
    explicit operator bool() const noexcept { return handle != nullptr; }

    /// The C handle, which stays the stream's.
    ZevrantSeparation* get() const noexcept { return handle.get(); }

  private:
    struct Close {
        void operator()(ZevrantSeparation* separation) const noexcept { zevrantSeparationClose(separation); }
    };

    void require(Status status) const {
        if (status == ZEVRANT_SEPARATION_OK) return;
        throw SeparationError(status, getLastError());
    }

    template <class Read>
    static std::string readText(const Read& read) {
        std::string text(read(nullptr, 0), '\0');
        read(text.data(), text.size() + 1);
        return text;
    }

    std::string getModelText(std::int32_t which) const {
        return readText([&](char* text, std::size_t size) {
            return zevrantSeparationGetModelText(handle.get(), which, text, size);
        });
    }

    static std::int32_t countFrames(std::span<const float> samples, std::size_t numOfChannels) noexcept {
        return numOfChannels > 0 ? static_cast<std::int32_t>(samples.size() / numOfChannels) : 0;
    }

    std::unique_ptr<ZevrantSeparation, Close> handle;
    std::size_t numOfInputs = 0, numOfOutputs = 0;
};

}  // namespace zevrant
