#pragma once

#include <string>
#include <vector>

#include "modelwriter/ModelWriter.h"

// The models that ship with the engine. Each is a known piece of signal processing, written out of the
// engine's own layers; docs/models.md says how well they work.
namespace zevrant::models {

// Tonal sound against percussive sound.
modelwriter::ModelWriter describeHarmonicPercussive();

// What stands in the middle of a stereo mix against what stands at its sides.
modelwriter::ModelWriter describeCenterSides();

// Sound against steady broadband noise.
modelwriter::ModelWriter describeHissReduction();

struct ShippedModel {
    std::string fileName;
    modelwriter::ModelWriter description;
};
std::vector<ShippedModel> describeShippedModels();

}  // namespace zevrant::models
