#pragma once

#include <cstdint>
#include <memory>

#include "neural/BaseLayer.h"
#include "neural/Tensor.h"

namespace zevrant {

// The layers that scale the signal by its own level. Levels are root mean squares.
//
// Shapes   in [T, F, C], out the same. An empty shape counts as T = 0 and is forwarded.
// Silence  A silent row or slice meets a scale of 1e12 and stays 0; no limit is applied.
// Latency  None: the level is estimated from the past alone.
// Threads  Only the one that runs the model; no locks.

// Per time and frequency point, across channels:
//
//   normMode 0   out[c] = in[c] * gain[c] + offset[c]
//   normMode 1   out[c] = in[c] * (1 / (rms(in) + 1e-12)) * gain[c] + offset[c], or without an empty offset
//
// each operation rounded. Any other normMode forwards output as it stands, given the shape of the input.
//
// Errors   A gain, or an offset that is added, of fewer than C values throws std::invalid_argument in that
//          push.
template <class T>
class NormLayer : public BaseLayer<T> {
  public:
    // Record behind the source name: from version 0x100a normMode as int8, gain, offset; before that offset,
    // then gain, and normMode is 0.
    NormLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int version);

    bool push(const Tensor<T>& tensor, BaseLayer<T>* sender) override;
    void describe(LayerReport& report) const override;
    void startOver() override { this->dropAndReset(output); }

    std::int32_t normMode = 0;
    Tensor<T> offset;  // [C] or empty
    Tensor<T> gain;    // [C]
    Tensor<T> output;

  private:
    void scaleRows(const T* in, int numOfRows, int channels, bool shifts);
};

// Divides each slice by a weighted sum of the levels of the latest levelCount slices:
//
//   level = levelWeights[0] * newest + levelWeights[1] * oldest + ... + levelWeights[levelCount - 1] * second
//           newest,  out = in * (1 / (level + 1e-12))
//
// The order of the weights is that of the ring, read from its newest entry on. The first slice after a reset
// fills the whole ring with its level, so that the filter starts settled.
//
// Errors   A levelCount of 0 or less, or fewer weights than levelCount, throws std::invalid_argument in that
//          push.
template <class T>
class PreNormLayer : public BaseLayer<T> {
  public:
    // Record behind the source name: levelWeights.
    PreNormLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int version);

    bool push(const Tensor<T>& tensor, BaseLayer<T>* sender) override;
    void describe(LayerReport& report) const override;
    void startOver() override { this->dropAndReset(output); }
    void reset() override;

    Tensor<T> levelWeights;       // [levelCount]
    Tensor<T> levelHistory;       // [levelCount], ring over time
    Tensor<T> output;             // like the input
    std::int32_t sliceCount = 0;  // slices since the last reset
    std::int32_t levelCount = 0;  // axis 0 of levelWeights

  private:
    T followLevels(T newest);
};

// Divides each slice by a level follower with separate speeds for rise and fall:
//
//   m = rms(in) * levelScale,  level = (1 - c) * m + level * c,  out = in * (1 / (level + epsilon))
//   with c = attackCoefficient where m > level, releaseCoefficient otherwise
//
// A c near 1 is slow. level starts from 0, so slices come out louder until the follower has caught up.
template <class T>
class ARPreNormLayer : public BaseLayer<T> {
  public:
    // Record behind the source name: attackCoefficient, releaseCoefficient, epsilon, each float32.
    ARPreNormLayer(const LayerMap& layers, std::shared_ptr<InputStream> stream, int version);

    bool push(const Tensor<T>& tensor, BaseLayer<T>* sender) override;
    void describe(LayerReport& report) const override;
    void startOver() override { this->dropAndReset(output); }
    void reset() override;

    float attackCoefficient = 0.0f;
    float releaseCoefficient = 0.0f;
    float epsilon = 0.0f;
    float levelScale = 1.0f;  // set by whoever loads the model; reset leaves it alone
    Tensor<T> output;         // like the input
    float level = 0.0f;
};

}  // namespace zevrant
