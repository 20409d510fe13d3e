#pragma once

#include <algorithm>
#include <cfloat>
#include <cmath>

namespace zevrant::test {

// A number in double together with a bound on how far the same formula in float may be from it: running error
// analysis (Higham, Accuracy and Stability of Numerical Algorithms, 3.3). Every operation adds the error that
// its operands bring along to one rounding of its result. FLT_EPSILON is twice the unit roundoff, which
// leaves room for another order of the terms of a sum. Beside them stands what float itself comes to, step
// by step in the order told, sums of products being fused.
struct Bounded {
    double value = 0.0;
    double error = 0.0;
    float steps = 0.0f;

    Bounded() = default;
    Bounded(double exact) : value(exact), steps(static_cast<float>(exact)) {}
    Bounded(double v, double e, float s = 0.0f) : value(v), error(e), steps(s) {}

    Bounded withSteps(float s) const { return {value, error, s}; }

    static Bounded rounded(double v, double inherited, double roundings = 1.0) {
        return {v, inherited + roundings * (FLT_EPSILON * std::abs(v) + FLT_MIN)};
    }

    bool contains(float computed) const {
        if (std::isnan(value) || std::isnan(error)) return true;
        return std::abs(computed - value) <= error || (std::isinf(value) && computed == value);
    }

    friend Bounded operator+(Bounded a, Bounded b) {
        return rounded(a.value + b.value, a.error + b.error).withSteps(a.steps + b.steps);
    }
    friend Bounded operator-(Bounded a, Bounded b) { return rounded(a.value - b.value, a.error + b.error); }
    friend Bounded operator*(Bounded a, Bounded b) {
        return rounded(a.value * b.value,
                       std::abs(a.value) * b.error + std::abs(b.value) * a.error + a.error * b.error);
    }
    friend Bounded operator/(Bounded a, Bounded b) {
        const double quotient = a.value / b.value;
        const double nearestDivisor = std::max(std::abs(b.value) - b.error, 0.0);
        return rounded(quotient, (a.error + std::abs(quotient) * b.error) / nearestDivisor);
    }
    Bounded& operator+=(Bounded other) { return *this = *this + other; }
    void addProduct(Bounded a, Bounded b) {
        *this = (*this + a * b).withSteps(std::fma(a.steps, b.steps, steps));
    }
};

// The vector functions are good to a few units in the last place.
constexpr double functionRoundings = 4.0;

inline Bounded exp(Bounded x) {
    const double result = std::exp(x.value);
    return Bounded::rounded(result, result * std::expm1(x.error), functionRoundings);
}

inline Bounded log(Bounded x) {
    const double result = std::log(x.value);
    return Bounded::rounded(result, -std::log1p(-std::min(x.error / x.value, 1.0)), functionRoundings);
}

inline Bounded sqrt(Bounded x) {
    const double result = std::sqrt(x.value);
    const double below = result - std::sqrt(std::max(x.value - x.error, 0.0));
    return Bounded::rounded(result, std::max(below, std::sqrt(x.value + x.error) - result));
}

inline Bounded max(Bounded x, double low) {
    return {std::max(x.value, low), x.error};
}

inline Bounded min(Bounded x, double high) {
    return {std::min(x.value, high), x.error};
}

}  // namespace zevrant::test
