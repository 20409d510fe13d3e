#pragma once

#include <string>
#include <vector>

#include "plugins/PortPlugin.h"

namespace zevrant::plugins {

// A plug-in as LV2 has it, for the binary and for the program that describes it.
//
//   urn:zevrant:<model>        stereo
//   urn:zevrant:<model>:stems  with a stereo output for each bus
//   urn:zevrant:any            the model by its path, with eight levels and sensitivities
struct Lv2Model {
    const ShippedModel* model;  // null: any
    std::string uri, title;
    std::vector<Port> ports;

    // Behind the others, and with any model only: messages to the plug-in, and from it.
    std::size_t getControlPort() const { return ports.size(); }
    std::size_t getNotifyPort() const { return ports.size() + 1; }
};

inline constexpr const char* modelPropertyUri = "urn:zevrant:model";          // its path, to read and write
inline constexpr const char* referencePropertyUri = "urn:zevrant:reference";  // name and checksum, of states
inline constexpr int sizeOfMessages = 8192;                                   // bytes

std::vector<Lv2Model> makeLv2Models();

}  // namespace zevrant::plugins
