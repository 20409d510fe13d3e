#include "audiofiles/Audio.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <string_view>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "audiofiles/AudioStream.h"
#include "audiofiles/DecodedFile.h"
#include "audiofiles/Error.h"
#include "audiofiles/SoundFile.h"

namespace zevrant::audiofiles {

namespace {

struct Descriptor {
    explicit Descriptor(int number) : value(number) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { close(value); }

    const int value;
};

// What lies in folders of audio: what libsndfile reads, and what is worth a question to ffmpeg.
constexpr std::string_view audioExtensions[] = {
    "wav", "wave", "flac", "aiff", "aif",  "aifc", "w64", "rf64", "caf", "au",  "snd",  "ogg",
    "oga", "opus", "mp3",  "mp2",  "m4a",  "mp4",  "m4b", "aac",  "ac3", "dts", "alac", "ape",
    "wv",  "wma",  "mka",  "mkv",  "webm", "mov",  "avi", "amr",  "tta", "tak", "spx"};

// A reader on a descriptor of its own.
class OwningStreamReader : public AudioReader {
  public:
    OwningStreamReader(int source, const std::string& path, const std::optional<RawFormat>& raw)
        : descriptor(source), stream(openStream(source, path, raw)) {
        name = stream->name;
        description = stream->description;
    }

    int read(float* interleaved, int numOfSamples) override {
        return stream->read(interleaved, numOfSamples);
    }

  private:
    Descriptor descriptor;
    std::unique_ptr<AudioReader> stream;
};

[[noreturn]] void fail(ErrorKind kind, const std::string& path) {
    throw Error(kind, path + ": " + std::generic_category().message(errno));
}

std::unique_ptr<AudioReader> openAnyRate(const std::string& path, const std::optional<RawFormat>& raw) {
    if (path == "-") {
        struct stat status = {};
        const bool isRegular = fstat(STDIN_FILENO, &status) == 0 && S_ISREG(status.st_mode);
        if (isRegular && !raw) return openSoundFile(path, STDIN_FILENO);
        return openStream(STDIN_FILENO, "standard input", raw);
    }
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) fail(ErrorKind::BadInput, path);
    if (S_ISDIR(status.st_mode)) throw Error(ErrorKind::BadInput, path + ": is a folder");
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) fail(ErrorKind::BadInput, path);
    if (raw || !S_ISREG(status.st_mode)) return std::make_unique<OwningStreamReader>(descriptor, path, raw);
    close(descriptor);
    if (status.st_size == 0) throw Error(ErrorKind::BadInput, path + ": no audio file (it is empty)");
    try {
        return openSoundFile(path);
    } catch (const UnknownFormat& unknown) {
        return openDecodedFile(path, unknown.reason);
    }
}

}  // namespace

std::unique_ptr<AudioReader> openAudio(const std::string& path, const std::optional<RawFormat>& raw) {
    std::unique_ptr<AudioReader> reader = openAnyRate(path, raw);
    if (const int rate = reader->description.sampleRate; rate > highestSampleRate)
        throw Error(ErrorKind::BadInput, reader->name + ": claims a sample rate of " + std::to_string(rate) +
                                             " Hz, and " + std::to_string(highestSampleRate) +
                                             " Hz is the limit");
    return reader;
}

bool hasAudioExtension(const std::string& path) {
    return std::find(std::begin(audioExtensions), std::end(audioExtensions), getExtension(path)) !=
           std::end(audioExtensions);
}

std::unique_ptr<AudioWriter> createAudio(const std::string& path, const AudioDescription& description,
                                         const ProtectedFiles& inputs) {
    if (path == "-" && isatty(STDOUT_FILENO) == 1)
        throw Error(ErrorKind::Unsupported, "standard output is a terminal, which is no place for audio");
    if (path == "-") return createStream(STDOUT_FILENO, false, "standard output", description);
    if (!isSpecialFile(path)) return createSoundFile(path, description, inputs);
    const int descriptor = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (descriptor < 0) fail(ErrorKind::BadOutput, path);
    return createStream(descriptor, true, path, description);
}

}  // namespace zevrant::audiofiles
