#include "processors/MaskShaping.h"

#include <algorithm>
#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <iterator>

#include "DspCore/VectorOperations.h"

namespace zevrant {

namespace {

constexpr float floorOfMagnitude = 1e-12f;
constexpr float pi = 3.1415927f;

// Whether no value is NaN or of a magnitude above limit. Without their sign bits, floats order like the
// integers of the same bits, with NaN at the top, and integers compare in vectors on every processor.
bool areBounded(const float* values, int count, float limit) {
    const auto highest = std::bit_cast<std::int32_t>(limit);
    std::int32_t anyOther = 0;
    for (int i = 0; i < count; ++i)
        anyOther |= (std::bit_cast<std::int32_t>(values[i]) & 0x7fffffff) > highest;
    return anyOther == 0;
}

// Whether all moduli are sure to be finite: the square of no part overflows.
bool hasFiniteModuli(const ComplexSignal32& signal) {
    for (int c = 0; c < signal.numOfChannels; ++c)
        if (!areBounded(vo::asReals(signal.getReadChannelPtr(c)), 2 * signal.numOfSamples, 1e18f))
            return false;
    return true;
}

}  // namespace

ComplexSignal32 MaskShaping::shape(const ComplexSignal32& mask, float sensitivity, int numOfRows,
                                   int numOfBins) {
    const float curve =
        static_cast<float>(std::pow(2.718281828459045, static_cast<double>(sensitivity * 0.0075f)));
    // The exponent is 0 and every factor 1, so the result is a copy of a mask of ordinary numbers.
    if (curve == 1.0f && hasFiniteModuli(mask)) {
        ComplexSignal32 copy = mask;
        copy.ensureUnique();
        return copy;
    }

    const int numOfBentBins = std::clamp(numOfBins, 0, std::max(mask.numOfSamples, 0));
    ComplexSignal32 shaped(mask.numOfChannels, mask.numOfSamples);
    for (int c = 0; c < mask.numOfChannels; ++c)
        shapeRow(mask.getReadChannelPtr(c), curve, c < numOfRows ? numOfBentBins : 0,
                 shaped.getWriteChannelPtr(c), mask.numOfSamples);
    return shaped;
}

void MaskShaping::reserve(int numOfBins) {
    if (numOfBins <= std::ssize(magnitudes)) return;
    const auto length = static_cast<std::size_t>(numOfBins);
    factors.resize(length);
    phases.resize(length);
    magnitudes.resize(length);  // last, because it is the one that is asked for its size
}

// One row of a mask, of which the first numOfBins bins change.
void MaskShaping::shapeRow(const std::complex<float>* mask, float curve, int numOfBins,
                           std::complex<float>* shaped, int numOfSamples) {
    reserve(numOfSamples);
    float* m = magnitudes.data();
    float* factor = factors.data();
    vo::calcMagnitudes(mask, m, numOfSamples);
    if (curve < 1.0f) {
        vo::constantAdd(m, floorOfMagnitude, factor, numOfBins);
    } else {
        vo::constantMultiply(m, pi, factor, numOfBins);
        vo::cos(factor, factor, numOfBins);
        for (int i = 0; i < numOfBins; ++i) factor[i] = (0.5f + -0.5f * factor[i]) + floorOfMagnitude;
    }
    vo::pow(factor, curve - 1.0f, factor, numOfBins);

    if (areBounded(m, numOfSamples, FLT_MAX)) {
        const float* in = vo::asReals(mask);
        float* out = vo::asReals(shaped);
        for (int i = 0; i < numOfBins; ++i) {
            out[2 * i] = in[2 * i] * factor[i];
            out[2 * i + 1] = in[2 * i + 1] * factor[i];
        }
        vo::copy(mask + numOfBins, shaped + numOfBins, numOfSamples - numOfBins);
        return;
    }
    vo::multiply(m, factor, m, numOfBins);
    vo::calcPhases(mask, phases.data(), numOfSamples);
    vo::convertPolarToCartesian(m, phases.data(), shaped, numOfSamples);
}

}  // namespace zevrant
