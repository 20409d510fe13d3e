#include "neural/FrequencyRescaleLayer.h"

#include <algorithm>
#include <limits>
#include <string>
#include <utility>

#include "kernels/BandKernels.h"
#include "neural/LayerReport.h"

namespace zevrant {

template <class T>
FrequencyRescaleLayer<T>::FrequencyRescaleLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream,
                                                int version)
    : BaseLayer<T>(layers, stream, LayerTypeEnum::FrequencyRescale) {
    const int numOfEntries = readNumber<std::int16_t>(*stream, "number of bands");
    if (numOfEntries < 0) throw std::length_error("frequency rescale layer: negative entry count");
    std::vector<std::tuple<int, Tensor<T>>> entries;
    for (int i = 0; i < numOfEntries; ++i) {
        const int startBin = readNumber<std::int16_t>(*stream, "first bin");
        entries.emplace_back(startBin, readTensor<T>(stream, version, "taps"));
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

template <class T>
void FrequencyRescaleLayer<T>::describe(LayerReport& report) const {
    const SliceShape in = report.inputs.front();
    report.kind = "frequency rescale";
    report.output.frequencies = outputBins;
    if (outputBins < 1) report.addError("number of bands", "0", "no bands, so nothing comes out");
    for (std::size_t band = 0; band < weights.size(); ++band) {
        const auto& [start, taps] = weights[band];
        const std::string field = "band " + std::to_string(band);
        const std::int64_t end = start + std::int64_t{std::max(tapCounts[band], 1)};
        report.addWeights(field, taps);
        report.expectValues(field, taps, std::max(tapCounts[band], 1), "the band");
        if (start < 0 || end > in.frequencies)
            report.addError(field, "",
                            "reads bins " + std::to_string(start) + " to " + std::to_string(end - 1) +
                                " of " + std::to_string(in.frequencies));
    }
    report.multiplyAddsPerFrame = static_cast<double>(report.numOfParameters) *
                                  static_cast<double>(in.channels) * report.slicesPerFrame;
    report.priceOutputs(in.channels);
}

template class FrequencyRescaleLayer<float>;

}  // namespace zevrant
