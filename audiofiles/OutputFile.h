#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include <sys/types.h>

namespace zevrant::audiofiles {

// The files that a command reads, which no output may replace. Files are told apart by device and inode, so
// that links and other spellings of a name count as the same file.
class ProtectedFiles {
  public:
    void add(const std::filesystem::path& input);  // "-" is standard input; what is not there is ignored

    // Throws Error when the path leads to one of the files.
    void requireOther(const std::filesystem::path& output) const;

  private:
    struct Entry {
        dev_t device;
        ino_t inode;
        std::string name;
    };
    std::vector<Entry> entries;
};

// A file that appears under its name only when it is complete. It is written beside its place under a
// temporary name and renamed by commit(); destruction before that removes it. What was there before stays
// until then, and is not replaced where it is read-only; its permissions, and as far as the system lets them
// its owner and group, become those of the new file. A symbolic link is followed, not replaced.
// Errors   Error with BadOutput.
class OutputFile {
  public:
    OutputFile(const std::filesystem::path& place, const ProtectedFiles& inputs);
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    ~OutputFile();

    int getDescriptor() const { return descriptor; }
    const std::filesystem::path& getPath() const { return path; }

    // Throws when the system reports a failed write only now.
    void close();
    void commit();

  private:
    std::filesystem::path path;
    std::filesystem::path target;     // path with links followed
    std::filesystem::path temporary;  // empty once renamed
    int descriptor = -1;
};

// Whether the path is there and no regular file: a device, a named pipe, /dev/fd/3.
bool isSpecialFile(const std::filesystem::path& path);

// Writes all of it or throws Error with BadOutput and this name, or what the interruption check throws.
void writeFully(int descriptor, const void* bytes, std::size_t numOfBytes, const std::string& name);

}  // namespace zevrant::audiofiles
