#pragma once

#include <stdexcept>
#include <string>

namespace zevrant::audiofiles {

enum class ErrorKind {
    BadInput,     // an input that is missing, damaged or no audio
    BadOutput,    // an output that cannot be written, or would replace an input
    Unsupported,  // a format that is not known, or that cannot hold the audio
    Failed,       // the work itself
};

// Why something was refused, as one line without a full stop: the file, a colon and the reason.
class Error : public std::runtime_error {
  public:
    Error(ErrorKind kindOfError, const std::string& text) : std::runtime_error(text), kind(kindOfError) {}

    const ErrorKind kind;
};

}  // namespace zevrant::audiofiles
