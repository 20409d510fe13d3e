#include "DspCore/VectorOperations.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include "TestSignals.h"
#include "simd/FloatingPointState.h"
#include "simd/TargetOverride.h"

namespace zevrant {
namespace {

using Complex = std::complex<float>;

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kTiniest = std::numeric_limits<float>::denorm_min();

// Both sides of every vector width and of four of them together, and a usual length.
const std::vector<int> kCounts = [] {
    std::vector<int> counts(36);
    for (int n = 0; n < 36; ++n) counts[static_cast<std::size_t>(n)] = n;
    for (int n : {47, 48, 49, 63, 64, 65, 127, 128, 129, 1000}) counts.push_back(n);
    return counts;
}();

template <class Check>
void onEveryTarget(Check check) {
    for (const simd::Target& target : simd::getUsableTargets()) {
        SCOPED_TRACE(target.name);
        const simd::ScopedTarget scope(target);
        check();
    }
}

// Equal to the bit, any NaN being as good as another.
bool same(float a, float b) {
    return std::isnan(a) ? std::isnan(b) : std::bit_cast<std::uint32_t>(a) == std::bit_cast<std::uint32_t>(b);
}

bool same(Complex a, Complex b) {
    return same(a.real(), b.real()) && same(a.imag(), b.imag());
}

template <class T>
std::vector<T> elements(int n, unsigned seed) {
    return rowsOf(noiseSignal<Signal<T>>(1, n, seed, 2.0f))[0];
}

// An operation and the definition of one of its elements, given both inputs and what stood in the output.
template <class T>
struct RowOperation {
    std::string name;
    std::function<void(const T* a, const T* b, T* out, int n)> run;
    std::function<T(T a, T b, T before)> define;
};

// Every count, odd addresses, the output apart from the inputs and the same as each of them, and the
// values before and behind the row unchanged.
template <class T>
void checkRows(const RowOperation<T>& operation) {
    SCOPED_TRACE(operation.name);
    enum Placement { Apart, OnA, OnB };
    for (const int n : kCounts)
        for (const int offset : {0, 1, 3})
            for (const Placement placement : {Apart, OnA, OnB}) {
                const int size = offset + n + 1;
                auto a = elements<T>(size, 1), b = elements<T>(size, 2), c = elements<T>(size, 3);
                const auto a0 = a, b0 = b;
                auto& out = placement == Apart ? c : placement == OnA ? a : b;
                const auto before = out;
                operation.run(a.data() + offset, b.data() + offset, out.data() + offset, n);
                for (int i = 0; i < size; ++i) {
                    const auto k = static_cast<std::size_t>(i);
                    const bool inRow = i >= offset && i < offset + n;
                    const T expected = inRow ? operation.define(a0[k], b0[k], before[k]) : before[k];
                    ASSERT_TRUE(same(out[k], expected))
                        << "n " << n << ", offset " << offset << ", placement " << placement << ", element "
                        << i - offset << ": " << out[k] << " for " << expected;
                }
            }
}

// Those of both kinds of elements.
template <class T>
std::vector<RowOperation<T>> listOperations(T c, T (*product)(T x, T y)) {
    return {
        {"setToValue", [=](auto, auto, auto o, int n) { vo::setToValue(c, o, n); },
         [=](T, T, T) { return c; }},
        {"copy", [](auto a, auto, auto o, int n) { vo::copy(a, o, n); }, [](T a, T, T) { return a; }},
        {"add", [](auto a, auto b, auto o, int n) { vo::add(a, b, o, n); },
         [](T a, T b, T) { return a + b; }},
        {"subtract", [](auto a, auto b, auto o, int n) { vo::subtract(a, b, o, n); },
         [](T a, T b, T) { return b - a; }},
        {"multiply", [](auto a, auto b, auto o, int n) { vo::multiply(a, b, o, n); },
         [=](T a, T b, T) { return product(a, b); }},
        {"constantMultiply", [=](auto a, auto, auto o, int n) { vo::constantMultiply(a, c, o, n); },
         [=](T a, T, T) { return product(a, c); }},
    };
}

TEST(VectorOperations, exactOperationsMatchTheirDefinitionToTheBit) {
    const float c = 0.7f;
    std::vector<RowOperation<float>> operations =
        listOperations<float>(c, [](float x, float y) { return x * y; });
    for (const RowOperation<float>&operation : std::vector<RowOperation<float>>{
             {"setToZero", [](auto, auto, auto o, int n) { vo::setToZero(o, n); },
              [](float, float, float) { return 0.0f; }},
             {"divide", [](auto a, auto b, auto o, int n) { vo::divide(a, b, o, n); },
              [](float a, float b, float) { return b / a; }},
             {"constantAdd", [=](auto a, auto, auto o, int n) { vo::constantAdd(a, c, o, n); },
              [=](float a, float, float) { return a + c; }},
             {"constantSubtract", [=](auto a, auto, auto o, int n) { vo::constantSubtract(a, c, o, n); },
              [=](float a, float, float) { return a - c; }}})
        operations.push_back(operation);
    const auto product = [](Complex x, Complex y) {
        return Complex(x.real() * y.real() - x.imag() * y.imag(), x.imag() * y.real() + x.real() * y.imag());
    };
    onEveryTarget([&] {
        for (const auto& operation : operations) checkRows(operation);
        for (const auto& operation : listOperations<Complex>({0.7f, -1.3f}, product)) checkRows(operation);
    });
}

// Fused on the processors that can, and then in the tail of a row as well as in its vectors.
TEST(VectorOperations, multiplyAddsAreFusedThroughoutOrNowhere) {
    onEveryTarget([] {
        // The square of 1 + 2^-12 has one bit more than float.
        const float root = 1.0f + 0x1p-12f;
        float probe = -1.0f;
        vo::constantMultiplyAndAdd(&root, root, &probe, 1);
        const bool fused = probe == 0x1p-11f + 0x1p-24f;
        ASSERT_TRUE(fused || probe == 0x1p-11f);
        const auto define = [=](float a, float b, float sum) {
            return fused ? std::fma(a, b, sum) : a * b + sum;
        };
        const float c = 0.7f;
        checkRows<float>({"multiplyAndAdd",
                          [](auto a, auto b, auto o, int n) { vo::multiplyAndAdd(a, b, o, n); }, define});
        checkRows<float>({"constantMultiplyAndAdd",
                          [=](auto a, auto, auto o, int n) { vo::constantMultiplyAndAdd(a, c, o, n); },
                          [=](float a, float, float sum) { return define(a, c, sum); }});
    });
}

TEST(VectorOperations, boundsCompareAndNothingElse) {
    std::vector<float> in = {kNaN, kInfinity, -kInfinity, 0.0f, -0.0f, 1.0f, -1.0f, FLT_MAX, kTiniest};
    for (const float value : noise(40, 5, 2.0f)) in.push_back(value);
    onEveryTarget([&] {
        for (const float low : {-1.5f, 0.0f, -0.0f, 0.5f, -kInfinity, kNaN})
            for (const float high : {1.5f, 0.0f, -0.5f, kInfinity, kNaN})
                for (std::size_t count = in.size() - 17; count <= in.size(); ++count) {
                    const int n = static_cast<int>(count);
                    std::vector<float> raised(count + 1, 9.0f), lowered = raised, both = raised;
                    vo::lowerBound(in.data(), raised.data(), low, n);
                    vo::upperBound(in.data(), lowered.data(), high, n);
                    vo::bound(in.data(), both.data(), low, high, n);
                    for (std::size_t i = 0; i < count; ++i) {
                        const float x = in[i], below = x > high ? high : x;
                        ASSERT_TRUE(same(raised[i], x < low ? low : x)) << x << " above " << low;
                        ASSERT_TRUE(same(lowered[i], below)) << x << " below " << high;
                        ASSERT_TRUE(same(both[i], x < low ? low : below)) << x << ", " << low << ", " << high;
                    }
                    ASSERT_TRUE(raised.back() == 9.0f && lowered.back() == 9.0f && both.back() == 9.0f);
                }
    });
}

TEST(VectorOperations, copyMovesOverlappingRanges) {
    for (const int n : kCounts)
        for (const int shift : {-5, -1, 0, 1, 7}) {
            auto row = elements<Complex>(n + 16, 4);
            const auto before = row;
            vo::copy(row.data() + 8, row.data() + 8 + shift, n);
            for (int i = 0; i < n + 16; ++i) {
                const int from = i - shift;
                const bool moved = from >= 8 && from < 8 + n;
                ASSERT_EQ(row[static_cast<std::size_t>(i)],
                          before[static_cast<std::size_t>(moved ? from : i)]);
            }
        }
}

TEST(VectorOperations, widthConversionsRoundToNearest) {
    // Ties go to even, what is too large to infinity, NaN stays.
    const double edges[] = {1.0 + 0x1p-24, 1.0 + 0x3p-24, 1e300, -1e300, std::nan(""), -0.0, 1e-46, 0x1p-149};
    onEveryTarget([&] {
        for (const int n : kCounts) {
            const auto in = elements<float>(n + 1, 5);
            std::vector<double> wide(in.size() + 1, -9.0);
            vo::convert32To64(in.data() + 1, wide.data() + 1, n);
            ASSERT_TRUE(std::equal(in.begin() + 1, in.end(), wide.begin() + 1) && wide.back() == -9.0);

            for (double& x : wide) x *= 1.0 + 0x1p-25 / 3.0;
            std::copy_n(edges, std::min(n, 8), wide.begin() + 1);
            std::vector<float> narrow(wide.size(), -9.0f);
            vo::convert64To32(wide.data() + 1, narrow.data() + 1, n);
            for (std::size_t i = 1; i < in.size(); ++i)
                ASSERT_TRUE(same(narrow[i], static_cast<float>(wide[i]))) << wide[i];
            ASSERT_EQ(narrow.back(), -9.0f);
        }
    });
}

TEST(VectorOperations, decimateTakesEveryIndexBelowTheLength) {
    const auto in = noise(200, 6);
    for (const int length : {0, 1, 2, 31, 32, 33, 65, 200})
        for (const int factor : {1, 2, 3, 4, 7, 250, INT32_MAX})
            for (const int phase : {0, 1, 2, 6, 199, 200}) {
                std::vector<float> expected;
                for (std::int64_t i = phase; i < length; i += factor)
                    expected.push_back(in[static_cast<std::size_t>(i)]);
                expected.push_back(-9.0f);
                std::vector<float> out(expected.size(), -9.0f);
                vo::decimate(in.data(), length, out.data(), factor, phase);
                ASSERT_EQ(out, expected) << length << " by " << factor << " from " << phase;
            }
    float untouched = -9.0f;
    vo::decimate(in.data(), 200, &untouched, 0, 0);
    vo::decimate(in.data(), 200, &untouched, 2, -1);
    EXPECT_EQ(untouched, -9.0f);
}

TEST(VectorOperations, reductionsMatchTheirDefinition) {
    onEveryTarget([] {
        for (const int n : kCounts)
            for (const int offset : {0, 1, 3}) {
                const auto a = elements<float>(n + 3, 7), b = elements<float>(n + 3, 8);
                const std::vector<double> wideA(a.begin(), a.end()), wideB(b.begin(), b.end());
                double sum = 0.0, squares = 0.0, size = 0.0;
                for (std::size_t i = static_cast<std::size_t>(offset);
                     i < static_cast<std::size_t>(offset + n); ++i) {
                    sum += wideA[i] * wideB[i];
                    size += std::fabs(wideA[i] * wideB[i]);
                    squares += wideA[i] * wideA[i];
                }
                // n + 1 roundings of a sum that never exceeds size.
                EXPECT_NEAR(vo::dotProduct(a.data() + offset, b.data() + offset, n), sum,
                            (n + 1) * size * double{FLT_EPSILON} / 2);
                EXPECT_NEAR(vo::dotProduct(wideA.data() + offset, wideB.data() + offset, n), sum,
                            (n + 1) * size * DBL_EPSILON);
                const double rms = n > 0 ? std::sqrt(squares / n) : 0.0;
                EXPECT_NEAR(vo::calcRms(a.data() + offset, n), rms, rms * double{FLT_EPSILON});
            }
        const float huge[] = {3e38f, -3e38f, 3e38f}, tiny[] = {1e-30f, 1e-30f};
        EXPECT_FLOAT_EQ(vo::calcRms(huge, 3), 3e38f);
        EXPECT_FLOAT_EQ(vo::calcRms(tiny, 2), 1e-30f);
    });
}

TEST(VectorOperations, negativeCountsTouchNothing) {
    for (const int n : {0, -1, INT32_MIN}) {
        EXPECT_EQ(vo::calcRms(nullptr, n), 0.0f);
        EXPECT_EQ(vo::dotProduct(static_cast<const float*>(nullptr), nullptr, n), 0.0f);
        vo::multiply(static_cast<const Complex*>(nullptr), nullptr, nullptr, n);
        vo::copy(static_cast<const double*>(nullptr), static_cast<double*>(nullptr), n);
        vo::pow(nullptr, 0.0f, nullptr, n);
        vo::convert64To32(nullptr, nullptr, n);
    }
}

// Distance in units of the last place of the float that expected rounds to. Infinity counts as the
// number that would follow the largest one. Zeros and infinities have to have their sign.
double ulps(float result, long double expected) {
    if (std::isnan(result) || std::isnan(expected))
        return std::isnan(result) && std::isnan(expected) ? 0.0 : HUGE_VAL;
    if (expected == 0.0L || std::isinf(expected))
        return same(result, static_cast<float>(expected)) ? 0.0 : HUGE_VAL;
    const auto finite = [](long double x) { return std::clamp(x, -0x1p128L, 0x1p128L); };
    const long double target = finite(expected);
    const int exponent = std::max(target == 0.0L ? -126 : std::ilogb(target), -126);
    return static_cast<double>(std::fabs(finite(result) - target) / std::ldexp(1.0L, exponent - 23));
}

const std::vector<float> kSpecials = {0.0f,     -0.0f,     1.0f,    -1.0f,    kInfinity, -kInfinity, kNaN,
                                      kTiniest, -kTiniest, FLT_MIN, -FLT_MIN, FLT_MAX,   -FLT_MAX,   0.5f,
                                      2.0f,     -2.0f,     3.0f,    -3.0f,    1e-12f,    65536.0f,   1e10f};

// Floats of every exponent and both signs, NaN and the denormals among them, and those above. The count
// is odd, so the last of them stand in a tail.
std::vector<float> wholeRange(std::uint64_t step = 40009) {
    std::vector<float> row = kSpecials;
    for (std::uint64_t bits = 0; bits < (std::uint64_t{1} << 32); bits += step)
        row.push_back(std::bit_cast<float>(static_cast<std::uint32_t>(bits)));
    return row;
}

std::vector<float> between(float low, float high, int n) {
    auto row = noise(static_cast<std::size_t>(n), 11, (high - low) / 2);
    for (float& x : row) x += (low + high) / 2;
    return row;
}

// The floats closest to whole numbers of quarter turns, where cosine or sine all but vanish.
std::vector<float> quarterTurns() {
    std::vector<float> angles;
    for (int k = -50000; k <= 50000; k += 3)
        angles.push_back(static_cast<float>(k * (std::numbers::pi_v<long double> / 2)));
    return angles;
}

using Function = std::function<void(const float* in, float* out, int n)>;
using Oracle = std::function<long double(float x)>;

// The greatest error of the function over the values, on every target and with denormals flushed too.
// Under flushing a denormal, as argument or as result, may also count as 0.
void checkAccuracy(const std::string& name, const std::vector<float>& in, const Function& function,
                   const Oracle& oracle, double bound) {
    SCOPED_TRACE(name);
    std::vector<long double> expected(in.size());
    std::transform(in.begin(), in.end(), expected.begin(), oracle);
    const int n = static_cast<int>(in.size());
    onEveryTarget([&] {
        std::vector<float> out(in.size()), flushed(in.size());
        function(in.data(), out.data(), n);
        {
            const ScopedFlushDenormals scope;
            function(in.data(), flushed.data(), n);
        }
        double worst = 0.0;
        float worstAt = 0.0f;
        for (std::size_t i = 0; i < in.size(); ++i) {
            const double error = ulps(out[i], expected[i]);
            if (!(error <= worst)) worst = error, worstAt = in[i];
            if (same(out[i], flushed[i])) continue;
            const bool fromZero = std::fpclassify(in[i]) == FP_SUBNORMAL &&
                                  ulps(flushed[i], oracle(std::copysign(0.0f, in[i]))) <= bound;
            const bool toZero = std::fpclassify(out[i]) == FP_SUBNORMAL && flushed[i] == 0.0f;
            ASSERT_TRUE(fromZero || toZero || ulps(flushed[i], expected[i]) <= bound)
                << "flushing: " << flushed[i] << " at " << in[i];
        }
        EXPECT_LE(worst, bound) << "at " << worstAt;
    });
}

TEST(VectorMath, expLnAndCosAreGoodToFloat) {
    const Oracle exp = [](float x) { return std::exp(static_cast<long double>(x)); };
    const Oracle ln = [](float x) { return std::log(static_cast<long double>(x)); };
    const Oracle cos = [](float x) { return std::cos(static_cast<long double>(x)); };
    checkAccuracy("exp", wholeRange(), vo::exp, exp, 2.0);
    checkAccuracy("exp, usual", between(-104.0f, 89.0f, 50001), vo::exp, exp, 2.0);
    checkAccuracy("ln", wholeRange(), vo::ln, ln, 2.0);
    checkAccuracy("ln, around 1", between(0.5f, 2.0f, 50001), vo::ln, ln, 2.0);
    checkAccuracy("cos", wholeRange(), vo::cos, cos, 2.0);
    checkAccuracy("cos, quarter turns", quarterTurns(), vo::cos, cos, 2.0);
    checkAccuracy("cos, usual", between(-70000.0f, 70000.0f, 50001), vo::cos, cos, 2.0);
}

TEST(VectorMath, powIsGoodToFloat) {
    for (const float y : {0.0f, -0.0f, 1.0f, -1.0f, 2.0f, 3.0f, -3.0f, 0.5f, 1.117f, -0.528f, 1e-3f, 31.5f,
                          -77.7f, 1e20f, -1e20f, kInfinity, -kInfinity, kNaN}) {
        const Function function = [=](const float* in, float* out, int n) { vo::pow(in, y, out, n); };
        const Oracle oracle = [=](float x) {
            return std::pow(static_cast<long double>(x), static_cast<long double>(y));
        };
        checkAccuracy("pow " + std::to_string(y), wholeRange(300007), function, oracle, 1.0);
        checkAccuracy("pow around 1 " + std::to_string(y), between(0.9f, 1.1f, 3001), function, oracle, 1.0);
    }
}

// Both parts of a polar number of modulus 1 are a cosine and a sine.
TEST(VectorMath, polarAnglesAreGoodToFloat) {
    const auto part = [](int index) -> Function {
        return [=](const float* in, float* out, int n) {
            std::vector<Complex> polar(static_cast<std::size_t>(n));
            const std::vector<float> ones(polar.size(), 1.0f);
            vo::convertPolarToCartesian(ones.data(), in, polar.data(), n);
            for (std::size_t i = 0; i < polar.size(); ++i) out[i] = index ? polar[i].imag() : polar[i].real();
        };
    };
    for (const auto& angles : {wholeRange(), quarterTurns(), between(-7.0f, 7.0f, 50001)}) {
        checkAccuracy(
            "real", angles, part(0), [](float x) { return std::cos(static_cast<long double>(x)); }, 2.0);
        checkAccuracy(
            "imag", angles, part(1), [](float x) { return std::sin(static_cast<long double>(x)); }, 2.0);
    }
}

// Pairs whose parts are of every size, of like size, and special.
std::vector<Complex> complexRange() {
    std::vector<Complex> pairs;
    for (const float re : kSpecials)
        for (const float im : kSpecials) pairs.emplace_back(re, im);
    std::mt19937 generator(12);
    std::uniform_int_distribution<std::uint32_t> bits;
    for (int i = 0; i < 60000; ++i)
        pairs.emplace_back(std::bit_cast<float>(bits(generator)), std::bit_cast<float>(bits(generator)));
    std::uniform_real_distribution<float> parts(-1.0f, 1.0f);
    std::uniform_int_distribution<int> exponents(-149, 127);
    for (int i = 0; i < 60001; ++i) {
        const int exponent = exponents(generator);
        pairs.emplace_back(std::ldexp(parts(generator), exponent), std::ldexp(parts(generator), exponent));
    }
    return pairs;
}

void checkComplexAccuracy(void (*function)(const Complex*, float*, int) noexcept,
                          long double (*oracle)(long double re, long double im), double bound) {
    const auto in = complexRange();
    onEveryTarget([&] {
        std::vector<float> out(in.size()), flushed(in.size());
        function(in.data(), out.data(), static_cast<int>(in.size()));
        {
            const ScopedFlushDenormals scope;
            function(in.data(), flushed.data(), static_cast<int>(in.size()));
        }
        double worst = 0.0;
        Complex worstAt;
        for (std::size_t i = 0; i < in.size(); ++i) {
            const double error = ulps(out[i], oracle(in[i].real(), in[i].imag()));
            if (!(error <= worst)) worst = error, worstAt = in[i];
            const bool normal = std::isnormal(in[i].real()) && std::isnormal(in[i].imag());
            if (!normal || !std::isnormal(out[i])) continue;
            ASSERT_LE(ulps(flushed[i], oracle(in[i].real(), in[i].imag())), bound);
            ASSERT_EQ(std::isnan(flushed[i]), std::isnan(out[i]));
        }
        EXPECT_LE(worst, bound) << "at " << worstAt;
    });
}

TEST(VectorMath, calcMagnitudesIsGoodToFloat) {
    checkComplexAccuracy(
        vo::calcMagnitudes, [](long double re, long double im) { return std::hypot(re, im); }, 1.5);
}

TEST(VectorMath, calcPhasesIsGoodToFloat) {
    checkComplexAccuracy(
        vo::calcPhases, [](long double re, long double im) { return std::atan2(im, re); }, 2.5);
}

// The vectors and the tail of a row compute alike, in place as well.
TEST(VectorMath, aValueComesOutAlikeWhereverItStands) {
    const std::pair<const char*, Function> functions[] = {
        {"exp", vo::exp}, {"ln", vo::ln}, {"cos", vo::cos}, {"pow", [](const float* x, float* out, int n) {
                                                                 vo::pow(x, 1.3f, out, n);
                                                             }}};
    onEveryTarget([&] {
        for (const auto& [name, function] : functions)
            checkRows<float>({name, [&f = function](auto a, auto, auto out, int n) { f(a, out, n); },
                              [&f = function](float a, float, float) {
                                  float alone;
                                  f(&a, &alone, 1);
                                  return alone;
                              }});
        const auto spectrum = elements<Complex>(40, 13);
        const auto get = [&](int first, int n) {  // with one guard value behind each row
            std::vector<float> m(static_cast<std::size_t>(n) + 1, -9.0f), phases = m;
            std::vector<Complex> back(m.size(), -9.0f);
            vo::calcMagnitudes(spectrum.data() + first, m.data(), n);
            vo::calcPhases(spectrum.data() + first, phases.data(), n);
            vo::convertPolarToCartesian(m.data(), phases.data(), back.data(), n);
            EXPECT_TRUE(m.back() == -9.0f && phases.back() == -9.0f && back.back() == -9.0f);
            return std::tuple(m, phases, back);
        };
        for (int n = 1; n < 39; ++n) {
            const auto [magnitudes, phases, back] = get(1, n);
            for (int i = 0; i < n; ++i) {
                const auto [magnitude, phase, alone] = get(1 + i, 1);
                const auto at = static_cast<std::size_t>(i);
                ASSERT_TRUE(same(magnitudes[at], magnitude[0]) && same(phases[at], phase[0]) &&
                            same(back[at], alone[0]));
            }
        }
    });
}

}  // namespace
}  // namespace zevrant
