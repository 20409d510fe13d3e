#include "audiofiles/StemFiles.h"

#include <algorithm>
#include <cctype>
#include <set>
#include <system_error>

#include <sndfile.h>

#include "audiofiles/Error.h"

namespace zevrant::audiofiles {

namespace fs = std::filesystem;

std::vector<std::string> makeFileNames(const std::vector<std::string>& busNames) {
    std::vector<std::string> names;
    for (const std::string& busName : busNames) {
        std::string name;
        for (const char letter : busName.substr(0, 100)) {
            const auto byte = static_cast<unsigned char>(letter);
            const bool isSafe =
                byte >= 128 || std::isalnum(byte) || std::string(" -_.").find(letter) != std::string::npos;
            name += isSafe ? letter : '_';
        }
        while (!name.empty() && (name.back() == ' ' || name.back() == '.')) name.pop_back();
        if (name.empty()) name = "bus";
        if (name.front() == '.' || name.front() == '-') name.insert(0, "_");
        names.push_back(name);
    }
    return makeUnique(names);
}

std::vector<std::string> makeUnique(const std::vector<std::string>& names) {
    const auto fold = [](std::string text) {
        std::transform(text.begin(), text.end(), text.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        return text;
    };
    std::vector<std::string> uniqueNames;
    std::set<std::string> taken;
    for (std::string name : names) {
        if (name.find_first_not_of('.') == std::string::npos) name += '_';
        std::string unique = name;
        for (int i = 2; !taken.insert(fold(unique)).second; ++i) unique = name + "-" + std::to_string(i);
        uniqueNames.push_back(unique);
    }
    return uniqueNames;
}

std::string chooseExtension(const AudioDescription& description) {
    switch (description.container) {
        case SF_FORMAT_FLAC:
            return "flac";
        case SF_FORMAT_AIFF:
            return "aiff";
        case SF_FORMAT_CAF:
            return "caf";
        case SF_FORMAT_W64:
            return "w64";
        case SF_FORMAT_AU:
            return "au";
        default:
            return "wav";
    }
}

OutputFolder::OutputFolder(const fs::path& folder) : path(folder) {
    std::error_code error;
    fs::path missing = fs::absolute(path, error).lexically_normal();
    if (!missing.has_filename()) missing = missing.parent_path();
    for (; !missing.empty() && !fs::exists(missing, error); missing = missing.parent_path())
        made.push_back(missing);
    fs::create_directories(path, error);
    if (error || !fs::is_directory(path)) {
        removeMade();
        throw Error(ErrorKind::BadOutput,
                    path.string() + ": " + (error ? error.message() : std::string("is no folder")));
    }
}

OutputFolder::~OutputFolder() {
    removeMade();
}

void OutputFolder::removeMade() {
    std::error_code error;
    for (const fs::path& folder : made) fs::remove(folder, error);  // only ever removes empty ones
}

}  // namespace zevrant::audiofiles
