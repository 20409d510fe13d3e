#include "audiofiles/SoundFile.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <system_error>

#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include "audiofiles/Interruption.h"
#include "audiofiles/SampleFormat.h"

namespace zevrant::audiofiles {

namespace {

struct SoundFileDeleter {
    void operator()(SNDFILE* file) const { sf_close(file); }
};
using SoundFileHandle = std::unique_ptr<SNDFILE, SoundFileDeleter>;

constexpr int tagsThatTravel[] = {SF_STR_TITLE, SF_STR_COPYRIGHT, SF_STR_ARTIST,      SF_STR_COMMENT,
                                  SF_STR_DATE,  SF_STR_ALBUM,     SF_STR_TRACKNUMBER, SF_STR_GENRE};

// libsndfile keeps the reason of a file that it does not open in one place for all threads.
std::mutex openingMutex;

// The part of libsndfile's text that means something to a user: no "System error : ", no full stop.
std::string getErrorText(std::string text) {
    const std::string prefix = "System error : ";
    if (text.starts_with(prefix)) text.erase(0, prefix.size());
    while (!text.empty() && (text.back() == '.' || text.back() == '\n' || text.back() == ' '))
        text.pop_back();
    return text;
}

// ---- reading -----------------------------------------------------------------------------------

class SoundFileReader : public AudioReader {
  public:
    SoundFileReader(const std::string& path, int descriptor) {
        name = descriptor < 0 ? path : "standard input";
        SF_INFO info = {};
        const std::lock_guard lock(openingMutex);
        file.reset(descriptor < 0 ? sf_open(path.c_str(), SFM_READ, &info)
                                  : sf_open_fd(dup(descriptor), SFM_READ, &info, 1));
        if (!file) throw UnknownFormat(name, getErrorText(sf_strerror(nullptr)));
        if (info.channels < 1 || info.samplerate < 1)
            throw Error(ErrorKind::BadInput, name + ": has no channels or no sample rate");
        description.numOfChannels = info.channels;
        description.sampleRate = info.samplerate;
        description.numOfSamples = info.frames;
        description.container = info.format & SF_FORMAT_TYPEMASK;
        description.sampleFormat = info.format & SF_FORMAT_SUBMASK;
        std::vector<int> speakers(static_cast<std::size_t>(info.channels));
        if (sf_command(file.get(), SFC_GET_CHANNEL_MAP_INFO, speakers.data(),
                       static_cast<int>(speakers.size() * sizeof(int))) == SF_TRUE)
            description.speakers = speakers;
        for (const int tag : tagsThatTravel)
            if (const char* text = sf_get_string(file.get(), tag)) description.tags.emplace_back(tag, text);
    }

    int read(float* interleaved, int numOfSamples) override {
        const auto count = static_cast<int>(sf_readf_float(file.get(), interleaved, numOfSamples));
        checkInterruption();
        if (count < numOfSamples && sf_error(file.get()) != SF_ERR_NO_ERROR)
            throw Error(ErrorKind::BadInput,
                        name + ": damaged (" + getErrorText(sf_strerror(file.get())) + ")");
        return count;
    }

  private:
    SoundFileHandle file;
};

// ---- formats -----------------------------------------------------------------------------------

struct Container {
    const char* extension;
    int format;
    std::vector<int> sampleFormats;  // to choose from where the input's own cannot be kept, best first
};

const std::vector<Container>& getContainers() {
    static const std::vector<Container> containers = {
        {"wav", SF_FORMAT_WAV, {SF_FORMAT_FLOAT}},   {"flac", SF_FORMAT_FLAC, {SF_FORMAT_PCM_24}},
        {"aiff", SF_FORMAT_AIFF, {SF_FORMAT_FLOAT}}, {"aif", SF_FORMAT_AIFF, {SF_FORMAT_FLOAT}},
        {"w64", SF_FORMAT_W64, {SF_FORMAT_FLOAT}},   {"rf64", SF_FORMAT_RF64, {SF_FORMAT_FLOAT}},
        {"caf", SF_FORMAT_CAF, {SF_FORMAT_FLOAT}},   {"au", SF_FORMAT_AU, {SF_FORMAT_FLOAT}},
        {"ogg", SF_FORMAT_OGG, {SF_FORMAT_VORBIS}},  {"oga", SF_FORMAT_OGG, {SF_FORMAT_VORBIS}},
        {"opus", SF_FORMAT_OGG, {SF_FORMAT_OPUS}},   {"mp3", SF_FORMAT_MPEG, {SF_FORMAT_MPEG_LAYER_III}},
    };
    return containers;
}

const Container& findContainer(const std::string& path) {
    const std::string extension = getExtension(path);
    std::string known;
    for (const Container& container : getContainers()) {
        if (extension == container.extension) return container;
        known += std::string(known.empty() ? "" : ", ") + container.extension;
    }
    throw Error(ErrorKind::Unsupported,
                path + ": the name has to end in the format that it asks for: " + known);
}

// The names of integer formats differ between containers although they hold the same.
std::vector<int> getEquivalents(int sampleFormat) {
    switch (getIntegerBits(sampleFormat)) {
        case 8:
            return {sampleFormat, SF_FORMAT_PCM_U8, SF_FORMAT_PCM_S8};
        case 16:
            return {sampleFormat, SF_FORMAT_PCM_16};
        case 20:
        case 24:
            return {sampleFormat, SF_FORMAT_PCM_24};
        case 32:
            return {sampleFormat, SF_FORMAT_PCM_32, SF_FORMAT_PCM_24};
        default:
            return {sampleFormat};
    }
}

constexpr std::int64_t mostBytesOfWav = 0xF0000000;  // with room for the header and tags

SF_INFO chooseFormat(const std::string& path, const AudioDescription& description) {
    const Container& container = findContainer(path);
    SF_INFO info = {};
    info.channels = description.numOfChannels;
    info.samplerate = description.sampleRate;
    std::vector<int> candidates;
    if (keepsSamples(description.sampleFormat)) candidates = getEquivalents(description.sampleFormat);
    if (container.format == SF_FORMAT_OGG) candidates.clear();  // the extension tells the coding
    candidates.insert(candidates.end(), container.sampleFormats.begin(), container.sampleFormats.end());
    for (const int sampleFormat : candidates) {
        info.format = container.format | sampleFormat;
        if (!sf_format_check(&info)) continue;
        if (container.format == SF_FORMAT_WAV) {
            const std::int64_t bytes = description.numOfSamples * description.numOfChannels * 8;  // at most
            if (description.numOfSamples < 0 || bytes > mostBytesOfWav)
                info.format = SF_FORMAT_RF64 | sampleFormat;
            else if (description.container == SF_FORMAT_WAVEX)
                info.format = SF_FORMAT_WAVEX | sampleFormat;
            if (!sf_format_check(&info)) info.format = container.format | sampleFormat;
        }
        return info;
    }
    throw Error(ErrorKind::Unsupported, path + ": " + container.extension + " cannot hold " +
                                            std::to_string(description.numOfChannels) + " channels at " +
                                            std::to_string(description.sampleRate) + " Hz");
}

// ---- writing -----------------------------------------------------------------------------------

// libsndfile's view of the temporary file. It remembers the first error, since some of libsndfile's encoders
// lose what happens while they finish a file.
struct WatchedDescriptor {
    int descriptor;
    int error = 0;

    static WatchedDescriptor& from(void* data) { return *static_cast<WatchedDescriptor*>(data); }

    static sf_count_t getLength(void* data) {
        struct stat status = {};
        return fstat(from(data).descriptor, &status) == 0 ? status.st_size : -1;
    }
    static sf_count_t seek(sf_count_t offset, int whence, void* data) {
        return lseek(from(data).descriptor, offset, whence);
    }
    static sf_count_t read(void* bytes, sf_count_t count, void* data) {
        return ::read(from(data).descriptor, bytes, static_cast<std::size_t>(count));
    }
    static sf_count_t write(const void* bytes, sf_count_t count, void* data) {
        sf_count_t done = 0;
        while (done < count) {
            const ssize_t written = ::write(from(data).descriptor, static_cast<const char*>(bytes) + done,
                                            static_cast<std::size_t>(count - done));
            if (written < 0 && errno == EINTR) continue;
            if (written <= 0) {
                if (from(data).error == 0) from(data).error = written < 0 ? errno : ENOSPC;
                break;
            }
            done += written;
        }
        return done;
    }
    static sf_count_t tell(void* data) { return lseek(from(data).descriptor, 0, SEEK_CUR); }
};

class SoundFileWriter : public AudioWriter {
  public:
    SoundFileWriter(const std::string& path, const AudioDescription& description,
                    const ProtectedFiles& inputs)
        : info(chooseFormat(path, description)), output(path, inputs), watched{output.getDescriptor()} {
        name = path;
        static SF_VIRTUAL_IO operations = {WatchedDescriptor::getLength, WatchedDescriptor::seek,
                                           WatchedDescriptor::read, WatchedDescriptor::write,
                                           WatchedDescriptor::tell};
        {
            const std::lock_guard lock(openingMutex);
            file.reset(sf_open_virtual(&operations, SFM_WRITE, &info, &watched));
            if (!file) fail(getErrorText(sf_strerror(nullptr)));
        }
        integerBits = getIntegerBits(info.format & SF_FORMAT_SUBMASK);
        isCoded = !keepsSamples(info.format & SF_FORMAT_SUBMASK);
        sf_command(file.get(), SFC_SET_CLIPPING, nullptr, SF_TRUE);
        if ((info.format & SF_FORMAT_TYPEMASK) == SF_FORMAT_RF64)
            sf_command(file.get(), SFC_RF64_AUTO_DOWNGRADE, nullptr, SF_TRUE);
        // Float files would otherwise carry the time of writing, and two runs could never be alike.
        sf_command(file.get(), SFC_SET_ADD_PEAK_CHUNK, nullptr, SF_FALSE);
        std::vector<int> speakers = description.speakers;
        if (!speakers.empty())
            sf_command(file.get(), SFC_SET_CHANNEL_MAP_INFO, speakers.data(),
                       static_cast<int>(speakers.size() * sizeof(int)));
        for (const auto& [tag, text] : description.tags) sf_set_string(file.get(), tag, text.c_str());
    }

    void write(const float* interleaved, int numOfSamples) override {
        const std::int64_t numOfValues = std::int64_t{numOfSamples} * info.channels;
        sf_count_t written = 0;
        if (integerBits > 0) {
            integers.resize(static_cast<std::size_t>(numOfValues));
            numOfClippedValues += quantise(interleaved, numOfValues, integerBits, integers.data());
            written = sf_write_int(file.get(), integers.data(), numOfValues);
        } else {
            written = sf_write_float(file.get(), interleaved, numOfValues);
        }
        if (written != numOfValues || watched.error != 0) fail(getErrorText(sf_strerror(file.get())));
    }

    void close() override {
        const int result = sf_close(file.release());
        if (result != SF_ERR_NO_ERROR || watched.error != 0) fail(getErrorText(sf_error_number(result)));
        output.close();
    }

    void commit() override { output.commit(); }

  private:
    [[noreturn]] void fail(const std::string& text) const {
        throw Error(
            ErrorKind::BadOutput,
            name + ": " + (watched.error != 0 ? std::generic_category().message(watched.error) : text));
    }

    SF_INFO info;
    OutputFile output;
    WatchedDescriptor watched;
    SoundFileHandle file;  // closed before the descriptor
    std::vector<std::int32_t> integers;
};

}  // namespace

std::string getExtension(const std::string& path) {
    std::string extension = std::filesystem::path(path).extension().string();
    if (!extension.empty()) extension.erase(0, 1);
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return extension;
}

std::unique_ptr<AudioReader> openSoundFile(const std::string& path, int descriptor) {
    return std::make_unique<SoundFileReader>(path, descriptor);
}

std::unique_ptr<AudioWriter> createSoundFile(const std::string& path, const AudioDescription& description,
                                             const ProtectedFiles& inputs) {
    return std::make_unique<SoundFileWriter>(path, description, inputs);
}

void requireOutputFormat(const std::string& path) {
    findContainer(path);
}

}  // namespace zevrant::audiofiles
