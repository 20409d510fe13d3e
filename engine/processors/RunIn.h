#pragma once

#include <algorithm>
#include <cstdint>

#include "DspCore/RecyclingPool.h"

namespace zevrant {

class ZevrantProcessor;

// How long a stream is run in, so that its pool has all blocks that it will ever take. A graph has come to
// rest when what is delayed has met what is not, and when each layer that slices reach now and then has had
// some. Two rounds do it, one from the start and one from a reset, since what a reset keeps meets what comes
// after it.
//
// No frames for a model that one core cannot run in real time, nor for several models.
struct RunInPlan {
    explicit RunInPlan(ZevrantProcessor& processor);

    static constexpr int numOfRounds = 2;

    int framesOfQuiet = 0;  // in a row, that have to ask for nothing
    int mostFrames = 0;     // of a round

    // A round: calls runFrame() until the pool has been asked for nothing new often enough, and fewestFrames
    // times at least.
    template <class RunFrame>
    void run(const RecyclingPool& pool, int fewestFrames, const RunFrame& runFrame) const {
        int numOfQuiet = 0;
        for (int frame = 0; frame < std::max(mostFrames, fewestFrames); ++frame) {
            if (frame >= fewestFrames && numOfQuiet >= framesOfQuiet) return;
            const std::int64_t before = pool.getNumOfRequests();
            runFrame();
            numOfQuiet = pool.getNumOfRequests() == before ? numOfQuiet + 1 : 0;
        }
    }
};

}  // namespace zevrant
