#include "neural/LayerTable.h"

#include "neural/ActivationLayers.h"
#include "neural/ConvLayer.h"
#include "neural/DenseLayers.h"
#include "neural/FrequencyRescaleLayer.h"
#include "neural/MergeLayers.h"
#include "neural/NormLayers.h"
#include "neural/SelfAttentionLayer.h"
#include "neural/TransposedConvLayer.h"

namespace zevrant {

namespace {

using LayerMaker = std::shared_ptr<BaseLayer<float>> (*)(const LayerRecord& record);

template <class Layer>
std::shared_ptr<BaseLayer<float>> make(const LayerRecord& record) {
    return std::make_shared<Layer>(record.layers, record.stream, record.version);
}

// For a layer whose levels were learned on plain half spectra.
template <class Layer>
std::shared_ptr<BaseLayer<float>> makeWithLevelScale(const LayerRecord& record) {
    auto layer = std::make_shared<Layer>(record.layers, record.stream, record.version);
    layer->levelScale = record.levelScale;
    return layer;
}

// One line per layer: the code in the file and the class that reads its record.
const std::map<int, LayerMaker> layerMakers = {
    {LayerTypeEnum::Conv, make<ConvLayer<float>>},
    {LayerTypeEnum::TransposedConv, make<TransposedConvLayer<float>>},
    {LayerTypeEnum::ReLU, make<ReLULayer<float>>},
    {LayerTypeEnum::ELU, make<ELULayer<float>>},
    {LayerTypeEnum::Sigmoid, make<SigmoidLayer<float>>},
    {LayerTypeEnum::Norm, make<NormLayer<float>>},
    {LayerTypeEnum::Concat, make<ConcatLayer<float>>},
    {LayerTypeEnum::LeakyReLU, make<LeakyReLULayer<float>>},
    {LayerTypeEnum::Dense, make<DenseLayer<float>>},
    {LayerTypeEnum::SeparableChannelConv, make<SeparableChannelConvLayer<float>>},
    {LayerTypeEnum::PreNorm, make<PreNormLayer<float>>},
    {LayerTypeEnum::Softplus, make<SoftplusLayer<float>>},
    {LayerTypeEnum::Arithmetic, make<ArithmeticLayer<float>>},
    {LayerTypeEnum::SelfAttention, make<SelfAttentionLayer<float>>},
    {LayerTypeEnum::HardSigmoid, make<HardSigmoidLayer<float>>},
    {LayerTypeEnum::FrequencyRescale, make<FrequencyRescaleLayer<float>>},
    {LayerTypeEnum::ARPreNorm, makeWithLevelScale<ARPreNormLayer<float>>},
};

}  // namespace

std::shared_ptr<BaseLayer<float>> makeLayer(int typeCode, const LayerRecord& record) {
    const auto maker = layerMakers.find(typeCode);
    return maker == layerMakers.end() ? nullptr : maker->second(record);
}

}  // namespace zevrant
