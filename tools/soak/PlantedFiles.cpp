#include "PlantedFiles.h"

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <system_error>

#include "RecordingFormat.h"

namespace soak {

namespace {

namespace fs = std::filesystem;

std::string contentOf(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// The sparse leftover's size: a recording's header, then nothing up to 64 GB.
constexpr off_t kSparseBytes = off_t{64} << 30;

}  // namespace

PlantedFiles::PlantedFiles(const fs::path& recordings, const fs::path& outside) : outside(outside) {
    // A recording with a torn last row: followed, recovery would cut and publish it.
    outsideBytes = std::string(recordingformat::kHeaderLine) + "1,1.0000000,2.0000000,0.0000000,0.0000000,0.0000000,0\n2,1";
    std::ofstream(outside, std::ios::binary) << outsideBytes;
    const fs::path consent = recordings / "data_collect_user_pref";
    const fs::path linkedLeftover = recordings / "stylus_input_events_2020-01-01_00-00-00.dat.tmp";
    const fs::path fifoLeftover = recordings / "stylus_input_events_2020-01-01_00-00-01.dat.tmp";
    const fs::path sparseLeftover = recordings / "stylus_input_events_2020-01-01_00-00-02.dat.tmp";
    const fs::path hidden = recordings / "stylus_input_events_2020-01-01_00-00-03.dat.tmp.new-Plant1";
    std::error_code error;
    fs::create_symlink(outside, consent, error);
    fs::create_symlink(outside, linkedLeftover, error);
    mkfifo(fifoLeftover.c_str(), 0666);
    std::ofstream(sparseLeftover, std::ios::binary) << recordingformat::kHeaderLine;
    if (truncate(sparseLeftover.c_str(), kSparseBytes) != 0) {
        fs::remove(sparseLeftover, error);
    }
    fs::create_hard_link(outside, hidden, error);
    for (const fs::path& path : {consent, linkedLeftover, fifoLeftover, sparseLeftover, hidden}) {
        const fs::file_status status = fs::symlink_status(path, error);
        if (!error) {
            planted.push_back({path, status.type(),
                               status.type() == fs::file_type::regular ? fs::file_size(path, error) : 0});
        }
    }
}

bool PlantedFiles::untouched() const {
    if (contentOf(outside) != outsideBytes) {
        return false;
    }
    for (const Planted& p : planted) {
        std::error_code error;
        const fs::file_status status = fs::symlink_status(p.path, error);
        // The consent file is replaced when the host changes its choice: gone as a link is fine, a
        // regular file in its place too. Everything else stays as planted.
        const bool consent = p.path.filename() == "data_collect_user_pref";
        if (consent && status.type() == fs::file_type::regular) {
            continue;
        }
        if (error || status.type() != p.type ||
            (p.type == fs::file_type::regular && fs::file_size(p.path, error) != p.size)) {
            return false;
        }
    }
    return true;
}

void PlantedFiles::remove() {
    std::error_code error;
    for (const Planted& p : planted) {
        fs::remove(p.path, error);
    }
    fs::remove(outside, error);
}

}  // namespace soak
