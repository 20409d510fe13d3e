#include "cli/Model.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "cli/Failure.h"

namespace zevrant::cli {

namespace {

constexpr int numOfControls = 16;  // busses with a gain and a sensitivity in the engine

std::string toLower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return text;
}

}  // namespace

int findBus(const Model& model, const std::string& nameOrNumber) {
    const std::vector<std::string> names = model.getBusNames();
    const auto exact = std::find(names.begin(), names.end(), nameOrNumber);
    if (exact != names.end()) return static_cast<int>(exact - names.begin());

    const auto isMeant = [&](const std::string& name) { return toLower(name) == toLower(nameOrNumber); };
    if (std::count_if(names.begin(), names.end(), isMeant) == 1)
        return static_cast<int>(std::find_if(names.begin(), names.end(), isMeant) - names.begin());

    std::size_t index = 0;
    const char* end = nameOrNumber.data() + nameOrNumber.size();
    const auto [rest, error] = std::from_chars(nameOrNumber.data(), end, index);
    if (error == std::errc() && rest == end && index < names.size()) return static_cast<int>(index);

    std::string list;
    for (std::size_t i = 0; i < names.size(); ++i)
        list += (i == 0 ? "" : ", ") + std::to_string(i) + " " + names[i];
    throw Failure(ExitStatus::WrongUsage,
                  "no bus '" + nameOrNumber + "'; the busses of this model are " + list);
}

BusSetting::BusSetting(const Model& model, const std::string& text, const char* option, double least,
                       double most) {
    const std::size_t separator = text.rfind('=');
    const std::string number = separator == std::string::npos ? "" : text.substr(separator + 1);
    char* end = nullptr;
    value = std::strtod(number.c_str(), &end);
    if (number.empty() || *end != '\0' || !(value >= least && value <= most)) {
        char range[64];
        std::snprintf(range, sizeof range, "%g to %g", least, most);
        throw Failure(ExitStatus::WrongUsage, std::string(option) + " " + text +
                                                  ": has to be BUS=NUMBER with a number from " + range);
    }
    bus = findBus(model, text.substr(0, separator));
    if (bus >= numOfControls)
        throw Failure(ExitStatus::WrongUsage,
                      std::string(option) + " " + text + ": only busses 0 to 15 have controls");
}

}  // namespace zevrant::cli
