#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "cli/Commands.h"
#include "cli/Failure.h"
#include "cli/Json.h"
#include "cli/Text.h"
#include "neural/ModelLoader.h"
#include "neural/ModelReport.h"
#include "separation/Model.h"

namespace zevrant::cli {

namespace {

// Why the file is refused, or what reading it and the model that it makes have shown.
std::vector<Finding> findFaults(const std::string& path) {
    NeuralModel<float> network;
    LoadReport report;
    if (!tryLoadModel(File(path), network, report)) return {report.refusal.value_or(Finding())};
    for (Finding& finding : checkModel(network)) report.findings.push_back(std::move(finding));
    return std::move(report.findings);
}

const char* toText(Finding::Severity severity) {
    return severity == Finding::Error ? "error" : "warning";
}

void printText(const std::vector<Finding>& findings) {
    for (const Finding& finding : findings)
        std::printf("%-7s  %s\n", toText(finding.severity), makeHarmless(finding.getText()).c_str());
}

void printJson(const std::string& path, const std::vector<Finding>& findings) {
    Json list = Json::array();
    for (const Finding& finding : findings) {
        Json entry = {{"severity", toText(finding.severity)}};
        for (const auto& [key, text] : {std::pair{"layer", &finding.layer},
                                        {"field", &finding.field},
                                        {"value", &finding.value},
                                        {"problem", &finding.problem},
                                        {"remedy", &finding.remedy}})
            if (!text->empty()) entry[key] = *text;
        if (finding.position >= 0) entry["position"] = finding.position;
        list.push_back(entry);
    }
    writeJson(Json({{"path", path}, {"findings", list}}));
}

struct CheckCommand {
    std::string model;
    bool asJson = false;

    void run() const {
        const std::string path = separation::findModel(model).string();
        if (std::error_code error; !std::filesystem::is_regular_file(path, error))
            throw Failure(ExitStatus::BadModel, path + ": no such file");
        const std::vector<Finding> findings = findFaults(path);
        if (asJson)
            printJson(path, findings);
        else
            printText(findings);
        if (!findings.empty())
            throw Failure(ExitStatus::Failed, path + ": " + std::to_string(findings.size()) +
                                                  (findings.size() == 1 ? " finding" : " findings"));
        if (!asJson) std::printf("%s: nothing found\n", makeHarmless(path).c_str());
    }
};

}  // namespace

void addCheckCommand(CLI::App& program) {
    auto* command = program.add_subcommand("check", "Looks for what is wrong with a model, or will surprise");
    const auto options = std::make_shared<CheckCommand>();
    command->add_option("MODEL", options->model, "Model: a path, or the name of an installed one")
        ->required();
    command->add_flag("--json", options->asJson, "For programs");
    command->footer(
        "An error makes the engine refuse the model, stop at a frame, or give nothing; a warning is "
        "something of\n"
        "the file that is ignored or does not do what it seems to. The status is 1 for either.\n"
        "\n"
        "Examples:\n"
        "  zevrant check my.zevrant\n"
        "  zevrant check my.zevrant --json | jq '.findings[].problem'");
    command->callback([options] { options->run(); });
}

}  // namespace zevrant::cli
