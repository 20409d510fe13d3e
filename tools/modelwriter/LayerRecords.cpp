#include "modelwriter/LayerRecords.h"

#include "modelwriter/ByteWriter.h"

namespace zevrant::modelwriter {

namespace {

// One function per layer: its fields behind the source, in the order of the file.

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

void writeFields(ByteWriter&, const ReLU&) {}
void writeFields(ByteWriter&, const ELU&) {}
void writeFields(ByteWriter&, const Sigmoid&) {}
void writeFields(ByteWriter&, const HardSigmoid&) {}
void writeFields(ByteWriter&, const Softplus&) {}

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

void writeFields(ByteWriter&, const Concat&) {}

void writeFields(ByteWriter& writer, const Arithmetic& layer) {
    writer.writeInt8(layer.operation, "operation");
}

template <class Layer>
Bytes encode(ByteWriter writer, const Layer& layer) {
    std::visit([&](const auto& record) { writeFields(writer, record); }, layer);
    return std::move(writer.bytes);
}

// In the order of the alternatives.
constexpr int singleSourceCodes[] = {2, 3, 4, 5, 6, 20, 17, 12, 7, 16, 23, 14, 15, 19, 22};
constexpr int mergingCodes[] = {9, 18};
static_assert(std::size(singleSourceCodes) == std::variant_size_v<SingleSourceLayer>);
static_assert(std::size(mergingCodes) == std::variant_size_v<MergingLayer>);

}  // namespace

int getTypeCode(const SingleSourceLayer& layer) {
    return singleSourceCodes[layer.index()];
}

int getTypeCode(const MergingLayer& layer) {
    return mergingCodes[layer.index()];
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
