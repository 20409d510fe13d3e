#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace zevrant::plugins {

// The models that ship, as the build finds them in models/: what a host's list shows before any file is open.
// The table is written by the build from the model files (ShippedModelsTable.cpp), so that a new model is in
// every format with no word about it anywhere else.
struct ShippedBus {
    const char* name;    // "Drums"
    const char* symbol;  // "drums": letters, digits and underscores, unlike all others of this model
};

struct ShippedModel {
    const char* id;           // name of the file without its end: "harmonic-percussive"
    const char* title;        // for people: "Zevrant Harmonic Percussive"
    const char* description;  // one sentence from the file
    std::uint32_t number;  // of this model alone, in 24 bits, from its id: formats that want a number take it
    std::span<const ShippedBus> busses;  // the residual last
};

// Sorted by id. Positions change when models are added; ids and symbols never do.
std::span<const ShippedModel> getShippedModels();

// The model of this id; null where there is none.
const ShippedModel* findShippedModel(std::string_view id);

}  // namespace zevrant::plugins
