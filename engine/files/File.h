#pragma once

#include <list>
#include <string>
#include <utility>

namespace zevrant {

// A path, with text operations on it and a few questions to the file system.
//
// The path is plain text with "/" as its delimiter: nothing is normalised, resolved or checked for
// validity. A File keeps nothing open and caches nothing; each question goes to the file system.
// Errors   bool results tell the outcome; only getSystemFolder() throws.
// Threads  A value without shared state. rand() and getenv() bring the limits of the C library.
class File {
  public:
    // Below the folder that HOME names; without HOME those throw std::runtime_error.
    enum SystemFolderID {
        UserCache = 0,         // HOME + "/Library/Caches/Zevrant/", created when missing
        SystemLibrary = 1,     // "/Library"
        UserLibrary = 2,       // HOME + "/Library"
        UserDocuments = 3,     // HOME + "/Documents"
        UserMusic = 4,         // HOME + "/Music"
        CurrentExecutable = 5  // full path of the running executable
    };

    File() = default;
    File(std::string pathOfFile) : path(std::move(pathOfFile)) {}

    static std::string getPathDelimiter();

    std::string getFullPath() const;

    // What follows the last "/": all of a path without one, nothing of a path that ends in one.
    std::string getFileName() const;

    // The file name up to its last ".", all of it when it holds none.
    std::string getFileNameWithoutExtension() const;

    // What follows the last "." of the whole path, on purpose: "/a.b/c" has the extension "b/c".
    // So this is not the exact complement of getFileNameWithoutExtension().
    std::string getFileExtension() const;

    // Whether stat() succeeds on the path; folders exist too.
    bool exists() const;

    // The path up to its last "/", without it; empty for "/a" and for a path without delimiter.
    File getParentDirectory() const;
    std::string getParentDirectoryPath() const;

    // Asks for one folder with mode 0755; parents are not made. The result is true on purpose even
    // when no folder was made, so ask exists() afterwards.
    bool createDirectory() const;

    // path + "/" + name, also when the path ends in "/" already.
    File getChild(const std::string& name) const;

    // Always empty: folders are not searched.
    std::list<File> findChildFiles(const std::string& pattern, bool, bool) const;

    // Removes a file or an empty folder; true on success.
    bool deleteFile() const;

    // A free name beside an existing file, numbered from 2: "Mix.wav" gives "Mix 2.wav", then
    // "Mix 3.wav". Digits at the end of the name go first and the blank before them stays, so
    // "Take 2.wav" gives "Take  2.wav"; a name without extension gets a dot at its end. The path of
    // a file that does not exist comes back as it is.
    File getUniqueCopiedName() const;

    // An id outside the enumeration gives an empty path.
    static File getSystemFolder(SystemFolderID id);

    // folder + "/" + prefix + a number + ".tmp", a name that is free at this moment. No file is
    // created and no name reserved, so two callers can end up with one name.
    static File createTemporaryFile(const File& folder, const std::string& prefix);

  private:
    std::string path;
};

}  // namespace zevrant
