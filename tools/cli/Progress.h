#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

namespace zevrant::cli {

// A bar on standard error for one file, or for several together, with the speed in times real time. Silent
// where that is no terminal, or on demand.
// Threads  Any may call it.
class Progress {
  public:
    Progress(std::string label, int numOfFiles, bool isQuiet);
    ~Progress();  // takes the bar away

    // How far a file is. numOfSamples below 0: its length is not known.
    void show(int file, std::int64_t numOfSamplesDone, std::int64_t numOfSamples, int sampleRate);

    // Counts a file as done, whether it went well or not.
    void finish(int file);

    // Writes a line where the bar is; it comes back below.
    void print(std::FILE* stream, const std::string& line);

    double getSeconds() const;       // since the start
    double getAudioSeconds() const;  // of all files

  private:
    using Clock = std::chrono::steady_clock;

    struct FileProgress {
        double part = 0.0;  // 0 to 1
        double audioSeconds = 0.0;
        bool hasLength = true;
        bool isDone = false;
    };

    void draw();
    void clear();

    std::string label;
    std::vector<FileProgress> files;
    bool isVisible;
    bool hasBar = false;
    Clock::time_point start = Clock::now();
    Clock::time_point lastShown = start;
    mutable std::mutex mutex;
};

}  // namespace zevrant::cli
