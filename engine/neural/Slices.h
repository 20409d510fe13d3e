#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "neural/Tensor.h"

namespace zevrant {

// Stops what the numbers of a model file or of a caller make impossible, before memory is touched:
// throws std::invalid_argument with this text. Layers ask once per push, not per element.
void require(bool isPossible, const char* text);

// The same for a tensor whose buffer is shorter than the part of it that is about to be read.
template <class T>
void requireElements(const Tensor<T>& tensor, std::int64_t numOfElements, const char* text) {
    require(numOfElements <= 0 || (tensor.data && numOfElements <= tensor.data->size), text);
}

// The axes of a tensor between layers, 0, 0, 0 for an empty shape. Throws std::out_of_range for a shape
// of one or two dimensions, and further dimensions are not looked at.
struct SliceAxes {
    int times;
    int frequencies;
    int channels;
};
template <class T>
SliceAxes getSliceAxes(const Tensor<T>& tensor);

// One axis of a tensor from a file, 0 where the shape has none of this number.
template <class T>
int getAxis(const Tensor<T>& tensor, std::size_t axis) {
    return axis < tensor.shape.size() ? tensor.shape[axis] : 0;
}

// The axes for a layer that goes on to read every slice: throws std::invalid_argument where there are slices
// and the buffer is shorter than times * frequencies * channels, or one of these is negative.
template <class T>
SliceAxes requireSlices(const Tensor<T>& tensor);

// A ring over time, [length, F, C]: the slice of time t stands in slot t % length, and slots that no slice
// has reached yet are zero.

// A ring before it is used: throws std::invalid_argument for a length below 1, and for a ring with elements
// unless it is [length, F, C] for the F and C of these slices and holds what this takes.
template <class T>
void requireRing(const Tensor<T>& ring, int length, const SliceAxes& slices);

// Gives a ring without elements its shape, all zero, and any ring a buffer of its own.
template <class T>
void openRing(Tensor<T>& ring, int length, const SliceAxes& slices);

// The slot of a time of 0 or more in a ring with elements.
template <class T>
T* getSlot(Tensor<T>& ring, std::int64_t time) {
    const std::ptrdiff_t sliceLength = std::ptrdiff_t{ring.shape[1]} * ring.shape[2];
    return ring.getWritePointer() + static_cast<std::ptrdiff_t>(time % ring.shape[0]) * sliceLength;
}

// The slots that a causal filter meets whose taps lie spacing slices apart, the oldest first: of as many taps
// as rows has places, where the ring holds 1 + spacing * (taps - 1) slices and time is that of the newest.
template <class T>
void collectSlots(Tensor<T>& ring, std::int64_t time, int spacing, std::vector<const T*>& rows);

// Counts one more slice. Streams outlive 32 bits, so a full count goes on from a small one that stands at the
// same place of a ring of this length, and is not below it.
int countSlice(int numOfSlices, int ringLength);

extern template SliceAxes getSliceAxes(const Tensor<float>& tensor);
extern template SliceAxes requireSlices(const Tensor<float>& tensor);
extern template void requireRing(const Tensor<float>& ring, int length, const SliceAxes& slices);
extern template void openRing(Tensor<float>& ring, int length, const SliceAxes& slices);
extern template void collectSlots(Tensor<float>& ring, std::int64_t time, int spacing,
                                  std::vector<const float*>& rows);

}  // namespace zevrant
