#include "plugins/ModelFiles.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <system_error>
#include <utility>

#if __has_include(<dlfcn.h>)
#include <dlfcn.h>
#endif

#include "separation/Model.h"

namespace zevrant::plugins {

namespace fs = std::filesystem;

namespace {

constexpr const char* modelExtension = ".zevrant";
constexpr const char* placeInShare = "zevrant/models";

// The file that this code was loaded from: a plug-in or a program.
fs::path findOwnFile() {
#if __has_include(<dlfcn.h>)
    Dl_info info = {};
    std::error_code error;
    if (dladdr(reinterpret_cast<const void*>(&getPluginModelFolders), &info) != 0 && info.dli_fname)
        return fs::canonical(info.dli_fname, error);
#endif
    return {};
}

std::string getVariable(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

void addFolders(const std::string& list, const char* place, std::vector<fs::path>& folders) {
    std::istringstream parts(list);
    for (std::string folder; std::getline(parts, folder, ':');)
        if (!folder.empty()) folders.push_back(fs::path(folder) / place);
}

std::string getChecksum(const fs::path& path) {
    std::error_code error;
    if (!fs::is_regular_file(path, error)) return {};
    std::ifstream file(path, std::ios::binary);
    if (!file) return {};
    std::uint64_t value = hash({});
    std::array<char, 65536> part;
    while (file.read(part.data(), std::ssize(part)) || file.gcount() > 0)
        value = hash({part.data(), static_cast<std::size_t>(file.gcount())}, value);
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(value));
    return text;
}

}  // namespace

std::uint64_t hash(std::string_view bytes, std::uint64_t start) {
    for (const char c : bytes) start = (start ^ static_cast<unsigned char>(c)) * 0x100000001b3u;
    return start;
}

ModelReference ModelReference::fromText(const std::string& text) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos) return {text, {}};
    return {text.substr(0, colon), text.substr(colon + 1)};
}

std::vector<fs::path> getPluginModelFolders() {
    std::vector<fs::path> folders;
    addFolders(getVariable("ZEVRANT_MODEL_PATH"), "", folders);
    const std::string userData = getVariable("XDG_DATA_HOME"), home = getVariable("HOME");
    if (!userData.empty())
        folders.push_back(fs::path(userData) / placeInShare);
    else if (!home.empty())
        folders.push_back(fs::path(home) / ".local/share" / placeInShare);
    for (fs::path folder = findOwnFile(); folder.has_relative_path();) {
        folder = folder.parent_path();
        folders.push_back(folder / "share" / placeInShare);
    }
    const std::string systemData = getVariable("XDG_DATA_DIRS");
    addFolders(systemData.empty() ? "/usr/local/share:/usr/share" : systemData, placeInShare, folders);
    return folders;
}

std::vector<ModelFile> listModelFiles() {
    std::map<std::string, fs::path> files;
    for (const fs::path& folder : getPluginModelFolders()) {
        std::error_code error;
        for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error))
            if (entry->path().extension() == modelExtension)
                files.try_emplace(entry->path().stem().string(), entry->path());
    }
    std::vector<ModelFile> list;
    list.reserve(files.size());
    for (const auto& [name, path] : files) list.push_back({name, path});
    return list;
}

fs::path findModelFile(const std::string& pathOrName) {
    if (pathOrName.find('/') != std::string::npos) {
        std::error_code error;
        return fs::exists(pathOrName, error) ? fs::path(pathOrName) : fs::path();
    }
    for (const ModelFile& file : listModelFiles())
        if (file.name == pathOrName) return file.path;
    return {};
}

fs::path findModelFile(const ModelReference& reference) {
    const std::vector<ModelFile> files = listModelFiles();
    const auto ofName = std::find_if(files.begin(), files.end(),
                                     [&](const ModelFile& file) { return file.name == reference.name; });
    fs::path path = ofName != files.end() ? ofName->path : fs::path();
    if (reference.checksum.empty() || (!path.empty() && getChecksum(path) == reference.checksum)) return path;
    for (const ModelFile& file : files)
        if (getChecksum(file.path) == reference.checksum) return file.path;
    return path;
}

ModelReference makeReference(const fs::path& path) {
    return {path.stem().string(), getChecksum(path)};
}

}  // namespace zevrant::plugins
