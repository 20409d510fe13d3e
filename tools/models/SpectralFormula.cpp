#include "models/SpectralFormula.h"

namespace zevrant::models {

using namespace modelwriter;

namespace {

// Every output channel times every input channel, each over a patch of ones.
Conv makeSum(int slices, int bins, int step, int wait) {
    const auto numOfTaps = static_cast<std::size_t>(slices * bins);
    return {.weights = {{slices, bins, 1, 1}, std::vector<float>(numOfTaps, 1.0f)},
            .timeDilation = step,
            .timeOffset = wait};
}

}  // namespace

SpectralFormula::Name SpectralFormula::mixChannels(const Name& name, const Name& source,
                                                   const std::vector<std::vector<float>>& weights,
                                                   float constant) {
    const std::size_t numOfOutputs = weights.empty() ? 0 : weights[0].size();
    Conv conv{.weights = {{1, 1, static_cast<int>(weights.size()), static_cast<int>(numOfOutputs)}, {}}};
    for (const auto& row : weights)
        conv.weights.values.insert(conv.weights.values.end(), row.begin(), row.end());
    if (constant != 0.0f)
        conv.bias = {{static_cast<int>(numOfOutputs)}, std::vector<float>(numOfOutputs, constant)};
    model.addLayer(name, source, conv);
    return name;
}

SpectralFormula::Name SpectralFormula::merge(const Name& name, const Name& first, const Name& second,
                                             int operation) {
    model.addLayer(name, {first, second}, Arithmetic{operation});
    return name;
}

SpectralFormula::Name SpectralFormula::add(const Name& name, const Name& first, const Name& second) {
    return merge(name, first, second, Arithmetic::Add);
}

// What comes first is what is taken away, and the divisor: the layer works from the first source to the last.
SpectralFormula::Name SpectralFormula::subtract(const Name& name, const Name& from, const Name& amount) {
    return merge(name, amount, from, Arithmetic::Subtract);
}

SpectralFormula::Name SpectralFormula::divide(const Name& name, const Name& dividend, const Name& divisor) {
    return merge(name, divisor, dividend, Arithmetic::Divide);
}

SpectralFormula::Name SpectralFormula::multiply(const Name& name, const Name& first, const Name& second) {
    return merge(name, first, second, Arithmetic::Multiply);
}

// A merge tells its inputs apart by the layers that they come from, so a signal meets itself through a
// layer that passes it on as it is.
SpectralFormula::Name SpectralFormula::square(const Name& name, const Name& source) {
    model.addLayer(name + ": same", source, LeakyReLU{.alpha = 1.0f});
    return multiply(name, source, name + ": same");
}

SpectralFormula::Name SpectralFormula::limitToPositive(const Name& name, const Name& source) {
    model.addLayer(name, source, ReLU{});
    return name;
}

SpectralFormula::Name SpectralFormula::sum(const Name& name, const Name& source, Patch patch) {
    model.addLayer(name, source, makeSum(patch.slices, patch.bins, 1, patch.slices / 2));
    return name;
}

SpectralFormula::Name SpectralFormula::smoothOverTime(const Name& name, const Name& source,
                                                      const std::vector<float>& weights) {
    const int slices = static_cast<int>(weights.size());
    model.addLayer(name, source, Conv{.weights = {{slices, 1, 1, 1}, weights}, .timeOffset = slices / 2});
    return name;
}

SpectralFormula::Name SpectralFormula::sumOfPast(const Name& name, const Name& source, Past past) {
    model.addLayer(name, source, makeSum(past.taps, 1, past.step, 0));
    return name;
}

SpectralFormula::Name SpectralFormula::ones(const Name& name, const Name& source) {
    return mixChannels(name, source, {{0.0f}}, 1.0f);
}

SpectralFormula::Name SpectralFormula::count(const Name& name, const Name& source, Patch patch) {
    return sum(name, ones(name + ": ones", source), patch);
}

SpectralFormula::Name SpectralFormula::mean(const Name& name, const Name& source, Patch patch) {
    const Name number = count(name + ": count", source, patch);
    return divide(name, sum(name + ": sum", source, patch), number);
}

SpectralFormula::Name SpectralFormula::harmonicMean(const Name& name, const Name& source, Patch patch) {
    const Name one = ones(name + ": ones", source);
    const Name inverse = divide(name + ": inverse", one, source);
    const Name sumOfInverses = sum(name + ": sum", inverse, patch);
    return divide(name, sum(name + ": count", one, patch), sumOfInverses);
}

SpectralFormula::Name SpectralFormula::toBands(const Name& name, const Name& source,
                                               const std::vector<FrequencyRescale::Band>& bands) {
    model.addLayer(name, source, FrequencyRescale{bands});
    return name;
}

}  // namespace zevrant::models
