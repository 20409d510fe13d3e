#include "modelwriter/LayerRecords.h"

#include <type_traits>
#include <variant>

#include "modelwriter/ByteWriter.h"

namespace zevrant::modelwriter {

namespace {

// One function per layer that has fields: those behind the source, in the order of the file.

template <class Layer>
requires std::is_empty_v<Layer>
void writeFields(ByteWriter&, const Layer&) {}

void writeFields(ByteWriter& writer, const Conv& layer) {
    writer.writeTensor(layer.weights, "weights");
    writer.writeTensor(layer.bias, "bias");
    writer.writeInt8(layer.timeStride, "timeStride");
    writer.writeInt8(layer.frequencyStride, "frequencyStride");
    writer.writeInt8(layer.timeDilation, "timeDilation");
    writer.writeInt8(layer.reservedParameter, "reservedParameter");
    writer.writeInt8(layer.timeOffset, "timeOffset");
}

void writeFields(ByteWriter& writer, const TransposedConv& layer) {
    const auto& shape = layer.weights.shape;
    const int kernelOutputs = shape.size() > 2 ? shape[2] : 0;
    const int outputChannels = layer.outputChannels.value_or(kernelOutputs);
    writer.writeTensor(layer.weights, "weights");
    writer.writeTensor(layer.bias, "bias");
    if (writer.version >= 0x1008)
        writer.writeInt16(outputChannels, "outputChannels");
    else
        requireArgument(outputChannels == kernelOutputs,
                        "outputChannels other than axis 2 of the weights "
                        "need version 0x1008");
    writer.writeInt8(layer.timeStride, "timeStride");
    writer.writeInt8(layer.frequencyStride, "frequencyStride");
    writer.writeInt8(layer.timeDilation, "timeDilation");
    writer.writeInt8(layer.reservedParameter, "reservedParameter");
    writer.writeInt8(layer.timeOffset, "timeOffset");
}

void writeFields(ByteWriter& writer, const LeakyReLU& layer) {
    writer.writeFloat32(layer.alpha);
}

void writeFields(ByteWriter& writer, const Norm& layer) {
    if (writer.version >= 0x100a) {
        writer.writeInt8(layer.normMode, "normMode");
        writer.writeTensor(layer.gain, "gain");
        writer.writeTensor(layer.offset, "offset");
        return;
    }
    requireArgument(layer.normMode == 0, "a normMode other than 0 needs version 0x100a");
    writer.writeTensor(layer.offset, "offset");
    writer.writeTensor(layer.gain, "gain");
}

void writeFields(ByteWriter& writer, const PreNorm& layer) {
    writer.writeTensor(layer.levelWeights, "levelWeights");
}

void writeFields(ByteWriter& writer, const ARPreNorm& layer) {
    writer.writeFloat32(layer.attackCoefficient);
    writer.writeFloat32(layer.releaseCoefficient);
    writer.writeFloat32(layer.epsilon);
}

void writeFields(ByteWriter& writer, const Dense& layer) {
    writer.writeTensor(layer.weights, "weights");
    writer.writeTensor(layer.bias, "bias");
}

void writeFields(ByteWriter& writer, const SeparableChannelConv& layer) {
    writer.writeTensor(layer.timeKernel, "timeKernel");
    writer.writeTensor(layer.frequencyKernel, "frequencyKernel");
}

void writeFields(ByteWriter& writer, const SelfAttention& layer) {
    writer.writeTensor(layer.channelMatrix, "channelMatrix");
    writer.writeTensor(layer.positionBias, "positionBias");
    if (writer.version >= 0x1007) {
        writer.writeInt8(layer.startDelay, "startDelay");
        writer.writeTensor(layer.timeWeights, "timeWeights");
        return;
    }
    requireArgument(layer.startDelay == 0 && layer.timeWeights.values.empty(),
                    "startDelay and timeWeights need version 0x1007");
}

void writeFields(ByteWriter& writer, const FrequencyRescale& layer) {
    writer.writeInt16(static_cast<int>(layer.bands.size()), "the number of bands");
    for (const FrequencyRescale::Band& band : layer.bands) {
        writer.writeInt16(band.firstBin, "firstBin");
        writer.writeTensor(band.taps, "taps");
    }
}

void writeFields(ByteWriter& writer, const Arithmetic& layer) {
    writer.writeInt8(layer.operation, "operation");
}

template <class Layer>
Bytes encode(ByteWriter writer, const Layer& layer) {
    std::visit([&](const auto& record) { writeFields(writer, record); }, layer);
    return std::move(writer.bytes);
}

}  // namespace

int getTypeCode(const SingleSourceLayer& layer) {
    return std::visit([](const auto& record) { return record.typeCode; }, layer);
}

int getTypeCode(const MergingLayer& layer) {
    return std::visit([](const auto& record) { return record.typeCode; }, layer);
}

Bytes encodeLayer(const std::string& source, const SingleSourceLayer& layer, int version,
                  TensorStorage storage) {
    ByteWriter writer(version, storage);
    writer.writeString(source);
    return encode(std::move(writer), layer);
}

Bytes encodeLayer(const std::vector<std::string>& sources, const MergingLayer& layer, int version) {
    ByteWriter writer(version);
    writer.writeInt16(static_cast<int>(sources.size()), "the number of sources");
    for (const std::string& source : sources) writer.writeString(source);
    return encode(std::move(writer), layer);
}

Bytes encodeTensor(const WeightTensor& tensor, int version, TensorStorage storage) {
    ByteWriter writer(version, storage);
    writer.writeTensor(tensor, "the tensor");
    return std::move(writer.bytes);
}

}  // namespace zevrant::modelwriter
