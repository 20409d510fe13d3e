/** @file
 * The C interface of the zevrant separation library: audio in, the parts of it that a model tells apart out,
 * live.
 *
 * A handle is one stream of audio through one model. The host opens it with its own channels and sample rate,
 * adds blocks of any length up to a longest one, and takes as many samples as it has added, all of them late
 * by one constant number of samples. What comes out is the mix of all busses at their levels or every bus on
 * its own, from one run of the network.
 *
 *   ZevrantSeparationOptions options = {.size = sizeof options, .model = "harmonic-percussive",
 *                                       .numOfChannels = 2, .sampleRate = 44100.0, .longestBlock = 512};
 *   ZevrantSeparation* separation;
 *   if (zevrantSeparationOpen(&options, &separation) == ZEVRANT_SEPARATION_OK) {
 *       zevrantSeparationSetLevel(separation, 1, -12.0f);
 *       while (play) {
 *           zevrantSeparationAdd(separation, input, 512);
 *           zevrantSeparationTake(separation, output, 512);
 *       }
 *   }
 *   zevrantSeparationClose(separation);
 *
 * Conventions, where a function does not say otherwise:
 *
 *   Samples    float, nominally -1 to 1, counted per channel. Planar audio is one pointer per channel;
 *              interleaved audio is frame by frame, numOfSamples * channels values. A sample that is infinite
 *              or no number becomes 0 before it enters and is counted, unless
 *              ZEVRANT_SEPARATION_KEEP_NON_FINITE asks for it as it is.
 *   Busses     The parts, numbered from 0; the last one is the residual, what the others leave of the input.
 *              With all levels at 0 dB and neutral sensitivities the busses add up to the input.
 *   Latency    Output sample n belongs to input sample n - latency, for blocks of any lengths; the first
 *              latency samples are silence. zevrantSeparationGetInfo tells the number; it changes only by a
 *              swap that says so.
 *   Rates      A model runs at its own sample rate times a power of two. Where the host has another rate
 *              (44100 Hz on a model of 48000), audio is converted there and back, which adds 2.2 ms at 44100
 *              Hz. What the way there and back loses joins the residual, so that the busses still add up.
 *   Failure    A status other than ZEVRANT_SEPARATION_OK, and a sentence that zevrantSeparationGetLastError
 *              tells. No call lets a C++ exception out, whatever it is given, and nothing is logged. Every
 *              function accepts a null handle, and answers with a status, 0 or an empty text. After a failure
 *              things are as before, where nothing else is said.
 *   Ownership  Handles belong to the host, which closes each one it opened. Pointers passed in are used
 *              during the call only.
 *   Threads    [host] before, between or after other calls on the handle, never during one. [audio] the host
 *              never runs two [host] or [audio] calls on one handle at once; which thread makes them does
 *              not matter. [any] any thread, also while audio is processed. Two handles share nothing.
 *   Real time  From the first block on [audio] and [any] calls take no lock, ask the system for no memory
 *              and make no system call, where nothing else is said. Denormal numbers are flushed to zero
 *              during a call, and the caller's floating-point state is back as it was when it returns.
 *   Versions   Structures start with their size, which the host sets, so that later versions may append
 *              fields. Fields that are 0 have their default.
 */
#ifndef ZEVRANT_SEPARATION_H
#define ZEVRANT_SEPARATION_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#define ZEVRANT_SEPARATION_EXPORT
#else
/// Marks what the shared library exports.
#define ZEVRANT_SEPARATION_EXPORT __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ZevrantSeparation ZevrantSeparation;  ///< a stream through a model; opaque

/// What a call answers.
typedef enum ZevrantSeparationStatus {
    ZEVRANT_SEPARATION_OK = 0,
    ZEVRANT_SEPARATION_INVALID_ARGUMENT = 1,  ///< null, a number out of range, a bus that is not there
    ZEVRANT_SEPARATION_NO_SUCH_MODEL = 2,     ///< no file of this path, no model of this name
    ZEVRANT_SEPARATION_BAD_MODEL = 3,         ///< no model, a damaged one, or one that no stream can run
    ZEVRANT_SEPARATION_BAD_FORMAT = 4,        ///< a sample rate that the model's frames cannot follow
    ZEVRANT_SEPARATION_CANNOT_PROCESS = 5,    ///< the model failed on this audio
    ZEVRANT_SEPARATION_OUT_OF_MEMORY = 6,     ///< the system has no memory left
    ZEVRANT_SEPARATION_FULL = 7,              ///< too much processed audio waits to be taken
    ZEVRANT_SEPARATION_TOO_FEW_SAMPLES = 8,   ///< more samples asked for than are pending
    ZEVRANT_SEPARATION_WRONG_STATE = 9,       ///< the handle was not opened, is flushed, or is in a swap
    ZEVRANT_SEPARATION_LATENCY_DIFFERS = 10,  ///< a swap would change the latency, which was not allowed
    ZEVRANT_SEPARATION_INTERNAL_ERROR = 11    ///< a fault of the library
} ZevrantSeparationStatus;

/// What a stream gives.
typedef enum ZevrantSeparationOutput {
    ZEVRANT_SEPARATION_MIX = 0,    ///< all busses at their levels: as many channels as go in
    ZEVRANT_SEPARATION_BUSSES = 1  ///< each bus at its level: channel bus * numOfChannels + c
} ZevrantSeparationOutput;

/// Options that are flags; their sum is given.
typedef enum ZevrantSeparationFlags {
    ZEVRANT_SEPARATION_KEEP_NON_FINITE = 1,  ///< samples that are infinite or no number enter as they are
    ZEVRANT_SEPARATION_KEEP_RATE = 2  ///< never convert: frames follow the host's rate by a power of two
} ZevrantSeparationFlags;

/// How a stream is opened.
typedef struct ZevrantSeparationOptions {
    size_t size;        ///< sizeof(ZevrantSeparationOptions)
    const char* model;  ///< path of a model file, or name of a model; with modelBytes a name for messages
    const void* modelBytes;  ///< the content of a model file, which is copied; null to open model
    size_t numOfModelBytes;  ///< its size
    double sampleRate;       ///< of the host's audio, hertz, 1000 to 10000000
    int32_t numOfChannels;   ///< that go in, 1 to 256
    int32_t longestBlock;    ///< samples that are added at once at most, 1 to 1048576; see below
    int32_t output;          ///< a ZevrantSeparationOutput
    int32_t flags;           ///< a sum of ZevrantSeparationFlags
} ZevrantSeparationOptions;

/* ---- Open and close ------------------------------------------------------------------------- */

/// Opens a stream, runs the model in for a moment, so that all its memory is there, and leaves it as new.
///
/// A model's name stands for NAME.zevrant in the folders of ZEVRANT_MODEL_PATH (separated by colons), then in
/// share/zevrant/models beside the folder of this library or of the program. Levels start at 0 dB,
/// sensitivities at 0.
///
/// @param options     as above; longestBlock times the channels that come out may be 16777216 at most
/// @param separation  receives the handle, to be closed with zevrantSeparationClose in any case: after a
///                    failure it answers zevrantSeparationGetLastError and nothing else. Null where memory
///                    has run out
/// [host] Reads files and allocates memory.
ZEVRANT_SEPARATION_EXPORT ZevrantSeparationStatus
zevrantSeparationOpen(const ZevrantSeparationOptions* options, ZevrantSeparation** separation);

/// Closes a stream with all the audio it holds.
///
/// @param separation  the handle; null is ignored
/// [host]
ZEVRANT_SEPARATION_EXPORT void zevrantSeparationClose(ZevrantSeparation* separation);

/* ---- Audio ---------------------------------------------------------------------------------- */

/// Takes a block of planar audio in and processes what it completes. As many samples become ready as go in.
///
/// @param channels      numOfChannels pointers, each to numOfSamples values
/// @param numOfSamples  0 to longestBlock
/// @return ZEVRANT_SEPARATION_FULL, and nothing is taken in, when more than four of the longest blocks would
///         wait. After ZEVRANT_SEPARATION_CANNOT_PROCESS or ZEVRANT_SEPARATION_OUT_OF_MEMORY the block has
///         been taken in, what it led to is silence, and sounds may be incomplete until
///         zevrantSeparationReset.
/// [audio]
ZEVRANT_SEPARATION_EXPORT ZevrantSeparationStatus zevrantSeparationAdd(ZevrantSeparation* separation,
                                                                       const float* const* channels,
                                                                       int32_t numOfSamples);

/// As zevrantSeparationAdd, from interleaved audio; the result is the same bit for bit.
///
/// @param samples       numOfSamples * numOfChannels values, frame by frame
/// @param numOfSamples  0 to longestBlock
/// [audio]
ZEVRANT_SEPARATION_EXPORT ZevrantSeparationStatus
zevrantSeparationAddInterleaved(ZevrantSeparation* separation, const float* samples, int32_t numOfSamples);

/// Tells how many samples can be taken: those added and not yet taken and, after a flush, the latency's.
/// [audio]
ZEVRANT_SEPARATION_EXPORT int32_t zevrantSeparationGetNumOfPendingSamples(ZevrantSeparation* separation);

/// Takes the oldest processed audio out: all that is asked for, or nothing.
///
/// @param channels      numOfOutputChannels pointers, each with room for numOfSamples values; channels whose
///                      pointer is null are left out
/// @param numOfSamples  0 or more
/// @return ZEVRANT_SEPARATION_TOO_FEW_SAMPLES, with nothing changed, when fewer are pending
/// [audio]
ZEVRANT_SEPARATION_EXPORT ZevrantSeparationStatus zevrantSeparationTake(ZevrantSeparation* separation,
                                                                        float* const* channels,
                                                                        int32_t numOfSamples);

/// As zevrantSeparationTake, into an interleaved buffer.
///
/// @param samples       room for numOfSamples * numOfOutputChannels values
/// @param numOfSamples  0 or more
/// [audio]
ZEVRANT_SEPARATION_EXPORT ZevrantSeparationStatus
zevrantSeparationTakeInterleaved(ZevrantSeparation* separation, float* samples, int32_t numOfSamples);

/// Ends a recording: the last samples, as many as the latency has, can now be taken as well. A host that
/// leaves the first latency samples out has then as many as it added, lined up with them. Nothing can be
/// added until a reset. [audio] The calls that take the rest process silence.
ZEVRANT_SEPARATION_EXPORT ZevrantSeparationStatus zevrantSeparationFlush(ZevrantSeparation* separation);

/// Drops all audio and starts the model anew, with the latency's silence ahead. Levels and other controls
/// stay. A swap that is not complete is completed at once. [host]
ZEVRANT_SEPARATION_EXPORT ZevrantSeparationStatus zevrantSeparationReset(ZevrantSeparation* separation);

/* ---- Controls ------------------------------------------------------------------------------- */

/// Sets the level of a bus. The change is faded over 20 ms, or one frame of the model where that is longer.
///
/// @param bus      0 to the number of busses less 1
/// @param decibel  up to 40; -144 and everything below, -INFINITY included, silences the bus
/// [any]
ZEVRANT_SEPARATION_EXPORT ZevrantSeparationStatus zevrantSeparationSetLevel(ZevrantSeparation* separation,
                                                                            int32_t bus, float decibel);

/// Tells the level that was set, in decibels; 0 for a bus that is not there.
/// [any]
ZEVRANT_SEPARATION_EXPORT float zevrantSeparationGetLevel(const ZevrantSeparation* separation, int32_t bus);

/// Sets the sensitivity of a bus of a model that makes masks: above 0 weak parts of the mask fade, which
/// separates harder, below 0 they rise. 0 is neutral. The busses add up to the input only while that of the
/// residual is neutral.
///
/// @param bus    0 to the number of busses less 1
/// @param value  -100 to 100
/// [any]
ZEVRANT_SEPARATION_EXPORT ZevrantSeparationStatus
zevrantSeparationSetSensitivity(ZevrantSeparation* separation, int32_t bus, float value);

/// Tells the sensitivity of a bus; 0 for a bus that is not there.
/// [any]
ZEVRANT_SEPARATION_EXPORT float zevrantSeparationGetSensitivity(const ZevrantSeparation* separation,
                                                                int32_t bus);

/// Lets masks continue above the bins that the model sees, as at the start, or end there.
/// [any]
ZEVRANT_SEPARATION_EXPORT ZevrantSeparationStatus
zevrantSeparationSetMaskExtrapolation(ZevrantSeparation* separation, bool isEnabled);

/// Tells whether masks continue.
/// [any]
ZEVRANT_SEPARATION_EXPORT bool zevrantSeparationGetMaskExtrapolation(const ZevrantSeparation* separation);

/* ---- Information ---------------------------------------------------------------------------- */

/// What a stream is.
typedef struct ZevrantSeparationInfo {
    size_t size;                  ///< sizeof(ZevrantSeparationInfo), set by the host
    double sampleRate;            ///< of the host's audio, hertz
    double modelSampleRate;       ///< that the model is made for, hertz
    double workingSampleRate;     ///< that it runs at here, hertz; the host's where nothing is converted
    int32_t numOfChannels;        ///< that go in
    int32_t numOfOutputChannels;  ///< that come out
    int32_t numOfBusses;          ///< the residual included
    int32_t numOfModelChannels;   ///< that the model tells apart; others are analysed as their mono mix
    int32_t latency;              ///< samples at the host's rate
    int32_t conversionLatency;    ///< those of them that the conversion of rates adds
    int32_t frameSize;            ///< samples at the working rate from one run of the network to the next
    int32_t longestBlock;         ///< samples
} ZevrantSeparationInfo;

/// Fills a record about the stream; during a swap it is about the new model.
///
/// @param info  receives the record, as far as its size goes
/// [host]
ZEVRANT_SEPARATION_EXPORT ZevrantSeparationStatus
zevrantSeparationGetInfo(const ZevrantSeparation* separation, ZevrantSeparationInfo* info);

/// Texts about a model.
typedef enum ZevrantSeparationText {
    ZEVRANT_SEPARATION_MODEL_NAME = 0,        ///< what the file calls it
    ZEVRANT_SEPARATION_MODEL_DESCRIPTION = 1  ///< what the file says about it
} ZevrantSeparationText;

/// Tells the name of a bus.
///
/// @param text  receives the name in UTF-8, cut off where needed and always terminated; may be null with size
///              0
/// @param size  bytes at text
/// @return bytes of the whole name without its terminator; 0 for a bus that is not there
/// [host]
ZEVRANT_SEPARATION_EXPORT size_t zevrantSeparationGetBusName(const ZevrantSeparation* separation, int32_t bus,
                                                             char* text, size_t size);

/// Tells a text about the model, as zevrantSeparationGetBusName does.
///
/// @param which  a ZevrantSeparationText
/// [host]
ZEVRANT_SEPARATION_EXPORT size_t zevrantSeparationGetModelText(const ZevrantSeparation* separation,
                                                               int32_t which, char* text, size_t size);

/// Tells how many samples, of all channels together, have been replaced because they were infinite or no
/// number. [any]
ZEVRANT_SEPARATION_EXPORT int64_t
zevrantSeparationGetNumOfReplacedSamples(const ZevrantSeparation* separation);

/// Tells what the last failure on this handle was.
///
/// @param text  receives one sentence that names the argument, or the model with the layer, field and value,
///              cut off where needed and always terminated; may be null with size 0
/// @param size  bytes at text
/// @return its status; ZEVRANT_SEPARATION_OK, and an empty text, where there was none. For a null handle
///         ZEVRANT_SEPARATION_OUT_OF_MEMORY, for which there is no handle
/// [any] but the audio thread, which it would wait for if that told a failure at this moment.
ZEVRANT_SEPARATION_EXPORT ZevrantSeparationStatus
zevrantSeparationGetLastError(const ZevrantSeparation* separation, char* text, size_t size);

/// Lists the models that can be opened by name, one name per line, as zevrantSeparationGetBusName tells a
/// name.
/// [host] Reads folders and allocates memory.
ZEVRANT_SEPARATION_EXPORT size_t zevrantSeparationListModels(char* text, size_t size);

/// The version of this library, for instance "0.1.0"; a text that stays.
/// [any]
ZEVRANT_SEPARATION_EXPORT const char* zevrantSeparationGetVersion(void);

/* ---- Another model while the stream runs ---------------------------------------------------- */

/// Gives the stream the model of another handle while audio goes on.
///
/// The host opens a second handle with the same channels, sample rate, longest block and output, sets its
/// levels, and hands it over here. The audio thread picks the new model up with the next block by one atomic
/// exchange, runs both models until the new one has sound, and fades from the old to the new one in 20 ms.
/// Meanwhile a block costs as much as both.
///
/// Where the latencies differ, the swap is refused unless it is allowed, and the host learns the new one from
/// zevrantSeparationGetInfo of the second handle. To a longer latency the stream fades out, is silent for the
/// difference and fades in again; to a shorter one it fades over, and skips the difference. From
/// zevrantSeparationSwap on the stream reports the new latency.
///
/// @param separation           the stream that runs
/// @param next                 the other handle, on which nothing else is done meanwhile. After success it is
///                             an empty handle, which has only to be closed; after a failure it is as before,
///                             and tells the error
/// @param allowsOtherLatency   whether the latency may change
/// @return ZEVRANT_SEPARATION_WRONG_STATE while an earlier swap is not complete
/// [host] for both handles, but that [audio] calls on the first one may run at the same time.
ZEVRANT_SEPARATION_EXPORT ZevrantSeparationStatus zevrantSeparationSwap(ZevrantSeparation* separation,
                                                                        ZevrantSeparation* next,
                                                                        bool allowsOtherLatency);

/// Frees the model that a swap has replaced, once the fade is over, on the caller's thread. A host that does
/// not call it has the old model freed by the next swap or at the end.
///
/// @return whether no swap is on its way any more
/// [host] but that [audio] calls may run at the same time.
ZEVRANT_SEPARATION_EXPORT bool zevrantSeparationFinishSwap(ZevrantSeparation* separation);

#ifdef __cplusplus
}
#endif

#endif /* ZEVRANT_SEPARATION_H */
