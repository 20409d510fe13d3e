#pragma once

#include <memory>
#include <string>

#include "audiofiles/Audio.h"
#include "audiofiles/Error.h"

namespace zevrant::audiofiles {

// Audio files through libsndfile: what openAudio() and createAudio() use for everything that is no stream.

// libsndfile does not know the format, or cannot read it.
struct UnknownFormat : Error {
    UnknownFormat(const std::string& name, const std::string& why)
        : Error(ErrorKind::BadInput, name + ": no audio file that can be read (" + why + ")"), reason(why) {}

    std::string reason;
};

// A descriptor of -1 opens the path; any other is read in its place, from its start, and stays open.
std::unique_ptr<AudioReader> openSoundFile(const std::string& path, int descriptor = -1);

std::unique_ptr<AudioWriter> createSoundFile(const std::string& path, const AudioDescription& description,
                                             const ProtectedFiles& inputs);

}  // namespace zevrant::audiofiles
