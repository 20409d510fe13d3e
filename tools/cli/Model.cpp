#include "cli/Model.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <new>
#include <set>
#include <sstream>
#include <system_error>

#include "cli/Failure.h"

namespace zevrant::cli {

namespace fs = std::filesystem;

namespace {

constexpr const char* modelExtension = ".zevrant";
constexpr const char* magic = "zevrant.model";

[[noreturn]] void fail(const std::string& text) {
    throw Failure(ExitStatus::BadModel, text);
}

std::string toLower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return text;
}

// Refuses what does not start as a model does, with the reason.
void requireModelFile(const fs::path& path) {
    std::error_code error;
    if (fs::is_directory(path, error)) fail(path.string() + ": is a folder");
    std::ifstream file(path, std::ios::binary);
    if (!file) fail(path.string() + ": " + std::generic_category().message(errno));
    std::string start(4 + std::strlen(magic), '\0');
    file.read(start.data(), static_cast<std::streamsize>(start.size()));
    start.resize(static_cast<std::size_t>(file.gcount()));
    for (const char* earlier : {"KOLVE.model", "TQLe.model"})
        if (start.substr(std::min<std::size_t>(4, start.size())).starts_with(earlier))
            fail(path.string() + ": a model of an earlier format, which is not supported");
    if (start.substr(std::min<std::size_t>(4, start.size())) != magic) fail(path.string() + ": no model");
}

}  // namespace

std::vector<std::string> Model::getBusNames() const {
    return {network.outputBusNames.begin(), network.outputBusNames.end()};
}

std::vector<fs::path> getModelFolders() {
    std::vector<fs::path> folders;
    if (const char* paths = std::getenv("ZEVRANT_MODEL_PATH")) {
        std::istringstream list(paths);
        for (std::string folder; std::getline(list, folder, ':');)
            if (!folder.empty()) folders.emplace_back(folder);
    }
    std::error_code error;
    const fs::path program = fs::read_symlink("/proc/self/exe", error);
    if (!error) folders.push_back(program.parent_path().parent_path() / "share/zevrant/models");
    return folders;
}

std::vector<std::string> listModels() {
    std::set<std::string> names;
    for (const fs::path& folder : getModelFolders()) {
        std::error_code error;
        for (const auto& entry : fs::directory_iterator(folder, error))
            if (entry.path().extension() == modelExtension) names.insert(entry.path().stem().string());
    }
    return {names.begin(), names.end()};
}

fs::path findModel(const std::string& pathOrName) {
    std::error_code error;
    if (pathOrName.find('/') != std::string::npos || fs::exists(pathOrName, error)) return pathOrName;
    for (const fs::path& folder : getModelFolders())
        for (const char* extension : {modelExtension, ""})
            if (fs::path path = folder / (pathOrName + extension); fs::is_regular_file(path, error))
                return path;
    std::string names;
    for (const std::string& name : listModels()) names += (names.empty() ? "" : ", ") + name;
    fail(pathOrName + ": no such file and no model of this name" +
         (names.empty() ? "; no models are installed" : "; there are " + names));
}

Model loadModel(const std::string& pathOrName) {
    Model model{findModel(pathOrName), {}};
    requireModelFile(model.path);
    const std::string name = model.path.string();
    bool isLoaded = false;
    try {
        isLoaded = model.network.loadModel(File(name));
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception&) {
        isLoaded = false;
    }
    if (!isLoaded) fail(name + ": a damaged or truncated model, or one of a version that is not supported");
    if (model.network.outputBusNames.empty()) fail(name + ": a model without busses");
    return model;
}

int findBus(const Model& model, const std::string& nameOrNumber) {
    const std::vector<std::string> names = model.getBusNames();
    const auto exact = std::find(names.begin(), names.end(), nameOrNumber);
    if (exact != names.end()) return static_cast<int>(exact - names.begin());

    const auto isMeant = [&](const std::string& name) { return toLower(name) == toLower(nameOrNumber); };
    if (std::count_if(names.begin(), names.end(), isMeant) == 1)
        return static_cast<int>(std::find_if(names.begin(), names.end(), isMeant) - names.begin());

    std::size_t index = 0;
    const char* end = nameOrNumber.data() + nameOrNumber.size();
    const auto [rest, error] = std::from_chars(nameOrNumber.data(), end, index);
    if (error == std::errc() && rest == end && index < names.size()) return static_cast<int>(index);

    std::string list;
    for (std::size_t i = 0; i < names.size(); ++i)
        list += (i == 0 ? "" : ", ") + std::to_string(i) + " " + names[i];
    throw Failure(ExitStatus::WrongUsage,
                  "no bus '" + nameOrNumber + "'; the busses of this model are " + list);
}

}  // namespace zevrant::cli
