#include "neural/Tensor.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <limits>
#include <stdexcept>

#include "DspCore/RecyclingPool.h"
#include "DspCore/VectorOperations.h"
#include "neural/ModelLimits.h"
#include "neural/RecordStream.h"

namespace zevrant {

namespace {

// What a tensor costs beside its elements: records, a list node, the rounding of blocks.
constexpr std::size_t numOfBytesOfRecord = 256;

template <class T>
std::shared_ptr<TensorData<T>> makeTensorData(int size) {
    return std::allocate_shared<TensorData<T>>(RecyclingAllocator<TensorData<T>>(), size);
}

template <class T>
std::size_t getNumOfBytes(int size) {
    return size > 0 ? sizeof(T) * static_cast<std::size_t>(size) : 0;
}

// Widens half precision. Every exponent but 0 is rebased by 112, also the largest, which in IEEE 754 marks
// infinities: here it is one more binade of numbers. A fraction under exponent 0 counts steps of 2^-24,
// which single precision holds exactly, so one multiplication by a power of two normalises it.
void widenHalves(const std::uint16_t* halves, float* out, int count) {
    for (int i = 0; i < count; ++i) {
        const std::uint32_t magnitude = halves[i] & 0x7fffu;
        const std::uint32_t sign = (halves[i] & 0x8000u) << 16;
        const std::uint32_t normal = (magnitude << 13) + (112u << 23);
        const float steps = static_cast<float>(static_cast<std::int32_t>(magnitude));
        const std::uint32_t subnormal = std::bit_cast<std::uint32_t>(steps * 0x1p-24f);
        out[i] = std::bit_cast<float>(sign | (magnitude < 0x400u ? subnormal : normal));
    }
}

// Whatever the stream does not hold any more stays zero, and loading goes on.
void readOrClear(InputStream& stream, void* destination, int numOfBytes) {
    const int count = std::clamp(stream.read(destination, numOfBytes), 0, numOfBytes);
    std::memset(static_cast<unsigned char*>(destination) + count, 0,
                static_cast<std::size_t>(numOfBytes - count));
}

// Halves are read in one piece to where the second half of the floats will stand, and widened from there
// block by block in order: a block's source is never overwritten before it was taken out. So the only
// memory touched is what the tensor keeps.
void readHalves(InputStream& stream, float* elements, int count) {
    const auto* source =
        reinterpret_cast<const unsigned char*>(elements) + 2 * static_cast<std::size_t>(count);
    readOrClear(stream, const_cast<unsigned char*>(source), 2 * count);
    std::array<std::uint16_t, 1024> block;
    std::array<float, 1024> widened;
    for (int first = 0; first < count; first += static_cast<int>(block.size())) {
        const int length = std::min(static_cast<int>(block.size()), count - first);
        std::memcpy(block.data(), source + 2 * static_cast<std::size_t>(first),
                    2 * static_cast<std::size_t>(length));
        widenHalves(block.data(), widened.data(), length);
        std::memcpy(elements + first, widened.data(), sizeof(float) * static_cast<std::size_t>(length));
    }
}

// Elements that a file does not hold cost it nothing, so nothing in it limits their number. A length of 0 is
// what a stream answers that does not know it.
void requireModestSize(int count, const InputStream& stream, std::int64_t numOfBytes) {
    const long long length = stream.getLength();
    const bool isHeld = numOfBytes > 0 && (length <= 0 || numOfBytes <= length - stream.getPosition());
    if (!isHeld && count > limits::elementsNotHeld)
        throw std::length_error("tensor: too many elements that its file does not hold");
}

}  // namespace

template <class T>
TensorData<T>::TensorData(int numOfElements)
    : size(numOfElements),
      share(static_cast<std::int64_t>(numOfBytesOfRecord + getNumOfBytes<T>(numOfElements))),
      data(static_cast<T*>(allocateRecycled(getNumOfBytes<T>(numOfElements)))) {}

template <class T>
TensorData<T>::~TensorData() {
    freeRecycled(data, getNumOfBytes<T>(size));
}

template <class T>
int Tensor<T>::countElements(std::span<const int> dimensions) {
    if (dimensions.empty()) return 0;
    if (std::find(dimensions.begin(), dimensions.end(), 0) != dimensions.end()) return 0;
    constexpr std::int64_t beyond = std::int64_t{1} << 31;
    std::int64_t magnitude = 1;
    bool negative = false;
    for (int dimension : dimensions) {
        negative ^= dimension < 0;
        const std::int64_t length = dimension;
        magnitude = std::min(beyond, magnitude * (length < 0 ? -length : length));
    }
    if (negative) return static_cast<int>(-magnitude);
    if (magnitude > std::numeric_limits<int>::max() / static_cast<int>(sizeof(T)))
        throw std::length_error("tensor: the shape asks for 2 GiB or more");
    return static_cast<int>(magnitude);
}

template <class T>
Tensor<T>::Tensor(const std::vector<int>& initialShape)
    : data(makeTensorData<T>(countElements(initialShape))), shape(initialShape) {}

template <class T>
Tensor<T>::Tensor(std::initializer_list<int> initialShape) : Tensor(std::vector<int>(initialShape)) {}

template <class T>
Tensor<T>::Tensor(std::shared_ptr<InputStream> stream, int version) {
    constexpr int halfPrecision = 0, singlePrecision = 1;
    const int storageFormat =
        version >= 0x1009 ? readNumber<std::uint8_t>(*stream) : std::uint8_t{singlePrecision};
    const int rank = readNumber<std::int8_t>(*stream);
    if (rank < 0) throw std::length_error("tensor: negative rank");
    shape.resize(static_cast<std::size_t>(rank));
    for (int& dimension : shape) dimension = readNumber<std::int32_t>(*stream);

    const int count = countElements(shape);
    if (count <= 0) return;
    const int bytesPerElement = storageFormat == halfPrecision ? 2 : storageFormat == singlePrecision ? 4 : 0;
    requireModestSize(count, *stream, std::int64_t{bytesPerElement} * count);
    data = makeTensorData<T>(count);
    if (storageFormat == halfPrecision) readHalves(*stream, data->data, count);
    if (storageFormat == singlePrecision) readOrClear(*stream, data->data, 4 * count);
}

template <class T>
void Tensor<T>::ensureShape(const std::vector<int>& newShape) {
    ensureShapeOf(newShape);
}

template <class T>
void Tensor<T>::ensureShape(std::initializer_list<int> newShape) {
    ensureShapeOf({newShape.begin(), newShape.size()});
}

template <class T>
void Tensor<T>::ensureShapeOf(std::span<const int> newShape) {
    const int count = countElements(newShape);
    if (!data || count > data->size) data = makeTensorData<T>(count);
    if (newShape.data() != shape.data()) shape.assign(newShape.begin(), newShape.end());
}

template <class T>
void Tensor<T>::ensureUnique() {
    if (!data || data.use_count() == 1) return;
    auto own = makeTensorData<T>(data->size);
    vo::copy(data->data, own->data, data->size);
    data = std::move(own);
}

template <class T>
void Tensor<T>::ensureUniqueForOverwrite() {
    if (data && data.use_count() != 1) data = makeTensorData<T>(data->size);
}

template <class T>
void Tensor<T>::setToZero() {
    ensureUnique();
    if (data) vo::setToZero(data->data, getNumOfElements());
}

template <class T>
void Tensor<T>::dropContent() {
    data.reset();
    shape.clear();
}

template struct TensorData<float>;
template class Tensor<float>;

}  // namespace zevrant
