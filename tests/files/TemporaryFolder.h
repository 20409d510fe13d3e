#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace zevrant {

// A folder of its own for each test, removed with all that the test put there.
class TemporaryFolder {
  public:
    TemporaryFolder() {
        std::string pattern = std::filesystem::temp_directory_path() / "zevrant-test-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary folder");
        path = pattern;
    }

    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }

    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string getPath(const std::string& name) const { return path + "/" + name; }

    // Writes a file and returns its path.
    std::string makeFile(const std::string& name, const std::string& contents = "") const {
        std::ofstream(getPath(name), std::ios::binary) << contents;
        return getPath(name);
    }

    std::string readFile(const std::string& name) const {
        std::ifstream in(getPath(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    std::string path;
};

}  // namespace zevrant
