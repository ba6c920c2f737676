// A message from the page that breaks the protocol; its text goes back to the page as is.
#pragma once

#include <stdexcept>

namespace live {

class ProtocolError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace live
