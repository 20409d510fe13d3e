#pragma once

#include <atomic>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "neural/NeuralModel.h"
#include "separation/Error.h"

namespace zevrant::separation {

// A model that is open: what its file says, and networks to run, one for each engine.
//
// Memory   The file's bytes and one network. Copies share both.
// Errors   Error with NoSuchModel or BadModel, whose text starts with the name; std::bad_alloc.
// Threads  An open model may be used by several threads at once.
class Model {
  public:
    // Opens the file of this path or, for a name without a slash that is no file, NAME.zevrant or NAME in
    // the first model folder that has it.
    static Model open(const std::string& pathOrName);

    // Opens what a file would hold. The bytes are copied; the name is for messages.
    static Model fromMemory(const void* bytes, std::size_t numOfBytes, const std::string& name);

    // A network with a state of its own: the one that was loaded for the first caller, and for all others
    // one that is loaded anew from the bytes.
    NeuralModel<float> makeNetwork() const;

    std::vector<std::string> getBusNames() const;  // the residual last

    std::string name;            // the path, or what fromMemory was given
    std::filesystem::path path;  // empty for a model from memory
    NeuralModel<float> network;  // to look at and not to run: its layers are those of the first engine

  private:
    struct Content {
        std::shared_ptr<const std::string> bytes;
        std::atomic<bool> isNetworkTaken{false};
    };

    Model(std::string nameOfModel, std::filesystem::path pathOfFile, std::string bytes);

    std::shared_ptr<Content> content;
};

// The folders in which models are looked for by name, in order: those of ZEVRANT_MODEL_PATH (separated by
// colons), then share/zevrant/models beside the folder of the library that this is part of, or one further
// up, as Debian lays libraries out, and of the running program.
std::vector<std::filesystem::path> getModelFolders();

// The file that a path or a name means. Error with NoSuchModel for a name that no model has; a path is not
// looked at.
std::filesystem::path findModel(const std::string& pathOrName);

// Names of the models in these folders, sorted, each once.
std::vector<std::string> listModels();

}  // namespace zevrant::separation
