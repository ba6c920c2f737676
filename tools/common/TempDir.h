// A private temporary directory, removed with everything in it on destruction. Shared by the tests,
// benchmarks, fuzz targets and the soak; creation failing throws rather than falling back elsewhere.
#pragma once

#include <string>

namespace testkit {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return dirPath; }
    std::string file(const std::string& name) const { return dirPath + "/" + name; }

private:
    std::string dirPath;
};

}  // namespace testkit
