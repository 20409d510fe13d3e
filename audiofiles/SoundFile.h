#pragma once

#include <memory>
#include <string>

#include "audiofiles/Audio.h"

namespace zevrant::audiofiles {

// Audio files through libsndfile: what openAudio() and createAudio() use for everything that is no stream.

// A descriptor of -1 opens the path; any other is read in its place, from its start, and stays open.
std::unique_ptr<AudioReader> openSoundFile(const std::string& path, int descriptor = -1);

std::unique_ptr<AudioWriter> createSoundFile(const std::string& path, const AudioDescription& description,
                                             const ProtectedFiles& inputs);

}  // namespace zevrant::audiofiles
