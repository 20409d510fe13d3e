// Tonal against percussive sound.
//
// In a spectrogram a steady tone is a ridge along time and a drum hit is a ridge along frequency. An average
// that follows the small values keeps a ridge that lies along it and forgets one that crosses it: nine
// frames in which one is loud average to the quiet of the other eight. So with |X| the magnitudes,
//
//   H = mean over time of (harmonic mean over time of |X|)                  the tonal part's magnitude
//   P = mean over frequency of (harmonic mean over frequency of |X|)        the percussive part's
//   mask = H^2 / (H^2 + P^2)                                                Wiener's gain
//
// Separation by the direction of smoothing is N. Ono et al., "Separation of a monaural audio signal into
// harmonic/percussive components by complementary diffusion on spectrogram", EUSIPCO 2008; the form that
// smooths once along each axis and makes a soft mask is D. FitzGerald, "Harmonic/percussive separation
// using median filtering", DAFx 2010. Here the harmonic mean stands for the median, since sums and
// quotients are what the layers can do: a generalised mean as in D. FitzGerald et al., "Harmonic/percussive
// separation using kernel additive modelling", ISSC 2014. The plain mean behind it takes out the flutter
// that is left.
#include "models/ShippedModels.h"
#include "models/SpectralFormula.h"

namespace zevrant::models {

using namespace modelwriter;

ModelWriter describeHarmonicPercussive() {
    constexpr int fftSize = 4096, hopSize = 1024;  // 85 ms of window resolve the partials of a chord
    ModelWriter model("harmonic-percussive");
    model
        .setInfoText(
            "Tonal sound and percussive sound, told apart by the direction of their spectral ridges.")
        .setSampleRate(48000)
        .setChannels(2, 2)
        .setBusses({"Harmonic", "Percussive"})
        .setFrames(fftSize, fftSize, hopSize)
        .setPacking(Packing::magnitudes(fftSize / 2 + 1));

    // Both channels share one mask, so a sound keeps its place in the stereo image. The constant stands 160
    // dB below a full-scale tone and keeps digital silence from dividing by 0.
    SpectralFormula formula(model);
    const auto level = formula.mixChannels("level", "input", {{0.5f}, {0.5f}}, 1e-5f);

    const auto ridgesInTime = formula.harmonicMean("ridges in time", level, {.slices = 9});
    const auto ridgesInFrequency = formula.harmonicMean("ridges in frequency", level, {.bins = 5});
    const auto harmonic = formula.mean("harmonic", ridgesInTime, {.slices = 9});
    const auto percussive = formula.mean("percussive", ridgesInFrequency, {.bins = 7});

    const auto harmonicPower = formula.square("harmonic power", harmonic);
    const auto percussivePower = formula.square("percussive power", percussive);
    const auto power = formula.add("power", harmonicPower, percussivePower);
    const auto mask = formula.divide("mask", harmonicPower, power);
    return model.setOutput(formula.mixChannels("mask of both channels", mask, {{1.0f, 1.0f}}));
}

}  // namespace zevrant::models
