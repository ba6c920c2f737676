#pragma once

#include <cstddef>

namespace styluspipeline {

// Reads one byte of every cache line of [data, data + bytes), so that the lines, and the address
// translations of their pages, are near the core again before code that needs them runs. The sum
// is handed to an empty asm statement so that the reads are not optimised away.
inline void touchForRead(const void* data, std::size_t bytes) {
    constexpr std::size_t kLineBytes = 64;
    const auto* bytePointer = static_cast<const unsigned char*>(data);
    unsigned sum = 0;
    for (std::size_t offset = 0; offset < bytes; offset += kLineBytes) {
        sum += bytePointer[offset];
    }
    if (bytes > 0) {
        sum += bytePointer[bytes - 1];
    }
    asm volatile("" : : "r"(sum));
}

}  // namespace styluspipeline
