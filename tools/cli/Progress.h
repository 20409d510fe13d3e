#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace zevrant::cli {

// A bar on standard error with the speed in times real time. Silent where that is no terminal, or on demand.
class Progress {
  public:
    // numOfSamples below 0: the length is not known.
    Progress(std::string label, std::int64_t numOfSamples, int sampleRate, bool isQuiet);
    ~Progress();  // takes the bar away

    void show(std::int64_t numOfSamplesDone);

    double getSeconds() const;  // since the start

  private:
    using Clock = std::chrono::steady_clock;

    std::string label;
    std::int64_t numOfSamples;
    int sampleRate;
    bool isVisible;
    bool hasBar = false;
    Clock::time_point start = Clock::now();
    Clock::time_point lastShown = start;
};

}  // namespace zevrant::cli
