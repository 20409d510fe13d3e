#pragma once

#include <cstdint>
#include <list>

#include "DspCore/Signals.h"

namespace zevrant {

// First-in, first-out queue that turns blocks of any length into blocks of the length that a consumer
// wants. Signals are queued as shared handles, so add() costs the same whatever their length, and
// samples are copied only when a consumer takes them.
//
// A change of channel count drops what is queued: the new signal is kept, but the queue's
// numOfChannels is unset until the signal after it is added. On purpose, and peek(int) and get(int)
// give empty signals in between.
//
// Memory   Nodes and blocks are recycled. A signal is released when its last sample is taken.
// Threads  One at a time; the queued handles themselves may be shared with other threads.
// Errors   get() beyond numOfSamples, and reading more channels than a queued signal has, throw
//          std::out_of_range before anything is read past the queue.
template <class T>
class SignalQueue {
  public:
    // Ignores a signal without storage or samples.
    void add(const T& signal);

    // Copies the next samples without consuming them. Where the queue runs out, the end of the result
    // stays undefined, or what it was before.
    T peek(int count);
    void peek(T& out);  // out.numOfSamples samples; nothing happens when the queue is empty

    // As peek, and consumes. No more than numOfSamples may be asked for.
    T get(int count);
    void get(T& out);

    // Consumes without copying. A count of numOfSamples or more empties the queue and keeps its
    // numOfChannels; a count below 1 touches no signal.
    void skip(int count);

    // Back to the state of a new queue.
    void reset();

    std::int64_t numOfSamples = 0;  // available per channel, reduced by what is already read
    std::list<T> signals;           // oldest first
    int readOffset = 0;             // samples already consumed from the oldest signal
    int numOfChannels = -1;         // -1 while unset

  private:
    ListNodeReserve<T> reserve;
};

extern template class SignalQueue<Signal32>;

}  // namespace zevrant
