// The phantom centre of a stereo mix against its sides.
//
// A source in the middle is alike in both channels, L = R; one that is panned is not, and one at the far
// side is in one channel only. Per bin, with M = L + R and S = L - R, the similarity of the channels is
//
//   s = 2 Re(L R*) / (|L|^2 + |R|^2) = (|M|^2 - |S|^2) / (|M|^2 + |S|^2)
//
// which is 1 where L = R, 0 where a channel is silent or both are independent, and below 0 out of phase.
// The powers are smoothed over three frames, weighted 1 2 1, before the quotient is formed; what is below 0
// counts as 0, and the mask is s^3: a power that lets the middle through and presses a source that is panned
// a little, which still has some similarity, to the sides. The measure is that of C. Avendano and J.-M. Jot,
// "A frequency-domain approach to multichannel upmix", J. Audio Eng. Soc. 52 (2004), with the real part in
// place of the magnitude, so that what is out of phase belongs to the sides.
#include "models/ShippedModels.h"
#include "models/SpectralFormula.h"

namespace zevrant::models {

using namespace modelwriter;

ModelWriter describeCenterSides() {
    constexpr int fftSize = 4096, hopSize = 1024;
    ModelWriter model("center-sides");
    model
        .setInfoText(
            "The middle of a stereo mix and its sides, told apart by the similarity of the channels.")
        .setSampleRate(48000)
        .setChannels(2, 2)
        .setBusses({"Center", "Sides"})
        .setFrames(fftSize, fftSize, hopSize)
        .setPacking(Packing::complexBins(fftSize / 2 + 1), Packing::magnitudes(fftSize / 2 + 1));

    // Columns of the input: left real, left imaginary, right real, right imaginary.
    SpectralFormula formula(model);
    const auto midAndSide = formula.mixChannels("mid and side", "input",
                                                {{1.0f, 0.0f, 1.0f, 0.0f},
                                                 {0.0f, 1.0f, 0.0f, 1.0f},
                                                 {1.0f, 0.0f, -1.0f, 0.0f},
                                                 {0.0f, 1.0f, 0.0f, -1.0f}});
    const auto powers = formula.square("powers", midAndSide);
    const auto same = formula.mixChannels("mid less side", powers, {{1.0f}, {1.0f}, {-1.0f}, {-1.0f}});
    const auto all =
        formula.mixChannels("mid and side power", powers, {{1.0f}, {1.0f}, {1.0f}, {1.0f}}, 1e-9f);

    const std::vector<float> weights{1.0f, 2.0f, 1.0f};
    const auto alike = formula.smoothOverTime("alike", same, weights);
    const auto everything = formula.smoothOverTime("everything", all, weights);
    const auto similarity =
        formula.divide("similarity", formula.limitToPositive("alike, in phase", alike), everything);
    const auto mask = formula.multiply("mask", similarity, formula.square("similarity squared", similarity));
    return model.setOutput(formula.mixChannels("mask of both channels", mask, {{1.0f, 1.0f}}));
}

}  // namespace zevrant::models
