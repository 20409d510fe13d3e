// zevrant: separates audio files with models, and shows what a model is and does.

#include <algorithm>
#include <cstdio>
#include <exception>
#include <new>
#include <string>

#include "audiofiles/Error.h"
#include "audiofiles/Interruption.h"
#include "cli/Commands.h"
#include "cli/Failure.h"
#include "cli/Interruption.h"
#include "separation/Error.h"

namespace {

using namespace zevrant::cli;

constexpr const char* description =
    "Separates audio into its parts with neural models, and shows what a model is and does.";

constexpr const char* footer =
    "Examples:\n"
    "  zevrant stems song.flac -m harmonic-percussive -d stems\n"
    "  zevrant process song.flac -m harmonic-percussive --gain Percussive=-6 -o softer.flac\n"
    "  zevrant COMMAND --help\n"
    "\n"
    "A model is the path of a file, or the name of one in a model folder: those in ZEVRANT_MODEL_PATH\n"
    "(separated by colons), then the installed ones. 'zevrant info' lists them.\n"
    "\n"
    "Exit status:\n"
    "  0  done\n"
    "  1  the work failed: a model that cannot process, stems that do not add up, no memory\n"
    "  2  wrong usage: an unknown option, bus or format, a number out of range\n"
    "  3  an input is missing, damaged or no audio\n"
    "  4  a model is missing, damaged or no model\n"
    "  5  an output cannot be written, or would overwrite an input\n"
    "  A signal that ends the program is passed on: 130 after Ctrl-C.\n"
    "Outputs appear under their names only when they are complete; an error leaves none behind.";

int report(int status, const char* text) noexcept {
    std::fprintf(stderr, "zevrant: %s\n", text);
    return status;
}

ExitStatus getStatus(zevrant::audiofiles::ErrorKind kind) {
    using Kind = zevrant::audiofiles::ErrorKind;
    switch (kind) {
        case Kind::BadInput:
            return ExitStatus::BadInput;
        case Kind::BadOutput:
            return ExitStatus::BadOutput;
        case Kind::Unsupported:
            return ExitStatus::WrongUsage;
        default:
            return ExitStatus::Failed;
    }
}

ExitStatus getStatus(zevrant::separation::ErrorKind kind) {
    using Kind = zevrant::separation::ErrorKind;
    return kind == Kind::NoSuchModel || kind == Kind::BadModel ? ExitStatus::BadModel : ExitStatus::Failed;
}

int run(int argc, char** argv) {
    CLI::App program(description, "zevrant");
    program.footer(footer);
    program.require_subcommand(1);
    program.set_version_flag("--version", "zevrant " ZEVRANT_VERSION);
    addProcessCommand(program);
    addStemsCommand(program);
    addInfoCommand(program);
    addBenchCommand(program);
    addSpectrogramCommand(program);
    addCompareCommand(program);

    // What stands first and is no option can only be meant as a command.
    if (argc > 1 && argv[1][0] != '-') {
        const auto commands = program.get_subcommands([](const CLI::App*) { return true; });
        const bool isKnown = std::any_of(commands.begin(), commands.end(), [&](const CLI::App* command) {
            return command->get_name() == argv[1];
        });
        if (!isKnown)
            return report(ExitStatus::WrongUsage,
                          (std::string("no command '") + argv[1] + "' (see zevrant --help)").c_str());
    }
    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) return program.exit(error);
        return report(ExitStatus::WrongUsage, (std::string(error.what()) + " (see zevrant --help)").c_str());
    } catch (const Failure& failure) {
        return report(failure.status, failure.what());
    } catch (const zevrant::audiofiles::Error& error) {
        return report(getStatus(error.kind), error.what());
    } catch (const zevrant::separation::Error& error) {
        return report(getStatus(error.kind), error.what());
    } catch (const std::bad_alloc&) {
        return report(ExitStatus::Failed, "out of memory");
    }
    if (std::fflush(stdout) != 0 || std::ferror(stdout))
        return report(ExitStatus::BadOutput, "standard output: cannot be written");
    return 0;
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
