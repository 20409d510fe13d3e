#include "audiofiles/OutputFile.h"

#include <algorithm>
#include <cerrno>
#include <random>
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

// Makes a file under a name that nothing else has, with the permissions of any new file. mkstemp() would give
// it those of a secret, and setting them needs the umask, which no thread can read without changing it.
int createUnique(fs::path& path) {
    static constexpr char letters[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    std::random_device random;
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::string name = path.string();
        for (int i = 0; i < 6; ++i) name += letters[random() % (sizeof letters - 1)];
        const int descriptor = open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (descriptor >= 0) path = name;
        if (descriptor >= 0 || errno != EEXIST) return descriptor;
    }
    return -1;
}

// Renaming asks for no right to the file that it replaces. So that is asked here, as writing into the file
// would; a file without any right to write is kept from the superuser, too.
void requireWritable(const fs::path& old, const struct stat& status, const std::string& name) {
    if ((status.st_mode & 0222) == 0) failToWrite(name, EACCES);
    if (faccessat(AT_FDCWD, old.c_str(), W_OK, AT_EACCESS) != 0) failToWrite(name, errno);
}

// Owners first: a change of them takes permissions away. Only the superuser gives files to others.
void makeAlike(int descriptor, const struct stat& status) {
    if (fchown(descriptor, status.st_uid, status.st_gid) != 0 &&
        fchown(descriptor, static_cast<uid_t>(-1), status.st_gid) != 0)
        return;  // then the permissions are those of a file of one's own
    static_cast<void>(fchmod(descriptor, status.st_mode & 0777));
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
    struct stat old = {};
    const bool isThere = stat(target.c_str(), &old) == 0;
    if (isThere) requireWritable(target, old, path.string());
    fs::path name = target.parent_path() / ("." + target.filename().string() + ".");
    descriptor = createUnique(name);
    if (descriptor < 0) failToWrite(path.string(), errno);
    temporary = name;
    if (isThere) makeAlike(descriptor, old);
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
