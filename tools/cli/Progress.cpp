#include "cli/Progress.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include <unistd.h>

namespace zevrant::cli {

namespace {

std::string formatTime(double seconds) {
    const auto whole = static_cast<int>(seconds);
    char text[32];
    std::snprintf(text, sizeof text, "%d:%02d", whole / 60, whole % 60);
    return text;
}

}  // namespace

Progress::Progress(std::string what, std::int64_t length, int rate, bool isQuiet)
    : label(std::move(what)),
      numOfSamples(length),
      sampleRate(rate),
      isVisible(!isQuiet && isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
    if (hasBar) std::fputs("\r\x1b[K", stderr);
}

double Progress::getSeconds() const {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void Progress::show(std::int64_t numOfSamplesDone) {
    if (!isVisible) return;
    const Clock::time_point now = Clock::now();
    if (now - lastShown < std::chrono::milliseconds(100)) return;
    lastShown = now;
    hasBar = true;

    const double seconds = getSeconds();
    const double audioSeconds = static_cast<double>(numOfSamplesDone) / sampleRate;
    const double speed = audioSeconds / std::max(seconds, 1e-9);
    if (numOfSamples <= 0) {
        std::fprintf(stderr, "\r\x1b[K%s  %s  %.1f x real time", label.c_str(),
                     formatTime(audioSeconds).c_str(), speed);
        return;
    }
    const double part =
        std::min(static_cast<double>(numOfSamplesDone) / static_cast<double>(numOfSamples), 1.0);
    constexpr int width = 30;
    const auto numOfMarks = static_cast<std::size_t>(part * width);
    const double rest =
        (static_cast<double>(numOfSamples) / sampleRate - audioSeconds) / std::max(speed, 1e-9);
    std::fprintf(stderr, "\r\x1b[K%s [%s%s] %3.0f %%  %.1f x real time, %s left", label.c_str(),
                 std::string(numOfMarks, '#').c_str(), std::string(width - numOfMarks, ' ').c_str(),
                 100 * part, speed, formatTime(std::max(rest, 0.0)).c_str());
}

}  // namespace zevrant::cli
