// A folder of the test's own, removed with all that is in it.
#ifndef ORBA_TESTS_PLATFORM_SCRATCH_FOLDER_H
#define ORBA_TESTS_PLATFORM_SCRATCH_FOLDER_H

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

class ScratchFolder {
  public:
    ScratchFolder() : path_(::testing::TempDir() + "/orba-platform-XXXXXX") {
        if (::mkdtemp(path_.data()) == nullptr) {
            throw std::runtime_error("no scratch folder: " + path_);
        }
    }
    ~ScratchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

    std::string write(const std::string& name, const std::string& content) const {
        std::ofstream stream(file(name), std::ios::binary);
        stream << content << std::flush;
        if (!stream) {
            throw std::runtime_error("cannot write " + file(name));
        }
        return file(name);
    }

    std::vector<std::string> names() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(path_)) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

  private:
    std::string path_;
};

inline std::string contentOf(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

#endif  // ORBA_TESTS_PLATFORM_SCRATCH_FOLDER_H
