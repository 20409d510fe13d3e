#include "cli/Interruption.h"

#include <csignal>
#include <cstdlib>
#include <initializer_list>

namespace zevrant::cli {

namespace {

volatile std::sig_atomic_t notedSignal = 0;

void note(int signal) {
    notedSignal = signal;
}

void install(int signal, void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);  // and no restart: a read that waits for input has to return
    sigaction(signal, &action, nullptr);
}

}  // namespace

void noteInterruptions() {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction before = {};
        sigaction(signal, nullptr, &before);
        if (before.sa_handler != SIG_IGN) install(signal, note);  // nohup stays in force
    }
    install(SIGPIPE, SIG_IGN);
    install(SIGXFSZ, SIG_IGN);
}

void stopIfInterrupted() {
    if (notedSignal != 0) throw Interrupted{notedSignal};
}

void endBySignal(int signal) {
    install(signal, SIG_DFL);
    std::raise(signal);
    std::_Exit(128 + signal);
}

}  // namespace zevrant::cli
