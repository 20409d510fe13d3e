// zevrant: separates audio files with models, and shows what a model is and does.

#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <new>
#include <string>
#include <system_error>
#include <vector>

#include "audiofiles/Audio.h"
#include "audiofiles/Interruption.h"
#include "cli/Commands.h"
#include "cli/Failure.h"
#include "cli/Interruption.h"
#include "cli/Text.h"
#include "separation/Model.h"

namespace {

using namespace zevrant::cli;

constexpr const char* description =
    "Separates audio into its parts with neural models, and shows what a model is and does.";

constexpr const char* footer =
    "Examples:\n"
    "  zevrant stems song.flac -m harmonic-percussive -d stems\n"
    "  zevrant process song.flac -m harmonic-percussive --gain Percussive=-6 -o softer.flac\n"
    "  zevrant stems album/ -m harmonic-percussive -d stems\n"
    "  zevrant COMMAND --help\n"
    "\n"
    "A model is the path of a file, or the name of one in a model folder: those in ZEVRANT_MODEL_PATH\n"
    "(separated by colons), then the installed ones. 'zevrant info' lists them.\n"
    "\n"
    "Exit status:\n"
    "  0  done\n"
    "  1  the work failed: a model that cannot process, stems that do not add up, no memory;\n"
    "     check has found something\n"
    "  2  wrong usage: an unknown option, bus or format, a number out of range\n"
    "  3  an input is missing, damaged or no audio\n"
    "  4  a model is missing, damaged or no model\n"
    "  5  an output cannot be written, or would overwrite an input\n"
    "  A signal that ends the program is passed on: 130 after Ctrl-C.\n"
    "Outputs appear under their names only when they are complete; an error leaves none behind.";

int report(int status, const char* text) noexcept {
    try {
        std::fprintf(stderr, "zevrant: %s\n", makeHarmless(text).c_str());
    } catch (const std::bad_alloc&) {
        std::fputs("zevrant: out of memory\n", stderr);
    }
    return status;
}

std::string join(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
    return text;
}

std::vector<std::string> getCommandNames(const CLI::App& program) {
    std::vector<std::string> names;
    for (const CLI::App* command : program.get_subcommands([](const CLI::App*) { return true; }))
        names.push_back(command->get_name());
    return names;
}

// A file in the place of the command is the most frequent slip.
std::string describeUnknownCommand(const std::string& word, const CLI::App& program) {
    std::error_code error;
    if (std::filesystem::exists(word, error) || zevrant::audiofiles::hasAudioExtension(word))
        return word + ": a command has to come first, as in 'zevrant stems FILE -m MODEL -d FOLDER'";
    return "no command '" + word + "'; there are " + join(getCommandNames(program));
}

// What would complete or mend a command line with this command, which is empty where an option stands first.
std::string suggest(const CLI::ParseError& error, const std::string& command, const CLI::App& program) {
    const std::string text = error.what();
    if (text.starts_with("A subcommand ")) return ": one of " + join(getCommandNames(program));
    if (command.empty())
        return "; options stand behind the command, as in 'zevrant stems FILE -m MODEL -d FOLDER'";
    const bool isOption = text.find(": -") != std::string::npos;
    if (dynamic_cast<const CLI::ExtrasError*>(&error) && command == "process" && !isOption)
        return "; process takes one file, and stems takes several";
    if (!dynamic_cast<const CLI::RequiredError*>(&error)) return "";
    if (text.starts_with("IN ")) return ": the audio file";
    if (text.starts_with("--directory ")) return ": the folder for the stems, such as -d stems";
    if (text.starts_with("--output ")) return ": the file to write, with -o";
    if (!text.starts_with("--model ")) return "";
    const std::string models = join(zevrant::separation::listModels());
    return models.empty() ? ": the file of a model, with -m; none are installed"
                          : ": the file of a model, or one of " + models + ", with -m";
}

// What the program has printed has to arrive: a full disk is an error, for a help text as for a report.
int finishOutput() {
    if (std::fflush(stdout) == 0 && !std::ferror(stdout)) return 0;
    return report(ExitStatus::BadOutput, "standard output: cannot be written");
}

int run(int argc, char** argv) {
    CLI::App program(description, "zevrant");
    program.footer(footer);
    program.require_subcommand(1);
    program.set_version_flag("--version", "zevrant " ZEVRANT_VERSION);
    addProcessCommand(program);
    addStemsCommand(program);
    addInfoCommand(program);
    addCheckCommand(program);
    addBenchCommand(program);
    addSpectrogramCommand(program);
    addCompareCommand(program);
    addCompletionCommand(program);

    // What stands first and is no option can only be meant as a command.
    const std::string first = argc > 1 && argv[1][0] != '-' ? argv[1] : "";
    const std::vector<std::string> commands = getCommandNames(program);
    if (!first.empty() && std::find(commands.begin(), commands.end(), first) == commands.end())
        return report(ExitStatus::WrongUsage,
                      (describeUnknownCommand(first, program) + " (see zevrant --help)").c_str());
    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
            program.exit(error);
            return finishOutput();
        }
        const std::string help = " (see zevrant " + (first.empty() ? "" : first + " ") + "--help)";
        return report(ExitStatus::WrongUsage, (error.what() + suggest(error, first, program) + help).c_str());
    } catch (const std::exception&) {
        const Failure failure = toFailure(std::current_exception());
        return report(failure.status, failure.what());
    }
    return finishOutput();
}

}  // namespace

int main(int argc, char** argv) {
    noteInterruptions();
    zevrant::audiofiles::setInterruptionCheck(stopIfInterrupted);
    try {
        return run(argc, argv);
    } catch (const Interrupted& interrupted) {
        endBySignal(interrupted.signal);
    } catch (const std::exception& error) {
        return report(ExitStatus::Failed, error.what());
    }
}
