// Cuts a page's batch into the batches the library takes whole. The library predicts from, and
// records, only what follows a batch's last pen-down or pen-up: so a pen-down starts a batch and a
// pen-up goes alone, and no sample is lost.
#pragma once

#include <cstddef>
#include <vector>

#include "StylusStrokePredictor.h"

namespace live {

struct BatchRange {
    std::size_t first = 0;
    std::size_t count = 0;
};

class LibraryBatches {
public:
    static std::vector<BatchRange> cut(const std::vector<StylusTouchPoint>& samples);
};

}  // namespace live
