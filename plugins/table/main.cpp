// Writes ShippedModelsTable.cpp, the models of a folder as plug-ins know them, to standard output.
//
//   zevrant_plugin_table FOLDER
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "plugins/ModelFiles.h"
#include "separation/Model.h"

namespace {

namespace fs = std::filesystem;
using zevrant::separation::Model;

// A literal of C++ that stands for this text.
std::string quote(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') quoted += '\\';
        if (c == '\n')
            quoted += "\\n";
        else
            quoted += c;
    }
    return quoted + '"';
}

// "harmonic-percussive" for people.
std::string makeTitle(const std::string& id) {
    std::string title = "Zevrant ";
    bool startsWord = true;
    for (const char c : id) {
        title += startsWord ? static_cast<char>(std::toupper(static_cast<unsigned char>(c)))
                 : c == '-' ? ' '
                            : c;
        startsWord = c == '-';
    }
    return title;
}

std::string makeSymbol(const std::string& name) {
    std::string symbol;
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        symbol += std::isalnum(byte) && byte < 128 ? static_cast<char>(std::tolower(byte)) : '_';
    }
    if (symbol.empty() || std::isdigit(static_cast<unsigned char>(symbol[0]))) symbol.insert(0, "bus_");
    return symbol;
}

}  // namespace

int main(int argc, char** argv) try {
    if (argc != 2) return 2;
    std::vector<fs::path> paths;
    for (const auto& entry : fs::directory_iterator(argv[1]))
        if (entry.path().extension() == ".zevrant") paths.push_back(entry.path());
    std::sort(paths.begin(), paths.end());

    std::string busses, models;
    std::set<std::uint64_t> numbers;
    for (const fs::path& path : paths) {
        const Model model = Model::open(path.string());
        const std::string id = path.stem().string(), place = std::to_string(numbers.size());
        const std::uint64_t number = zevrant::plugins::hash(id) & 0xffffff;
        std::set<std::string> symbols;
        busses += "constexpr ShippedBus busses" + place + "[] = {\n";
        for (const std::string& name : model.getBusNames()) {
            const std::string symbol = makeSymbol(name);
            busses += "    {" + quote(name) + ", " + quote(symbol) + "},\n";
            if (!symbols.insert(symbol).second) throw std::runtime_error(id + ": two busses called " + name);
        }
        busses += "};\n";
        models += "    {" + quote(id) + ", " + quote(makeTitle(id)) + ",\n     " +
                  quote(model.network.modelInfoText) + ",\n     " + std::to_string(number) + ", busses" +
                  place + "},\n";
        if (!numbers.insert(number).second) throw std::runtime_error(id + ": the number of another model");
    }
    if (paths.empty()) throw std::runtime_error(std::string(argv[1]) + ": no models");
    std::printf(
        "#include \"plugins/ShippedModels.h\"\n\nnamespace zevrant::plugins {\n\nnamespace {\n\n%s\n"
        "constexpr ShippedModel models[] = {\n%s};\n\n}  // namespace\n\n"
        "std::span<const ShippedModel> getShippedModels() {\n    return models;\n}\n\n"
        "}  // namespace zevrant::plugins\n",
        busses.c_str(), models.c_str());
} catch (const std::exception& error) {
    std::fprintf(stderr, "zevrant_plugin_table: %s\n", error.what());
    return 1;
}
