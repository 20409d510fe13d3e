#pragma once

#include <string>
#include <utility>
#include <vector>

#include "modelwriter/ModelWriter.h"

namespace zevrant::models {

// A patch of the time-frequency plane, centred on the value that it belongs to. Both sizes are odd.
struct Patch {
    int slices = 1;
    int bins = 1;
};

// Writes signal processing on spectra as layers of a model. Every operation adds what it needs to the
// model, names its result and returns the name, so that a formula reads from top to bottom:
//
//   SpectralFormula formula(model);
//   const auto level = formula.mixChannels("level", "input", {{0.5f}, {0.5f}}, 1e-5f);
//   const auto floor = formula.harmonicMean("floor", level, {.slices = 9});
//   model.setOutput(formula.divide("mask", floor, level));
//
// Signals  Layers of one slice [1, F, C] per frame; all but mixChannels take and give C = 1, so that one
//          number stands for each bin. The k-th slice of every signal belongs to frame k: an operation
//          that looks ahead waits, and whatever it meets later waits for it in the queues of the graph.
// Latency  half the slices of each centred patch, rounded down, added up along the longest way.
// Edges    A patch is cut off at the edges of the band and at the start of the stream, and the means take
//          only what is there.
class SpectralFormula {
  public:
    using Name = std::string;

    explicit SpectralFormula(modelwriter::ModelWriter& target) : model(target) {}

    // out[o] = constant + sum over c of weights[c][o] * in[c], bin by bin.
    Name mixChannels(const Name& name, const Name& source, const std::vector<std::vector<float>>& weights,
                     float constant = 0.0f);

    Name add(const Name& name, const Name& first, const Name& second);
    Name subtract(const Name& name, const Name& from, const Name& amount);
    Name multiply(const Name& name, const Name& first, const Name& second);
    Name divide(const Name& name, const Name& dividend, const Name& divisor);
    Name square(const Name& name, const Name& source);  // of every channel
    Name limitToPositive(const Name& name, const Name& source);

    // Sum over the patch around each bin, and how many bins it holds.
    Name sum(const Name& name, const Name& source, Patch patch);
    Name count(const Name& name, const Name& source, Patch patch);

    // Sum over the frames around each one with these weights, of which the middle one is for the frame
    // itself.
    Name smoothOverTime(const Name& name, const Name& source, const std::vector<float>& weights);

    // n / (x1 + ... + xn)^-1: the power mean of exponent 1, and of -1, which follows the small values.
    Name mean(const Name& name, const Name& source, Patch patch);
    Name harmonicMean(const Name& name, const Name& source, Patch patch);

    // Means that look back only, over every step-th of the last slices; without latency.
    struct Past {
        int taps;
        int step;
    };
    Name sumOfPast(const Name& name, const Name& source, Past past);

    // Constant 1 for every bin of a signal.
    Name ones(const Name& name, const Name& source);

    // out[b] = sum over the band's taps of tap * in[firstBin + k].
    Name toBands(const Name& name, const Name& source,
                 const std::vector<modelwriter::FrequencyRescale::Band>& bands);

  private:
    Name merge(const Name& name, const Name& first, const Name& second, int operation);

    modelwriter::ModelWriter& model;
};

}  // namespace zevrant::models
