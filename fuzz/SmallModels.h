#pragma once

#include <string>
#include <vector>

#include "modelwriter/ModelWriter.h"

namespace zevrant::fuzz {

struct SmallModel {
    std::string name;
    modelwriter::Bytes bytes;
};

// One small model for each kind of layer and for each packing, and all layers at once in three versions of
// the format. All of them load and run.
std::vector<SmallModel> makeSmallModels();

}  // namespace zevrant::fuzz
