#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace soak {

// What another process able to write into a recording directory could leave under the names the
// library uses: a link to a file outside (the consent file, a leftover), a FIFO, a hard link under a
// name being created and a huge sparse leftover. They must be neither followed, blocked on, written
// through nor finished; the soak checks that and removes them before reading the directory back.
class PlantedFiles {
public:
    PlantedFiles(const std::filesystem::path& recordings, const std::filesystem::path& outside);
    // Whether everything planted is still as planted and the file outside has its bytes.
    bool untouched() const;
    void remove();

private:
    struct Planted {
        std::filesystem::path path;
        std::filesystem::file_type type;
        std::uintmax_t size;
    };
    std::filesystem::path outside;
    std::string outsideBytes;
    std::vector<Planted> planted;
};

}  // namespace soak
