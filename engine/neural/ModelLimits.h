#pragma once

#include <cstdint>

// What a model may cost. A file is data from outside, and a few hundred bytes can ask for hours and
// gigabytes; these limits lie far above any network that makes sense, and what exceeds them ends in
// std::length_error before the time or the memory is taken. docs/model-format.md has the table for the
// writers of files.
namespace zevrant::limits {

// A way through the graph runs on the caller's stack, with up to 230 bytes for each layer. So 512 KiB of it
// are enough for any model.
constexpr int layersOnAPath = 2048;

// How often layers are asked for their latency while a model is loaded: each once for every link to it and
// every time scale that its sources come at.
constexpr std::int64_t latencyQuestions = std::int64_t{1} << 20;

// Slices that all layers take in one step, at most.
constexpr double slicesPerStep = 1 << 17;

// Layers that triggers come to in one step, each counted once for every way that leads there.
constexpr double triggersPerStep = 1 << 22;

// Tensors and packed weights of one model, and how much more for what its file holds.
constexpr std::int64_t bytes = std::int64_t{128} << 20;
constexpr std::int64_t bytesPerByteOfFile = 8;

// Elements of one tensor that its file claims and does not hold.
constexpr int elementsNotHeld = 1 << 24;

// The work of one step, in multiply-adds of a wide product, of which one core does this many in a second. A
// step may take ten times the hop of the audio, a hop counting as 5 to 100 milliseconds; tensors have no hop
// and get the most.
constexpr double workPerSecond = 0x1p33;
constexpr double hopsPerStep = 10.0;
constexpr double shortestHop = 0.005, longestHop = 0.1;  // seconds

// A frame at the host's rate, in samples, and the bins of all channels of its spectra.
constexpr int frameSize = 1 << 19;
constexpr std::int64_t binsOfSpectra = std::int64_t{1} << 21;

}  // namespace zevrant::limits
