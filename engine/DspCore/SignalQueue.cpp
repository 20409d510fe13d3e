#include "DspCore/SignalQueue.h"

#include <stdexcept>

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
    if (numOfChannels == -1) {
        numOfChannels = signal.numOfChannels;
    } else if (numOfChannels != signal.numOfChannels) {
        reset();  // the count stays unset for this call, although the signal is queued
    }
    if (signal.numOfSamples < 0) return;
    reserve.append(signals, signal);
    numOfSamples += signal.numOfSamples;
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
    int remaining = out.numOfSamples;
    if (remaining < 1) return;
    if (remaining > numOfSamples) throw std::out_of_range("more samples asked for than are queued");
    while (remaining > 0) {
        if (signals.empty()) throw std::out_of_range("more samples asked for than are queued");
        const T& oldest = signals.front();
        const int available = oldest.numOfSamples - readOffset;
        const int column = out.numOfSamples - remaining;
        if (available > remaining) {
            copySection(oldest, readOffset, out, column, remaining);
            readOffset += remaining;
            break;
        }
        copySection(oldest, readOffset, out, column, available);
        reserve.removeFront(signals);
        readOffset = 0;
        remaining -= available;
    }
    numOfSamples -= out.numOfSamples;
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
