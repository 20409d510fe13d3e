#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>

#include "audiofiles/StemFiles.h"
#include "cli/Commands.h"
#include "cli/Failure.h"
#include "cli/Progress.h"
#include "cli/Stems.h"
#include "cli/Text.h"

namespace zevrant::cli {

namespace fs = std::filesystem;

namespace {

constexpr int mostJobs = 256;

// The audio files that lie in a folder itself, in the order of their names.
std::vector<std::string> listAudioFiles(const std::string& folder) {
    std::vector<std::string> files;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error)) {
        const bool isHidden = entry.path().filename().string().starts_with('.');
        if (!isHidden && entry.is_regular_file(error) && audiofiles::hasAudioExtension(entry.path()))
            files.push_back(entry.path().string());
    }
    if (error) throw Failure(ExitStatus::BadInput, folder + ": " + error.message());
    if (files.empty()) throw Failure(ExitStatus::BadInput, folder + ": no audio files in this folder");
    std::sort(files.begin(), files.end());
    return files;
}

bool isFolder(const std::string& path) {
    std::error_code error;
    return fs::is_directory(path, error);
}

struct StemsCommand : SeparationOptions {
    std::vector<std::string> inputs;
    std::string folder;
    std::string extension;
    int numOfJobs = 0;  // 0: as many as there are cores

    void run() {
        if (extension.starts_with('.')) extension.erase(0, 1);
        if (!extension.empty()) audiofiles::requireOutputFormat("stems." + extension);
        const Model opened = openModel();
        describeOutput({});  // what is wrong for all files is said once
        getControls(opened);
        const bool isOneFile = inputs.size() == 1 && !isFolder(inputs.front());
        const std::vector<std::string> files = listFiles();
        audiofiles::ProtectedFiles protectedFiles;
        for (const std::string& file : files) protectedFiles.add(file);
        protectedFiles.add(opened.path);
        if (isOneFile)
            separateOne(opened, files.front(), protectedFiles);
        else
            separateAll(opened, files, protectedFiles);
    }

    std::vector<std::string> listFiles() const {
        std::vector<std::string> files;
        for (const std::string& input : inputs) {
            if (input == "-" && inputs.size() > 1)
                throw Failure(ExitStatus::WrongUsage, "- stands alone: standard input is one file");
            if (isFolder(input)) {
                const std::vector<std::string> inside = listAudioFiles(input);
                files.insert(files.end(), inside.begin(), inside.end());
            } else {
                files.push_back(input);
            }
        }
        return files;
    }

    Stems separate(const Model& opened, const std::string& file, const fs::path& target,
                   const audiofiles::ProtectedFiles& protectedFiles, Progress& progress, int index) const {
        const auto show = [&](std::int64_t numOfSamplesDone, const AudioDescription& description) {
            progress.show(index, numOfSamplesDone, description.numOfSamples, description.sampleRate);
        };
        return writeStems(*this, opened, file, target, extension, protectedFiles, show);
    }

    void separateOne(const Model& opened, const std::string& file,
                     const audiofiles::ProtectedFiles& protectedFiles) const {
        Progress progress("stems", 1, isQuiet);
        const Stems stems = separate(opened, file, folder, protectedFiles, progress, 0);
        if (!isQuiet) {
            std::vector<std::string> names = opened.getBusNames();
            std::size_t width = 0;
            for (std::string& name : names) width = std::max(width, (name = makeHarmless(name)).size());
            for (std::size_t i = 0; i < names.size(); ++i) {
                names[i].resize(width, ' ');
                progress.print(stdout, names[i] + "  " + makeHarmless(stems.paths[i]));
            }
            progress.print(stdout, stems.describeNullDepth());
            progress.print(stdout, describeSpeed(progress));
            printNotes(stems, progress);
        }
        requireSum(opened, stems);
    }

    // Each file into a folder of its own, several at once. A file that fails stops no other.
    void separateAll(const Model& opened, const std::vector<std::string>& files,
                     const audiofiles::ProtectedFiles& protectedFiles) const {
        audiofiles::OutputFolder outputFolder(folder);  // goes again if nothing comes into it
        std::vector<std::string> names;
        names.reserve(files.size());
        for (const std::string& file : files) names.push_back(fs::path(file).stem().string());
        names = audiofiles::makeUnique(names);
        Progress progress("stems", static_cast<int>(files.size()), isQuiet);
        std::vector<std::optional<Failure>> failures(files.size());
        runSideBySide(files.size(), [&](std::size_t i) {
            try {
                const fs::path target = fs::path(folder) / names[i];
                const Stems stems =
                    separate(opened, files[i], target, protectedFiles, progress, static_cast<int>(i));
                if (!isQuiet)
                    progress.print(stdout, makeHarmless(files[i]) + " -> " + makeHarmless(target.string()) +
                                               ", " + stems.describeNullDepth());
                printNotes(stems, progress);
                requireSum(opened, stems);
            } catch (const std::exception&) {
                failures[i].emplace(toFailure(std::current_exception()));
                progress.print(stderr, "zevrant: " + makeHarmless(failures[i]->what()));
            }
            progress.finish(static_cast<int>(i));
        });
        const auto numOfFailures =
            std::count_if(failures.begin(), failures.end(), [](const auto& failure) { return !!failure; });
        if (!isQuiet) progress.print(stdout, describeSpeed(progress));
        if (numOfFailures == 0) return;
        const auto first = std::find_if(failures.begin(), failures.end(), [](const auto& f) { return !!f; });
        throw Failure((*first)->status, std::to_string(numOfFailures) + " of " +
                                            std::to_string(files.size()) + " files failed");
    }

    // work(i) for each i once, on as many threads as there are jobs. What work throws ends them all.
    template <class Work>
    void runSideBySide(std::size_t count, const Work& work) const {
        const std::size_t cores = std::max(1u, std::thread::hardware_concurrency());
        const std::size_t wanted = numOfJobs > 0 ? static_cast<std::size_t>(numOfJobs) : cores;
        std::atomic<std::size_t> next{0};
        std::vector<std::exception_ptr> exceptions(std::min(wanted, count));
        {
            std::vector<std::jthread> threads;
            threads.reserve(exceptions.size());
            for (std::exception_ptr& exception : exceptions)
                threads.emplace_back([&] {
                    try {
                        for (std::size_t i; (i = next++) < count;) work(i);
                    } catch (...) {
                        exception = std::current_exception();
                        next = count;
                    }
                });
        }
        for (const std::exception_ptr& exception : exceptions)
            if (exception) std::rethrow_exception(exception);
    }

    static std::string describeSpeed(const Progress& progress) {
        char text[64];
        std::snprintf(text, sizeof text, "speed: %.1f x real time",
                      progress.getAudioSeconds() / progress.getSeconds());
        return text;
    }

    void printNotes(const Stems& stems, Progress& progress) const {
        if (isQuiet) return;
        for (const std::string& note : stems.notes)
            progress.print(stderr, "zevrant: note: " + makeHarmless(note));
    }

    // A sensitivity of the residual changes the sum by its nature.
    void requireSum(const Model& opened, const Stems& stems) const {
        if (stems.addUp() || getControls(opened).sensitivities.back() != 0.0f) return;
        const bool isFinite = !std::isnan(stems.exactNull.getDepth());
        throw Failure(ExitStatus::Failed,
                      stems.paths.front() + ": the stems are written, but do not add up to the input: " +
                          (isFinite ? "the frame sizes of this model do not give their input back"
                                    : "not all of their samples are numbers"));
    }
};

}  // namespace

void addStemsCommand(CLI::App& program) {
    auto* command = program.add_subcommand("stems", "Splits audio into one file per bus of a model");
    const auto options = std::make_shared<StemsCommand>();
    command
        ->add_option("IN", options->inputs,
                     std::string(inputHelp) + ".\nA folder stands for the audio files that lie in it")
        ->required();
    options->addTo(*command);
    command
        ->add_option("-d,--directory", options->folder,
                     "Folder for the stems; made if it is not there. The stems of several files, or of a\n"
                     "folder, get a folder each in there, named after their file")
        ->required();
    command->add_option(
        "--format", options->extension,
        "Format of the stems: wav, flac, aiff, caf, w64, au, rf64, ogg, opus or mp3. Without it\n"
        "FLAC, AIFF, CAF, W64 and AU stay what they are and all else becomes WAV; samples of\n"
        "coded formats (MP3, Ogg and so on) become floats");
    command->add_option("--jobs", options->numOfJobs, "Files at once; without it one for each core")
        ->check(CLI::Range(1, mostJobs));
    command->footer(
        "The stems line up with the input sample for sample, and their sum is the input: the null depth that "
        "is\n"
        "printed is the level of the difference against the input. Float files null to rounding, integer "
        "files\n"
        "to their resolution. The network runs once for all stems.\n"
        "\n"
        "Where one of several files fails, the others are done, and the exit status is that of the first "
        "that\n"
        "failed.\n"
        "\n"
        "Examples:\n"
        "  zevrant stems song.flac -m harmonic-percussive -d stems --sample-format pcm24\n"
        "  zevrant stems album/ bonus.mp3 -m harmonic-percussive -d stems --jobs 2");
    command->callback([options] { options->run(); });
}

}  // namespace zevrant::cli
