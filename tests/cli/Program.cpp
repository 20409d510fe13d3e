#include "Program.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zevrant {

namespace {

void writeAll(int descriptor, const std::string& bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t count = write(descriptor, bytes.data() + done, bytes.size() - done);
        if (count <= 0) return;  // the program has ended without reading everything
        done += static_cast<std::size_t>(count);
    }
}

std::string readAll(int descriptor, std::atomic<bool>* hasStarted = nullptr) {
    std::string bytes;
    char block[65536];
    for (ssize_t count; (count = read(descriptor, block, sizeof block)) > 0;) {
        bytes.append(block, static_cast<std::size_t>(count));
        if (hasStarted) *hasStarted = true;
    }
    return bytes;
}

// A pipe that closes with its owner, and that no other child inherits.
struct Pipe {
    Pipe() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
        readEnd = ends[0];
        writeEnd = ends[1];
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe() {
        closeReadEnd();
        closeWriteEnd();
    }
    void closeReadEnd() {
        if (readEnd >= 0) close(std::exchange(readEnd, -1));
    }
    void closeWriteEnd() {
        if (writeEnd >= 0) close(std::exchange(writeEnd, -1));
    }

    int readEnd, writeEnd;
};

// A terminal in place of a pipe: the program writes to one side of it, and the other side is read.
void becomeTerminal(Pipe& pipe) {
    pipe.closeReadEnd();
    pipe.closeWriteEnd();
    pipe.readEnd = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (grantpt(pipe.readEnd) != 0 || unlockpt(pipe.readEnd) != 0) throw std::runtime_error("no terminal");
    pipe.writeEnd = open(ptsname(pipe.readEnd), O_RDWR | O_NOCTTY | O_CLOEXEC);
}

// Replaces the forked child by the program.
[[noreturn]] void become(const Invocation& invocation, int in, int out, int err) {
    dup2(in, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    unsetenv("ZEVRANT_MODEL_PATH");
    setenv("LSAN_OPTIONS", "suppressions=" ZEVRANT_LEAKS ":print_suppressions=0", 1);
    for (const auto& [name, value] : invocation.environment) setenv(name.c_str(), value.c_str(), 1);
    if (invocation.mostFileBytes >= 0) {
        const auto bytes = static_cast<rlim_t>(invocation.mostFileBytes);
        const rlimit limit{bytes, bytes};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    // Whoever started the tests may ignore signals, as a shell does for what runs in the background.
    for (const int number : {SIGPIPE, SIGINT, SIGTERM, SIGHUP}) signal(number, SIG_DFL);
    std::vector<char*> arguments{const_cast<char*>("zevrant")};
    for (const std::string& argument : invocation.arguments)
        arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    execv(ZEVRANT_PROGRAM, arguments.data());
    _exit(127);
}

int waitFor(pid_t process) {
    int status = 0;
    waitpid(process, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

bool hasTerminals() {
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    const bool isThere = terminal >= 0 && grantpt(terminal) == 0 && unlockpt(terminal) == 0;
    if (terminal >= 0) close(terminal);
    return isThere;
}

Outcome run(const Invocation& invocation) {
    signal(SIGPIPE, SIG_IGN);
    Pipe in, out, err;
    if (invocation.showsErrorsOnTerminal) becomeTerminal(err);
    const int file =
        invocation.inputFile.empty() ? -1 : open(invocation.inputFile.c_str(), O_RDONLY | O_CLOEXEC);
    const int outputFile =
        invocation.outputFile.empty() ? -1 : open(invocation.outputFile.c_str(), O_WRONLY | O_CLOEXEC);
    const pid_t process = fork();
    if (process == 0)
        become(invocation, file >= 0 ? file : in.readEnd, outputFile >= 0 ? outputFile : out.writeEnd,
               err.writeEnd);
    in.closeReadEnd();
    out.closeWriteEnd();
    err.closeWriteEnd();
    for (const int descriptor : {file, outputFile})
        if (descriptor >= 0) close(descriptor);
    std::atomic<bool> hasStarted{false};
    std::thread feeder([&] {
        writeAll(in.writeEnd, invocation.input);
        if (!invocation.inputRest.empty()) {
            using namespace std::chrono_literals;
            for (int i = 0; i < 500 && !hasStarted; ++i) std::this_thread::sleep_for(10ms);
            std::this_thread::sleep_for(250ms);
            writeAll(in.writeEnd, invocation.inputRest);
        }
        in.closeWriteEnd();
    });
    Outcome outcome;
    std::thread errorReader([&] { outcome.err = readAll(err.readEnd); });
    outcome.out = readAll(out.readEnd, &hasStarted);
    errorReader.join();
    outcome.status = waitFor(process);
    feeder.join();
    return outcome;
}

WaitingProgram::WaitingProgram(const Invocation& invocation) {
    signal(SIGPIPE, SIG_IGN);
    Pipe in;
    process = fork();
    if (process == 0) {
        const int nowhere = open("/dev/null", O_WRONLY);
        become(invocation, in.readEnd, nowhere, nowhere);
    }
    inputEnd = std::exchange(in.writeEnd, -1);
    in.closeReadEnd();
    writeAll(inputEnd, invocation.input);
}

WaitingProgram::~WaitingProgram() {
    if (process > 0) endBy(SIGKILL);
    close(inputEnd);
}

int WaitingProgram::endBy(int signal) {
    kill(process, signal);
    const int status = waitFor(process);
    process = -1;
    return status;
}

}  // namespace zevrant
