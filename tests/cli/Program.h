// Runs the program as a user would: arguments, standard streams, limits and signals.
#pragma once

#include <sys/types.h>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace zevrant {

struct Outcome {
    int status = -1;  // exit status, or 128 + the signal that ended it
    std::string out, err;
};

struct Invocation {
    std::vector<std::string> arguments;
    std::string input{};       // what standard input delivers through a pipe
    std::string inputFile{};   // or the file that it is
    std::string outputFile{};  // what standard output is in place of a pipe
    std::string inputRest{};   // behind input, a while after the first output
    bool showsErrorsOnTerminal = false;
    long mostFileBytes = -1;  // a limit on the size of files that it writes
    std::vector<std::pair<std::string, std::string>> environment{};
};

Outcome run(const Invocation& invocation);

inline Outcome run(const std::vector<std::string>& arguments) {
    return run(Invocation{arguments});
}

// Whether this machine has pseudo-terminals to give.
bool hasTerminals();

// A program that is still running and waits for more input than it was given.
class WaitingProgram {
  public:
    explicit WaitingProgram(const Invocation& invocation);
    WaitingProgram(const WaitingProgram&) = delete;
    WaitingProgram& operator=(const WaitingProgram&) = delete;
    ~WaitingProgram();

    int endBy(int signal);  // the status as above

  private:
    pid_t process = -1;
    int inputEnd = -1;
};

}  // namespace zevrant
