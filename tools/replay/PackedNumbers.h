// Whole numbers packed for the report page: each as a zigzag varint (7 bits a byte, low first, the top
// bit set on every byte but the last; n >= 0 as 2n, n < 0 as -2n - 1), so that the small deltas the
// report stores take one or two bytes; the bytes go into the page as base64.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace replay {

class PackedNumbers {
public:
    static void append(std::string& bytes, int64_t value);
    static std::vector<int64_t> unpack(const std::string& bytes);
    static std::string base64(const std::string& bytes);
};

}  // namespace replay
