#pragma once

#include <complex>
#include <cstddef>
#include <cstring>
#include <type_traits>

// The inner loops of the engine: element-wise operations and two reductions over raw rows.
//
// Counts    n is a number of elements. An n of 0 or less reads and writes nothing; the reductions
//           then return 0.
// Pointers  Need the alignment of their element only; offsets into rows are as good as row starts.
//           An output may be the very pointer of an input. Other overlaps are allowed for copy alone.
// Numbers   IEEE arithmetic in the type of the element: a division by 0 gives an infinity or NaN.
//           Sums, differences, products and quotients are rounded once each and are the same on
//           every processor, complex ones included, which follow the schoolbook formula. Fused
//           multiply-adds are fused wherever the processor has them.
// Denormals When the caller's thread flushes denormals, denormal inputs may count as 0 and denormal
//           results may become 0.
// Errors    None: nothing throws, allocates or logs.
// Threads   Free of state; any thread at any time.
namespace zevrant::vo {

// Bins as twice as many real numbers.
inline float* asReals(std::complex<float>* bins) noexcept {
    return reinterpret_cast<float*>(bins);
}
inline const float* asReals(const std::complex<float>* bins) noexcept {
    return reinterpret_cast<const float*>(bins);
}

// out[i] = value
void setToValue(float value, float* out, int n) noexcept;
void setToValue(std::complex<float> value, std::complex<float>* out, int n) noexcept;

// out[i] = 0
void setToZero(float* out, int n) noexcept;

// out[i] = in[i]; the ranges may overlap. For float, double and their complex types.
template <class T>
void copy(const T* in, T* out, int n) noexcept {
    static_assert(std::is_trivially_copyable_v<T>);
    if (n > 0) std::memmove(static_cast<void*>(out), in, static_cast<std::size_t>(n) * sizeof(T));
}

// out[i] = a[i] + b[i]
void add(const float* a, const float* b, float* out, int n) noexcept;
void add(const std::complex<float>* a, const std::complex<float>* b, std::complex<float>* out,
         int n) noexcept;

// out[i] = b[i] - a[i]: the first argument is what is taken away.
void subtract(const float* a, const float* b, float* out, int n) noexcept;
void subtract(const std::complex<float>* a, const std::complex<float>* b, std::complex<float>* out,
              int n) noexcept;

// out[i] = a[i] * b[i]
void multiply(const float* a, const float* b, float* out, int n) noexcept;
void multiply(const std::complex<float>* a, const std::complex<float>* b, std::complex<float>* out,
              int n) noexcept;

// out[i] = b[i] / a[i]: the first argument is the divisor.
void divide(const float* a, const float* b, float* out, int n) noexcept;

// inOut[i] = inOut[i] + a[i] * b[i], fused
void multiplyAndAdd(const float* a, const float* b, float* inOut, int n) noexcept;

// out[i] = in[i] + c,  in[i] - c,  in[i] * c
void constantAdd(const float* in, float c, float* out, int n) noexcept;
void constantSubtract(const float* in, float c, float* out, int n) noexcept;
void constantMultiply(const float* in, float c, float* out, int n) noexcept;
void constantMultiply(const std::complex<float>* in, std::complex<float> c, std::complex<float>* out,
                      int n) noexcept;

// inOut[i] = inOut[i] + in[i] * c, fused
void constantMultiplyAndAdd(const float* in, float c, float* inOut, int n) noexcept;

// Limits, by comparison alone: out[i] = low where in[i] < low, high where in[i] > high, otherwise
// in[i] as it is. So NaN passes, lowerBound keeps +infinity, a zero keeps its sign against a bound
// of 0, a bound of NaN limits nothing, and where low is above high, low is tested first.
void lowerBound(const float* in, float* out, float low, int n) noexcept;
void upperBound(const float* in, float* out, float high, int n) noexcept;
void bound(const float* in, float* out, float low, float high, int n) noexcept;

// The functions of the C library of the same meaning, to a few units in the last place over the whole
// range of float, with its results for infinities, zeros of both signs and NaN.
//
// exp                      e to the power in[i]
// ln                       natural logarithm; -infinity for 0, NaN below 0
// cos                      cosine of an angle in radians, of any size
// pow                      base[i] to the power exponent
// calcMagnitudes           modulus, without overflow or underflow on the way
// calcPhases               angle in -pi to pi: the four-quadrant arctangent of imaginary over real
// convertPolarToCartesian  magnitude[i] * (cos phase[i], sin phase[i])
void exp(const float* in, float* out, int n) noexcept;
void ln(const float* in, float* out, int n) noexcept;
void cos(const float* in, float* out, int n) noexcept;
void pow(const float* base, float exponent, float* out, int n) noexcept;
void calcMagnitudes(const std::complex<float>* in, float* out, int n) noexcept;
void calcPhases(const std::complex<float>* in, float* out, int n) noexcept;
void convertPolarToCartesian(const float* magnitude, const float* phase, std::complex<float>* out,
                             int n) noexcept;

// Widening is exact; narrowing goes to the nearest float, ties to even, and to infinity beyond its range.
void convert32To64(const float* in, double* out, int n) noexcept;
void convert64To32(const double* in, float* out, int n) noexcept;

// out[k] = in[phase + k * factor] for every k from 0 for which that index is below inLength.
// A factor below 1 or a phase below 0 selects nothing. out and in do not overlap.
void decimate(const float* in, int inLength, float* out, int factor, int phase) noexcept;

// Sum of a[i] * b[i], in the type of the elements. The order of the sum is fixed for a processor and a
// count: lane sums over four vectors in turn, fused, then the four are added, then the lanes.
float dotProduct(const float* a, const float* b, int n) noexcept;
double dotProduct(const double* a, const double* b, int n) noexcept;

// Square root of the mean of the squares, summed in double.
float calcRms(const float* in, int n) noexcept;

// The name of the library that the vector code is written on.
const char* getBackendName() noexcept;

}  // namespace zevrant::vo
