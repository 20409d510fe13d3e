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

Progress::Progress(std::string what, int numOfFiles, bool isQuiet)
    : label(std::move(what)),
      files(static_cast<std::size_t>(numOfFiles)),
      isVisible(!isQuiet && isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
    clear();
}

double Progress::getSeconds() const {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double Progress::getAudioSeconds() const {
    const std::lock_guard lock(mutex);
    double seconds = 0.0;
    for (const FileProgress& file : files) seconds += file.audioSeconds;
    return seconds;
}

void Progress::show(int file, std::int64_t numOfSamplesDone, std::int64_t numOfSamples, int sampleRate) {
    const std::lock_guard lock(mutex);
    FileProgress& progress = files[static_cast<std::size_t>(file)];
    const auto done = static_cast<double>(numOfSamplesDone);
    progress.audioSeconds = done / sampleRate;
    progress.hasLength = numOfSamples > 0;
    if (progress.hasLength) progress.part = std::min(done / static_cast<double>(numOfSamples), 1.0);
    const Clock::time_point now = Clock::now();
    if (!isVisible || now - lastShown < std::chrono::milliseconds(100)) return;
    lastShown = now;
    draw();
}

void Progress::finish(int file) {
    const std::lock_guard lock(mutex);
    files[static_cast<std::size_t>(file)].part = 1.0;
    files[static_cast<std::size_t>(file)].isDone = true;
    if (isVisible && files.size() > 1) draw();
}

void Progress::print(std::FILE* stream, const std::string& line) {
    const std::lock_guard lock(mutex);
    clear();
    std::fprintf(stream, "%s\n", line.c_str());
    std::fflush(stream);
}

void Progress::clear() {
    if (std::exchange(hasBar, false)) std::fputs("\r\x1b[K", stderr);
}

void Progress::draw() {
    hasBar = true;
    double part = 0.0, audioSeconds = 0.0;
    std::size_t numOfFilesDone = 0;
    for (const FileProgress& file : files) {
        part += file.part / static_cast<double>(files.size());
        audioSeconds += file.audioSeconds;
        numOfFilesDone += file.isDone ? 1 : 0;
    }
    const double seconds = getSeconds();
    const double speed = audioSeconds / std::max(seconds, 1e-9);
    if (files.size() == 1 && !files.front().hasLength) {
        std::fprintf(stderr, "\r\x1b[K%s  %s  %.1f x real time", label.c_str(),
                     formatTime(audioSeconds).c_str(), speed);
        return;
    }
    constexpr int width = 30;
    const auto numOfMarks = static_cast<std::size_t>(std::min(part, 1.0) * width);
    const double rest = part > 0.0 ? seconds * (1.0 - part) / part : 0.0;
    std::string count;
    if (files.size() > 1)
        count = std::to_string(numOfFilesDone) + " of " + std::to_string(files.size()) + " files, ";
    std::fprintf(stderr, "\r\x1b[K%s [%s%s] %3.0f %%  %s%.1f x real time, %s left", label.c_str(),
                 std::string(numOfMarks, '#').c_str(), std::string(width - numOfMarks, ' ').c_str(),
                 100 * part, count.c_str(), speed, formatTime(std::max(rest, 0.0)).c_str());
}

}  // namespace zevrant::cli
