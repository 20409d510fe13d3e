#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "audiofiles/OutputFile.h"
#include "audiofiles/SampleFormat.h"

namespace zevrant::audiofiles {

// Hertz. Above it a header is damaged, and frames and conversions for it would take all memory.
constexpr int highestSampleRate = 10'000'000;

// Headerless samples, frame by frame.
struct RawFormat {
    int numOfChannels = 0;
    int sampleRate = 0;  // hertz
    RawSampleFormat samples{};
};

// What a file or stream of audio is. Numbers of formats are libsndfile's.
struct AudioDescription {
    int numOfChannels = 0;
    int sampleRate = 0;              // hertz
    std::int64_t numOfSamples = -1;  // per channel as announced; -1 where nothing is
    int container = 0;               // SF_FORMAT_WAV and so on; SF_FORMAT_RAW without a header
    int sampleFormat = 0;            // SF_FORMAT_PCM_16 and so on
    bool isBigEndian = false;        // of headerless samples
    std::vector<int> speakers = {};  // SF_CHANNEL_MAP_LEFT and so on; may be empty
    std::vector<std::pair<int, std::string>> tags = {};  // SF_STR_TITLE and so on
};

// Audio that is read once from front to back. Samples are counted per channel.
class AudioReader {
  public:
    virtual ~AudioReader() = default;

    // Fills up to numOfSamples frames and returns how many, 0 only at the end. Throws Error with BadInput
    // for damaged audio, and what the interruption check throws.
    virtual int read(float* interleaved, int numOfSamples) = 0;

    std::string name;  // for messages
    std::string note;  // at the end: what did not stop the reading, but its user should know; may be empty
    AudioDescription description;
};

// Audio that is written once from front to back.
// Errors   Error with BadOutput. Without commit() a regular file never appears.
class AudioWriter {
  public:
    virtual ~AudioWriter() = default;

    virtual void write(const float* interleaved, int numOfSamples) = 0;
    virtual void close() = 0;   // writes what is still held back
    virtual void commit() = 0;  // after close(): puts the file in its place

    std::string name;
    int integerBits = 0;                  // that samples are rounded to; 0 for floats and coded formats
    bool isCoded = false;                 // MP3 and the like: what is read back only comes near
    std::int64_t numOfClippedValues = 0;  // that lay outside the range of the sample format
};

// Opens a file that libsndfile or, where it is installed, ffmpeg reads, or for "-" and for pipes a stream:
// WAV where it starts as one, otherwise raw, which then has to be given. Throws Error with BadInput, also for
// rates above highestSampleRate.
std::unique_ptr<AudioReader> openAudio(const std::string& path, const std::optional<RawFormat>& raw = {});

// What stands behind the last point of a name, in lower case.
std::string getExtension(const std::string& path);

// Whether the name of a file in a folder is that of audio.
bool hasAudioExtension(const std::string& path);

// Starts an output with the channels, rate, sample format, speakers and tags of the description.
//
// A regular file has the format that the extension of its name asks for, with the sample format where that
// can hold it and the nearest otherwise. Coded samples (MP3, Vorbis, mu-law and so on) become floats, or
// 24 bits where there are none, unless the extension asks for a coding. "-", devices and pipes get a WAV
// stream, or headerless samples of the description's format where its container is SF_FORMAT_RAW. A WAV
// stream of unknown length announces the largest that its header can hold; one that would not fit announces
// the same. Errors   Error with Unsupported for an extension that is not known and for audio that the format
// cannot
//          hold, with BadOutput for the rest.
std::unique_ptr<AudioWriter> createAudio(const std::string& path, const AudioDescription& description,
                                         const ProtectedFiles& inputs);

// Throws Error with Unsupported where createAudio() would for the extension of this name.
void requireOutputFormat(const std::string& path);

}  // namespace zevrant::audiofiles
