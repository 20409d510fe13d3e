// Every small model cut at every byte, and every byte of it bent five ways: loads or is refused, runs or
// stops with a standard exception, within a second and 512 MiB.
//
// Usage: fuzz_sweep
#include <sys/resource.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <span>
#include <string>

#include "Execution.h"
#include "RunModel.h"
#include "SmallModels.h"

namespace {

using namespace zevrant::fuzz;

long countPeakMegabytes() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss / 1024;
}

struct Totals {
    long numOfCases = 0, numOfLoaded = 0, numOfFindings = 0;
    double longest = 0.0;  // seconds

    // How the file came about is told where it takes too long.
    void run(std::span<const std::uint8_t> bytes, const std::string& model, std::size_t place,
             const char* change) {
        const Stopwatch stopwatch;
        if (runModel(bytes)) ++numOfLoaded;
        ++numOfCases;
        const double seconds = stopwatch.getSeconds();
        longest = std::max(longest, seconds);
        if (seconds < 1.0) return;
        ++numOfFindings;
        std::fprintf(stderr, "%s, byte %zu %s: takes %.1f s\n", model.c_str(), place, change, seconds);
    }
};

}  // namespace

int main() {
    Totals totals;
    for (const SmallModel& model : makeSmallModels()) {
        require(runModel(model.bytes), "a small model loads");
        auto bytes = model.bytes;
        for (std::size_t place = 0; place < bytes.size(); ++place) {
            totals.run(std::span(bytes).first(place), model.name, place, "cut off");
            const std::uint8_t before = bytes[place];
            for (int value : {0, 0x7f, 0x80, 0xff, before + 1}) {
                bytes[place] = static_cast<std::uint8_t>(value);
                totals.run(bytes, model.name, place, ("as " + std::to_string(bytes[place])).c_str());
            }
            bytes[place] = before;
        }
    }
    const long peak = countPeakMegabytes();
    if (peak >= 512) ++totals.numOfFindings;
    std::printf("%ld files, of which %ld load; the longest took %.0f ms, the peak was %ld MiB\n",
                totals.numOfCases, totals.numOfLoaded, 1000.0 * totals.longest, peak);
    return totals.numOfFindings == 0 ? 0 : 1;
}
