#pragma once

#include <complex>
#include <concepts>
#include <memory>
#include <vector>

#include "DspCore/RecyclingPool.h"

namespace zevrant {

// One block of planar samples: numOfChannels rows, each 64-byte aligned and stride elements from the
// next. The elements are not cleared. Counts of 0 or less hold no elements.
// Errors   std::length_error for a block of 2 GiB or more, std::bad_alloc.
template <class T>
class SignalData {
  public:
    SignalData(int numOfChannels, int numOfSamples);
    SignalData(const SignalData&) = delete;
    SignalData& operator=(const SignalData&) = delete;
    ~SignalData();

    T* getRow(int channel) const { return data + static_cast<std::ptrdiff_t>(channel) * stride; }

    int numOfSamples;    // columns allocated
    int numOfChannels;   // rows allocated
    int stride;          // elements from one row to the next: numOfSamples in whole 64-byte units
    int alignment = 64;  // bytes, of every row
    T* data = nullptr;   // stride * numOfChannels elements, null when there are none
    std::vector<T*> channelPointers;  // row starts, empty until first asked for
};

// A rectangle of samples, numOfChannels rows by numOfSamples columns, with value semantics.
//
// A copy shares the storage and costs one reference. The first write through getWriteChannelPtr,
// getWritePointer or ensureUnique on shared storage clones the whole block, hidden rows and columns
// and padding included. Reading never parts anything.
//
// The view may be smaller than its block (see ensureDimensions). Element (c, i) stands at
// c * stride + i of the block, whatever the view.
//
// Arguments are trusted: a channel, start or length outside the signal is the caller's fault. In
// binary operations the left operand gives the shape, and the right one must have at least as much.
// Threads  The reference count is atomic, nothing else is: several threads may hold and read one
//          block, each through a handle of its own, and a writer gets a block of its own.
// Errors   std::length_error for a block of 2 GiB or more, std::bad_alloc.
template <class T>
class Signal {
  public:
    Signal() = default;
    Signal(int numOfChannels, int numOfSamples);           // contents undefined
    Signal(int numOfChannels, int numOfSamples, T value);  // every used element is value
    Signal(const Signal&) = default;
    Signal(Signal&& other) noexcept;
    Signal& operator=(const Signal&) = default;
    Signal& operator=(Signal&& other) noexcept;
    ~Signal() = default;

    // Sets the shape of the view. Where the block is large enough only the two counts change: nothing
    // is parted or cleared, and the result is false. Otherwise a new block of exactly this shape
    // replaces the old one, whose contents are lost, and the result is true.
    bool ensureDimensions(int numOfChannels, int numOfSamples);

    // Gives this handle a block of its own, if another handle shares it.
    void ensureUnique();

    T* getWriteChannelPtr(int channel) {
        ensureUnique();
        return data->getRow(channel);
    }
    T** getWritePointer();  // table of all row starts, kept with the block; null without storage
    const T* getReadChannelPtr(int channel) const { return data->getRow(channel); }

    // A copy of this handle for n below 2, whatever its channel count. For n of 2 or more, n rows
    // that are each a copy of row 0.
    Signal createMultichannelSignal(int n) const;

    // Element-wise, into a new signal of this one's shape.
    Signal operator*(T factor) const requires std::same_as<T, float> || std::same_as<T, std::complex<float>>;
    Signal operator*(const Signal& other) const requires std::same_as<T, float>;
    Signal operator+(const Signal& other) const requires std::same_as<T, float>;
    Signal operator-(Signal other) const requires std::same_as<T, std::complex<float>>;

    // Adds other in place. A signal without storage or samples takes other over as it is, sharing its
    // storage, so a default signal is a valid start for a sum.
    Signal& operator+=(const Signal& other) requires std::same_as<T, std::complex<float>>;

    // Copies with storage of their own: length samples from start on; count rows from first on.
    Signal extractSection(int start, int length) const requires std::same_as<T, float>;
    Signal extractChannels(int first, int count) const requires std::same_as<T, float>;

    // One channel: row 0 of signal with rows 1 onward added to it, in order.
    static Signal sumChannels(const Signal& signal) requires std::same_as<T, std::complex<float>>;

    int numOfChannels = 0;                // channels that this view exposes
    int numOfSamples = 0;                 // samples per channel that this view exposes
    std::shared_ptr<SignalData<T>> data;  // null for a default signal
};

extern template class SignalData<float>;
extern template class SignalData<double>;
extern template class SignalData<std::complex<float>>;
extern template class SignalData<std::complex<double>>;
extern template class Signal<float>;
extern template class Signal<std::complex<float>>;

class Signal64;
class ComplexSignal64;

// Audio: one float per sample.
class Signal32 : public Signal<float> {
  public:
    using Signal<float>::Signal;
    Signal32() = default;
    Signal32(const Signal<float>& other) : Signal<float>(other) {}
    Signal32(Signal<float>&& other) noexcept : Signal<float>(std::move(other)) {}

    std::vector<Signal32> toVectorOfChannels() const;  // one new single-channel signal per channel
    Signal64 toSignal64() const;

    static const Signal32 empty;  // no channels, no samples, no storage
};

class Signal64 : public Signal<double> {
  public:
    using Signal<double>::Signal;
    Signal64() = default;
    Signal64(const Signal<double>& other) : Signal<double>(other) {}
    Signal64(Signal<double>&& other) noexcept : Signal<double>(std::move(other)) {}

    Signal32 toSignal32() const;

    static const Signal64 empty;
};

// A spectrum: one complex float per bin.
class ComplexSignal32 : public Signal<std::complex<float>> {
  public:
    using Signal<std::complex<float>>::Signal;
    ComplexSignal32() = default;
    ComplexSignal32(const Signal<std::complex<float>>& other) : Signal<std::complex<float>>(other) {}
    ComplexSignal32(Signal<std::complex<float>>&& other) noexcept
        : Signal<std::complex<float>>(std::move(other)) {}

    ComplexSignal64 toComplexSignal64() const;
    Signal<float> getMagnitudeSignal() const;  // modulus of each bin
    Signal<float> getPhaseSignal() const;      // four-quadrant arctangent of imaginary over real

    // magnitude * (cos phase, sin phase), in the shape of magnitude
    static ComplexSignal32 fromPolar(const Signal<float>& magnitude, const Signal<float>& phase);

    static const ComplexSignal32 empty;
};

class ComplexSignal64 : public Signal<std::complex<double>> {
  public:
    using Signal<std::complex<double>>::Signal;
    ComplexSignal64() = default;
    ComplexSignal64(const Signal<std::complex<double>>& other) : Signal<std::complex<double>>(other) {}
    ComplexSignal64(Signal<std::complex<double>>&& other) noexcept
        : Signal<std::complex<double>>(std::move(other)) {}

    ComplexSignal32 toComplexSignal32() const;

    static const ComplexSignal64 empty;
};

// Audio that lies frame by frame, to the rows of a signal and back: element (c, i) of the signal stands at
// interleaved[i * numOfChannelsPerFrame + c]. The signal gives the shape; frames may have further channels
// before and behind those of the signal, which are left alone.
void deinterleave(const float* interleaved, int numOfChannelsPerFrame, Signal32& out);
void interleave(const Signal32& in, float* interleaved, int numOfChannelsPerFrame);

// The same for count samples of the signal from first on, and for no more channels than a frame has.
void deinterleave(const float* interleaved, int numOfChannelsPerFrame, Signal32& out, int first, int count);
void interleave(const Signal32& in, int first, int count, float* interleaved, int numOfChannelsPerFrame);

}  // namespace zevrant
