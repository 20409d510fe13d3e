// What the vector operations are measured beside: the definition of each as a loop, compiled for the very
// processor that builds it, with the scalar C library where a function is needed.
#pragma once

#include <complex>

namespace plain {

using Complex = std::complex<float>;

void setToValue(float value, float* out, int n);
void setToValue(Complex value, Complex* out, int n);
void setToZero(float* out, int n);
void copy(const float* in, float* out, int n);
void add(const float* a, const float* b, float* out, int n);
void add(const Complex* a, const Complex* b, Complex* out, int n);
void subtract(const float* a, const float* b, float* out, int n);
void multiply(const float* a, const float* b, float* out, int n);
void multiply(const Complex* a, const Complex* b, Complex* out, int n);
void divide(const float* a, const float* b, float* out, int n);
void multiplyAndAdd(const float* a, const float* b, float* inOut, int n);
void constantAdd(const float* in, float c, float* out, int n);
void constantMultiply(const float* in, float c, float* out, int n);
void constantMultiply(const Complex* in, Complex c, Complex* out, int n);
void constantMultiplyAndAdd(const float* in, float c, float* inOut, int n);
void lowerBound(const float* in, float* out, float low, int n);
void bound(const float* in, float* out, float low, float high, int n);
void convert32To64(const float* in, double* out, int n);
void convert64To32(const double* in, float* out, int n);
void decimate(const float* in, int inLength, float* out, int factor, int phase);
float dotProduct(const float* a, const float* b, int n);
double dotProduct(const double* a, const double* b, int n);
float calcRms(const float* in, int n);

void exp(const float* in, float* out, int n);
void ln(const float* in, float* out, int n);
void cos(const float* in, float* out, int n);
void pow(const float* base, float exponent, float* out, int n);
void calcMagnitudes(const Complex* in, float* out, int n);
void calcPhases(const Complex* in, float* out, int n);
void convertPolarToCartesian(const float* magnitude, const float* phase, Complex* out, int n);

}  // namespace plain
