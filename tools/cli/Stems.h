#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "audiofiles/OutputFile.h"
#include "cli/SeparationOptions.h"

namespace zevrant::cli {

// How far the sum of stems lies below the input: the energy of the difference over that of the input.
class NullMeter {
  public:
    void add(double input, double sum) {
        inputEnergy += input * input;
        differenceEnergy += (input - sum) * (input - sum);
    }
    bool isSilent() const { return inputEnergy == 0.0 && differenceEnergy == 0.0; }
    double getDepth() const;  // in decibels; not a number where the stems are none

  private:
    double inputEnergy = 0.0;
    double differenceEnergy = 0.0;
};

// The stems of one file, which are written.
struct Stems {
    std::vector<std::string> paths;  // in the order of the busses
    int integerBits = 0;             // that the files hold; 0 for floats
    bool isCoded = false;
    NullMeter exactNull;    // of what the engine gave
    NullMeter writtenNull;  // of what the files hold
    std::vector<std::string> notes;

    std::string describeNullDepth() const;  // one line for people

    // Whether they give the input back, but for rounding to integers.
    bool addUp() const;
};

// Separates one file into a folder, which is made where it is missing, with an engine of its own.
//
// extension  of the stems, without a point; empty for that of the input
// inputs     no stem may replace one of them
// show       gets the number of samples done and, with it, what there is to know about the input
Stems writeStems(const SeparationOptions& options, const Model& model, const std::string& input,
                 const std::filesystem::path& folder, const std::string& extension,
                 const audiofiles::ProtectedFiles& inputs,
                 const std::function<void(std::int64_t, const AudioDescription&)>& show);

}  // namespace zevrant::cli
