#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "cli/Commands.h"

namespace zevrant::cli {

namespace {

using Options = std::vector<const CLI::Option*>;
using Commands = std::vector<const CLI::App*>;

Commands getCommands(const CLI::App& program) {
    return program.get_subcommands([](const CLI::App*) { return true; });
}

Options getOptions(const CLI::App& command) {
    return command.get_options([](const CLI::Option* option) { return !option->get_positional(); });
}

bool takesValue(const CLI::Option& option) {
    return option.get_items_expected_max() > 0;
}

bool takesModel(const CLI::Option& option) {
    return option.check_lname("model");
}

bool startsWithModel(const CLI::App& command) {
    const Options positionals =
        command.get_options([](const CLI::Option* option) { return option->get_positional(); });
    return !positionals.empty() && positionals.front()->get_name(true) == "MODEL";
}

// The first line of a help text, with a backslash before each of these letters, and as shells quote it.
std::string quote(const std::string& text, const std::string& lettersToEscape = "") {
    std::string quoted = "'";
    for (const char letter : text.substr(0, text.find('\n'))) {
        if (letter == '\'')
            quoted += "'\\'";
        else if (lettersToEscape.find(letter) != std::string::npos)
            quoted += '\\';
        quoted += letter;
    }
    return quoted + "'";
}

// "-m --model" with something between the two.
std::string joinNames(const CLI::Option& option, const std::string& separator) {
    std::string names;
    for (const std::string& name : option.get_snames())
        names += (names.empty() ? "-" : separator + "-") + name;
    for (const std::string& name : option.get_lnames())
        names += (names.empty() ? "--" : separator + "--") + name;
    return names;
}

void printBash(const CLI::App& program) {
    std::string commands, cases, modelCommands;
    for (const CLI::App* command : getCommands(program)) {
        commands += command->get_name() + " ";
        cases += "        " + command->get_name() + ") words='";
        for (const CLI::Option* option : getOptions(*command)) cases += joinNames(*option, " ") + " ";
        cases += "' ;;\n";
        if (startsWithModel(*command)) modelCommands += "|" + command->get_name();
    }
    std::printf(
        "# Completion of zevrant's command lines for bash: source <(zevrant completion bash)\n"
        "_zevrant() {\n"
        "    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]} words=\n"
        "    case ${COMP_WORDS[1]} in\n"
        "%s"
        "    esac\n"
        "    if [ \"$COMP_CWORD\" -eq 1 ]; then\n"
        "        words='%s--help --version'\n"
        "    elif [[ $current != -* ]]; then\n"
        "        words=\n"
        "        case $previous in\n"
        "            -m|--model%s) words=$(\"${COMP_WORDS[0]}\" info 2>/dev/null | grep -v '^ ') ;;\n"
        "        esac\n"
        "    fi\n"
        "    COMPREPLY=($(compgen -W \"$words\" -- \"$current\"))\n"
        "}\n"
        "complete -o default -F _zevrant zevrant\n",
        cases.c_str(), commands.c_str(), modelCommands.c_str());
}

void printZsh(const CLI::App& program) {
    std::printf(
        "#compdef zevrant\n"
        "# Completion of zevrant's command lines for zsh: source <(zevrant completion zsh)\n"
        "_zevrant_models() {\n"
        "    compadd -- ${(f)\"$(zevrant info 2>/dev/null | grep -v '^ ')\"}\n"
        "    _files\n"
        "}\n"
        "_zevrant() {\n"
        "    local -a commands=(\n");
    for (const CLI::App* command : getCommands(program))
        std::printf("        %s\n", quote(command->get_name() + ":" + command->get_description()).c_str());
    std::printf(
        "    )\n"
        "    if (( CURRENT == 2 )); then _describe command commands; return; fi\n"
        "    local command=$words[2]\n"
        "    shift words; (( CURRENT-- ))\n"
        "    case $command in\n");
    for (const CLI::App* command : getCommands(program)) {
        std::printf("        %s) _arguments", command->get_name().c_str());
        for (const CLI::Option* option : getOptions(*command)) {
            const bool hasTwoNames = option->get_snames().size() + option->get_lnames().size() > 1;
            const std::string names =
                hasTwoNames ? "{" + joinNames(*option, ",") + "}" : joinNames(*option, "");
            const char* value = !takesValue(*option)  ? "']'"
                                : takesModel(*option) ? "']:model:_zevrant_models'"
                                                      : "']:value:_files'";
            std::printf(" \\\n            '*'%s%s%s", names.c_str(),
                        ("'['" + quote(option->get_description(), "[]:\\")).c_str(), value);
        }
        std::printf(" \\\n            '*:file:%s' ;;\n",
                    startsWithModel(*command) ? "_zevrant_models" : "_files");
    }
    std::printf(
        "    esac\n"
        "}\n"
        "if [ \"$funcstack[1]\" = _zevrant ]; then _zevrant \"$@\"; else compdef _zevrant zevrant; fi\n");
}

void printFish(const CLI::App& program) {
    std::printf(
        "# Completion of zevrant's command lines for fish: zevrant completion fish | source\n"
        "function __zevrant_models\n"
        "    zevrant info 2>/dev/null | string match -rv '^ '\n"
        "end\n");
    for (const CLI::App* command : getCommands(program)) {
        const std::string& name = command->get_name();
        std::printf("complete -c zevrant -f -n __fish_use_subcommand -a %s -d %s\n", name.c_str(),
                    quote(command->get_description(), "\\").c_str());
        const std::string condition = "complete -c zevrant -n '__fish_seen_subcommand_from " + name + "'";
        for (const CLI::Option* option : getOptions(*command)) {
            std::string names;
            for (const std::string& letter : option->get_snames()) names += " -s " + letter;
            for (const std::string& word : option->get_lnames()) names += " -l " + word;
            const char* value = !takesValue(*option)  ? ""
                                : takesModel(*option) ? " -r -a '(__zevrant_models)'"
                                                      : " -r";
            std::printf("%s%s%s -d %s\n", condition.c_str(), names.c_str(), value,
                        quote(option->get_description(), "\\").c_str());
        }
        if (startsWithModel(*command)) std::printf("%s -a '(__zevrant_models)'\n", condition.c_str());
    }
}

}  // namespace

void addCompletionCommand(CLI::App& program) {
    auto* command = program.add_subcommand("completion", "Prints what makes a shell complete command lines");
    const auto shell = std::make_shared<std::string>();
    command->add_option("SHELL", *shell, "bash, zsh or fish")
        ->required()
        ->check(CLI::IsMember({"bash", "zsh", "fish"}));
    command->footer(
        "The Debian package installs all three.\n"
        "\n"
        "Examples:\n"
        "  source <(zevrant completion bash)\n"
        "  source <(zevrant completion zsh)\n"
        "  zevrant completion fish | source");
    command->callback([shell, &program] {
        if (*shell == "bash") printBash(program);
        if (*shell == "zsh") printZsh(program);
        if (*shell == "fish") printFish(program);
    });
}

}  // namespace zevrant::cli
