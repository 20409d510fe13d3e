#pragma once

#include <CLI/CLI.hpp>

namespace zevrant::cli {

// Each adds its command with its help to the program. A command runs while the command line is parsed and
// ends by returning or by an exception: Failure, Interrupted or a standard one.
void addProcessCommand(CLI::App& program);
void addStemsCommand(CLI::App& program);
void addInfoCommand(CLI::App& program);
void addCheckCommand(CLI::App& program);
void addBenchCommand(CLI::App& program);
void addSpectrogramCommand(CLI::App& program);
void addCompareCommand(CLI::App& program);
void addCompletionCommand(CLI::App& program);

}  // namespace zevrant::cli
