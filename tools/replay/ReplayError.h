// The one error type of the replay tools: its text is ready to show the user as it stands
// ("file:line: what is wrong"), so callers only print it and exit nonzero.
#pragma once

#include <stdexcept>
#include <string>

namespace replay {

class ReplayError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace replay
