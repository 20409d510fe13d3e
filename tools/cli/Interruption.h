#pragma once

namespace zevrant::cli {

// A signal asked the program to end.
struct Interrupted {
    int signal;
};

// From here on SIGINT, SIGTERM and SIGHUP are noted instead of ending the program at once, so that unfinished
// files can be removed, and a closed pipe or a file size limit is an error of the write that meets it.
void noteInterruptions();

// Throws Interrupted once a signal has come. Asked between blocks and after every interrupted system call.
void stopIfInterrupted();

// Ends the program by the signal, as it would have ended without us.
[[noreturn]] void endBySignal(int signal);

}  // namespace zevrant::cli
