#include "interface/zevrant.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "DspCore/VectorOperations.h"
#include "interface/ModelState.h"
#include "interface/ProcessorState.h"

namespace {

// Clears size bytes of text and copies the first length characters of source, or all it has.
void fillText(char* text, int size, std::string_view source, int length) {
    std::memset(text, 0, static_cast<std::size_t>(size));
    std::memcpy(text, source.data(), std::min(source.size(), static_cast<std::size_t>(length)));
}

}  // namespace

ProcessorState* zevrantCreateProcessor(const char* modelPath, int numOfChannels, double sampleRate) {
    return zevrantCreateStemSeparator(1, &modelPath, numOfChannels, sampleRate);
}

ProcessorState* zevrantCreateStemSeparator(int numOfModels, const char** modelPaths, int numOfChannels,
                                           double sampleRate) {
    auto state = std::make_unique<ProcessorState>();
    if (!state->loadModels(numOfModels, modelPaths, numOfChannels, sampleRate)) return nullptr;
    return state.release();
}

void zevrantDeleteProcessor(ProcessorState* handle) {
    delete handle;
}

void zevrantAddAudio(ProcessorState* handle, const float** channels, int numOfSamples) {
    handle->addAudio(channels, numOfSamples);
}

void zevrantAddAudioInterleaved(ProcessorState* handle, const float* samples, int numOfSamples) {
    handle->addAudioInterleaved(samples, numOfSamples);
}

int zevrantGetNumOfPendingSamples(ProcessorState* handle) {
    return static_cast<int>(handle->outputQueue.numOfSamples);
}

bool zevrantGetAudio(ProcessorState* handle, float* const* channels, int numOfSamples) {
    return handle->getAudio(channels, numOfSamples);
}

bool zevrantGetAudioInterleaved(ProcessorState* handle, float* samples, int numOfSamples) {
    return handle->getAudioInterleaved(samples, numOfSamples);
}

void zevrantResetProcessorState(ProcessorState* handle) {
    handle->reset();
}

float zevrantGetParameterValue(ProcessorState* handle, int id) {
    return handle->getParameterValue(id);
}

void zevrantSetParameterValue(ProcessorState* handle, int id, float value) {
    handle->setParameterValue(id, value);
}

void zevrantGetParameterRange(ProcessorState*, int id, float* minimum, float* maximum) {
    ProcessorState::getParameterRange(id, *minimum, *maximum);
}

int zevrantGetNumOfOutputBusses(ProcessorState* handle) {
    return handle->processor.getNumOfOutputBusses(true);
}

void zevrantGetOutputBusName(ProcessorState* handle, int bus, char* name, int size) {
    if (size < 1) return;
    fillText(name, size, handle->processor.getOutputBusName(bus), size - 1);
}

void zevrantGetProcessorInfo(ProcessorState* handle, ProcessorInfo* info) {
    *info = {};
    const auto& models = handle->processor.getNeuralModels();
    if (models.empty()) return;
    const auto& model = models.front();
    info->sampleRate = model.sampleRate;
    info->numOfChannels = model.numOfInputChannels;
    info->latency = handle->processor.getLatency(1);
    info->windowSize = model.windowSize;
    info->hopSize = model.hopSize;
}

// On purpose without room for a terminator, unlike a bus name.
void zevrantGetVectorArithmeticWrapperName(char* name, int size) {
    if (size < 0) throw std::length_error("negative size of a name");
    fillText(name, size, zevrant::vo::getBackendName(), size);
}

ModelState* zevrantCreateModel(const char* modelPath) {
    auto state = std::make_unique<ModelState>();
    if (!state->loadModel(modelPath)) return nullptr;
    return state.release();
}

void zevrantDeleteModel(ModelState* handle) {
    delete handle;
}

void zevrantAddTensor(ModelState* handle, const float* data, int numOfDimensions, const int* shape) {
    handle->addTensor(data, numOfDimensions, shape);
}

bool zevrantGetResultTensorShape(ModelState* handle, int numOfDimensions, int* shape) {
    return handle->getResultShape(numOfDimensions, shape);
}

bool zevrantGetTensor(ModelState* handle, float* data) {
    return handle->getResult(data);
}

void zevrantResetModelState(ModelState* handle) {
    handle->reset();
}

void zevrantGetModelInfo(ModelState* handle, ModelInfo* info) {
    *info = {};
    info->sampleRate = handle->sampleRate;
    info->numOfChannels = handle->numOfInputChannels;
    info->fftSize = handle->fftSize;
    info->windowSize = handle->windowSize;
    info->hopSize = handle->hopSize;
    info->latency = handle->latencyInFrames;
}
