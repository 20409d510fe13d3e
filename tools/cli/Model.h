#pragma once

#include <string>

#include "separation/Model.h"

namespace zevrant::cli {

using separation::Model;

// The bus that a command line means: by name, in any case where that is clear, or by number from 0. Throws
// Failure with WrongUsage that lists the busses.
int findBus(const Model& model, const std::string& nameOrNumber);

// A bus and a number from "BUS=NUMBER". Throws Failure with WrongUsage where that is not it.
struct BusSetting {
    BusSetting(const Model& model, const std::string& text, const char* option, double least, double most);

    int bus;
    double value;
};

}  // namespace zevrant::cli
