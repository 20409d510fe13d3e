// Writes the models that ship into a folder: zevrant_models FOLDER
#include <cstdio>
#include <exception>
#include <filesystem>

#include "models/ShippedModels.h"

int main(int argc, char** argv) {
    if (argc != 2 || argv[1][0] == '-') {
        std::fprintf(stderr,
                     "usage: zevrant_models FOLDER\n\n"
                     "Writes the models that ship with zevrant into FOLDER, which is made if need be.\n"
                     "After a change of a model, from the root of the project:\n\n"
                     "  build/release/tools/models/zevrant_models models\n");
        return 2;
    }
    try {
        const std::filesystem::path folder = argv[1];
        std::filesystem::create_directories(folder);
        for (const auto& [fileName, description] : zevrant::models::describeShippedModels()) {
            description.write(folder / fileName);
            std::printf("%s\n", (folder / fileName).c_str());
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "zevrant_models: %s\n", error.what());
        return 1;
    }
    return 0;
}
