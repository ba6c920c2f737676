#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <utility>

enum class QueueFullPolicy : int32_t {
    Block = 0,         // the producer waits for room
    RejectNewest = 1,  // the producer's element is refused, the queue is left as it is
};

// Bounded FIFO between threads: one mutex, one condition variable for both directions.
// Producers and consumers share the condition variable, so every change wakes all waiters: with a
// single wake-up, the producer refilling a queue the consumer just emptied could wake the other
// blocked producer instead of the consumer, and all three would then sleep with an element pending.
template <typename T>
class DataQueue {
public:
    DataQueue(uint64_t capacity, QueueFullPolicy policy) : capacity(capacity), policy(policy) {}
    DataQueue(const DataQueue&) = delete;
    DataQueue& operator=(const DataQueue&) = delete;

    // True if appended. Under Block a full queue makes the caller wait; a stop releases it with false.
    bool push(const T& value) {
        std::unique_lock<std::mutex> lock(mutex);
        if (items.size() < capacity) {
            if (stopped.load()) {
                return false;
            }
        } else {
            if (policy == QueueFullPolicy::RejectNewest) {
                return false;
            }
            while (!stopped.load() && items.size() >= capacity) {
                condition.wait(lock);
            }
            if (stopped.load()) {
                return false;
            }
        }
        items.push_back(value);
        condition.notify_all();
        return true;
    }

    // False only once the queue is stopped and empty: a stopped queue is drained first.
    bool pop(T& out) {
        std::unique_lock<std::mutex> lock(mutex);
        while (items.empty()) {
            if (stopped.load()) {
                return false;
            }
            condition.wait(lock);
        }
        out = std::move(items.front());
        items.pop_front();
        condition.notify_all();
        return true;
    }

    // Flag first, then wake everybody. Taking the mutex in between closes the window in which a
    // waiter has tested the flag but not yet started waiting, so no wake-up is lost.
    void stop() {
        stopped.store(true);
        { std::lock_guard<std::mutex> lock(mutex); }
        condition.notify_all();
    }

    size_t size() const {
        std::lock_guard<std::mutex> lock(mutex);
        return items.size();
    }

    bool isStopped() const { return stopped.load(); }

private:
    uint64_t capacity;
    std::atomic<bool> stopped{false};
    std::deque<T> items;
    mutable std::mutex mutex;
    std::condition_variable condition;
    QueueFullPolicy policy;
};
