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

// Names for files or folders side by side: what comes twice gets a number, and a name of points, or none, a
// line. Names that differ in case alone count as one, since some file systems do not tell them apart.
std::vector<std::string> makeUnique(const std::vector<std::string>& names);

// The extension of a file's own format, since it says what its user works with: FLAC, AIFF, CAF, W64 and AU
// stay what they are. All else becomes WAV, MP3 and what is coded like it too, so that stems keep samples.
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
