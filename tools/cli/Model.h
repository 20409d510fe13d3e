#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "neural/NeuralModel.h"

namespace zevrant::cli {

// A model as a command line names it: by path, or by the name of a file NAME.zevrant in one of the model
// folders.
struct Model {
    std::filesystem::path path;
    NeuralModel<float> network;

    std::vector<std::string> getBusNames() const;  // the residual last
};

// The folders in which models are looked for by name, in order: those of ZEVRANT_MODEL_PATH (separated by
// colons), then ../share/zevrant/models beside the running program.
std::vector<std::filesystem::path> getModelFolders();

// Names of the models in these folders, sorted, each once.
std::vector<std::string> listModels();

// The file of a model. Throws Failure with BadModel for a name that no model has; a path is not looked at.
std::filesystem::path findModel(const std::string& pathOrName);

// Loads the model. Throws Failure with BadModel, which tells a file that is missing from one that is no model
// and from one that is damaged.
Model loadModel(const std::string& pathOrName);

// The bus that a command line means: by name, in any case where that is clear, or by number from 0. Throws
// Failure with WrongUsage that lists the busses.
int findBus(const Model& model, const std::string& nameOrNumber);

}  // namespace zevrant::cli
