// Number formats against what bounds them.
//
// packed: rows of which the floats, or the raw samples, take 1 MiB. "of_memcpy" is the bandwidth, bytes
//     read and written per second, over that of a memcpy that reads and writes as many bytes in the same
//     run, so that both meet the caches alike.
// stereo: interleaved 16- and 32-bit samples to and from two rows, 65536 frames. "over_best" is our time
//     over the shorter of a plain loop with the stride known to the compiler and of libsndfile, which
//     reads and writes the same bytes as a raw file in memory; below 1 we are faster. libsndfile hands out
//     interleaved floats, so it is spared taking the channels apart.
#include <benchmark/benchmark.h>
#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "DspCore/NumberFormatConversion.h"
#include "Interleaved.h"

using zevrant::NumberFormat;
using zevrant::NumberFormatConversion;
using zevrant::Signal32;

namespace {

std::vector<float> noise(int n) {
    std::mt19937 engine(1);
    std::uniform_real_distribution<float> uniform(-0.9f, 0.9f);
    std::vector<float> row(static_cast<std::size_t>(n));
    for (float& x : row) x = uniform(engine);
    return row;
}

void packed(benchmark::State& state, NumberFormat format, bool bigEndian) {
    NumberFormatConversion conversion;
    conversion.setFormat(format, bigEndian);
    const int n = (1 << 20) / (state.range(0) ? conversion.frameSize : static_cast<int>(sizeof(float)));
    const std::size_t numOfBytes =
        static_cast<std::size_t>(n) * (static_cast<std::size_t>(conversion.frameSize) + 4) / 2;
    Signal32 signal(1, n);
    float* values = signal.getWriteChannelPtr(0);
    std::ranges::copy(noise(n), values);
    std::vector<std::uint8_t> raw(static_cast<std::size_t>(n * conversion.frameSize));
    std::vector<std::uint8_t> from(numOfBytes, 1), to(numOfBytes, 2);

    ShortestTime decode, encode, copying;
    for (auto _ : state) {
        copying.add(20, [&] {
            std::memcpy(to.data(), from.data(), numOfBytes);
            benchmark::ClobberMemory();
        });
        encode.add(20, [&] {
            conversion.fromFloat(values, raw.data(), n, 1);
            benchmark::ClobberMemory();
        });
        decode.add(20, [&] {
            conversion.toFloat(raw.data(), values, n, 1);
            benchmark::ClobberMemory();
        });
    }
    state.counters["decode_us"] = decode.microseconds();
    state.counters["encode_us"] = encode.microseconds();
    state.counters["memcpy_us"] = copying.microseconds();
    state.counters["decode_of_memcpy"] = copying.microseconds() / decode.microseconds();
    state.counters["encode_of_memcpy"] = copying.microseconds() / encode.microseconds();
}

// A file in memory, for libsndfile.
struct MemoryFile {
    std::vector<std::uint8_t>& bytes;
    sf_count_t position = 0;

    static SF_VIRTUAL_IO functions() {
        SF_VIRTUAL_IO io{};
        io.get_filelen = [](void* user) {
            return static_cast<sf_count_t>(static_cast<MemoryFile*>(user)->bytes.size());
        };
        io.seek = [](sf_count_t offset, int whence, void* user) {
            auto& file = *static_cast<MemoryFile*>(user);
            const sf_count_t start = whence == SEEK_SET   ? 0
                                     : whence == SEEK_CUR ? file.position
                                                          : static_cast<sf_count_t>(file.bytes.size());
            return file.position = start + offset;
        };
        io.read = [](void* out, sf_count_t count, void* user) {
            auto& file = *static_cast<MemoryFile*>(user);
            count = std::min(count, static_cast<sf_count_t>(file.bytes.size()) - file.position);
            std::memcpy(out, file.bytes.data() + file.position, static_cast<std::size_t>(count));
            file.position += count;
            return count;
        };
        io.write = [](const void* in, sf_count_t count, void* user) {
            auto& file = *static_cast<MemoryFile*>(user);
            count = std::min(count, static_cast<sf_count_t>(file.bytes.size()) - file.position);
            std::memcpy(file.bytes.data() + file.position, in, static_cast<std::size_t>(count));
            file.position += count;
            return count;
        };
        io.tell = [](void* user) { return static_cast<MemoryFile*>(user)->position; };
        return io;
    }
};

template <class T>
void decodePlain(const T* in, float* out, int n, float scale) {
    for (int i = 0; i < n; ++i) out[i] = static_cast<float>(in[2 * i]) * scale;
}

template <class T, class Product>
void encodePlain(const float* in, T* out, int n, Product scale) {
    for (int i = 0; i < n; ++i) {
        const Product x = static_cast<Product>(in[i]) * scale;
        const Product limited = x < -scale ? -scale : x > scale - 1 ? scale - 1 : x;
        out[2 * i] = static_cast<T>(std::lrint(limited));
    }
}

template <class T, class Product>
void stereo(benchmark::State& state, NumberFormat format, int sndfileSubtype) {
    constexpr int n = 65536;
    NumberFormatConversion conversion;
    conversion.setFormat(format, false);
    const auto interleavedValues = noise(2 * n);
    std::vector<std::uint8_t> raw(2 * n * sizeof(T));
    conversion.fromFloat(interleavedValues.data(), raw.data(), 2 * n, 1);
    Signal32 signal(2, n);
    conversion.convertToSignal32(raw.data(), signal);
    std::vector<float> interleaved = interleavedValues;
    auto* samples = reinterpret_cast<T*>(raw.data());
    const Product scale = sizeof(T) == 2 ? Product(0x1p15) : Product(0x1p31);

    MemoryFile file{raw};
    SF_VIRTUAL_IO io = MemoryFile::functions();
    SF_INFO info{};
    info.samplerate = 48000;
    info.channels = 2;
    info.format = SF_FORMAT_RAW | sndfileSubtype | SF_ENDIAN_LITTLE;
    SNDFILE* sndfile = sf_open_virtual(&io, SFM_RDWR, &info, &file);
    if (!sndfile) return state.SkipWithError(sf_strerror(nullptr));
    sf_command(sndfile, SFC_SET_CLIPPING, nullptr, SF_TRUE);

    ShortestTime ours[2], loops[2], sndfiles[2];
    for (auto _ : state) {
        ours[0].add(10, [&] {
            conversion.convertToSignal32(raw.data(), signal);
            benchmark::ClobberMemory();
        });
        loops[0].add(10, [&] {
            for (int c = 0; c < 2; ++c)
                decodePlain(samples + c, signal.getWriteChannelPtr(c), n, static_cast<float>(1 / scale));
            benchmark::ClobberMemory();
        });
        sndfiles[0].add(10, [&] {
            sf_seek(sndfile, 0, SEEK_SET | SFM_READ);
            sf_readf_float(sndfile, interleaved.data(), n);
            benchmark::ClobberMemory();
        });
        ours[1].add(10, [&] {
            conversion.convertFromSignal32(signal, raw.data());
            benchmark::ClobberMemory();
        });
        loops[1].add(10, [&] {
            for (int c = 0; c < 2; ++c) encodePlain(signal.getReadChannelPtr(c), samples + c, n, scale);
            benchmark::ClobberMemory();
        });
        sndfiles[1].add(10, [&] {
            sf_seek(sndfile, 0, SEEK_SET | SFM_WRITE);
            sf_writef_float(sndfile, interleaved.data(), n);
            benchmark::ClobberMemory();
        });
    }
    sf_close(sndfile);
    for (int way = 0; way < 2; ++way) {
        const std::string name = way == 0 ? "decode_" : "encode_";
        state.counters[name + "us"] = ours[way].microseconds();
        state.counters[name + "loop_us"] = loops[way].microseconds();
        state.counters[name + "sndfile_us"] = sndfiles[way].microseconds();
        state.counters[name + "over_best"] =
            ours[way].microseconds() / std::min(loops[way].microseconds(), sndfiles[way].microseconds());
    }
}

void stereoInt16(benchmark::State& state) {
    stereo<std::int16_t, float>(state, NumberFormat::int16, SF_FORMAT_PCM_16);
}

void stereoInt32(benchmark::State& state) {
    stereo<std::int32_t, double>(state, NumberFormat::int32, SF_FORMAT_PCM_32);
}

const bool kRegistered = [] {
    constexpr const char* names[] = {"uint8", "int8", "int16", "int24", "int32", "float32", "float64"};
    for (int format = 0; format <= 6; ++format)
        for (const bool bigEndian : {false, true}) {
            if (bigEndian && format < NumberFormat::int16) continue;
            const std::string name = std::string("packed/") + names[format] + (bigEndian ? "/big" : "");
            benchmark::RegisterBenchmark(name.c_str(), packed, NumberFormat(format), bigEndian)
                ->ArgName("raw")
                ->Arg(0)
                ->Arg(1)
                ->Unit(benchmark::kMillisecond);
        }
    return true;
}();

BENCHMARK(stereoInt16)->Unit(benchmark::kMillisecond);
BENCHMARK(stereoInt32)->Unit(benchmark::kMillisecond);

}  // namespace
