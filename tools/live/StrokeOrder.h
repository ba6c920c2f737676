// Keeps a page's samples in order: batches numbered one after another, time never going back, and
// every stroke opened by a pen-down and closed by a pen-up. The library would take late samples as a
// new stroke; here they point to a broken page, which is told so.
#pragma once

#include <cstdint>

#include "ClientMessage.h"

namespace live {

class StrokeOrder {
public:
    // Throws ProtocolError for the first sample or number out of order; the state is then undefined.
    void check(const SamplesMessage& message);

    bool strokeOpen() const { return inStroke; }

private:
    uint64_t lastSeq = 0;
    uint64_t lastTimestamp = 0;
    bool anySample = false;
    bool inStroke = false;
};

}  // namespace live
