#include "separation/Model.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <string_view>
#include <system_error>
#include <utility>

#if __has_include(<dlfcn.h>)
#include <dlfcn.h>
#endif

#include "neural/ModelLoader.h"
#include "separation/MemoryStream.h"

namespace zevrant::separation {

namespace fs = std::filesystem;

namespace {

constexpr const char* modelExtension = ".zevrant";
constexpr std::string_view magic = "zevrant.model";
constexpr std::string_view earlierMagics[] = {"KOLVE.model", "TQLe.model"};
constexpr std::size_t placeOfMagic = 4;  // behind its length

[[noreturn]] void refuse(const std::string& text) {
    throw Error(ErrorKind::BadModel, text);
}

// Refuses what does not start as a model does, with the reason.
void requireModel(std::string_view start, const std::string& name) {
    start.remove_prefix(std::min(placeOfMagic, start.size()));
    for (const std::string_view earlier : earlierMagics)
        if (start.starts_with(earlier))
            refuse(name + ": a model of an earlier format, which is not supported");
    if (!start.starts_with(magic)) refuse(name + ": no model");
}

// The start comes first, so that a large file of another kind is not read as a whole.
std::string readModelFile(const fs::path& path) {
    std::error_code error;
    if (fs::is_directory(path, error)) refuse(path.string() + ": is a folder");
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw Error(ErrorKind::NoSuchModel, path.string() + ": " + std::generic_category().message(errno));
    std::string bytes(placeOfMagic + magic.size(), '\0');
    file.read(bytes.data(), std::ssize(bytes));
    bytes.resize(static_cast<std::size_t>(file.gcount()));
    requireModel(bytes, path.string());

    const std::uintmax_t size = fs::file_size(path, error);
    if (!error) bytes.reserve(size);
    for (char part[65536]; file.read(part, sizeof part) || file.gcount() > 0;)
        bytes.append(part, static_cast<std::size_t>(file.gcount()));
    return bytes;
}

// Loads the network that these bytes hold, or says why they hold none.
NeuralModel<float> loadNetwork(const std::shared_ptr<const std::string>& bytes, const std::string& name) {
    NeuralModel<float> network;
    LoadReport report;
    const std::shared_ptr<InputStream> stream = std::make_shared<MemoryStream>(bytes);
    if (!tryLoadModel(stream, network, report))
        refuse(name + ": a damaged or unsupported model: " + report.refusal.value_or(Finding()).getText());
    if (network.outputBusNames.empty()) refuse(name + ": a model without busses");
    return network;
}

}  // namespace

fs::path findModel(const std::string& pathOrName) {
    std::error_code error;
    if (pathOrName.find('/') != std::string::npos || fs::exists(pathOrName, error)) return pathOrName;
    for (const fs::path& folder : getModelFolders())
        for (const char* extension : {modelExtension, ""})
            if (fs::path path = folder / (pathOrName + extension); fs::is_regular_file(path, error))
                return path;
    std::string names;
    for (const std::string& name : listModels()) names += (names.empty() ? "" : ", ") + name;
    throw Error(ErrorKind::NoSuchModel,
                pathOrName + ": no such file and no model of this name" +
                    (names.empty() ? "; no models are installed" : "; there are " + names));
}

Model::Model(std::string nameOfModel, fs::path pathOfFile, std::string bytes)
    : name(std::move(nameOfModel)), path(std::move(pathOfFile)), content(std::make_shared<Content>()) {
    requireModel(bytes, name);
    content->bytes = std::make_shared<const std::string>(std::move(bytes));
    network = loadNetwork(content->bytes, name);
}

Model Model::open(const std::string& pathOrName) {
    const fs::path path = findModel(pathOrName);
    return {path.string(), path, readModelFile(path)};
}

Model Model::fromMemory(const void* bytes, std::size_t numOfBytes, const std::string& name) {
    return {name, {}, std::string(static_cast<const char*>(bytes), numOfBytes)};
}

NeuralModel<float> Model::makeNetwork() const {
    if (!content->isNetworkTaken.exchange(true)) return network;
    return loadNetwork(content->bytes, name);
}

std::vector<std::string> Model::getBusNames() const {
    return {network.outputBusNames.begin(), network.outputBusNames.end()};
}

namespace {

// The file that this code was loaded from: a library or the program. Empty where nobody tells.
fs::path findOwnFile() {
#if __has_include(<dlfcn.h>)
    Dl_info info = {};
    std::error_code error;
    if (dladdr(reinterpret_cast<const void*>(&listModels), &info) != 0 && info.dli_fname)
        return fs::canonical(info.dli_fname, error);
#endif
    return {};
}

}  // namespace

std::vector<fs::path> getModelFolders() {
    std::vector<fs::path> folders;
    if (const char* paths = std::getenv("ZEVRANT_MODEL_PATH")) {
        std::istringstream list(paths);
        for (std::string folder; std::getline(list, folder, ':');)
            if (!folder.empty()) folders.emplace_back(folder);
    }
    constexpr const char* place = "share/zevrant/models";
    std::error_code error;
    const fs::path program = fs::read_symlink("/proc/self/exe", error), own = findOwnFile();
    if (!own.empty() && own != program) {
        const fs::path parent = own.parent_path().parent_path();
        for (const fs::path& prefix : {parent, parent.parent_path()}) folders.push_back(prefix / place);
    }
    if (!error) folders.push_back(program.parent_path().parent_path() / place);
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

}  // namespace zevrant::separation
