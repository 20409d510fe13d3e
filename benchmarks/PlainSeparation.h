// The separations of the shipped models, computed plainly: a whole recording at once, in double precision,
// with loops over the neighbours of each bin. Shares nothing with the engine; its tests compare
// the engine with it as well.
#pragma once

#include <complex>
#include <functional>
#include <vector>

namespace zevrant::plain {

using Channels = std::vector<std::vector<double>>;                                // [channel][sample]
using Plane = std::vector<std::vector<double>>;                                   // [frame][bin]
using Spectrogram = std::vector<std::vector<std::vector<std::complex<double>>>>;  // [channel][frame][bin]

// Frame k is centred on sample k * hop; the first one on the first sample, the last one behind the last.
struct Framing {
    int size = 4096;
    int hop = 1024;

    // What a frame is weighted with on its way back, divided by the sum of all windows that meet a sample.
    // False: the Hann window once more, the usual overlap-add. True: a Hann window of two hops in the middle,
    // undoing the first window, as the engine does.
    bool isShort = false;
};

Spectrogram analyse(const Channels& audio, const Framing& framing);
Channels synthesise(const Spectrogram& spectrogram, const Framing& framing, std::size_t length);

// The mask on every bin of every channel, and back to audio.
Channels applyMask(const Channels& audio, const Plane& mask, const Framing& framing);

// The value at each bin is reduce(values of the bins around it along one axis, size of them in all; fewer at
// the edges).
using Reduce = std::function<double(std::vector<double>&)>;
Plane filterAlongTime(const Plane& plane, int size, const Reduce& reduce);
Plane filterAlongFrequency(const Plane& plane, int size, const Reduce& reduce);

double calcMean(std::vector<double>& values);
double calcHarmonicMean(std::vector<double>& values);
double calcMedian(std::vector<double>& values);

// The masks of the models. For all, the first bus is applyMask, and the second what is left of the audio.
Plane calcHarmonicMask(const Spectrogram& stereo);
Plane calcHarmonicMaskByMedians(const Spectrogram& stereo, int sizeInTime, int sizeInFrequency);
Plane calcCenterMask(const Spectrogram& stereo);

// The noise is estimated from every fourth of 45 frames, of which the last one is framesAhead frames ahead:
// none as the model does it, 22 for a centred estimate. Where the recording has fewer of them, it is lowered
// by their share.
Plane calcCleanMask(const Spectrogram& stereo, int framesAhead);

// With the power of the noise in each bin given by someone who heard it alone.
Plane calcCleanMask(const Spectrogram& stereo, const std::vector<double>& noisePower);

// What no separation can know: the share of the first bus in the power of both, as they really are. The ideal
// ratio mask of D. Wang and J. Chen, "Supervised speech separation based on deep learning: an overview",
// IEEE/ACM TASLP 2018, with the exponent 1.
Plane calcIdealMask(const Spectrogram& first, const Spectrogram& second);

// Mean over both channels and, for a noise alone, over its frames.
Plane calcMeanPower(const Spectrogram& stereo);

// 10 log10 of the power of the truth in an estimate over what is not the truth; all channels together.
// Scale-invariant: J. Le Roux et al., "SDR - half-baked or well done?", ICASSP 2019.
double calcSignalToDistortion(const Channels& estimate, const Channels& truth);

}  // namespace zevrant::plain
