#include "DspCore/SignalQueue.h"

#include <stdexcept>
#include <utility>

#include "DspCore/VectorOperations.h"

namespace zevrant {

namespace {

template <class T>
void copySection(const T& from, int start, T& to, int column, int count) {
    if (to.numOfChannels > from.numOfChannels)
        throw std::out_of_range("a queued signal has fewer channels than were asked for");
    for (int c = 0; c < to.numOfChannels; ++c)
        vo::copy(from.getReadChannelPtr(c) + start, to.getWriteChannelPtr(c) + column, count);
}

}  // namespace

template <class T>
void SignalQueue<T>::add(const T& signal) {
    if (!signal.data || signal.numOfSamples == 0) return;
    takeChannels(signal.numOfChannels);
    if (signal.numOfSamples < 0) return;
    reserve.append(signals, signal);
    numOfSamples += signal.numOfSamples;
}

template <class T>
void SignalQueue<T>::takeChannels(int channels) {
    if (numOfChannels == -1)
        numOfChannels = channels;
    else if (numOfChannels != channels)
        reset();  // the count stays unset for this call, although samples are queued
}

// The newest signal, if it has room and nobody shares it, and else a new one.
template <class T>
T& SignalQueue<T>::openEnd(int channels) {
    if (!signals.empty()) {
        T& newest = signals.back();
        const auto& block = newest.data;
        if (newest.numOfChannels == channels && block.use_count() == 1 &&
            newest.numOfSamples < block->numOfSamples)
            return newest;
    }
    T added(channels, lengthOfOwn);
    added.numOfSamples = 0;
    reserve.append(signals, std::move(added));
    return signals.back();
}

template <class T>
T SignalQueue<T>::peek(int count) {
    if (numOfChannels < 1) return T();
    T out(numOfChannels, count);
    peek(out);
    return out;
}

template <class T>
void SignalQueue<T>::peek(T& out) {
    int remaining = out.numOfSamples;
    int start = readOffset;
    for (const T& signal : signals) {
        const int available = signal.numOfSamples - start;
        const int count = remaining < available ? remaining : available;
        copySection(signal, start, out, out.numOfSamples - remaining, count);
        remaining -= count;
        if (remaining <= 0) return;
        start = 0;
    }
}

template <class T>
T SignalQueue<T>::get(int count) {
    if (numOfChannels < 1) return T();
    T out(numOfChannels, count);
    get(out);
    return out;
}

template <class T>
void SignalQueue<T>::get(T& out) {
    get(out.numOfSamples, [&](const T& from, int start, int column, int count) {
        copySection(from, start, out, column, count);
    });
}

template <class T>
const T& SignalQueue<T>::findOldest(int countToCome) const {
    if (countToCome > numOfSamples || signals.empty())
        throw std::out_of_range("more samples asked for than are queued");
    return signals.front();
}

// Samples of the oldest signal, which goes with its last one.
template <class T>
void SignalQueue<T>::releaseRead(int count) {
    numOfSamples -= count;
    readOffset += count;
    if (readOffset < signals.front().numOfSamples) return;
    reserve.removeFront(signals);
    readOffset = 0;
}

template <class T>
void SignalQueue<T>::skip(int count) {
    if (numOfSamples <= count) {
        reserve.clear(signals);
        readOffset = 0;
        numOfSamples = 0;
        return;
    }
    numOfSamples -= count;
    while (count > 0 && !signals.empty()) {
        const int available = signals.front().numOfSamples - readOffset;
        if (available > count) {
            readOffset += count;
            return;
        }
        reserve.removeFront(signals);
        readOffset = 0;
        count -= available;
    }
}

template <class T>
void SignalQueue<T>::reset() {
    reserve.clear(signals);
    numOfSamples = 0;
    readOffset = 0;
    numOfChannels = -1;
}

template class SignalQueue<Signal32>;

}  // namespace zevrant
