#include "neural/FrequencyRescaleLayer.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "kernels/BandKernels.h"

namespace zevrant {

template <class T>
FrequencyRescaleLayer<T>::FrequencyRescaleLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream,
                                                int version)
    : BaseLayer<T>(layers, stream, LayerTypeEnum::FrequencyRescale) {
    const int numOfEntries = readNumber<std::int16_t>(*stream);
    if (numOfEntries < 0) throw std::length_error("frequency rescale layer: negative entry count");
    std::vector<std::tuple<int, Tensor<T>>> entries;
    for (int i = 0; i < numOfEntries; ++i) {
        const int startBin = readNumber<std::int16_t>(*stream);
        entries.emplace_back(startBin, Tensor<T>(stream, version));
    }
    createWeightsCache(entries);
}

template <class T>
void FrequencyRescaleLayer<T>::createWeightsCache(const std::vector<std::tuple<int, Tensor<T>>>& newWeights) {
    if (&newWeights != &weights) weights = newWeights;
    outputBins = static_cast<std::int32_t>(weights.size());
    tapCounts.resize(weights.size());
    tapPointers.resize(weights.size());
    startBins.resize(weights.size());
    firstBin = std::numeric_limits<std::int64_t>::max();
    binBehind = 0;
    everyEntryHasTaps = true;
    for (std::size_t i = 0; i < weights.size(); ++i) {
        const auto& [start, taps] = weights[i];
        startBins[i] = start;
        tapCounts[i] = taps.shape.empty() ? 0 : taps.shape[0];
        tapPointers[i] = taps.getReadPointer();
        // The first tap is applied whatever the count.
        const std::int64_t numOfBins = std::max(tapCounts[i], 1);
        firstBin = std::min<std::int64_t>(firstBin, start);
        binBehind = std::max(binBehind, start + numOfBins);
        everyEntryHasTaps &= taps.data && taps.data->size >= numOfBins;
    }
}

template <class T>
bool FrequencyRescaleLayer<T>::push(const Tensor<T>& tensor, BaseLayer<T>*) {
    const SliceAxes axes = requireSlices(tensor);
    const std::int64_t F = axes.frequencies, C = axes.channels;
    const bool computes = axes.times > 0 && outputBins > 0 && C > 0;
    if (computes) {
        require(everyEntryHasTaps, "frequency rescale layer: an entry without taps");
        require(firstBin >= 0, "frequency rescale layer: an entry starts before the band");
        requireElements(tensor, (F * (axes.times - 1) + binBehind) * C,
                        "frequency rescale layer: an entry reaches past the end of the buffer");
    }
    output.ensureShape({axes.times, outputBins, axes.channels});
    output.ensureUniqueForOverwrite();
    for (int t = 0; computes && t < axes.times; ++t)
        kernels::rescaleBands(tensor.getReadPointer() + F * C * t, C, outputBins, startBins.data(),
                              tapCounts.data(), tapPointers.data(),
                              output.getWritePointer() + outputBins * C * t);
    return this->forward(output);
}

template class FrequencyRescaleLayer<float>;

}  // namespace zevrant
