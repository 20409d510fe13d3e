// Sound against steady broadband noise: tape hiss, preamplifiers, fans.
//
// With P the power of both channels, smoothed over three frames and three bins, N an estimate of what the
// noise alone would give, and a factor of over-subtraction,
//
//   mask = P^2 / (P^2 + (1.5 N)^2)
//
// a soft form of spectral subtraction (S. Boll, "Suppression of acoustic noise in speech using spectral
// subtraction", IEEE Trans. ASSP 27, 1979; P. Scalart and J. V. Filho, "Speech enhancement based on a priori
// signal to noise estimation", ICASSP 1996). A mean over three frames takes the sharpest of its flutter away.
//
// N has to come from the sound itself. Music leaves gaps, in time between notes and in frequency between
// partials, in which the noise is heard alone; R. Martin, "Noise power spectral density estimation based on
// optimal smoothing and minimum statistics", IEEE Trans. SAP 9 (2001), finds it as a minimum over the last
// second. Here a harmonic mean does that: it follows the small values, and it is made of sums. It runs over
// the past second and over a band of frequencies, since hiss is smooth in frequency where music is not; so a
// tone that is held does not count as noise as long as there are gaps beside it.
#include <algorithm>
#include <cmath>

#include "models/ShippedModels.h"
#include "models/SpectralFormula.h"

namespace zevrant::models {

using namespace modelwriter;
using Bands = std::vector<FrequencyRescale::Band>;

namespace {

constexpr int numOfBands = 17;

double getBandCentre(int band, int numOfBins) {
    return static_cast<double>(band) * (numOfBins - 1) / (numOfBands - 1);
}

// Means over triangles that reach from the centre of one neighbour to that of the other.
Bands makeBands(int numOfBins) {
    Bands bands;
    const double reach = getBandCentre(1, numOfBins);
    for (int band = 0; band < numOfBands; ++band) {
        const double centre = getBandCentre(band, numOfBins);
        const int first = std::max(0, static_cast<int>(std::floor(centre - reach)) + 1);
        const int last = std::min(numOfBins - 1, static_cast<int>(std::ceil(centre + reach)) - 1);
        double sum = 0.0;
        for (int bin = first; bin <= last; ++bin) sum += 1.0 - std::abs(bin - centre) / reach;
        WeightTensor taps{{last - first + 1}, {}};
        for (int bin = first; bin <= last; ++bin)
            taps.values.push_back(static_cast<float>((1.0 - std::abs(bin - centre) / reach) / sum));
        bands.push_back({first, taps});
    }
    return bands;
}

// Straight lines from the centre of one band to that of the next, times a factor.
Bands makeInterpolation(int numOfBins, double factor) {
    Bands bins;
    for (int bin = 0; bin < numOfBins; ++bin) {
        const double position = bin / getBandCentre(1, numOfBins);
        const int band = std::min(static_cast<int>(position), numOfBands - 2);
        const double share = position - band;
        bins.push_back(
            {band, {{2}, {static_cast<float>(factor * (1.0 - share)), static_cast<float>(factor * share)}}});
    }
    return bins;
}

}  // namespace

ModelWriter describeHissReduction() {
    constexpr int fftSize = 4096, hopSize = 1024, numOfBins = fftSize / 2 + 1;
    ModelWriter model("hiss-reduction");
    model
        .setInfoText(
            "Sound and the steady broadband noise under it, estimated from the gaps of the last second.")
        .setSampleRate(48000)
        .setChannels(2, 2)
        .setBusses({"Clean", "Noise"})
        .setFrames(fftSize, fftSize, hopSize)
        .setPacking(Packing::magnitudes(numOfBins));

    SpectralFormula formula(model);
    const auto powers = formula.square("powers", "input");
    const auto bothPowers = formula.mixChannels("power of both channels", powers, {{0.5f}, {0.5f}}, 1e-9f);
    const auto power = formula.mean("power", bothPowers, {.slices = 3, .bins = 3});

    // The harmonic mean: inverse powers are averaged by band, then summed over the past, and what divides by
    // that sum is their number. At the start of a stream the past is short and may hold nothing but the first
    // chord, so the estimate counts by the share of the past that there is: number * (number / taps) / sum.
    const auto inverse = formula.divide("inverse", formula.ones("ones", power), power);
    const auto inverseByBand = formula.toBands("inverse by band", inverse, makeBands(numOfBins));
    const SpectralFormula::Past lastSecond{.taps = 12, .step = 4};
    const auto sum = formula.sumOfPast("sum of inverses", inverseByBand, lastSecond);
    const auto count =
        formula.sumOfPast("length of past", formula.ones("ones by band", inverseByBand), lastSecond);
    const auto noiseByBand = formula.divide("noise by band", formula.square("trust", count), sum);
    const auto noise =
        formula.toBands("noise", noiseByBand, makeInterpolation(numOfBins, 1.5 / lastSecond.taps));

    const auto soundPower = formula.square("power squared", power);
    const auto noisePower = formula.square("noise squared", noise);
    const auto gain = formula.divide("gain", soundPower, formula.add("both squared", soundPower, noisePower));
    const auto mask = formula.mean("mask", gain, {.slices = 3});
    return model.setOutput(formula.mixChannels("mask of both channels", mask, {{1.0f, 1.0f}}));
}

}  // namespace zevrant::models
