#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>

// Fixed-length history kept in tensor order: element 0 the oldest, count - 1 the newest, so its
// storage can go to the model without a copy. Inserting shifts older elements toward the front.
template <typename T>
class CircularBuffer {
    static_assert(std::is_trivially_copyable<T>::value, "elements are moved with block copies");

public:
    explicit CircularBuffer(uint32_t count) : count(count), data(new T[count]()) {}

    // Appends n items, discarding the n oldest. Throws std::out_of_range, changing nothing, when n
    // exceeds the capacity (a negative n does too).
    void insert(const T* items, int n) {
        if (count < static_cast<uint32_t>(n)) {
            throw std::out_of_range("Number of elements to be inserted cannot be greater than count :" +
                                    std::to_string(count));
        }
        if (n == 0) {
            return;
        }
        const uint32_t kept = count - static_cast<uint32_t>(n);
        std::memmove(data.get(), data.get() + n, kept * sizeof(T));
        std::memcpy(data.get() + kept, items, static_cast<size_t>(n) * sizeof(T));
    }

    void clear() { std::memset(static_cast<void*>(data.get()), 0, count * sizeof(T)); }

    uint32_t size() const { return count; }
    const T* begin() const { return data.get(); }
    const T& operator[](uint32_t index) const { return data[index]; }

private:
    uint32_t count;
    std::unique_ptr<T[]> data;
};
