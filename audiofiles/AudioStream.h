#pragma once

#include <memory>
#include <optional>
#include <string>

#include "audiofiles/Audio.h"

namespace zevrant::audiofiles {

// Audio that goes through a pipe, where nothing can be sought: WAV (RIFF or RF64, integers of 8 to 32 bits or
// floats) and samples without a header.

// Reads from the descriptor, which stays open. Chunks of the WAV header that are not needed are skipped; a
// data chunk that announces nothing, or as much as a header can hold, lasts until the stream ends.
std::unique_ptr<AudioReader> openStream(int descriptor, const std::string& name,
                                        const std::optional<RawFormat>& raw);

// Writes to the descriptor; the writer closes it on destruction if it is to own it.
std::unique_ptr<AudioWriter> createStream(int descriptor, bool ownsDescriptor, const std::string& name,
                                          const AudioDescription& description);

}  // namespace zevrant::audiofiles
