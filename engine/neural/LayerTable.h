#pragma once

#include <memory>

#include "neural/BaseLayer.h"

namespace zevrant {

// What a layer's record is read from and with.
struct LayerRecord {
    const LayerMap& layers;               // the layers read so far
    std::shared_ptr<InputStream> stream;  // stands behind the type code
    int version;                          // of the model file
    float levelScale;                     // for layers that measure levels, see NeuralModel
};

// Makes the layer that a type code of the model file stands for; null for a code without a class.
// Exceptions of the layer's constructor pass through.
std::shared_ptr<BaseLayer<float>> makeLayer(int typeCode, const LayerRecord& record);

}  // namespace zevrant
