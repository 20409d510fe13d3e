#pragma once

#include <exception>
#include <stdexcept>
#include <string>

namespace zevrant::cli {

// What the program ends with, besides 0. A signal that ends it is passed on, so that a shell sees 128 +
// signal.
namespace ExitStatusEnum {
enum ExitStatus : int {
    Failed = 1,      // the work itself: a model that cannot process, stems that do not add up, no memory
    WrongUsage = 2,  // the command line: unknown options, busses, numbers out of range
    BadInput = 3,    // an input that is missing or no audio
    BadModel = 4,    // a model that is missing, damaged or none
    BadOutput = 5    // an output that cannot be written or would replace an input
};
}
using ExitStatusEnum::ExitStatus;

// Ends the command: one line for standard error, and a status.
class Failure : public std::runtime_error {
  public:
    Failure(ExitStatus exitStatus, const std::string& text) : std::runtime_error(text), status(exitStatus) {}

    const ExitStatus status;
};

// What any standard exception of the libraries means to the user. Passes on what is none, as Interrupted.
Failure toFailure(const std::exception_ptr& exception);

}  // namespace zevrant::cli
