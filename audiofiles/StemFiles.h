#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "audiofiles/Audio.h"

namespace zevrant::audiofiles {

// Bus names as file names without an extension: letters, digits, space, '-', '_', '.', and bytes above ASCII
// stay, everything else becomes '_'. Names that are empty, start with '.' or come twice get what makes them
// usable.
std::vector<std::string> makeFileNames(const std::vector<std::string>& busNames);

// The extension of a file's own format where that can be written, since it says what its user works with.
std::string chooseExtension(const AudioDescription& description);

// A folder that is made where it is missing, and taken away again unless it is kept.
// Errors   Error with BadOutput.
class OutputFolder {
  public:
    explicit OutputFolder(const std::filesystem::path& folder);
    OutputFolder(const OutputFolder&) = delete;
    OutputFolder& operator=(const OutputFolder&) = delete;
    ~OutputFolder();

    void keep() { made.clear(); }

  private:
    void removeMade();

    std::filesystem::path path;
    std::vector<std::filesystem::path> made;  // innermost first
};

}  // namespace zevrant::audiofiles
