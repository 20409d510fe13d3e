#include "DspCore/WindowFunctions.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

#include "DspCore/VectorOperations.h"

namespace zevrant {

namespace {

constexpr double pi = std::numbers::pi;

// A signal with what fillRow writes in row 0 and copies of it in the others.
template <class FillRow>
Signal32 makeWindow(int numOfChannels, int size, FillRow fillRow) {
    Signal32 window(numOfChannels, std::max(size, 0));
    if (numOfChannels < 1 || size < 1) return window;
    float* row = window.getWriteChannelPtr(0);
    fillRow(row);
    for (int c = 1; c < numOfChannels; ++c) vo::copy(row, window.getWriteChannelPtr(c), size);
    return window;
}

// One value per sample, as a function of x = 2 pi (i + 0.5) / size.
template <class Value>
Signal32 makePeriodicWindow(int numOfChannels, int size, Value value) {
    return makeWindow(numOfChannels, size, [&](float* row) {
        const double step = 2.0 * pi / size;
        for (int i = 0; i < size; ++i) row[i] = static_cast<float>(value(step * (i + 0.5)));
    });
}

double calcHann(double x) {
    return 0.5 - 0.5 * std::cos(x);
}

double calcChebyshevPolynomial(int degree, double t) {
    return std::abs(t) <= 1.0 ? std::cos(degree * std::acos(t)) : std::cosh(degree * std::acosh(t));
}

// The window as the inverse transform of its spectrum, whose bin k is the Chebyshev polynomial of
// degree size - 1 at x0 cos(pi k / size). Bin 0 is ripple by the choice of x0.
void fillDolphChebyshev(float* row, int size, float ripple) {
    if (size < 3) {
        std::fill_n(row, size, ripple);
        return;
    }
    const int degree = size - 1, half = degree / 2;
    const double x0 = std::cosh(static_cast<double>(std::acosh(ripple)) / degree);
    const int numOfBins = std::max(half, 1);
    std::vector<double> spectrum(numOfBins + 1);
    for (int k = 1; k <= numOfBins; ++k)
        spectrum[k] = calcChebyshevPolynomial(degree, x0 * std::cos(pi * k / size));

    for (int i = 0; i <= size / 2; ++i) {
        const double p = 2.0 * pi * (i - half);
        double sum = 0.0;
        for (int k = 1; k <= numOfBins; ++k) sum += spectrum[k] * std::cos(p * k / size);
        row[i] = row[size - 1 - i] = static_cast<float>(ripple + 2.0 * sum);
    }
}

}  // namespace

Signal32 WindowFunctions::generateHammingWindow(int numOfChannels, int size) {
    return makePeriodicWindow(numOfChannels, size, [](double x) { return 0.54 - 0.46 * std::cos(x); });
}

Signal32 WindowFunctions::generateHannWindow(int numOfChannels, int size) {
    return makePeriodicWindow(numOfChannels, size, calcHann);
}

Signal32 WindowFunctions::generateSqrtHannWindow(int numOfChannels, int size) {
    return makePeriodicWindow(numOfChannels, size, [](double x) { return std::sqrt(calcHann(x)); });
}

Signal32 WindowFunctions::generateVorbisWindow(int numOfChannels, int size) {
    return makePeriodicWindow(numOfChannels, size, [](double x) {
        const double sine = std::sin(0.5 * x);
        return std::sin(0.5 * pi * sine * sine);
    });
}

Signal32 WindowFunctions::generateBlackmanWindow(int numOfChannels, int size) {
    return makePeriodicWindow(numOfChannels, size, [](double x) {
        return 0.3635819 - 0.4891775 * std::cos(x) + 0.1365995 * std::cos(2.0 * x) -
               0.0106411 * std::cos(3.0 * x);
    });
}

Signal32 WindowFunctions::generateFlatTopWindow(int numOfChannels, int size) {
    return makePeriodicWindow(numOfChannels, size, [](double x) {
        return 0.21557895 - 0.41663158 * std::cos(x) + 0.277263158 * std::cos(2.0 * x) -
               0.083578947 * std::cos(3.0 * x) + 0.006947368 * std::cos(4.0 * x);
    });
}

Signal32 WindowFunctions::generateDolphChebyshevWindow(int numOfChannels, int size, float ripple) {
    return makeWindow(numOfChannels, size, [&](float* row) { fillDolphChebyshev(row, size, ripple); });
}

Signal32 WindowFunctions::generateGaussianWindow(int numOfChannels, int size, float sigma) {
    return makeWindow(numOfChannels, size, [&](float* row) {
        const double centre = 0.5 * size;
        for (int i = 0; i < size; ++i) {
            const double u = (i - centre) / (sigma * centre);
            row[i] = static_cast<float>(std::exp(-0.5 * u * u));
        }
    });
}

}  // namespace zevrant
