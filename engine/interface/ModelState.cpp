#include "interface/ModelState.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <stdexcept>

#include "DspCore/VectorOperations.h"
#include "files/File.h"
#include "neural/ModelLimits.h"
#include "neural/ModelReport.h"
#include "simd/FloatingPointState.h"

using namespace zevrant;

void* ModelState::operator new(std::size_t numOfBytes) {
    static_assert(alignof(ModelState) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);
    return std::memset(::operator new(numOfBytes), 0, numOfBytes);
}

void ModelState::operator delete(void* memory) {
    ::operator delete(memory);
}

bool ModelState::loadModel(const char* path) {
    RecyclingPool poolOfLoad;  // so that nothing stays of what is needed on the way
    const ScopedRecyclingPool passing(poolOfLoad);
    return loadModel(File(path));
}

void ModelState::reset() {
    const ScopedRecyclingPool ownBlocks(pool);
    NeuralModel<float>::reset();
}

void ModelState::addTensor(const float* elements, int numOfDimensions, const int* shape) {
    if (numOfDimensions < 0) throw std::length_error("negative number of dimensions");
    inputShape.assign(shape, shape + numOfDimensions);
    if (std::any_of(inputShape.begin(), inputShape.end(), [](int dimension) { return dimension < 0; }))
        throw std::length_error("negative dimension of a tensor");

    if (numOfDimensions >= 3) requireModestSlices({inputShape[1], inputShape[2]});
    const ScopedRecyclingPool ownBlocks(pool);
    const ScopedFlushDenormals flushDenormals;
    input.ensureShape(inputShape);
    input.ensureUniqueForOverwrite();
    vo::copy(elements, input.getWritePointer(), input.getNumOfElements());
    inputLayer->push(input, nullptr);
    outputLayer->takeResults(result);
    resultShape = result.shape;
}

// Shapes mostly stay what they are, and then there is nothing to work out.
void ModelState::requireModestSlices(const SliceShape& slice) {
    if (slice == judged) return;
    requireModestWork(describeModel(*this, slice), limits::longestHop);
    judged = slice;
}

bool ModelState::getResultShape(int numOfDimensions, int* shape) const {
    if (numOfDimensions != static_cast<int>(resultShape.size())) return false;
    vo::copy(resultShape.data(), shape, numOfDimensions);
    return true;
}

bool ModelState::getResult(float* elements) const {
    const int count = Tensor<float>::countElements(resultShape);
    if (count <= 0) return false;
    requireElements(result, count, "a result's buffer is shorter than its shape");
    vo::copy(result.getReadPointer(), elements, count);
    return true;
}
