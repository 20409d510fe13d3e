#include "audiofiles/AudioStream.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <limits>
#include <system_error>
#include <vector>

#include <sndfile.h>
#include <unistd.h>

#include "audiofiles/Error.h"
#include "audiofiles/Interruption.h"
#include "audiofiles/SampleFormat.h"

namespace zevrant::audiofiles {

namespace {

static_assert(std::endian::native == std::endian::little, "WAV streams are moved as they are");

constexpr std::uint32_t unknownSize = 0xFFFFFFFF;
constexpr std::uint32_t largestTrustedSize =
    0x7FFF0000;  // writers without a length announce some large number

constexpr std::uint16_t integerTag = 1;
constexpr std::uint16_t floatTag = 3;
constexpr std::uint16_t extensibleTag = 0xFFFE;

// All of the subformat of an extensible header but its first two bytes, which are one of the tags above.
constexpr unsigned char subformatTail[] = {0, 0, 0, 0, 0x10, 0, 0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71};

template <class Number>
Number takeNumber(const unsigned char* bytes) {
    Number number;
    std::memcpy(&number, bytes, sizeof number);
    return number;
}

// ---- reading -----------------------------------------------------------------------------------

class StreamReader : public AudioReader {
  public:
    StreamReader(int source, const std::string& streamName, const std::optional<RawFormat>& raw)
        : descriptor(source) {
        name = streamName;
        const bool hasStart = fill(4);
        const std::string start = hasStart ? std::string(buffer.begin(), buffer.begin() + 4) : std::string();
        if (start == "RIFF" || start == "RF64") {
            readWavHeader();
        } else if (raw) {
            description.numOfChannels = raw->numOfChannels;
            description.sampleRate = raw->sampleRate;
            description.container = SF_FORMAT_RAW;
            description.sampleFormat = raw->samples.sampleFormat;
            description.isBigEndian = raw->samples.isBigEndian;
        } else {
            throw Error(ErrorKind::BadInput,
                        name + ": no WAV stream; for raw samples give --raw-channels and --raw-rate");
        }
        coding.emplace(description.sampleFormat, description.isBigEndian);
        bytesPerFrame = static_cast<std::size_t>(description.numOfChannels) * coding->getBytesPerValue();
        if (restOfData >= 0) description.numOfSamples = restOfData / static_cast<std::int64_t>(bytesPerFrame);
    }

    int read(float* interleaved, int numOfSamples) override {
        std::size_t wanted = static_cast<std::size_t>(numOfSamples) * bytesPerFrame;
        if (restOfData >= 0) wanted = std::min(wanted, static_cast<std::size_t>(restOfData));
        fill(wanted);
        const std::size_t numOfFrames = std::min(buffer.size(), wanted) / bytesPerFrame;
        coding->decode(buffer.data(), numOfFrames * static_cast<std::size_t>(description.numOfChannels),
                       interleaved);
        drop(numOfFrames * bytesPerFrame);
        if (restOfData >= 0) restOfData -= static_cast<std::int64_t>(numOfFrames * bytesPerFrame);
        return static_cast<int>(numOfFrames);
    }

  private:
    // Reads until the buffer holds so many bytes; false when the stream ends before that.
    bool fill(std::size_t numOfBytes) {
        std::size_t held = buffer.size();
        buffer.resize(std::max(held, numOfBytes));
        while (held < numOfBytes) {
            const ssize_t count = ::read(descriptor, buffer.data() + held, numOfBytes - held);
            const int error = errno;
            checkInterruption();
            if (count < 0 && error == EINTR) continue;
            if (count < 0)
                throw Error(ErrorKind::BadInput, name + ": " + std::generic_category().message(error));
            if (count == 0) break;
            held += static_cast<std::size_t>(count);
        }
        buffer.resize(held);
        return held >= numOfBytes;
    }

    void drop(std::size_t numOfBytes) {
        buffer.erase(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(numOfBytes));
    }

    void require(bool holds, const char* text) const {
        if (!holds) throw Error(ErrorKind::BadInput, name + ": " + text);
    }

    void readWavHeader() {
        constexpr const char* truncated = "the WAV header is cut off";
        require(fill(12), truncated);
        require(std::memcmp(buffer.data() + 8, "WAVE", 4) == 0, "no WAV stream");
        drop(12);
        bool hasFormat = false;
        std::int64_t longDataSize = -1;
        for (;;) {
            require(fill(8), truncated);
            const std::string id(buffer.begin(), buffer.begin() + 4);
            const auto size = takeNumber<std::uint32_t>(buffer.data() + 4);
            drop(8);
            if (id == "data") {
                require(hasFormat, "the WAV header has no format");
                const bool isKnown = size > 0 && size <= largestTrustedSize;
                restOfData = isKnown ? size : size == unknownSize ? longDataSize : -1;
                return;
            }
            if (id == "fmt " || id == "ds64") {
                require(size >= 16 && size <= 4096 && fill(size), truncated);
                if (id == "ds64") longDataSize = takeNumber<std::int64_t>(buffer.data() + 8);
                if (id == "fmt ") readFormat(size);
                hasFormat |= id == "fmt ";
                require(fill(size + size % 2), truncated);
                drop(size + size % 2);
                continue;
            }
            for (std::uint64_t rest = std::uint64_t{size} + size % 2; rest > 0;) {
                const auto part = static_cast<std::size_t>(std::min<std::uint64_t>(rest, 65536));
                require(fill(part), truncated);
                drop(part);
                rest -= part;
            }
        }
    }

    void readFormat(std::uint32_t size) {
        const unsigned char* fields = buffer.data();
        auto tag = takeNumber<std::uint16_t>(fields);
        const int bits = takeNumber<std::uint16_t>(fields + 14);
        if (tag == extensibleTag && size >= 40) tag = takeNumber<std::uint16_t>(fields + 24);
        description.container = SF_FORMAT_WAV;
        description.numOfChannels = takeNumber<std::uint16_t>(fields + 2);
        const auto rate = takeNumber<std::uint32_t>(fields + 4);
        require(description.numOfChannels > 0 && rate > 0 && rate <= std::numeric_limits<int>::max(),
                "the WAV header has no channels or no sample rate");
        description.sampleRate = static_cast<int>(rate);
        description.sampleFormat = getSampleFormat(tag, bits);
        require(description.sampleFormat != 0, "WAV streams have to hold integers or floats");
        require(takeNumber<std::uint16_t>(fields + 12) == description.numOfChannels * (bits / 8),
                "the WAV header contradicts itself");
    }

    static int getSampleFormat(std::uint16_t tag, int bits) {
        if (tag == floatTag) return bits == 32 ? SF_FORMAT_FLOAT : bits == 64 ? SF_FORMAT_DOUBLE : 0;
        if (tag != integerTag) return 0;
        switch (bits) {
            case 8:
                return SF_FORMAT_PCM_U8;
            case 16:
                return SF_FORMAT_PCM_16;
            case 24:
                return SF_FORMAT_PCM_24;
            case 32:
                return SF_FORMAT_PCM_32;
            default:
                return 0;
        }
    }

    int descriptor;
    std::optional<SampleCoding> coding;
    std::vector<unsigned char> buffer;  // read and not yet used
    std::int64_t restOfData = -1;       // bytes; -1: until the stream ends
    std::size_t bytesPerFrame = 0;
};

// ---- writing -----------------------------------------------------------------------------------

class StreamWriter : public AudioWriter {
  public:
    StreamWriter(int target, bool owns, const std::string& streamName, const AudioDescription& description)
        : descriptor(target),
          ownsDescriptor(owns),
          numOfChannels(description.numOfChannels),
          isRaw(description.container == SF_FORMAT_RAW),
          sampleFormat(chooseSampleFormat(description.sampleFormat)),
          coding(sampleFormat, isRaw && description.isBigEndian) {
        name = streamName;
        integerBits = getIntegerBits(sampleFormat);
        if (!isRaw) writeHeader(description);
    }
    ~StreamWriter() override {
        if (ownsDescriptor) ::close(descriptor);
    }

    void write(const float* interleaved, int numOfSamples) override {
        const auto numOfValues =
            static_cast<std::size_t>(numOfSamples) * static_cast<std::size_t>(numOfChannels);
        bytes.resize(numOfValues * coding.getBytesPerValue());
        numOfClippedValues += coding.encode(interleaved, numOfValues, bytes.data());
        writeFully(descriptor, bytes.data(), bytes.size(), name);
    }

    void close() override {}
    void commit() override {}

  private:
    static int chooseSampleFormat(int wanted) {
        if (wanted == SF_FORMAT_DOUBLE) return wanted;
        switch (getIntegerBits(wanted)) {
            case 8:
            case 16:
                return SF_FORMAT_PCM_16;
            case 20:
            case 24:
                return SF_FORMAT_PCM_24;
            case 32:
                return SF_FORMAT_PCM_32;
            default:
                return SF_FORMAT_FLOAT;
        }
    }

    template <class Number>
    void put(Number number) {
        const auto* first = reinterpret_cast<const unsigned char*>(&number);
        bytes.insert(bytes.end(), first, first + sizeof number);
    }
    void put(const char* id) { bytes.insert(bytes.end(), id, id + 4); }

    void writeHeader(const AudioDescription& description) {
        const auto bits = static_cast<int>(8 * coding.getBytesPerValue());
        const int bytesPerFrame = numOfChannels * bits / 8;
        const bool isInteger = getIntegerBits(sampleFormat) > 0;
        const bool isExtensible = numOfChannels > 2 || bits == 24;
        const std::uint32_t formatSize = isExtensible ? 40 : 16;
        const std::uint32_t headerSize = 4 + 8 + formatSize + 8;  // behind the RIFF size
        const std::int64_t dataSize = description.numOfSamples * bytesPerFrame;
        const bool isKnown = description.numOfSamples >= 0 && dataSize <= largestTrustedSize;
        const auto tag = isInteger ? integerTag : floatTag;

        put("RIFF");
        put(isKnown ? static_cast<std::uint32_t>(dataSize) + headerSize : unknownSize);
        put("WAVE");
        put("fmt ");
        put(formatSize);
        put(isExtensible ? extensibleTag : tag);
        put(static_cast<std::uint16_t>(numOfChannels));
        put(static_cast<std::uint32_t>(description.sampleRate));
        put(static_cast<std::uint32_t>(description.sampleRate) * static_cast<std::uint32_t>(bytesPerFrame));
        put(static_cast<std::uint16_t>(bytesPerFrame));
        put(static_cast<std::uint16_t>(bits));
        if (isExtensible) {
            put(std::uint16_t{22});
            put(static_cast<std::uint16_t>(bits));
            put(std::uint32_t{0});  // speakers are not told
            put(tag);
            bytes.insert(bytes.end(), std::begin(subformatTail), std::end(subformatTail));
        }
        put("data");
        put(isKnown ? static_cast<std::uint32_t>(dataSize) : unknownSize);
        writeFully(descriptor, bytes.data(), bytes.size(), name);
    }

    int descriptor;
    bool ownsDescriptor;
    int numOfChannels;
    bool isRaw;
    int sampleFormat;
    SampleCoding coding;
    std::vector<unsigned char> bytes;
};

}  // namespace

std::unique_ptr<AudioReader> openStream(int descriptor, const std::string& name,
                                        const std::optional<RawFormat>& raw) {
    return std::make_unique<StreamReader>(descriptor, name, raw);
}

std::unique_ptr<AudioWriter> createStream(int descriptor, bool ownsDescriptor, const std::string& name,
                                          const AudioDescription& description) {
    return std::make_unique<StreamWriter>(descriptor, ownsDescriptor, name, description);
}

}  // namespace zevrant::audiofiles
