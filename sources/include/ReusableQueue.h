#pragma once

#include <cstddef>
#include <utility>
#include <vector>

// First-in first-out queue over a vector whose storage is kept. Once its capacity covers the most
// elements ever held, it never allocates, where std::deque allocates and frees a block every few
// elements as it moves along.
template <typename T>
class ReusableQueue {
public:
    explicit ReusableQueue(size_t capacity = 8) { items.reserve(capacity); }

    void push_back(const T& value) {
        makeRoom();
        items.push_back(value);
    }
    template <typename... Args>
    void emplace_back(Args&&... args) {
        makeRoom();
        items.emplace_back(std::forward<Args>(args)...);
    }
    // Both require a non-empty queue.
    const T& front() const { return items[head]; }
    void pop_front() {
        if (++head == items.size()) clear();
    }
    size_t size() const { return items.size() - head; }
    bool empty() const { return size() == 0; }
    void clear() {
        items.clear();
        head = 0;
    }
    // The storage kept, for callers that want it in the caches ahead of use.
    const T* storage() const { return items.data(); }
    size_t storageCapacity() const { return items.capacity(); }

private:
    // When the storage is full, the popped prefix makes room before the vector would grow.
    void makeRoom() {
        if (head > 0 && items.size() == items.capacity()) {
            items.erase(items.begin(), items.begin() + static_cast<std::ptrdiff_t>(head));
            head = 0;
        }
    }

    std::vector<T> items;
    size_t head = 0;
};
