// Times several ways of doing one thing in turns within one run, so that whatever else the machine does
// falls on all of them alike, and keeps the shortest time of each.
#pragma once

#include <algorithm>
#include <chrono>
#include <limits>

// Seconds for one call of work, over a batch of calls.
template <class Work>
double timeBatch(int numOfCalls, Work&& work) {
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    for (int i = 0; i < numOfCalls; ++i) work();
    return std::chrono::duration<double>(Clock::now() - start).count() / numOfCalls;
}

class ShortestTime {
  public:
    template <class Work>
    double add(int numOfCalls, Work&& work) {  // returns this batch's time for one call
        const double time = timeBatch(numOfCalls, work);
        seconds = std::min(seconds, time);
        return time;
    }
    double microseconds() const { return 1e6 * seconds; }

  private:
    double seconds = std::numeric_limits<double>::infinity();
};
