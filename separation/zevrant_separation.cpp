#include "separation/zevrant_separation.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "DspCore/RecyclingPool.h"
#include "separation/Model.h"
#include "separation/StreamState.h"

using namespace zevrant::separation;

namespace {

constexpr int mostChannels = 256;
constexpr int mostSamplesPerBlock = 1 << 20;
constexpr double lowestRate = 1e3, highestRate = 1e7;
constexpr float highestLevel = 40.0f;
constexpr int allFlags = ZEVRANT_SEPARATION_KEEP_NON_FINITE | ZEVRANT_SEPARATION_KEEP_RATE;

// The fields up to the first that later versions append.
constexpr std::size_t leastSizeOfOptions = sizeof(ZevrantSeparationOptions);

ZevrantSeparationStatus toStatus(ErrorKind kind) {
    switch (kind) {
        case ErrorKind::BadArgument:
            return ZEVRANT_SEPARATION_INVALID_ARGUMENT;
        case ErrorKind::NoSuchModel:
            return ZEVRANT_SEPARATION_NO_SUCH_MODEL;
        case ErrorKind::BadModel:
            return ZEVRANT_SEPARATION_BAD_MODEL;
        case ErrorKind::BadFormat:
            return ZEVRANT_SEPARATION_BAD_FORMAT;
        case ErrorKind::CannotProcess:
            return ZEVRANT_SEPARATION_CANNOT_PROCESS;
        case ErrorKind::Full:
            return ZEVRANT_SEPARATION_FULL;
        case ErrorKind::TooFewSamples:
            return ZEVRANT_SEPARATION_TOO_FEW_SAMPLES;
        case ErrorKind::WrongState:
            return ZEVRANT_SEPARATION_WRONG_STATE;
        case ErrorKind::LatencyDiffers:
            return ZEVRANT_SEPARATION_LATENCY_DIFFERS;
    }
    return ZEVRANT_SEPARATION_INTERNAL_ERROR;
}

// Runs a call and turns what it throws into a status and the handle's last failure.
template <class Call>
ZevrantSeparationStatus guard(LastFailure& lastFailure, const Call& call) noexcept {
    const auto fail = [&](ZevrantSeparationStatus status, const char* text) {
        lastFailure.set(status, text);
        return status;
    };
    try {
        call();
        return ZEVRANT_SEPARATION_OK;
    } catch (const Error& error) {
        return fail(toStatus(error.kind), error.what());
    } catch (const std::bad_alloc&) {
        return fail(ZEVRANT_SEPARATION_OUT_OF_MEMORY, "out of memory");
    } catch (const std::exception& error) {
        return fail(ZEVRANT_SEPARATION_INTERNAL_ERROR, error.what());
    } catch (...) {
        return fail(ZEVRANT_SEPARATION_INTERNAL_ERROR, "an unknown exception");
    }
}

// The same for a handle that has to be open.
template <class Call>
ZevrantSeparationStatus callStream(ZevrantSeparation* separation, const Call& call) noexcept {
    if (!separation) return ZEVRANT_SEPARATION_INVALID_ARGUMENT;
    return guard(separation->lastFailure, [&] {
        if (!separation->state) throw Error(ErrorKind::WrongState, "this handle was not opened");
        call(*separation->state);
    });
}

// Argument checks. A text is made only for what is refused.
template <class... Values>
void require(bool holds, const char* format, Values... values) {
    if (holds) return;
    char text[160];
    if constexpr (sizeof...(values) == 0)
        std::snprintf(text, sizeof text, "%s", format);
    else
        std::snprintf(text, sizeof text, format, values...);
    throw Error(ErrorKind::BadArgument, text);
}

void requireBlock(const StreamState& state, const void* samples, int numOfSamples) {
    require(numOfSamples >= 0 && numOfSamples <= state.getLongestBlock(),
            "numOfSamples: %d samples, and a block has 0 to %d", numOfSamples, state.getLongestBlock());
    require(samples || numOfSamples == 0, "the pointer to the audio is null");
}

void requireBus(const StreamState& state, int bus) {
    require(bus >= 0 && bus < state.getNumOfBusses(), "bus: there is no bus %d, only 0 to %d", bus,
            state.getNumOfBusses() - 1);
}

StreamOptions readOptions(const ZevrantSeparationOptions* options) {
    require(options != nullptr, "options: a null pointer");
    require(options->size >= leastSizeOfOptions, "options: size is %zu, and the structure has %zu bytes",
            options->size, leastSizeOfOptions);
    require(options->model || options->modelBytes, "options: neither model nor modelBytes is given");
    require(options->sampleRate >= lowestRate && options->sampleRate <= highestRate,
            "sampleRate: %g Hz, and 1000 to 10000000 can be", options->sampleRate);
    require(options->numOfChannels >= 1 && options->numOfChannels <= mostChannels,
            "numOfChannels: %d channels, and 1 to %d can be", options->numOfChannels, mostChannels);
    require(options->longestBlock >= 1 && options->longestBlock <= mostSamplesPerBlock,
            "longestBlock: %d samples, and 1 to %d can be", options->longestBlock, mostSamplesPerBlock);
    require(options->output == ZEVRANT_SEPARATION_MIX || options->output == ZEVRANT_SEPARATION_BUSSES,
            "output: %d is none", options->output);
    require((options->flags & ~allFlags) == 0, "flags: %d has unknown ones", options->flags);

    StreamOptions read;
    read.format.numOfChannels = options->numOfChannels;
    read.format.sampleRate = options->sampleRate;
    read.format.longestBlock = options->longestBlock;
    read.format.output = options->output == ZEVRANT_SEPARATION_BUSSES ? Output::Busses : Output::Mix;
    read.format.convertsRate = (options->flags & ZEVRANT_SEPARATION_KEEP_RATE) == 0;
    read.keepsNonFinite = (options->flags & ZEVRANT_SEPARATION_KEEP_NON_FINITE) != 0;
    return read;
}

Model openModel(const ZevrantSeparationOptions& options) {
    if (!options.modelBytes) return Model::open(options.model);
    return Model::fromMemory(options.modelBytes, options.numOfModelBytes,
                             options.model ? options.model : "the model in memory");
}

std::size_t copyText(std::string_view source, char* text, std::size_t size) {
    if (text && size > 0) {
        const std::size_t count = std::min(source.size(), size - 1);
        std::memcpy(text, source.data(), count);
        text[count] = '\0';
    }
    return source.size();
}

const StreamState* getState(const ZevrantSeparation* separation) {
    return separation ? separation->state.get() : nullptr;
}

bool hasBus(const StreamState* state, int bus) {
    return state && bus >= 0 && bus < state->getNumOfBusses();
}

}  // namespace

ZevrantSeparationStatus zevrantSeparationOpen(const ZevrantSeparationOptions* options,
                                              ZevrantSeparation** separation) {
    if (!separation) return ZEVRANT_SEPARATION_INVALID_ARGUMENT;
    *separation = new (std::nothrow) ZevrantSeparation;
    if (!*separation) return ZEVRANT_SEPARATION_OUT_OF_MEMORY;
    return guard((*separation)->lastFailure, [&] {
        const StreamOptions read = readOptions(options);
        zevrant::RecyclingPool pool;  // so that nothing of a model that is refused stays with this thread
        const zevrant::ScopedRecyclingPool blocks(pool);
        const Model model = openModel(*options);
        (*separation)->state = std::make_unique<StreamState>(model, read);
    });
}

void zevrantSeparationClose(ZevrantSeparation* separation) {
    delete separation;
}

// ---- audio -------------------------------------------------------------------------------------

ZevrantSeparationStatus zevrantSeparationAdd(ZevrantSeparation* separation, const float* const* channels,
                                             int32_t numOfSamples) {
    return callStream(separation, [&](StreamState& state) {
        requireBlock(state, channels, numOfSamples);
        for (int c = 0; numOfSamples > 0 && c < state.getNumOfChannels(); ++c)
            require(channels[c] != nullptr, "channels: the pointer of channel %d is null", c);
        state.add(channels, numOfSamples);
    });
}

ZevrantSeparationStatus zevrantSeparationAddInterleaved(ZevrantSeparation* separation, const float* samples,
                                                        int32_t numOfSamples) {
    return callStream(separation, [&](StreamState& state) {
        requireBlock(state, samples, numOfSamples);
        state.addInterleaved(samples, numOfSamples);
    });
}

int32_t zevrantSeparationGetNumOfPendingSamples(ZevrantSeparation* separation) {
    const StreamState* state = getState(separation);
    return state ? state->getNumOfPendingSamples() : 0;
}

ZevrantSeparationStatus zevrantSeparationTake(ZevrantSeparation* separation, float* const* channels,
                                              int32_t numOfSamples) {
    return callStream(separation, [&](StreamState& state) {
        require(numOfSamples >= 0, "numOfSamples: %d", numOfSamples);
        require(channels || numOfSamples == 0, "the pointer to the audio is null");
        state.take(channels, numOfSamples);
    });
}

ZevrantSeparationStatus zevrantSeparationTakeInterleaved(ZevrantSeparation* separation, float* samples,
                                                         int32_t numOfSamples) {
    return callStream(separation, [&](StreamState& state) {
        require(numOfSamples >= 0, "numOfSamples: %d", numOfSamples);
        require(samples || numOfSamples == 0, "the pointer to the audio is null");
        state.takeInterleaved(samples, numOfSamples);
    });
}

ZevrantSeparationStatus zevrantSeparationFlush(ZevrantSeparation* separation) {
    return callStream(separation, [](StreamState& state) { state.flush(); });
}

ZevrantSeparationStatus zevrantSeparationReset(ZevrantSeparation* separation) {
    return callStream(separation, [](StreamState& state) { state.reset(); });
}

// ---- controls ----------------------------------------------------------------------------------

ZevrantSeparationStatus zevrantSeparationSetLevel(ZevrantSeparation* separation, int32_t bus, float decibel) {
    return callStream(separation, [&](StreamState& state) {
        requireBus(state, bus);
        require(decibel <= highestLevel, "decibel: %g, and a level is 40 at the most",
                static_cast<double>(decibel));
        state.getControls().levels[static_cast<std::size_t>(bus)] = decibel;
    });
}

float zevrantSeparationGetLevel(const ZevrantSeparation* separation, int32_t bus) {
    const StreamState* state = getState(separation);
    return hasBus(state, bus) ? state->getControls().levels[static_cast<std::size_t>(bus)].load() : 0.0f;
}

ZevrantSeparationStatus zevrantSeparationSetSensitivity(ZevrantSeparation* separation, int32_t bus,
                                                        float value) {
    return callStream(separation, [&](StreamState& state) {
        requireBus(state, bus);
        require(value >= -100.0f && value <= 100.0f, "value: %g, and a sensitivity is -100 to 100",
                static_cast<double>(value));
        state.getControls().sensitivities[static_cast<std::size_t>(bus)] = value;
    });
}

float zevrantSeparationGetSensitivity(const ZevrantSeparation* separation, int32_t bus) {
    const StreamState* state = getState(separation);
    return hasBus(state, bus) ? state->getControls().sensitivities[static_cast<std::size_t>(bus)].load()
                              : 0.0f;
}

ZevrantSeparationStatus zevrantSeparationSetMaskExtrapolation(ZevrantSeparation* separation, bool isEnabled) {
    return callStream(separation,
                      [&](StreamState& state) { state.getControls().extrapolatesMasks = isEnabled; });
}

bool zevrantSeparationGetMaskExtrapolation(const ZevrantSeparation* separation) {
    const StreamState* state = getState(separation);
    return state && state->getControls().extrapolatesMasks;
}

// ---- information -------------------------------------------------------------------------------

ZevrantSeparationStatus zevrantSeparationGetInfo(const ZevrantSeparation* separation,
                                                 ZevrantSeparationInfo* info) {
    return callStream(const_cast<ZevrantSeparation*>(separation), [&](const StreamState& state) {
        require(info != nullptr, "info: a null pointer");
        require(info->size >= sizeof info->size, "info: size is %zu", info->size);
        const std::size_t size = std::min(info->size, sizeof *info);
        std::memcpy(info, &state.info, size);
        info->size = size;
    });
}

size_t zevrantSeparationGetBusName(const ZevrantSeparation* separation, int32_t bus, char* text,
                                   size_t size) {
    const StreamState* state = getState(separation);
    const bool isThere = hasBus(state, bus);
    return copyText(isThere ? std::string_view(state->busNames[static_cast<std::size_t>(bus)]) : "", text,
                    size);
}

size_t zevrantSeparationGetModelText(const ZevrantSeparation* separation, int32_t which, char* text,
                                     size_t size) {
    const StreamState* state = getState(separation);
    std::string_view source;
    if (state && which == ZEVRANT_SEPARATION_MODEL_NAME) source = state->modelName;
    if (state && which == ZEVRANT_SEPARATION_MODEL_DESCRIPTION) source = state->modelDescription;
    return copyText(source, text, size);
}

int64_t zevrantSeparationGetNumOfReplacedSamples(const ZevrantSeparation* separation) {
    const StreamState* state = getState(separation);
    return state ? state->getNumOfReplacedSamples() : 0;
}

ZevrantSeparationStatus zevrantSeparationGetLastError(const ZevrantSeparation* separation, char* text,
                                                      size_t size) {
    if (separation) return separation->lastFailure.get(text, size);
    copyText("out of memory", text, size);
    return ZEVRANT_SEPARATION_OUT_OF_MEMORY;
}

size_t zevrantSeparationListModels(char* text, size_t size) {
    std::string names;
    LastFailure untold;
    const auto status = guard(untold, [&] {
        for (const std::string& name : listModels()) names += (names.empty() ? "" : "\n") + name;
    });
    return copyText(status == ZEVRANT_SEPARATION_OK ? std::string_view(names) : "", text, size);
}

const char* zevrantSeparationGetVersion(void) {
    return ZEVRANT_VERSION;
}

// ---- another model -----------------------------------------------------------------------------

ZevrantSeparationStatus zevrantSeparationSwap(ZevrantSeparation* separation, ZevrantSeparation* next,
                                              bool allowsOtherLatency) {
    return callStream(next, [&](StreamState& other) {
        require(separation != nullptr && separation->state, "separation: null, or not opened");
        separation->state->takeOver(other, allowsOtherLatency);
    });
}

bool zevrantSeparationFinishSwap(ZevrantSeparation* separation) {
    return !separation || !separation->state || separation->state->finishSwap();
}
