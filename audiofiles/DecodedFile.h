#pragma once

#include <memory>
#include <string>

#include "audiofiles/Audio.h"

namespace zevrant::audiofiles {

// Files of formats that libsndfile does not read (m4a, mkv, webm, wma and so on), through ffmpeg where that
// is installed: a child process decodes the audio track that ffmpeg prefers and sends it through a pipe, as
// floats. The child opens this one file and no address or other file that it mentions. The length is not
// known beforehand.
//
// reason   why libsndfile refuses the file
// Errors   Error with BadInput: what ffmpeg says last, or that it is missing and how to do without. An error
//          that ffmpeg overcomes becomes the reader's note.
// Threads  Several files may be read at once, each by one thread.
std::unique_ptr<AudioReader> openDecodedFile(const std::string& path, const std::string& reason);

}  // namespace zevrant::audiofiles
