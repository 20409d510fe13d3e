#pragma once

#include <stdexcept>
#include <string>

namespace zevrant::separation {

enum class ErrorKind {
    BadArgument,     // a number or pointer that no call can mean
    NoSuchModel,     // no file of this path and no model of this name, or one that cannot be read
    BadModel,        // no model, a damaged one, or one that the engine does not open
    BadFormat,       // channels or a sample rate that the model's frames cannot follow
    CannotProcess,   // what only the audio shows: a model whose numbers make a frame impossible
    Full,            // more processed audio than there is room for
    TooFewSamples,   // more asked for than is there
    WrongState,      // not open, at its end, or in a swap
    LatencyDiffers,  // a swap that would change the latency
};

// Why something was refused, as one line without a full stop: the thing, a colon and the reason. Memory that
// runs out stays std::bad_alloc.
class Error : public std::runtime_error {
  public:
    Error(ErrorKind kindOfError, const std::string& text) : std::runtime_error(text), kind(kindOfError) {}

    const ErrorKind kind;
};

}  // namespace zevrant::separation
