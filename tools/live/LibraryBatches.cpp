#include "LibraryBatches.h"

namespace live {

std::vector<BatchRange> LibraryBatches::cut(const std::vector<StylusTouchPoint>& samples) {
    std::vector<BatchRange> ranges;
    BatchRange open;
    auto close = [&](std::size_t next) {
        if (open.count > 0) {
            ranges.push_back(open);
        }
        open = BatchRange{next, 0};
    };
    for (std::size_t i = 0; i < samples.size(); ++i) {
        if (samples[i].tag == STYLUS_TAG_PEN_DOWN) {
            close(i);
        } else if (samples[i].tag == STYLUS_TAG_PEN_UP) {
            close(i);
            ranges.push_back(BatchRange{i, 1});
            open = BatchRange{i + 1, 0};
            continue;
        }
        ++open.count;
    }
    close(samples.size());
    return ranges;
}

}  // namespace live
