#include "TempDir.h"

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace testkit {

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "stylus-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("cannot create a temporary directory from " + pattern);
    }
    dirPath = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(dirPath, ignored);
}

}  // namespace testkit
