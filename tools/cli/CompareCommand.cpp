#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>

#include "audiofiles/Audio.h"
#include "cli/Commands.h"
#include "cli/Failure.h"
#include "cli/Interruption.h"
#include "cli/Json.h"

namespace zevrant::cli {

namespace {

// How near an estimate comes to a reference, from the sums over all samples of all channels.
//
//   si-sdr      10 log10(|a r|^2 / |a r - e|^2) with a = <e, r> / <r, r>: J. Le Roux, S. Wisdom, H. Erdogan
//   and
//               J. R. Hershey, SDR - half-baked or well done?, ICASSP 2019
//   difference  10 log10(|e - r|^2 / |r|^2)
class Comparison {
  public:
    void add(const float* estimate, const float* reference, std::size_t numOfValues) {
        for (std::size_t i = 0; i < numOfValues; ++i) {
            const double e = estimate[i], r = reference[i];
            estimateEnergy += e * e;
            referenceEnergy += r * r;
            product += e * r;
            differenceEnergy += (e - r) * (e - r);
        }
    }

    double getSiSdr() const {
        const double target = product * product / referenceEnergy;
        return 10.0 * std::log10(target / std::max(estimateEnergy - target, 0.0));
    }
    double getDifference() const { return 10.0 * std::log10(differenceEnergy / referenceEnergy); }

  private:
    double estimateEnergy = 0.0, referenceEnergy = 0.0, product = 0.0, differenceEnergy = 0.0;
};

Comparison compareFiles(const std::string& estimatePath, const std::string& referencePath) {
    constexpr int blockSize = 16384;
    const auto estimate = audiofiles::openAudio(estimatePath),
               reference = audiofiles::openAudio(referencePath);
    const int channels = reference->description.numOfChannels;
    if (estimate->description.numOfChannels != channels ||
        estimate->description.sampleRate != reference->description.sampleRate)
        throw Failure(ExitStatus::BadInput,
                      estimatePath + " and " + referencePath + ": differ in channels or sample rate");
    const auto numOfValues = static_cast<std::size_t>(blockSize) * static_cast<std::size_t>(channels);
    std::vector<float> e(numOfValues), r(numOfValues);
    Comparison comparison;
    for (;;) {
        stopIfInterrupted();
        const int count = reference->read(r.data(), blockSize);
        if (estimate->read(e.data(), blockSize) != count)
            throw Failure(ExitStatus::BadInput,
                          estimatePath + " and " + referencePath + ": differ in length");
        if (count == 0) return comparison;
        comparison.add(e.data(), r.data(),
                       static_cast<std::size_t>(count) * static_cast<std::size_t>(channels));
    }
}

struct CompareCommand {
    std::string estimate;
    std::string reference;
    std::string mixture;
    bool asJson = false;

    void run() const {
        const Comparison comparison = compareFiles(estimate, reference);
        const double siSdr = comparison.getSiSdr();
        const double ofMixture = mixture.empty() ? std::numeric_limits<double>::quiet_NaN()
                                                 : compareFiles(mixture, reference).getSiSdr();
        if (asJson) {
            Json json = {{"siSdr", siSdr}, {"difference", comparison.getDifference()}};
            if (!mixture.empty()) {
                json["siSdrOfMixture"] = ofMixture;
                json["improvement"] = siSdr - ofMixture;
            }
            return writeJson(json);
        }
        std::printf("SI-SDR       %7.2f dB\n", siSdr);
        if (!mixture.empty())
            std::printf("of mixture   %7.2f dB\nimprovement  %7.2f dB\n", ofMixture, siSdr - ofMixture);
        std::printf("difference   %7.2f dB\n", comparison.getDifference());
    }
};

}  // namespace

void addCompareCommand(CLI::App& program) {
    auto* command =
        program.add_subcommand("compare", "Measures how near a separated sound comes to the true one");
    const auto options = std::make_shared<CompareCommand>();
    command->add_option("ESTIMATE", options->estimate, "Audio file to judge")->required();
    command->add_option("REFERENCE", options->reference, "What it should be")->required();
    command->add_option("--mixture", options->mixture, "What it was separated from, to tell the improvement");
    command->add_flag("--json", options->asJson, "For programs");
    command->footer(
        "SI-SDR is the level of what is right against what is wrong, whatever the gain. The difference is "
        "the\n"
        "level of estimate less reference against the reference. The files have to line up.\n"
        "\n"
        "Example:\n"
        "  zevrant compare stems/Harmonic.flac truth.flac --mixture song.flac");
    command->callback([options] { options->run(); });
}

}  // namespace zevrant::cli
