#include "audiofiles/OutputFile.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "audiofiles/Error.h"
#include "audiofiles/Interruption.h"

namespace zevrant::audiofiles {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void failToWrite(const std::string& name, int error) {
    throw Error(ErrorKind::BadOutput, name + ": " + std::generic_category().message(error));
}

// The umask, which can only be read by setting it.
mode_t getCreationMask() {
    const mode_t mask = umask(0);
    umask(mask);
    return mask;
}

}  // namespace

void ProtectedFiles::add(const fs::path& input) {
    struct stat status = {};
    const bool isStandardInput = input == "-";
    const int result = isStandardInput ? fstat(STDIN_FILENO, &status) : stat(input.c_str(), &status);
    if (result == 0 && S_ISREG(status.st_mode))
        entries.push_back(
            {status.st_dev, status.st_ino, isStandardInput ? "standard input" : input.string()});
}

void ProtectedFiles::requireOther(const fs::path& output) const {
    struct stat status = {};
    if (stat(output.c_str(), &status) != 0) return;
    const auto match = std::find_if(entries.begin(), entries.end(), [&](const Entry& entry) {
        return entry.device == status.st_dev && entry.inode == status.st_ino;
    });
    if (match != entries.end())
        throw Error(ErrorKind::BadOutput,
                    output.string() + ": would overwrite the input " + match->name + "; choose another name");
}

OutputFile::OutputFile(const fs::path& place, const ProtectedFiles& inputs) : path(place), target(place) {
    inputs.requireOther(path);
    std::error_code error;
    if (fs::is_directory(path, error)) throw Error(ErrorKind::BadOutput, path.string() + ": is a folder");
    if (fs::is_symlink(path, error)) {
        const fs::path followed = fs::weakly_canonical(path, error);
        if (!error) target = followed;
    }
    std::string name = (target.parent_path() / ("." + target.filename().string() + ".XXXXXX")).string();
    descriptor = mkstemp(name.data());
    if (descriptor < 0) failToWrite(path.string(), errno);
    temporary = name;
    fchmod(descriptor, 0666 & ~getCreationMask());
}

OutputFile::~OutputFile() {
    if (descriptor >= 0) ::close(descriptor);
    if (!temporary.empty()) unlink(temporary.c_str());
}

void OutputFile::close() {
    if (descriptor >= 0 && ::close(std::exchange(descriptor, -1)) != 0) failToWrite(path.string(), errno);
}

void OutputFile::commit() {
    close();
    if (rename(temporary.c_str(), target.c_str()) != 0) failToWrite(path.string(), errno);
    temporary.clear();
}

bool isSpecialFile(const fs::path& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode);
}

void writeFully(int descriptor, const void* bytes, std::size_t numOfBytes, const std::string& name) {
    const auto* rest = static_cast<const char*>(bytes);
    while (numOfBytes > 0) {
        const ssize_t written = write(descriptor, rest, numOfBytes);
        if (written < 0) {
            const int error = errno;
            checkInterruption();
            if (error == EINTR) continue;
            failToWrite(name, error);
        }
        rest += written;
        numOfBytes -= static_cast<std::size_t>(written);
    }
}

}  // namespace zevrant::audiofiles
