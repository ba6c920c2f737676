// A temporary directory for one benchmark run, removed with everything in it.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>

class BenchTempDir {
public:
    BenchTempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "stylus-bench-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("cannot create " + pattern);
        }
        path = pattern;
    }
    ~BenchTempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    BenchTempDir(const BenchTempDir&) = delete;
    BenchTempDir& operator=(const BenchTempDir&) = delete;

    std::filesystem::path path;
};
