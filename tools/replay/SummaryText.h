// The human-readable summary printed at the end of a replay.
#pragma once

#include <ostream>

#include "ReplaySummary.h"

namespace replay {

class SummaryText {
public:
    static void print(std::ostream& out, const ReplaySummary& summary);
};

}  // namespace replay
