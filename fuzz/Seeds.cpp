// Writes the corpus that fuzzing starts from:  fuzz_seeds FOLDER TARGET...
//
// Each target gets FOLDER/TARGET with one file for each small model, behind the bytes of choices that the
// target reads first, or with a few files of choices alone.
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <random>
#include <span>
#include <string>

#include "Inputs.h"
#include "SmallModels.h"

namespace {

using namespace zevrant::fuzz;
using zevrant::modelwriter::Bytes;

void writeFile(const std::filesystem::path& path, std::span<const std::uint8_t> bytes) {
    std::ofstream stream(path, std::ios::binary);
    stream.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!stream.flush()) throw std::filesystem::filesystem_error("cannot write", path, {});
}

Bytes makeChoices(std::size_t count, unsigned seed) {
    Bytes choices(count);
    std::mt19937 random(seed);
    for (std::uint8_t& byte : choices) byte = static_cast<std::uint8_t>(random());
    return choices;
}

void writeSeeds(const std::filesystem::path& folder, const std::string& target) {
    const InputKind kind = inputKinds.at(target);
    std::filesystem::create_directories(folder);
    unsigned seed = 0;
    if (!kind.hasModel)
        for (std::size_t size : {8, 64, 64, 64, 512, 512, 512})
            writeFile(folder / ("choices-" + std::to_string(seed)), makeChoices(size, seed)), ++seed;
    else
        for (const SmallModel& model : makeSmallModels()) {
            Bytes input = makeChoices(kind.numOfChoices, seed++);
            input.insert(input.end(), model.bytes.begin(), model.bytes.end());
            std::string name = model.name;
            std::replace(name.begin(), name.end(), ' ', '-');
            writeFile(folder / name, input);
        }
}

}  // namespace

int main(int argc, char** argv) try {
    if (argc < 3) {
        std::cerr << "usage: fuzz_seeds FOLDER TARGET...\n";
        return 2;
    }
    for (int i = 2; i < argc; ++i) writeSeeds(std::filesystem::path(argv[1]) / argv[i], argv[i]);
    return 0;
} catch (const std::exception& error) {
    std::cerr << "fuzz_seeds: " << error.what() << '\n';
    return 1;
}
