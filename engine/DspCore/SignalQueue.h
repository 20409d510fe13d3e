#pragma once

#include <algorithm>
#include <cstdint>
#include <list>

#include "DspCore/Signals.h"

namespace zevrant {

// First-in, first-out queue that turns blocks of any length into blocks of the length that a consumer
// wants. Signals are queued as shared handles, so add() costs the same whatever their length, and
// samples are copied only when a consumer takes them. append() is for blocks that lie elsewhere: it copies
// them into signals of the queue's own, so that many small ones take no more memory than a few large ones.
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

    // Makes room for more samples at the end of the newest signal, or in new ones of lengthOfOwn, and has
    // them written: write(signal, column, start, count) for samples start to start + count of those that
    // come, which go to column onward of the signal. From 1 channel up.
    template <class Write>
    void append(int channels, int count, const Write& write) {
        takeChannels(channels);
        for (int done = 0, part; done < count; done += part) {
            T& end = openEnd(channels);
            part = std::min(count - done, end.data->numOfSamples - end.numOfSamples);
            end.numOfSamples += part;
            numOfSamples += part;
            write(end, end.numOfSamples - part, done, part);
        }
    }

    // Has list nodes ready for append() until so many samples are queued.
    void reserveNodes(std::int64_t count) {
        reserve.reserve(signals, static_cast<std::size_t>(count / lengthOfOwn) + 2);
    }

    // Copies the next samples without consuming them. Where the queue runs out, the end of the result
    // stays undefined, or what it was before.
    T peek(int count);
    void peek(T& out);  // out.numOfSamples samples; nothing happens when the queue is empty

    // As peek, and consumes. No more than numOfSamples may be asked for.
    T get(int count);
    void get(T& out);

    // The same where they are: read(signal, column, start, count) as for append().
    template <class Read>
    void get(int count, const Read& read) {
        for (int done = 0, part; done < count; done += part) {
            const T& oldest = findOldest(count - done);
            part = std::min(count - done, oldest.numOfSamples - readOffset);
            read(oldest, readOffset, done, part);
            releaseRead(part);
        }
    }

    // Consumes without copying. A count of numOfSamples or more empties the queue and keeps its
    // numOfChannels; a count below 1 touches no signal.
    void skip(int count);

    // Back to the state of a new queue.
    void reset();

    std::int64_t numOfSamples = 0;  // available per channel, reduced by what is already read
    std::list<T> signals;           // oldest first
    int readOffset = 0;             // samples already consumed from the oldest signal
    int numOfChannels = -1;         // -1 while unset

    static constexpr int lengthOfOwn = 512;  // samples of a signal that append() makes

  private:
    void takeChannels(int channels);
    T& openEnd(int channels);
    const T& findOldest(int countToCome) const;
    void releaseRead(int count);

    ListNodeReserve<T> reserve;
};

extern template class SignalQueue<Signal32>;

}  // namespace zevrant
