#include "DspCore/Signals.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <stdexcept>

#include "DspCore/VectorOperations.h"

namespace zevrant {

namespace {

// The stride in elements, and a check that the whole block stays below 2 GiB.
template <class T>
int calcStride(int numOfChannels, int numOfSamples) {
    constexpr std::int64_t elementsPerUnit = 64 / sizeof(T);
    const std::int64_t numOfColumns = std::max(numOfSamples, 0);
    const std::int64_t stride = (numOfColumns + elementsPerUnit - 1) / elementsPerUnit * elementsPerUnit;
    constexpr std::int64_t mostElements = std::numeric_limits<std::int32_t>::max() / sizeof(T);
    if (stride > mostElements || (stride > 0 && numOfChannels > mostElements / stride))
        throw std::length_error("a signal block must stay below 2 GiB");
    return static_cast<int>(stride);
}

template <class T>
std::size_t calcNumOfBytes(const SignalData<T>& block) {
    return sizeof(T) * static_cast<std::size_t>(block.stride) *
           static_cast<std::size_t>(std::max(block.numOfChannels, 0));
}

template <class T>
std::shared_ptr<SignalData<T>> makeBlock(int numOfChannels, int numOfSamples) {
    return std::allocate_shared<SignalData<T>>(RecyclingAllocator<SignalData<T>>(), numOfChannels,
                                               numOfSamples);
}

template <class T>
void copyRow(const T* in, T* out, int n) {
    if constexpr (std::same_as<T, std::complex<double>>)
        std::copy_n(in, std::max(n, 0), out);
    else
        vo::copy(in, out, n);
}

// One call of operation(row of in, row of out) for every channel of in.
template <class In, class Out, class Operation>
void forEachRow(const Signal<In>& in, Signal<Out>& out, Operation operation) {
    for (int c = 0; c < in.numOfChannels; ++c) operation(in.getReadChannelPtr(c), out.getWriteChannelPtr(c));
}

}  // namespace

template <class T>
SignalData<T>::SignalData(int channelCount, int sampleCount)
    : numOfSamples(sampleCount),
      numOfChannels(channelCount),
      stride(calcStride<T>(channelCount, sampleCount)) {
    if (const std::size_t numOfBytes = calcNumOfBytes(*this))
        data = static_cast<T*>(allocateRecycled(numOfBytes));
}

template <class T>
SignalData<T>::~SignalData() {
    freeRecycled(data, calcNumOfBytes(*this));
}

template <class T>
Signal<T>::Signal(int channelCount, int sampleCount)
    : numOfChannels(channelCount), numOfSamples(sampleCount), data(makeBlock<T>(channelCount, sampleCount)) {}

template <class T>
Signal<T>::Signal(int channelCount, int sampleCount, T value) : Signal(channelCount, sampleCount) {
    for (int c = 0; c < numOfChannels; ++c) {
        if constexpr (std::same_as<T, float> || std::same_as<T, std::complex<float>>)
            vo::setToValue(value, data->getRow(c), numOfSamples);
        else
            std::fill_n(data->getRow(c), std::max(numOfSamples, 0), value);
    }
}

template <class T>
Signal<T>::Signal(Signal&& other) noexcept
    : numOfChannels(std::exchange(other.numOfChannels, 0)),
      numOfSamples(std::exchange(other.numOfSamples, 0)),
      data(std::move(other.data)) {}

template <class T>
Signal<T>& Signal<T>::operator=(Signal&& other) noexcept {
    if (this == &other) return *this;
    numOfChannels = std::exchange(other.numOfChannels, 0);
    numOfSamples = std::exchange(other.numOfSamples, 0);
    data = std::move(other.data);
    return *this;
}

template <class T>
bool Signal<T>::ensureDimensions(int newNumOfChannels, int newNumOfSamples) {
    const bool fits =
        data && newNumOfChannels <= data->numOfChannels && newNumOfSamples <= data->numOfSamples;
    if (!fits) data = makeBlock<T>(newNumOfChannels, newNumOfSamples);
    numOfChannels = newNumOfChannels;
    numOfSamples = newNumOfSamples;
    return !fits;
}

template <class T>
void Signal<T>::ensureUnique() {
    if (!data || data.use_count() <= 1) return;
    auto clone = makeBlock<T>(data->numOfChannels, data->numOfSamples);
    std::copy_n(data->data, calcNumOfBytes(*data) / sizeof(T), clone->data);
    data = std::move(clone);
}

template <class T>
T** Signal<T>::getWritePointer() {
    if (!data) return nullptr;
    ensureUnique();
    auto& table = data->channelPointers;
    if (table.empty() && data->numOfChannels > 0) {
        table.resize(static_cast<std::size_t>(data->numOfChannels));
        for (int c = 0; c < data->numOfChannels; ++c) table[static_cast<std::size_t>(c)] = data->getRow(c);
    }
    return table.data();
}

template <class T>
Signal<T> Signal<T>::createMultichannelSignal(int n) const {
    if (n < 2) return *this;
    Signal result(n, numOfSamples);
    if (numOfSamples < 1) return result;
    if (numOfChannels < 1) throw std::out_of_range("a signal without channels has no row to repeat");
    for (int c = 0; c < n; ++c) copyRow(getReadChannelPtr(0), result.getWriteChannelPtr(c), numOfSamples);
    return result;
}

template <class T>
Signal<T> Signal<T>::operator*(
    T factor) const requires std::same_as<T, float> || std::same_as<T, std::complex<float>> {
    Signal result(numOfChannels, numOfSamples);
    forEachRow(*this, result,
               [&](const T* in, T* out) { vo::constantMultiply(in, factor, out, numOfSamples); });
    return result;
}

template <class T>
Signal<T> Signal<T>::operator*(const Signal& other) const requires std::same_as<T, float> {
    Signal result(numOfChannels, numOfSamples);
    for (int c = 0; c < numOfChannels; ++c)
        vo::multiply(getReadChannelPtr(c), other.getReadChannelPtr(c), result.getWriteChannelPtr(c),
                     numOfSamples);
    return result;
}

template <class T>
Signal<T> Signal<T>::operator+(const Signal& other) const requires std::same_as<T, float> {
    Signal result(numOfChannels, numOfSamples);
    for (int c = 0; c < numOfChannels; ++c)
        vo::add(getReadChannelPtr(c), other.getReadChannelPtr(c), result.getWriteChannelPtr(c), numOfSamples);
    return result;
}

template <class T>
Signal<T> Signal<T>::operator-(Signal other) const requires std::same_as<T, std::complex<float>> {
    Signal result(numOfChannels, numOfSamples);
    for (int c = 0; c < numOfChannels; ++c)  // vo::subtract takes the subtrahend first
        vo::subtract(other.getReadChannelPtr(c), getReadChannelPtr(c), result.getWriteChannelPtr(c),
                     numOfSamples);
    return result;
}

template <class T>
Signal<T>& Signal<T>::operator+=(const Signal& other) requires std::same_as<T, std::complex<float>> {
    if (!data || numOfSamples == 0) return *this = other;
    for (int c = 0; c < numOfChannels; ++c) {
        T* row = getWriteChannelPtr(c);
        vo::add(other.getReadChannelPtr(c), row, row, numOfSamples);
    }
    return *this;
}

template <class T>
Signal<T> Signal<T>::extractSection(int start, int length) const requires std::same_as<T, float> {
    Signal result(numOfChannels, length);
    forEachRow(*this, result, [&](const T* in, T* out) { vo::copy(in + start, out, length); });
    return result;
}

template <class T>
Signal<T> Signal<T>::extractChannels(int first, int count) const requires std::same_as<T, float> {
    Signal result(count, numOfSamples);
    for (int c = 0; c < count; ++c)
        vo::copy(getReadChannelPtr(first + c), result.getWriteChannelPtr(c), numOfSamples);
    return result;
}

template <class T>
Signal<T> Signal<T>::sumChannels(const Signal& signal) requires std::same_as<T, std::complex<float>> {
    Signal result(1, signal.numOfSamples);
    if (signal.numOfSamples < 1) return result;
    if (signal.numOfChannels < 1) throw std::out_of_range("a signal without channels has no row to sum");
    T* sum = result.getWriteChannelPtr(0);
    vo::copy(signal.getReadChannelPtr(0), sum, signal.numOfSamples);
    for (int c = 1; c < signal.numOfChannels; ++c)
        vo::add(sum, signal.getReadChannelPtr(c), sum, signal.numOfSamples);
    return result;
}

template class SignalData<float>;
template class SignalData<double>;
template class SignalData<std::complex<float>>;
template class SignalData<std::complex<double>>;
template class Signal<float>;
template class Signal<std::complex<float>>;

// The double types member by member, without the arithmetic that they do not have: asked for the whole class,
// clang 14 instantiates even members whose constraint fails.
template Signal<double>::Signal(int, int);
template Signal<double>::Signal(int, int, double);
template Signal<double>::Signal(Signal<double>&&) noexcept;
template Signal<double>& Signal<double>::operator=(Signal<double>&&) noexcept;
template bool Signal<double>::ensureDimensions(int, int);
template void Signal<double>::ensureUnique();
template double** Signal<double>::getWritePointer();
template Signal<double> Signal<double>::createMultichannelSignal(int) const;

template Signal<std::complex<double>>::Signal(int, int);
template Signal<std::complex<double>>::Signal(int, int, std::complex<double>);
template Signal<std::complex<double>>::Signal(Signal<std::complex<double>>&&) noexcept;
template Signal<std::complex<double>>& Signal<std::complex<double>>::operator=(
    Signal<std::complex<double>>&&) noexcept;
template bool Signal<std::complex<double>>::ensureDimensions(int, int);
template void Signal<std::complex<double>>::ensureUnique();
template std::complex<double>** Signal<std::complex<double>>::getWritePointer();
template Signal<std::complex<double>> Signal<std::complex<double>>::createMultichannelSignal(int) const;

const Signal32 Signal32::empty;
const Signal64 Signal64::empty;
const ComplexSignal32 ComplexSignal32::empty;
const ComplexSignal64 ComplexSignal64::empty;

std::vector<Signal32> Signal32::toVectorOfChannels() const {
    std::vector<Signal32> channels;
    channels.reserve(static_cast<std::size_t>(std::max(numOfChannels, 0)));
    for (int c = 0; c < numOfChannels; ++c) channels.emplace_back(extractChannels(c, 1));
    return channels;
}

Signal64 Signal32::toSignal64() const {
    Signal64 result(numOfChannels, numOfSamples);
    forEachRow(*this, result,
               [&](const float* in, double* out) { vo::convert32To64(in, out, numOfSamples); });
    return result;
}

Signal32 Signal64::toSignal32() const {
    Signal32 result(numOfChannels, numOfSamples);
    forEachRow(*this, result,
               [&](const double* in, float* out) { vo::convert64To32(in, out, numOfSamples); });
    return result;
}

// std::complex guarantees that an array of n values may be read as 2 * n real ones, real part first.
ComplexSignal64 ComplexSignal32::toComplexSignal64() const {
    ComplexSignal64 result(numOfChannels, numOfSamples);
    forEachRow(*this, result, [&](const std::complex<float>* in, std::complex<double>* out) {
        vo::convert32To64(reinterpret_cast<const float*>(in), reinterpret_cast<double*>(out),
                          2 * numOfSamples);
    });
    return result;
}

ComplexSignal32 ComplexSignal64::toComplexSignal32() const {
    ComplexSignal32 result(numOfChannels, numOfSamples);
    forEachRow(*this, result, [&](const std::complex<double>* in, std::complex<float>* out) {
        vo::convert64To32(reinterpret_cast<const double*>(in), reinterpret_cast<float*>(out),
                          2 * numOfSamples);
    });
    return result;
}

Signal<float> ComplexSignal32::getMagnitudeSignal() const {
    Signal<float> result(numOfChannels, numOfSamples);
    forEachRow(*this, result,
               [&](const std::complex<float>* in, float* out) { vo::calcMagnitudes(in, out, numOfSamples); });
    return result;
}

Signal<float> ComplexSignal32::getPhaseSignal() const {
    Signal<float> result(numOfChannels, numOfSamples);
    forEachRow(*this, result,
               [&](const std::complex<float>* in, float* out) { vo::calcPhases(in, out, numOfSamples); });
    return result;
}

ComplexSignal32 ComplexSignal32::fromPolar(const Signal<float>& magnitude, const Signal<float>& phase) {
    ComplexSignal32 result(magnitude.numOfChannels, magnitude.numOfSamples);
    for (int c = 0; c < magnitude.numOfChannels; ++c)
        vo::convertPolarToCartesian(magnitude.getReadChannelPtr(c), phase.getReadChannelPtr(c),
                                    result.getWriteChannelPtr(c), magnitude.numOfSamples);
    return result;
}

// ---- interleaved audio ------------------------------------------------------------------------

void deinterleave(const float* interleaved, int numOfChannelsPerFrame, Signal32& out) {
    deinterleave(interleaved, numOfChannelsPerFrame, out, 0, out.numOfSamples);
}

void interleave(const Signal32& in, float* interleaved, int numOfChannelsPerFrame) {
    interleave(in, 0, in.numOfSamples, interleaved, numOfChannelsPerFrame);
}

void deinterleave(const float* interleaved, int numOfChannelsPerFrame, Signal32& out, int first, int count) {
    for (int c = 0; c < std::min(out.numOfChannels, numOfChannelsPerFrame); ++c) {
        float* row = out.getWriteChannelPtr(c) + first;
        for (int i = 0; i < count; ++i) row[i] = interleaved[std::ptrdiff_t{i} * numOfChannelsPerFrame + c];
    }
}

void interleave(const Signal32& in, int first, int count, float* interleaved, int numOfChannelsPerFrame) {
    for (int c = 0; c < std::min(in.numOfChannels, numOfChannelsPerFrame); ++c) {
        const float* row = in.getReadChannelPtr(c) + first;
        for (int i = 0; i < count; ++i) interleaved[std::ptrdiff_t{i} * numOfChannelsPerFrame + c] = row[i];
    }
}

}  // namespace zevrant
