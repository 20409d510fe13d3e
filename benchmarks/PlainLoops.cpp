#include "PlainLoops.h"

#include <cmath>

namespace plain {

void setToValue(float value, float* out, int n) {
    for (int i = 0; i < n; ++i) out[i] = value;
}

void setToValue(Complex value, Complex* out, int n) {
    for (int i = 0; i < n; ++i) out[i] = value;
}

void setToZero(float* out, int n) {
    for (int i = 0; i < n; ++i) out[i] = 0.0f;
}

void copy(const float* in, float* out, int n) {
    for (int i = 0; i < n; ++i) out[i] = in[i];
}

void add(const float* a, const float* b, float* out, int n) {
    for (int i = 0; i < n; ++i) out[i] = a[i] + b[i];
}

void add(const Complex* a, const Complex* b, Complex* out, int n) {
    for (int i = 0; i < n; ++i) out[i] = a[i] + b[i];
}

void subtract(const float* a, const float* b, float* out, int n) {
    for (int i = 0; i < n; ++i) out[i] = b[i] - a[i];
}

void multiply(const float* a, const float* b, float* out, int n) {
    for (int i = 0; i < n; ++i) out[i] = a[i] * b[i];
}

// The schoolbook product: the operator of the library looks for NaN in every result and is far slower.
inline Complex product(Complex x, Complex y) {
    return {x.real() * y.real() - x.imag() * y.imag(), x.imag() * y.real() + x.real() * y.imag()};
}

void multiply(const Complex* a, const Complex* b, Complex* out, int n) {
    for (int i = 0; i < n; ++i) out[i] = product(a[i], b[i]);
}

void divide(const float* a, const float* b, float* out, int n) {
    for (int i = 0; i < n; ++i) out[i] = b[i] / a[i];
}

void multiplyAndAdd(const float* a, const float* b, float* inOut, int n) {
    for (int i = 0; i < n; ++i) inOut[i] = std::fma(a[i], b[i], inOut[i]);
}

void constantAdd(const float* in, float c, float* out, int n) {
    for (int i = 0; i < n; ++i) out[i] = in[i] + c;
}

void constantMultiply(const float* in, float c, float* out, int n) {
    for (int i = 0; i < n; ++i) out[i] = in[i] * c;
}

void constantMultiply(const Complex* in, Complex c, Complex* out, int n) {
    for (int i = 0; i < n; ++i) out[i] = product(in[i], c);
}

void constantMultiplyAndAdd(const float* in, float c, float* inOut, int n) {
    for (int i = 0; i < n; ++i) inOut[i] = std::fma(in[i], c, inOut[i]);
}

void lowerBound(const float* in, float* out, float low, int n) {
    for (int i = 0; i < n; ++i) out[i] = in[i] < low ? low : in[i];
}

void bound(const float* in, float* out, float low, float high, int n) {
    for (int i = 0; i < n; ++i) out[i] = in[i] < low ? low : in[i] > high ? high : in[i];
}

void convert32To64(const float* in, double* out, int n) {
    for (int i = 0; i < n; ++i) out[i] = static_cast<double>(in[i]);
}

void convert64To32(const double* in, float* out, int n) {
    for (int i = 0; i < n; ++i) out[i] = static_cast<float>(in[i]);
}

void decimate(const float* in, int inLength, float* out, int factor, int phase) {
    for (int i = phase; i < inLength; i += factor) *out++ = in[i];
}

float dotProduct(const float* a, const float* b, int n) {
    float sum = 0.0f;
    for (int i = 0; i < n; ++i) sum = std::fma(a[i], b[i], sum);
    return sum;
}

double dotProduct(const double* a, const double* b, int n) {
    double sum = 0.0;
    for (int i = 0; i < n; ++i) sum = std::fma(a[i], b[i], sum);
    return sum;
}

float calcRms(const float* in, int n) {
    float sum = 0.0f;
    for (int i = 0; i < n; ++i) sum = std::fma(in[i], in[i], sum);
    return std::sqrt(sum / static_cast<float>(n));
}

void exp(const float* in, float* out, int n) {
    for (int i = 0; i < n; ++i) out[i] = std::exp(in[i]);
}

void ln(const float* in, float* out, int n) {
    for (int i = 0; i < n; ++i) out[i] = std::log(in[i]);
}

void cos(const float* in, float* out, int n) {
    for (int i = 0; i < n; ++i) out[i] = std::cos(in[i]);
}

void pow(const float* base, float exponent, float* out, int n) {
    for (int i = 0; i < n; ++i) out[i] = std::pow(base[i], exponent);
}

void calcMagnitudes(const Complex* in, float* out, int n) {
    for (int i = 0; i < n; ++i) out[i] = std::hypot(in[i].real(), in[i].imag());
}

void calcPhases(const Complex* in, float* out, int n) {
    for (int i = 0; i < n; ++i) out[i] = std::atan2(in[i].imag(), in[i].real());
}

void convertPolarToCartesian(const float* magnitude, const float* phase, Complex* out, int n) {
    for (int i = 0; i < n; ++i)
        out[i] = {magnitude[i] * std::cos(phase[i]), magnitude[i] * std::sin(phase[i])};
}

}  // namespace plain
