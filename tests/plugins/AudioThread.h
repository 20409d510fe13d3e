// Runs what a host's audio thread would, and watches it: a program that links this counts what it asks the
// allocator for and the mutexes that it locks, also of what it loads, and a system call ends the thread.
#pragma once

#include <functional>

namespace zevrant {

struct Watch {
    bool hasEnded = false;  // by itself, and not by a system call
    long numOfAllocations = 0, numOfLocks = 0;
};

// Runs this on a thread of its own until it returns. Under sanitizers nothing is watched, and all seems well.
Watch runOnAudioThread(const std::function<void()>& audio);

// True and false come out of it as tests like them.
inline bool isQuiet(const Watch& watch) {
    return watch.hasEnded && watch.numOfAllocations == 0 && watch.numOfLocks == 0;
}

}  // namespace zevrant
