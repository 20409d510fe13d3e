#include "audiofiles/DecodedFile.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <system_error>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "audiofiles/AudioStream.h"
#include "audiofiles/Error.h"

namespace zevrant::audiofiles {

namespace {

// ffmpeg at work on a file. Its errors go to a file of their own, since nobody empties a second pipe.
class Decoder {
  public:
    explicit Decoder(const std::string& path) : file("file:" + path), errors(std::tmpfile()) {
        int ends[2];
        if (!errors || pipe2(ends, O_CLOEXEC) != 0)
            throw Error(ErrorKind::Failed, path + ": " + std::generic_category().message(errno));
        output = ends[0];
        start(ends[1]);
        close(ends[1]);
    }
    Decoder(const Decoder&) = delete;
    Decoder& operator=(const Decoder&) = delete;
    ~Decoder() {
        if (process > 0) kill(process, SIGKILL);
        if (process > 0) wait();
        if (output >= 0) close(output);
        std::fclose(errors);
    }

    bool isRunning() const { return process > 0; }
    int getOutput() const { return output; }

    // Waits for the end; whether all went well. What is still to come is not wanted.
    bool wait() {
        close(std::exchange(output, -1));
        int status = 0;
        while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
        }
        process = -1;
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }

    // The last line that it wrote, without the name of the file and of the part of ffmpeg, "[mov @ 0x1234] ".
    std::string getLastError() const {
        std::string line;
        std::rewind(errors);
        for (char text[1024]; std::fgets(text, sizeof text, errors);)
            if (const std::string next = trim(text); !next.empty()) line = next;
        if (line.starts_with(file + ": ")) line.erase(0, file.size() + 2);
        if (const std::size_t end = line.find("] "); line.starts_with('[') && end != std::string::npos)
            line.erase(0, end + 2);
        return line;
    }

  private:
    static std::string trim(std::string text) {
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' '))
            text.pop_back();
        return text;
    }

    // The name follows a prefix of its own, so that none is taken for an option or an address. Signals that
    // this program ignores end the child as usual.
    void start(int outputEnd) {
        const std::string arguments[] = {
            "ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", "-protocol_whitelist",
            "file",   "-i",       file,           "-vn",       "-sn",   "-dn",
            "-f",     "wav",      "-c:a",         "pcm_f32le", "pipe:1"};
        std::vector<char*> pointers;
        for (const std::string& argument : arguments) pointers.push_back(const_cast<char*>(argument.c_str()));
        pointers.push_back(nullptr);

        posix_spawn_file_actions_t streams;
        posix_spawn_file_actions_init(&streams);
        posix_spawn_file_actions_addopen(&streams, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&streams, outputEnd, STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&streams, fileno(errors), STDERR_FILENO);
        posix_spawnattr_t signals;
        posix_spawnattr_init(&signals);
        sigset_t ignored;
        sigemptyset(&ignored);
        sigaddset(&ignored, SIGPIPE);
        sigaddset(&ignored, SIGXFSZ);
        posix_spawnattr_setsigdefault(&signals, &ignored);
        posix_spawnattr_setflags(&signals, POSIX_SPAWN_SETSIGDEF);
        if (posix_spawnp(&process, "ffmpeg", &streams, &signals, pointers.data(), environ) != 0) process = -1;
        posix_spawnattr_destroy(&signals);
        posix_spawn_file_actions_destroy(&streams);
    }

    const std::string file;  // as ffmpeg gets it
    std::FILE* errors;
    int output = -1;
    pid_t process = -1;
};

class DecodedFileReader : public AudioReader {
  public:
    DecodedFileReader(const std::string& path, const std::string& reason) : decoder(path) {
        name = path;
        if (!decoder.isRunning())
            refuse(reason +
                   "). With ffmpeg installed more formats can be read; another decoder can pipe WAV into the "
                   "input -");
        try {
            stream = openStream(decoder.getOutput(), path, {});
        } catch (const Error&) {
            decoder.wait();
            const std::string error = decoder.getLastError();
            refuse(reason + "; ffmpeg: " + (error.empty() ? "no audio" : error) + ")");
        }
        description = stream->description;
    }

    int read(float* interleaved, int numOfSamples) override {
        const int count = stream->read(interleaved, numOfSamples);
        if (count > 0 || !decoder.isRunning()) return count;
        const bool isComplete = decoder.wait();
        const std::string error = decoder.getLastError();
        if (!isComplete) throw Error(ErrorKind::BadInput, name + ": damaged (ffmpeg: " + error + ")");
        if (!error.empty()) note = name + ": ffmpeg: " + error;
        return 0;
    }

  private:
    [[noreturn]] void refuse(const std::string& why) const {
        throw Error(ErrorKind::BadInput, name + ": no audio file that can be read (" + why);
    }

    Decoder decoder;
    std::unique_ptr<AudioReader> stream;
};

}  // namespace

std::unique_ptr<AudioReader> openDecodedFile(const std::string& path, const std::string& reason) {
    return std::make_unique<DecodedFileReader>(path, reason);
}

}  // namespace zevrant::audiofiles
