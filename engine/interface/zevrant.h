/** @file
 * The C interface of the zevrant real-time neural audio engine.
 *
 * Two kinds of handles:
 *
 *   struct ProcessorState   audio in, audio out: frames, transforms, one or more models, busses
 *   struct ModelState       one model on its own: tensors in, tensors out
 *
 * A host creates a processor on a model file, pushes blocks of audio of any length and pulls blocks
 * of any length. All work happens inside the call that adds audio, on the caller's thread; a
 * processor on several models also has one worker thread per model, which works only during that
 * call. Sample k that comes out belongs to sample k that went in; at no time are more than
 * ProcessorInfo::latency samples in and not yet ready.
 *
 *   struct ProcessorState* p = zevrantCreateProcessor("voice.model", 2, 48000.0);
 *   if (p) {
 *       zevrantAddAudio(p, input, 480);
 *       while (zevrantGetAudio(p, output, 480)) play(output, 480);
 *       zevrantDeleteProcessor(p);
 *   }
 *
 * Conventions, where a function does not say otherwise:
 *
 *   Samples    float, nominally -1 to 1, counted per channel. Planar audio is one pointer per
 *              channel; interleaved audio is frame by frame, numOfSamples * channels values.
 *   Ownership  Handles belong to the host, which deletes each one it created. Pointers passed in
 *              are used during the call only; the engine keeps none of them.
 *   Failure    A null handle or a false result, without text. Only the two delete functions accept
 *              a null handle. Nothing is logged.
 *   Exceptions The functions catch none, so C++ exceptions leave them; all derive from
 *              std::exception. A C program cannot catch them, and one that nobody catches ends the
 *              process. What each function can throw:
 *
 *                create      std::bad_alloc (no memory); std::out_of_range, std::length_error,
 *                            std::invalid_argument, std::logic_error (a damaged model, -1 channels,
 *                            an infinite rate, a null path)
 *                add         std::bad_alloc; for a model or a format with impossible numbers
 *                            std::out_of_range, std::length_error, std::invalid_argument,
 *                            std::logic_error, std::runtime_error
 *                reset       std::bad_alloc
 *                others      nothing
 *
 *              zevrant_separation.h offers the same work behind calls that never throw.
 *   Not a      A sample that is infinite or not a number is processed like any other. It makes what
 *   number     it meets not-a-number as well: the output for the length of a frame, and the memory
 *              of the model for as long as that reaches back, with recursive levels until
 *              zevrantResetProcessorState. Hosts that cannot rule it out replace such samples by 0.
 *   Memory     Create takes what streaming needs and runs the model on silence for a moment to find out.
 *              A processor on one model then asks the system for nothing in add and get, from the first
 *              block on, after resets too and on whatever threads the calls are made, as long as blocks
 *              have up to 8192 samples and audio is taken as it gets ready. A longer block, or audio
 *              that waits, may ask once. Left out are models that one core cannot run in real time,
 *              hundreds of channels, and processors on several models. A model on tensors asks with
 *              the first ones, which tell their shape. Delete gives all of it back.
 *   Stack      Create and add need 512 KiB of the caller's stack with the deepest model that
 *              loads, and 32 KiB with those that ship.
 *   Threads    [host] before, between or after other calls on the handle, never during one.
 *              [audio] the host never runs two [host] or [audio] calls on one handle at once; which
 *              thread makes them does not matter. [any] any thread, also while audio is processed.
 *              Two handles share nothing.
 *   Floating   During a call on the audio path denormal numbers are flushed to zero; the caller's
 *   point      floating-point state is back as it was when the call returns or throws.
 */
#ifndef ZEVRANT_H
#define ZEVRANT_H

#include <stdbool.h>
#include <stdint.h>

#if defined(_WIN32)
#define ZEVRANT_EXPORT
#else
/// Marks what the shared library exports.
#define ZEVRANT_EXPORT __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ProcessorState ProcessorState;  ///< a processor; opaque
typedef struct ModelState ModelState;          ///< a model that runs on tensors; opaque

/* ---- Processor: create and delete ---------------------------------------------------------- */

/// Opens a processor on one model file.
///
/// The host's channel count and sample rate are free of the model's: channels are adapted through
/// mono where they differ, and frame sizes follow the sample rate by a power of two.
///
/// @param modelPath      path of the model file, absolute or relative to the working directory; a
///                       null pointer throws std::logic_error
/// @param numOfChannels  channels that go in and come out, 1 or more
/// @param sampleRate     of the host's audio, hertz, above 0 and finite
/// @return the handle, to be deleted with zevrantDeleteProcessor; null when the file cannot be
///         opened or is no model, and then nothing stays behind. A damaged model gives null or
///         throws a standard exception.
///
/// The two numbers are not checked, on purpose. 0 channels, or a rate of 0, below 0 or not a number,
/// give a handle whose first complete frame throws. A negative number of channels and an infinite
/// rate throw here, and so do numbers for which frames would take more than 2 GiB
/// (std::length_error). A rate far below the model's gives frames of no samples, which pass audio
/// on as it is.
/// [host] Reads files and allocates memory.
ZEVRANT_EXPORT struct ProcessorState* zevrantCreateProcessor(const char* modelPath, int numOfChannels,
                                                             double sampleRate);

/// Opens a processor on several model files, whose busses follow each other in the order of the
/// paths. The models must agree in window size, hop size, channels and sample rate, and run in
/// parallel, one thread each.
///
/// With two or more model files no audio ever becomes ready: each file names a residual bus of its
/// own, and the frames wait for those busses, which no model fills. On purpose the engine keeps to
/// this; the waiting frames are bounded.
///
/// @param numOfModels    number of paths; a negative number is a length error, thrown as
///                       std::length_error; 0 gives a null handle
/// @param modelPaths     numOfModels paths
/// @param numOfChannels  as for zevrantCreateProcessor
/// @param sampleRate     as for zevrantCreateProcessor
/// @return as zevrantCreateProcessor; null also when the models disagree. The header comment tells
///         what it may throw.
/// [host] Reads files, allocates memory and starts threads.
ZEVRANT_EXPORT struct ProcessorState* zevrantCreateStemSeparator(int numOfModels, const char** modelPaths,
                                                                 int numOfChannels, double sampleRate);

/// Destroys a processor with all the audio it holds and joins its threads.
///
/// @param handle  the processor; null is ignored
/// [host]
ZEVRANT_EXPORT void zevrantDeleteProcessor(struct ProcessorState* handle);

/* ---- Processor: audio ---------------------------------------------------------------------- */

/// Takes a block of planar audio and processes every frame that it completes.
///
/// @param channels      one pointer per channel, each to numOfSamples values; they are copied
/// @param numOfSamples  samples per channel, any number; 0 adds nothing
///
/// An exception leaves the handle usable, but the audio of the frame at hand is lost, and frames
/// may be out of step until zevrantResetProcessorState. A model with impossible numbers throws at
/// its first complete frame and at every one after that.
/// [audio]
ZEVRANT_EXPORT void zevrantAddAudio(struct ProcessorState* handle, const float** channels, int numOfSamples);

/// As zevrantAddAudio, from interleaved audio; the result is the same bit for bit.
///
/// @param samples       numOfSamples * numOfChannels values, frame by frame; they are copied
/// @param numOfSamples  samples per channel
/// [audio]
ZEVRANT_EXPORT void zevrantAddAudioInterleaved(struct ProcessorState* handle, const float* samples,
                                               int numOfSamples);

/// Tells how much processed audio is ready.
///
/// @return samples per channel; 0 after creation and after a reset until the first hops complete
/// [audio]
ZEVRANT_EXPORT int zevrantGetNumOfPendingSamples(struct ProcessorState* handle);

/// Takes the oldest processed audio out of the processor: all that is asked for, or nothing.
///
/// @param channels      one pointer per channel, each with room for numOfSamples values
/// @param numOfSamples  samples per channel, 1 or more; 0 is valid only once audio has been ready
/// @return true when the samples were delivered; false when fewer are pending, and then neither
///         channels nor the pending audio has changed
/// [audio]
ZEVRANT_EXPORT bool zevrantGetAudio(struct ProcessorState* handle, float* const* channels, int numOfSamples);

/// As zevrantGetAudio, into an interleaved buffer.
///
/// @param samples       room for numOfSamples * numOfChannels values
/// @param numOfSamples  samples per channel, as for zevrantGetAudio
/// @return as zevrantGetAudio
/// [audio]
ZEVRANT_EXPORT bool zevrantGetAudioInterleaved(struct ProcessorState* handle, float* samples,
                                               int numOfSamples);

/// Drops all audio, pending and half processed, and starts the models anew. The handle is as after
/// creation, except that parameter values survive.
/// [host]
ZEVRANT_EXPORT void zevrantResetProcessorState(struct ProcessorState* handle);

/* ---- Processor: parameters ----------------------------------------------------------------- */

/* A parameter is a float behind a number:
 *
 *   Id         Name                       Range        Start  Meaning
 *   1          residualGainInDecibel      -96 to 0       0    level of bus 1 against bus 0, decibels;
 *                                                             a set also puts bus 0 back to gain 1
 *   2          sensitivity                -100 to 100    0    sensitivity of bus 0
 *   3          maskExtrapolation          0 to 1         1    from 0.5 up: on; masks continue above
 *                                                             the bins that the model sees
 *   256 + bus  busGain                    0 to 100       1    linear gain of the bus
 *   512 + bus  busSensitivity             -100 to 100    0    sensitivity of the bus
 *
 * Busses 0 to 15 have controls. The last bus is the residual: what the others leave of the input.
 * Sensitivity bends the masks of mask models: above 0 weak parts of a mask are pressed towards 0,
 * below 0 they are lifted. Any other id has the range 0 to 0, reads 0 and ignores a set.
 */

/// Reads a parameter.
///
/// @param id  see the table
/// @return the value that is stored; 0 for an id that is not in the table or a bus from 16 up.
///         Id 1 reads the gain of bus 1 in decibels, limited to its range.
/// [any]
ZEVRANT_EXPORT float zevrantGetParameterValue(struct ProcessorState* handle, int id);

/// Writes a parameter. It takes effect with the next bus of the frame at hand, at the earliest:
/// in sound that went in up to ProcessorInfo::latency samples before. Overlap-add fades from the
/// old value to the new one over one hop.
///
/// @param id     see the table; an id that is not in it, or a bus from 16 up, is ignored
/// @param value  limited to the range of the table, but that a bus gain has no upper limit
/// [any]
ZEVRANT_EXPORT void zevrantSetParameterValue(struct ProcessorState* handle, int id, float value);

/// Tells the range of a parameter.
///
/// @param id       see the table; also answered for busses that a processor does not have
/// @param minimum  receives the lowest value
/// @param maximum  receives the highest value
/// [any]
ZEVRANT_EXPORT void zevrantGetParameterRange(struct ProcessorState* handle, int id, float* minimum,
                                             float* maximum);

/* ---- Processor: information ---------------------------------------------------------------- */

/// Tells the number of busses, the residual included.
/// [any]
ZEVRANT_EXPORT int zevrantGetNumOfOutputBusses(struct ProcessorState* handle);

/// Tells the name of a bus.
///
/// @param bus   0 to the number of busses less 1; any other bus has an empty name
/// @param name  receives size bytes: the name, cut off where needed, and zeros behind it, so that
///              it always ends with one
/// @param size  bytes at name; below 1 nothing is written
/// [any]
ZEVRANT_EXPORT void zevrantGetOutputBusName(struct ProcessorState* handle, int bus, char* name, int size);

/// What a processor is. All but the latency are the first model's own figures, also where frame
/// sizes follow another sample rate of the host.
typedef struct ProcessorInfo {
    double sampleRate;      ///< hertz
    int32_t numOfChannels;  ///< channels that the model takes
    int32_t latency;        ///< samples at the host's rate, for blocks of any length
    int32_t windowSize;     ///< samples at the model's rate
    int32_t hopSize;        ///< samples at the model's rate
} ProcessorInfo;

/// Fills a record about the processor.
///
/// @param info  receives the record
/// [any]
ZEVRANT_EXPORT void zevrantGetProcessorInfo(struct ProcessorState* handle, ProcessorInfo* info);

/// Tells which vector arithmetic this build of the engine runs on.
///
/// @param name  receives size bytes: the name, cut off where needed, and zeros behind it. A name
///              that fills the buffer is not terminated.
/// @param size  bytes at name, 1 or more
/// [any]
ZEVRANT_EXPORT void zevrantGetVectorArithmeticWrapperName(char* name, int size);

/* ---- Model: tensors in, tensors out -------------------------------------------------------- */

/// Opens a model for direct use with tensors, without frames, transforms or busses.
///
/// @param modelPath  path of the model file
/// @return the handle, to be deleted with zevrantDeleteModel; null when the file cannot be opened
///         or is no model. A damaged model gives null or throws a standard exception.
/// [host] Reads a file and allocates memory.
ZEVRANT_EXPORT struct ModelState* zevrantCreateModel(const char* modelPath);

/// Destroys a model.
///
/// @param handle  the model; null is ignored
/// [host]
ZEVRANT_EXPORT void zevrantDeleteModel(struct ModelState* handle);

/// Runs the model on one tensor and keeps the result in place of the one before.
///
/// @param data           the elements, row-major, last dimension contiguous; they are copied
/// @param numOfDimensions number of dimensions; models take 3: time, frequency, channels
/// @param shape          numOfDimensions sizes
///
/// A shape that has a negative size, or more elements than the engine can address, or that the
/// model's layers cannot take, throws a standard exception.
/// [audio]
ZEVRANT_EXPORT void zevrantAddTensor(struct ModelState* handle, const float* data, int numOfDimensions,
                                     const int* shape);

/// Tells the shape of the last result.
///
/// @param numOfDimensions the number of sizes that shape has room for
/// @param shape           receives the sizes, outermost first
/// @return true when the result has exactly numOfDimensions dimensions; otherwise false, and then
///         shape has not changed. Before the first result, and while a model holds its results
///         back, a result has no dimensions.
/// [audio]
ZEVRANT_EXPORT bool zevrantGetResultTensorShape(struct ModelState* handle, int numOfDimensions, int* shape);

/// Copies the elements of the last result. It stays in place and can be read again.
///
/// @param data  room for as many values as the product of the result's shape
/// @return false when there is no result or it has no elements, and then data has not changed
/// [audio]
ZEVRANT_EXPORT bool zevrantGetTensor(struct ModelState* handle, float* data);

/// Starts the model anew, as after creation. The last result stays.
/// [host]
ZEVRANT_EXPORT void zevrantResetModelState(struct ModelState* handle);

/// What a model is, as its file says.
typedef struct ModelInfo {
    double sampleRate;      ///< hertz
    int32_t numOfChannels;  ///< audio channels that the model takes
    int32_t fftSize;        ///< samples
    int32_t windowSize;     ///< samples
    int32_t hopSize;        ///< samples
    int32_t latency;        ///< frames, not samples
    int32_t reserved;       ///< always 0
} ModelInfo;

/// Fills a record about the model.
///
/// @param info  receives the record
/// [any]
ZEVRANT_EXPORT void zevrantGetModelInfo(struct ModelState* handle, ModelInfo* info);

#ifdef __cplusplus
}
#endif

#endif /* ZEVRANT_H */
