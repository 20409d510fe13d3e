#include "neural/Slices.h"

#include <limits>
#include <stdexcept>

namespace zevrant {

void require(bool isPossible, const char* text) {
    if (!isPossible) throw std::invalid_argument(text);
}

template <class T>
SliceAxes getSliceAxes(const Tensor<T>& tensor) {
    if (tensor.shape.empty()) return {0, 0, 0};
    return {tensor.shape[0], tensor.shape.at(1), tensor.shape.at(2)};
}

template <class T>
SliceAxes requireSlices(const Tensor<T>& tensor) {
    const SliceAxes axes = getSliceAxes(tensor);
    if (axes.times <= 0) return axes;
    require(axes.frequencies >= 0 && axes.channels >= 0, "layer: a slice has a negative dimension");
    const std::int64_t sliceLength = std::int64_t{axes.frequencies} * axes.channels;
    requireElements(tensor, sliceLength, "layer: the input's buffer is shorter than a slice");
    // A slice that fits into a buffer has less than 2^31 elements, so this product cannot overflow.
    requireElements(tensor, sliceLength * axes.times, "layer: the input's buffer is shorter than its shape");
    return axes;
}

template <class T>
void requireRing(const Tensor<T>& ring, int length, const SliceAxes& slices) {
    require(length > 0, "layer: a history without room for a slice");
    if (!ring.hasElements()) return;
    const bool matches = ring.shape.size() == 3 && ring.shape[0] == length &&
                         ring.shape[1] == slices.frequencies && ring.shape[2] == slices.channels;
    require(matches, "layer: a slice unlike those that the history was made for");
    requireElements(ring, ring.getNumOfElements(), "layer: the history is shorter than its shape");
}

template <class T>
void openRing(Tensor<T>& ring, int length, const SliceAxes& slices) {
    if (!ring.hasElements()) {
        ring.ensureShape({length, slices.frequencies, slices.channels});
        ring.setToZero();
    }
    ring.ensureUnique();
}

template <class T>
void collectSlots(Tensor<T>& ring, std::int64_t time, int spacing, std::vector<const T*>& rows) {
    for (const T*& row : rows) {
        // The oldest slice stands behind the newest, where the next one will go.
        const std::int64_t tap = &row - rows.data();
        row = getSlot(ring, time + 1 + tap * spacing);
    }
}

int countSlice(int numOfSlices, int ringLength) {
    if (numOfSlices < std::numeric_limits<int>::max()) return numOfSlices + 1;
    const std::int64_t next = std::int64_t{numOfSlices} + 1;
    return static_cast<int>(next % ringLength) + ringLength;
}

template SliceAxes getSliceAxes(const Tensor<float>& tensor);
template SliceAxes requireSlices(const Tensor<float>& tensor);
template void requireRing(const Tensor<float>& ring, int length, const SliceAxes& slices);
template void openRing(Tensor<float>& ring, int length, const SliceAxes& slices);
template void collectSlots(Tensor<float>& ring, std::int64_t time, int spacing,
                           std::vector<const float*>& rows);

}  // namespace zevrant
