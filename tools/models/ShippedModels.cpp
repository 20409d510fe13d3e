#include "models/ShippedModels.h"

namespace zevrant::models {

std::vector<ShippedModel> describeShippedModels() {
    return {{"harmonic-percussive.zevrant", describeHarmonicPercussive()},
            {"center-sides.zevrant", describeCenterSides()},
            {"hiss-reduction.zevrant", describeHissReduction()}};
}

}  // namespace zevrant::models
