#pragma once

#include <initializer_list>
#include <memory>
#include <span>
#include <vector>

#include "DspCore/MemoryBudget.h"

namespace zevrant {

class InputStream;

// The elements of one or more tensors. The size is a capacity: it can be larger than the shape that
// uses it. Elements start 64-byte aligned, come from the recycling pool and are never cleared.
template <class T>
struct TensorData {
    explicit TensorData(int numOfElements);
    ~TensorData();
    TensorData(const TensorData&) = delete;
    TensorData& operator=(const TensorData&) = delete;

    int size;  // elements; not positive: no element may be touched
    MemoryBudget::Share share;
    T* data;
};

// The one value that flows between layers: a row-major shape and a shared buffer of elements.
//
// Shapes   Between layers [T, F, C]: time slices, frequencies, channels, with channels contiguous.
//          Weights have the rank that the model file gives them. The element count of a shape is the
//          product of its dimensions, and 0 for an empty shape or where any dimension is 0.
// Memory   A copy shares the elements. Whoever writes calls ensureUnique() first, unless it alone made
//          the buffer, and so gives those who still hold the old one their values. Element blocks and
//          their records come from the recycling pool.
// Errors   std::length_error where a positive element count means 2 GiB or more, and where the model that
//          runs has used up what it may hold. A negative count is
//          kept as the shape tells it, over a buffer without elements. Elements are not bounds-checked.
// Threads  The reference count is atomic; one tensor and its elements belong to one thread at a time.
template <class T>
class Tensor {
  public:
    Tensor() = default;
    Tensor(const std::vector<int>& initialShape);
    Tensor(std::initializer_list<int> initialShape);

    // Reads one tensor record of a model file:
    //
    //   uint8 storage format (from version 0x1009 on, before that 1), int8 rank, rank x int32 dimensions,
    //   then the elements, if there are any: 0 = half precision, 1 = single precision, others = none.
    //
    // Half precision has no infinities here: the largest exponent is one more binade of ordinary numbers,
    // up to 131008. An unknown format is not an error: its elements stay undefined.
    // What a stream ends without is zero.
    // Errors   std::length_error for a negative rank, for 2 GiB of elements or more, and for more than 2^24
    //          that the stream does not hold.
    Tensor(std::shared_ptr<InputStream> stream, int version);

    // Gives the tensor this shape. A buffer that is large enough stays, with its contents, its size and
    // its other owners; otherwise a new one replaces it, with undefined contents.
    void ensureShape(const std::vector<int>& newShape);
    void ensureShape(std::initializer_list<int> newShape);

    // Makes this tensor the only owner of its elements, all of the buffer's size.
    void ensureUnique();

    // The same for a writer that overwrites every element: contents are undefined where a new buffer was
    // needed, which saves the copy.
    void ensureUniqueForOverwrite();

    // Clears the elements of the shape, and only those, in a buffer of its own.
    void setToZero();

    // Back to an empty tensor that keeps the memory of its shape vector, for reuse in a list node.
    void dropContent();

    // The product of the dimensions. Throws std::length_error when it is positive and too large.
    int getNumOfElements() const { return countElements(shape); }
    bool hasElements() const { return getNumOfElements() != 0; }

    // The first element, null without a buffer. getWritePointer() leaves sharing to ensureUnique().
    const T* getReadPointer() const { return data ? data->data : nullptr; }
    T* getWritePointer() { return data ? data->data : nullptr; }

    static int countElements(std::span<const int> dimensions);

    std::shared_ptr<TensorData<T>> data;
    std::vector<int> shape;

  private:
    void ensureShapeOf(std::span<const int> newShape);
};

extern template struct TensorData<float>;
extern template class Tensor<float>;

}  // namespace zevrant
