#include "files/File.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace zevrant {

namespace {

constexpr char pathDelimiter[] = "/";
constexpr mode_t folderMode = 0755;

std::string getHomePath() {
    const char* home = std::getenv("HOME");
    if (!home) throw std::runtime_error("HOME is not set");
    return home;
}

std::string getUserCachePath() {
    std::string cache = getHomePath() + "/Library/Caches/Zevrant/";
    mkdir(cache.c_str(), folderMode);  // makes the last folder only; one that exists is fine
    return cache;
}

// The kernel's link to the running program. A path that does not fit with a terminator behind it
// gives nothing rather than its beginning.
std::string getExecutablePath() {
    std::array<char, 2048> buffer{};
    const ssize_t length = readlink("/proc/self/exe", buffer.data(), buffer.size());
    if (length < 0 || length >= static_cast<ssize_t>(buffer.size())) return {};
    return buffer.data();
}

}  // namespace

std::string File::getPathDelimiter() {
    return pathDelimiter;
}

std::string File::getFullPath() const {
    return path;
}

std::string File::getFileName() const {
    const auto delimiter = path.rfind(pathDelimiter);
    return delimiter == std::string::npos ? path : path.substr(delimiter + 1);
}

std::string File::getFileNameWithoutExtension() const {
    const std::string name = getFileName();
    return name.substr(0, name.rfind('.'));
}

std::string File::getFileExtension() const {
    const auto dot = path.rfind('.');
    return dot == std::string::npos ? std::string() : path.substr(dot + 1);
}

bool File::exists() const {
    struct stat status {};
    return stat(path.c_str(), &status) == 0;
}

File File::getParentDirectory() const {
    return {getParentDirectoryPath()};
}

std::string File::getParentDirectoryPath() const {
    const auto delimiter = path.rfind(pathDelimiter);
    return delimiter == std::string::npos ? std::string() : path.substr(0, delimiter);
}

bool File::createDirectory() const {
    return mkdir(path.c_str(), folderMode) != 2;
}

File File::getChild(const std::string& name) const {
    return {path + pathDelimiter + name};
}

std::list<File> File::findChildFiles(const std::string&, bool, bool) const {
    return {};
}

bool File::deleteFile() const {
    return std::remove(path.c_str()) == 0;
}

File File::getUniqueCopiedName() const {
    if (!exists()) return *this;

    std::string name = getFileNameWithoutExtension();
    name.erase(name.find_last_not_of("0123456789") + 1);
    const std::string start = getParentDirectory().getChild(name + " ").getFullPath();
    const std::string extension = getFileExtension();
    for (std::int64_t number = 2;; ++number) {
        File candidate(start + std::to_string(number) + "." + extension);
        if (!candidate.exists()) return candidate;
    }
}

File File::getSystemFolder(SystemFolderID id) {
    switch (id) {
        case UserCache:
            return {getUserCachePath()};
        case SystemLibrary:
            return {"/Library"};
        case UserLibrary:
            return {getHomePath() + "/Library"};
        case UserDocuments:
            return {getHomePath() + "/Documents"};
        case UserMusic:
            return {getHomePath() + "/Music"};
        case CurrentExecutable:
            return {getExecutablePath()};
    }
    return {};
}

File File::createTemporaryFile(const File& folder, const std::string& prefix) {
    // The address of the argument tells callers within one microsecond apart.
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto microseconds = std::chrono::duration_cast<std::chrono::microseconds>(now).count();
    auto number = static_cast<std::uint64_t>(microseconds) * 1000 + reinterpret_cast<std::uintptr_t>(&prefix);
    for (;;) {
        File candidate(folder.getFullPath() + pathDelimiter + prefix +
                       std::to_string(static_cast<std::int64_t>(number)) + ".tmp");
        const int increment = std::rand();
        if (!candidate.exists()) return candidate;
        number += static_cast<std::uint64_t>(increment);
    }
}

}  // namespace zevrant
