// The summary as JSON, for scripts that compare replays.
#pragma once

#include <ostream>
#include <string>

#include "ReplaySummary.h"

namespace replay {

class JsonSummary {
public:
    // Numbers without a value (no measured prediction) are written as null.
    static void write(std::ostream& out, const ReplaySummary& summary);
};

}  // namespace replay
