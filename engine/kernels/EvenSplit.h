#pragma once

#include <cstddef>

namespace zevrant::kernels {

// Cuts count things into parts that differ by one at most, the larger ones first, so that no part is a poor
// rest.
struct EvenSplit {
    EvenSplit(std::ptrdiff_t count, std::ptrdiff_t largest)
        : numOfParts((count + largest - 1) / largest),
          smaller(numOfParts > 0 ? count / numOfParts : 0),
          numOfLarger(count - smaller * numOfParts) {}

    std::ptrdiff_t sizeOf(std::ptrdiff_t part) const { return smaller + (part < numOfLarger ? 1 : 0); }

    std::ptrdiff_t numOfParts, smaller, numOfLarger;
};

// Of any a and a positive b.
inline std::ptrdiff_t ceilOfQuotient(std::ptrdiff_t a, std::ptrdiff_t b) {
    return a > 0 ? (a + b - 1) / b : -(-a / b);
}

}  // namespace zevrant::kernels
