#include "Execution.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace zevrant::fuzz {

namespace {

double getThreadSeconds() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

// ZEVRANT_FUZZ_SECONDS sets another limit, for tools under which everything takes much longer.
double getMostSeconds() {
    static const char* const text = std::getenv("ZEVRANT_FUZZ_SECONDS");
    return text ? std::atof(text) : 1.0;
}

}  // namespace

Stopwatch::Stopwatch() : start(getThreadSeconds()) {}

double Stopwatch::getSeconds() const {
    return getThreadSeconds() - start;
}

Execution::~Execution() {
    require(stopwatch.getSeconds() < getMostSeconds(), "an execution takes no more than a second");
}

bool Budget::take(double seconds) {
    if (!(seconds <= secondsLeft)) return false;
    secondsLeft -= seconds;
    return true;
}

void require(bool holds, const char* text) {
    if (holds) return;
    std::fprintf(stderr, "does not hold: %s\n", text);
    std::abort();
}

}  // namespace zevrant::fuzz
