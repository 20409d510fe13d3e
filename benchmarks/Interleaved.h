// Times several ways of doing one thing in turns within one run, so that whatever else the machine does
// falls on all of them alike, and keeps the shortest time of each, or all for a median.
#pragma once

#include <algorithm>
#include <ctime>
#include <limits>
#include <vector>

// Seconds that this thread has had a core for.
inline double readThreadClock() {
    std::timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// Seconds for one call of work, over a batch of calls.
template <class Work>
double timeBatch(int numOfCalls, Work&& work) {
    const double start = readThreadClock();
    for (int i = 0; i < numOfCalls; ++i) work();
    return (readThreadClock() - start) / numOfCalls;
}

inline double findMedian(std::vector<double> values) {
    if (values.empty()) return std::numeric_limits<double>::quiet_NaN();
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
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
