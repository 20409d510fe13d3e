#include "plugins/ShippedModels.h"

namespace zevrant::plugins {

const ShippedModel* findShippedModel(std::string_view id) {
    for (const ShippedModel& model : getShippedModels())
        if (model.id == id) return &model;
    return nullptr;
}

}  // namespace zevrant::plugins
