// How well the models that ship work, on mixes whose parts are known. Prints tables in Markdown.
//
//   scripts/render-mixes && build/release/benchmarks/SeparationQuality models build/mixes demo
//   training/make-data speech build/speech --split test --files 4
//   build/release/benchmarks/SeparationQuality models --speech build/speech/speech
//
// A figure is the improvement of the scale-invariant signal-to-distortion ratio: that of the stem against
// the truth, less that of the mixture against the truth. Each stem comes out of the C interface with the
// gain of its bus at 1 and that of the others at 0. Beside it stands the same separation computed plainly
// over the whole recording: in double precision, with centred frames and the usual overlap-add.
#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <functional>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "PlainSeparation.h"
#include "audiofiles/Resampler.h"
#include "interface/zevrant.h"

namespace {

using namespace zevrant::plain;
namespace fs = std::filesystem;

constexpr int sampleRate = 48000;

Channels readAudio(const fs::path& path) {
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (!file || info.channels != 2 || info.samplerate != sampleRate)
        throw std::runtime_error(path.string() + ": not a stereo recording at 48 kHz");
    std::vector<double> samples(static_cast<std::size_t>(2 * info.frames));
    sf_readf_double(file, samples.data(), info.frames);
    sf_close(file);
    Channels audio(2, std::vector<double>(samples.size() / 2));
    for (std::size_t i = 0; i < samples.size(); ++i) audio[i % 2][i / 2] = samples[i];
    return audio;
}

// a + factor * b
Channels add(const Channels& a, const Channels& b, double factor = 1.0) {
    Channels sum = a;
    for (std::size_t c = 0; c < sum.size(); ++c)
        for (std::size_t i = 0; i < sum[c].size(); ++i) sum[c][i] += factor * b[c][i];
    return sum;
}

double calcPower(const Channels& audio) {
    double power = 0.0;
    for (const auto& channel : audio)
        for (double x : channel) power += x * x;
    return power / static_cast<double>(audio.size() * audio[0].size());
}

struct Stems {
    Channels first, second;
};

struct Bus {
    float gain = 1.0f, sensitivity = 0.0f;
};
constexpr Bus silent{.gain = 0.0f};

// What comes out of a model with its two busses set like this, with the length of the audio.
Channels process(const fs::path& model, const Channels& audio, Bus first, Bus second) {
    ProcessorState* processor = zevrantCreateProcessor(model.c_str(), 2, sampleRate);
    if (!processor) throw std::runtime_error(model.string() + ": no model");
    zevrantSetParameterValue(processor, 256, first.gain);
    zevrantSetParameterValue(processor, 257, second.gain);
    zevrantSetParameterValue(processor, 512, first.sensitivity);
    zevrantSetParameterValue(processor, 513, second.sensitivity);
    constexpr int blockSize = 512;
    const int length = static_cast<int>(audio[0].size());
    Channels result(2);
    std::vector<float> left(blockSize), right(blockSize);
    const float* in[] = {left.data(), right.data()};
    for (int start = 0; static_cast<int>(result[0].size()) < length; start += blockSize) {
        for (int i = 0; i < blockSize; ++i) {
            const auto from = static_cast<std::size_t>(start + i), to = static_cast<std::size_t>(i);
            left[to] = start + i < length ? static_cast<float>(audio[0][from]) : 0.0f;
            right[to] = start + i < length ? static_cast<float>(audio[1][from]) : 0.0f;
        }
        zevrantAddAudio(processor, in, blockSize);
        const auto pending = static_cast<std::size_t>(zevrantGetNumOfPendingSamples(processor));
        std::vector<float> outLeft(pending), outRight(pending);
        float* const out[] = {outLeft.data(), outRight.data()};
        if (pending < 1 || !zevrantGetAudio(processor, out, static_cast<int>(pending))) continue;
        result[0].insert(result[0].end(), outLeft.begin(), outLeft.end());
        result[1].insert(result[1].end(), outRight.begin(), outRight.end());
    }
    zevrantDeleteProcessor(processor);
    for (auto& channel : result) channel.resize(static_cast<std::size_t>(length));
    return result;
}

// Each stem with this sensitivity of its own bus.
Stems separate(const fs::path& model, const Channels& mixture, float sensitivity = 0.0f) {
    const Bus heard{.sensitivity = sensitivity};
    return {process(model, mixture, heard, silent), process(model, mixture, silent, heard)};
}

Stems applyToBoth(const Channels& mixture, const Plane& mask, const Framing& framing) {
    Stems stems{applyMask(mixture, mask, framing), {}};
    stems.second = add(mixture, stems.first, -1.0);
    return stems;
}

Stems separatePlainly(const Channels& mixture, const std::function<Plane(const Spectrogram&)>& calcMask) {
    return applyToBoth(mixture, calcMask(analyse(mixture, {})), {});
}

// In the frames of the models, with the engine's windows.
Stems separateIdeally(const Channels& mixture, const Stems& truth) {
    const Framing framing{.isShort = true};
    return applyToBoth(mixture, calcIdealMask(analyse(truth.first, framing), analyse(truth.second, framing)),
                       framing);
}

struct Improvement {
    double first, second;
};

Improvement calcImprovement(const Stems& stems, const Stems& truth, const Channels& mixture) {
    return {
        calcSignalToDistortion(stems.first, truth.first) - calcSignalToDistortion(mixture, truth.first),
        calcSignalToDistortion(stems.second, truth.second) - calcSignalToDistortion(mixture, truth.second)};
}

using Separation = std::function<Stems(const Channels& mixture, const Stems& truth)>;

// One row per mix, two columns per way of separating it, and a row of means.
class Table {
  public:
    Table(const std::string& first, const std::string& second, const std::vector<std::string>& ways)
        : sums(ways.size(), {0.0, 0.0}) {
        std::printf("| Mix |");
        for (const std::string& way : ways)
            std::printf(" %s: %s | %s |", way.c_str(), first.c_str(), second.c_str());
        std::printf("\n|---|");
        for (std::size_t i = 0; i < 2 * ways.size(); ++i) std::printf("---:|");
        std::printf("\n");
    }

    void addRow(const std::string& name, const Stems& truth, const std::vector<Separation>& ways) {
        const Channels mixture = add(truth.first, truth.second);
        std::printf("| %s |", name.c_str());
        for (std::size_t i = 0; i < ways.size(); ++i) {
            const Improvement improvement = calcImprovement(ways[i](mixture, truth), truth, mixture);
            std::printf(" %.1f | %.1f |", improvement.first, improvement.second);
            sums[i].first += improvement.first;
            sums[i].second += improvement.second;
        }
        std::printf("\n");
        std::fflush(stdout);
        ++numOfRows;
    }

    void addMeans() const {
        std::printf("| mean |");
        for (const Improvement& sum : sums)
            std::printf(" %.2f | %.2f |", sum.first / numOfRows, sum.second / numOfRows);
        std::printf("\n\n");
    }

  private:
    std::vector<Improvement> sums;
    int numOfRows = 0;
};

std::set<std::string> listMixes(const fs::path& folder) {
    std::set<std::string> names;
    const std::string ending = "-harmonic.wav";
    for (const auto& entry : fs::directory_iterator(folder)) {
        const std::string name = entry.path().filename().string();
        if (name.ends_with(ending)) names.insert(name.substr(0, name.size() - ending.size()));
    }
    return names;
}

void measureHarmonicPercussive(const fs::path& models, const fs::path& mixes, const fs::path& demo) {
    std::printf("harmonic-percussive\n\n");
    const std::vector<Separation> ways = {
        [&](const Channels& mixture, const Stems&) {
            return separate(models / "harmonic-percussive.zevrant", mixture);
        },
        [](const Channels& mixture, const Stems&) { return separatePlainly(mixture, calcHarmonicMask); },
        [](const Channels& mixture, const Stems&) {
            return separatePlainly(mixture,
                                   [](const Spectrogram& s) { return calcHarmonicMaskByMedians(s, 17, 17); });
        },
        separateIdeally};
    Table table("Harmonic", "Percussive", {"Model", "Plain", "Medians", "Ideal mask"});
    for (const std::string& mix : listMixes(mixes))
        table.addRow(
            mix, {readAudio(mixes / (mix + "-harmonic.wav")), readAudio(mixes / (mix + "-percussive.wav"))},
            ways);
    table.addMeans();
    Table demoTable("Harmonic", "Percussive", {"Model", "Plain", "Medians", "Ideal mask"});
    demoTable.addRow("demo", {readAudio(demo / "harmonic.flac"), readAudio(demo / "percussive.flac")}, ways);
    std::printf("\n");
}

// Means over the mixes, each stem with the sensitivity of its own bus.
void measureSensitivity(const fs::path& models, const fs::path& mixes) {
    std::printf("harmonic-percussive, by sensitivity\n\n| Sensitivity | Harmonic | Percussive |\n");
    std::printf("|---:|---:|---:|\n");
    const auto names = listMixes(mixes);
    for (float sensitivity : {-100.0f, -50.0f, 0.0f, 50.0f, 100.0f}) {
        Improvement sum{0.0, 0.0};
        for (const std::string& mix : names) {
            const Stems truth = {readAudio(mixes / (mix + "-harmonic.wav")),
                                 readAudio(mixes / (mix + "-percussive.wav"))};
            const Channels mixture = add(truth.first, truth.second);
            const Stems stems = separate(models / "harmonic-percussive.zevrant", mixture, sensitivity);
            const Improvement improvement = calcImprovement(stems, truth, mixture);
            sum.first += improvement.first;
            sum.second += improvement.second;
        }
        const auto count = static_cast<double>(names.size());
        std::printf("| %.0f | %.2f | %.2f |\n", sensitivity, sum.first / count, sum.second / count);
    }
    std::printf("\n");
}

void measureCenterSides(const fs::path& models, const fs::path& mixes) {
    std::printf("center-sides\n\n");
    const std::vector<Separation> ways = {
        [&](const Channels& mixture, const Stems&) {
            return separate(models / "center-sides.zevrant", mixture);
        },
        [](const Channels& mixture, const Stems&) { return separatePlainly(mixture, calcCenterMask); },
        // What a mixing desk has: half the sum of the channels on both of them.
        [](const Channels& mixture, const Stems&) {
            Stems stems{mixture, {}};
            for (std::size_t i = 0; i < mixture[0].size(); ++i)
                stems.first[0][i] = stems.first[1][i] = 0.5 * (mixture[0][i] + mixture[1][i]);
            stems.second = add(mixture, stems.first, -1.0);
            return stems;
        },
        separateIdeally};
    Table table("Center", "Sides", {"Model", "Plain", "Mid and side", "Ideal mask"});
    for (const std::string& mix : listMixes(mixes))
        table.addRow(mix, {readAudio(mixes / (mix + "-center.wav")), readAudio(mixes / (mix + "-sides.wav"))},
                     ways);
    table.addMeans();
}

// ---- Hiss
// ---------------------------------------------------------------------------------------------------

enum class Colour { White, Bright, Pink };

// Noise that is independent in both channels, with the given power over the power of the audio.
Channels makeHiss(const Channels& audio, Colour colour, double decibels) {
    Channels hiss = audio;
    std::mt19937 random(static_cast<unsigned>(colour) + 1);
    std::normal_distribution<double> normal;
    for (auto& channel : hiss) {
        double last = 0.0, slow = 0.0, medium = 0.0, fast = 0.0;
        for (double& x : channel) {
            const double white = normal(random);
            x = white;
            if (colour == Colour::Bright) x = white - 0.7 * std::exchange(last, white);
            if (colour == Colour::Pink) {  // P. Kellet's three poles, within 0.5 dB of 3 dB per octave
                slow = 0.99765 * slow + 0.0990460 * white;
                medium = 0.96300 * medium + 0.2965164 * white;
                fast = 0.57000 * fast + 1.0526913 * white;
                x = slow + medium + fast + 0.1848 * white;
            }
        }
    }
    const double gain = std::sqrt(calcPower(audio) / calcPower(hiss)) * std::pow(10.0, decibels / 20.0);
    for (auto& channel : hiss)
        for (double& x : channel) x *= gain;
    return hiss;
}

std::vector<double> calcMeanSpectrum(const Channels& noise) {
    const Plane power = calcMeanPower(analyse(noise, {}));
    std::vector<double> mean(power[0].size(), 0.0);
    for (const auto& frame : power)
        for (std::size_t bin = 0; bin < mean.size(); ++bin)
            mean[bin] += frame[bin] / static_cast<double>(power.size());
    return mean;
}

void measureHissReduction(const fs::path& models, const fs::path& mixes) {
    std::printf("hiss-reduction, white noise 20 dB below the music\n\n");
    const fs::path model = models / "hiss-reduction.zevrant";
    std::vector<std::pair<std::string, Channels>> recordings;
    for (const std::string& mix : listMixes(mixes))
        recordings.emplace_back(mix, add(readAudio(mixes / (mix + "-harmonic.wav")),
                                         readAudio(mixes / (mix + "-percussive.wav"))));
    const Separation byModel = [&](const Channels& mixture, const Stems&) {
        return separate(model, mixture);
    };
    Table table("Clean", "Noise", {"Model", "Plain", "Noise known", "Ideal mask"});
    for (const auto& [mix, music] : recordings) {
        const Channels hiss = makeHiss(music, Colour::White, -20.0);
        const auto spectrum = calcMeanSpectrum(hiss);
        table.addRow(mix, {music, hiss},
                     {byModel,
                      [](const Channels& mixture, const Stems&) {
                          return separatePlainly(mixture,
                                                 [](const Spectrogram& s) { return calcCleanMask(s, 22); });
                      },
                      [&](const Channels& mixture, const Stems&) {
                          return separatePlainly(
                              mixture, [&](const Spectrogram& s) { return calcCleanMask(s, spectrum); });
                      },
                      separateIdeally});
    }
    table.addMeans();

    std::printf("hiss-reduction: Clean, mean over the mixes\n\n");
    std::printf("| Noise | 10 dB below | 15 dB | 20 dB | 30 dB | 40 dB |\n|---|---:|---:|---:|---:|---:|\n");
    const struct {
        const char* name;
        Colour colour;
        Bus clean, noise;
    } rows[] = {{"white", Colour::White, {}, silent},
                {"bright", Colour::Bright, {}, silent},
                {"pink", Colour::Pink, {}, silent},
                {"white, Noise at -10 dB", Colour::White, {}, {.gain = 0.316f}},
                {"white, sensitivity 100", Colour::White, {.sensitivity = 100.0f}, silent},
                {"white, sensitivity -100", Colour::White, {.sensitivity = -100.0f}, silent}};
    for (const auto& [name, colour, clean, noise] : rows) {
        std::printf("| %s |", name);
        for (double decibels : {-10.0, -15.0, -20.0, -30.0, -40.0}) {
            double sum = 0.0;
            for (const auto& [mix, music] : recordings) {
                const Channels mixture = add(music, makeHiss(music, colour, decibels));
                sum += calcSignalToDistortion(process(model, mixture, clean, noise), music) -
                       calcSignalToDistortion(mixture, music);
            }
            std::printf(" %.1f |", sum / static_cast<double>(recordings.size()));
            std::fflush(stdout);
        }
        std::printf("\n");
    }
    std::printf("\nhiss-reduction on music without noise: signal to distortion of Clean, dB\n\n");
    for (const auto& [mix, music] : recordings)
        std::printf("%s %.1f  ", mix.c_str(),
                    calcSignalToDistortion(process(model, music, {}, silent), music));
    std::printf("\n\n");
}

// ---- Speech
// -------------------------------------------------------------------------------------------------

std::vector<float> makeWhiteNoise(std::size_t length, unsigned seed) {
    std::mt19937 random(seed);
    std::normal_distribution<float> normal(0.0f, 0.1f);
    std::vector<float> noise(length);
    for (float& x : noise) x = normal(random);
    return noise;
}

// Everything that one speaker says, and two noises of that length; all the same on both channels.
struct Voice {
    Channels speech{2}, wideNoise{2};
    Channels ownNoise{2};  // white up to where the recordings end, nothing above
};

void append(const std::vector<float>& mono, int rate, Channels& audio) {
    zevrant::audiofiles::Resampler resampler(rate, sampleRate, 1);
    std::vector<float> samples;
    resampler.process(mono.data(), static_cast<int>(mono.size()), samples);
    resampler.finish(samples);
    for (auto& channel : audio) channel.insert(channel.end(), samples.begin(), samples.end());
}

Voice readVoice(const fs::path& folder) {
    Voice voice;
    unsigned seed = 0;
    std::set<fs::path> paths;
    for (const auto& entry : fs::directory_iterator(folder)) paths.insert(entry.path());
    for (const fs::path& path : paths) {
        SF_INFO info{};
        SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
        if (!file || info.channels != 1) throw std::runtime_error(path.string() + ": not mono speech");
        std::vector<float> samples(static_cast<std::size_t>(info.frames));
        sf_readf_float(file, samples.data(), info.frames);
        sf_close(file);
        append(samples, info.samplerate, voice.speech);
        append(makeWhiteNoise(samples.size(), ++seed), info.samplerate, voice.ownNoise);
    }
    append(makeWhiteNoise(voice.speech[0].size(), ++seed), sampleRate, voice.wideNoise);
    return voice;
}

void measureSpeech(const fs::path& models, const fs::path& folder) {
    std::vector<Voice> voices;
    for (const auto& entry : fs::directory_iterator(folder)) voices.push_back(readVoice(entry.path()));
    std::printf("hiss-reduction on speech: Clean, mean over %zu voices\n\n", voices.size());
    std::printf("| Noise | Sensitivity | 0 dB | 5 dB | 10 dB | 15 dB | 20 dB | 30 dB | 40 dB |\n");
    std::printf("|---|---:|---:|---:|---:|---:|---:|---:|---:|\n");
    const double levels[] = {0.0, 5.0, 10.0, 15.0, 20.0, 30.0, 40.0};
    for (Channels Voice::*noise : {&Voice::wideNoise, &Voice::ownNoise}) {
        const char* name = noise == &Voice::wideNoise ? "to 24 kHz" : "in the voice's band";
        std::vector<std::vector<double>> neutral;  // [level][voice], at sensitivity 0
        std::string spread;
        for (float sensitivity : {0.0f, -100.0f, 50.0f, 100.0f}) {
            std::printf("| %s | %.0f |", name, sensitivity);
            for (std::size_t level = 0; level < std::size(levels); ++level) {
                std::vector<double> gains, more;
                for (const Voice& voice : voices) {
                    const double ratio = calcPower(voice.speech) / calcPower(voice.*noise);
                    const double factor = std::sqrt(ratio) * std::pow(10.0, -levels[level] / 20.0);
                    const Channels mixture = add(voice.speech, voice.*noise, factor);
                    const Channels clean = process(models / "hiss-reduction.zevrant", mixture,
                                                   {.sensitivity = sensitivity}, silent);
                    gains.push_back(calcSignalToDistortion(clean, voice.speech) -
                                    calcSignalToDistortion(mixture, voice.speech));
                }
                if (sensitivity == 0.0f) neutral.push_back(gains);
                for (std::size_t i = 0; i < gains.size(); ++i) more.push_back(gains[i] - neutral[level][i]);
                const auto [least, most] = std::minmax_element(more.begin(), more.end());
                char cell[64];
                std::snprintf(cell, sizeof cell, " %.1f to %.1f |", *least, *most);
                spread = (level == 0 ? "" : spread) + cell;
                std::printf(" %.1f |", calcMean(gains));
                std::fflush(stdout);
            }
            std::printf("\n");
        }
        std::printf("| %s | 100 over 0, by voice |%s\n", name, spread.c_str());
    }
}

// Seconds of sound per second of processor time, the best of several runs, with all busses at gain 1.
void measureSpeed(const fs::path& models, const Channels& audio) {
    std::printf("| Model | Latency, ms | Times real time |\n|---|---:|---:|\n");
    std::set<fs::path> paths;
    for (const auto& entry : fs::directory_iterator(models))
        if (entry.path().extension() == ".zevrant") paths.insert(entry.path());
    for (const fs::path& path : paths) {
        ProcessorState* processor = zevrantCreateProcessor(path.c_str(), 2, sampleRate);
        if (!processor) throw std::runtime_error(path.string() + ": no model");
        ProcessorInfo info{};
        zevrantGetProcessorInfo(processor, &info);
        std::vector<float> left(audio[0].begin(), audio[0].end()), right(audio[1].begin(), audio[1].end());
        std::vector<float> drain(left.size());
        double fastest = 1e9;
        for (int run = 0; run < 6; ++run) {
            const std::clock_t start = std::clock();
            for (std::size_t i = 0; i + 1024 <= left.size(); i += 1024) {
                const float* in[] = {left.data() + i, right.data() + i};
                zevrantAddAudio(processor, in, 1024);
                float* const out[] = {drain.data(), drain.data()};
                if (const int pending = zevrantGetNumOfPendingSamples(processor); pending > 0)
                    zevrantGetAudio(processor, out, pending);
            }
            fastest = std::min(fastest, static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC);
        }
        std::printf("| %s | %.0f | %.0f |\n", path.stem().c_str(), 1000.0 * info.latency / sampleRate,
                    static_cast<double>(left.size()) / sampleRate / fastest);
        zevrantDeleteProcessor(processor);
    }
    std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr,
                     "usage: SeparationQuality MODELS MIXES DEMO\n"
                     "       SeparationQuality MODELS --speech FOLDER\n");
        return 2;
    }
    try {
        const fs::path models = argv[1], mixes = argv[2], demo = argv[3];
        if (mixes == "--speech") {
            measureSpeech(models, argv[3]);
            return 0;
        }
        measureSpeed(models, readAudio(demo / "mixture.flac"));
        measureHarmonicPercussive(models, mixes, demo);
        measureSensitivity(models, mixes);
        measureCenterSides(models, mixes);
        measureHissReduction(models, mixes);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "SeparationQuality: %s\n", error.what());
        return 1;
    }
    return 0;
}
