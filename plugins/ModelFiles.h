#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace zevrant::plugins {

// 64 bits of FNV-1a (Fowler, Noll, Vo), continued from start.
std::uint64_t hash(std::string_view bytes, std::uint64_t start = 0xcbf29ce484222325u);

// A model as a project stores it: never a position in a list, and no path of this machine.
//
//   text    name:checksum, for instance harmonic-percussive:8d3f0a41b2c6e597
struct ModelReference {
    std::string name;      // of the file, without folder and end
    std::string checksum;  // 64 bits of FNV-1a over the file, in 16 hexadecimal digits; may be empty

    std::string getText() const { return checksum.empty() ? name : name + ":" + checksum; }
    static ModelReference fromText(const std::string& text);
};

struct ModelFile {
    std::string name;  // without folder and end
    std::filesystem::path path;
};

// The folders in which plug-ins look for models, in order: those of ZEVRANT_MODEL_PATH, the user's
// (XDG_DATA_HOME, or ~/.local/share, then zevrant/models), share/zevrant/models beside each folder above this
// plug-in, and zevrant/models in those of XDG_DATA_DIRS, or /usr/local/share and /usr/share.
std::vector<std::filesystem::path> getPluginModelFolders();

// The files there, sorted by name; of two with one name the first folder's.
std::vector<ModelFile> listModelFiles();

// The file of a path or name. Empty where there is none.
std::filesystem::path findModelFile(const std::string& pathOrName);

// The file that a project means: that of this name and checksum, then one of this checksum under another
// name, then another version under this name. Empty where there is none.
std::filesystem::path findModelFile(const ModelReference& reference);

// What a project is to store about this file. The checksum is empty for a file that cannot be read.
ModelReference makeReference(const std::filesystem::path& path);

// All of these are for threads that may read files.

}  // namespace zevrant::plugins
