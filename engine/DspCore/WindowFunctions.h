#pragma once

#include "DspCore/Signals.h"

namespace zevrant {

// Windows of size samples, computed in double, rounded to float and repeated in every channel. None
// is normalised. A size below 1 gives a signal without samples.
//
// With t = (i + 0.5) / size and x = 2 pi t, so that the windows are symmetric and never exactly 0 at
// their ends:
//   Hamming           0.54 - 0.46 cos x
//   Hann              0.5 - 0.5 cos x
//   square-root Hann  the square root of Hann
//   Vorbis            sin((pi / 2) sin^2(pi t))
//   Blackman          0.3635819 - 0.4891775 cos x + 0.1365995 cos 2x - 0.0106411 cos 3x, which is the
//                     four-term window of Nuttall, "Some windows with very good sidelobe behavior",
//                     IEEE Trans. ASSP 29 (1981)
//   flat top          0.21557895 - 0.41663158 cos x + 0.277263158 cos 2x - 0.083578947 cos 3x
//                     + 0.006947368 cos 4x
//
// Errors   What Signal says of its sizes.   Threads: free of state.
class WindowFunctions {
  public:
    static Signal32 generateHammingWindow(int numOfChannels, int size);
    static Signal32 generateHannWindow(int numOfChannels, int size);
    static Signal32 generateSqrtHannWindow(int numOfChannels, int size);
    static Signal32 generateVorbisWindow(int numOfChannels, int size);
    static Signal32 generateBlackmanWindow(int numOfChannels, int size);
    static Signal32 generateFlatTopWindow(int numOfChannels, int size);

    // C. L. Dolph, "A current distribution for broadside arrays", Proc. IRE 34 (1946). ripple is the
    // linear ratio of main lobe to side lobes, 1 or more; below 1 the window is NaN. Not divided by
    // its peak. Sizes of 1 and 2 hold ripple itself.
    static Signal32 generateDolphChebyshevWindow(int numOfChannels, int size, float ripple);

    // exp(-u^2 / 2) with u = (i - c) / (sigma * c) and c = size / 2, without the half-sample offset on
    // purpose: the peak of 1 stands at i = c, so the window is not symmetric. sigma is relative to half
    // the window.
    static Signal32 generateGaussianWindow(int numOfChannels, int size, float sigma);
};

}  // namespace zevrant
