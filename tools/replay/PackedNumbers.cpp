#include "PackedNumbers.h"

#include <algorithm>
#include <cstddef>

namespace replay {

void PackedNumbers::append(std::string& bytes, int64_t value) {
    uint64_t zigzag = value < 0 ? ~(static_cast<uint64_t>(value) << 1) : static_cast<uint64_t>(value) << 1;
    while (zigzag >= 0x80) {
        bytes += static_cast<char>((zigzag & 0x7f) | 0x80);
        zigzag >>= 7;
    }
    bytes += static_cast<char>(zigzag);
}

std::vector<int64_t> PackedNumbers::unpack(const std::string& bytes) {
    std::vector<int64_t> values;
    uint64_t zigzag = 0;
    int shift = 0;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        zigzag |= static_cast<uint64_t>(byte & 0x7f) << shift;
        if (byte & 0x80) {
            shift += 7;
            continue;
        }
        values.push_back((zigzag & 1) != 0 ? static_cast<int64_t>(~(zigzag >> 1)) : static_cast<int64_t>(zigzag >> 1));
        zigzag = 0;
        shift = 0;
    }
    return values;
}

std::string PackedNumbers::base64(const std::string& bytes) {
    static const char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t n = std::min<std::size_t>(3, bytes.size() - i);
        uint32_t group = 0;
        for (std::size_t j = 0; j < 3; ++j) {
            group = (group << 8) | (j < n ? static_cast<unsigned char>(bytes[i + j]) : 0u);
        }
        for (std::size_t j = 0; j < 4; ++j) {
            text += j <= n ? digits[(group >> (18 - 6 * j)) & 0x3f] : '=';
        }
    }
    return text;
}

}  // namespace replay
