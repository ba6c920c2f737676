#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

enum class QueueFullPolicy : int32_t {
    Block = 0,         // the producer waits for room
    RejectNewest = 1,  // the producer's element is refused, the queue is left as it is
};

enum class QueuePopResult : int32_t {
    Popped = 0,
    TimedOut = 1,  // the deadline passed with the queue empty
    Stopped = 2,   // the queue is stopped and drained
};

// Tells the core that the caller is busy-waiting, so that a sibling hyper-thread gets the pipeline
// and the wait costs less power.
inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
    asm volatile("yield" ::: "memory");
#endif
}

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
        itemCount.store(items.size(), std::memory_order_release);
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
        takeFront(out);
        return true;
    }

    // As pop(), but gives up at deadline: Popped, TimedOut (nothing arrived in time) or Stopped
    // (stopped and drained).
    template <typename Clock, typename Duration>
    QueuePopResult popUntil(T& out, const std::chrono::time_point<Clock, Duration>& deadline) {
        std::unique_lock<std::mutex> lock(mutex);
        while (items.empty()) {
            if (stopped.load()) {
                return QueuePopResult::Stopped;
            }
            if (condition.wait_until(lock, deadline) == std::cv_status::timeout && items.empty()) {
                return stopped.load() ? QueuePopResult::Stopped : QueuePopResult::TimedOut;
            }
        }
        takeFront(out);
        return QueuePopResult::Popped;
    }

    // Busy-waits, without the lock so that producers are never slowed, until a pop would not block:
    // true once an element waits or the queue is stopped, false when deadline passes first. For a
    // consumer that expects an element within microseconds and cannot afford a wake-up.
    template <typename Clock, typename Duration>
    bool spinUntilReady(const std::chrono::time_point<Clock, Duration>& deadline) const {
        // Reading the clock and yielding cost more than a poll; a few polls in between keep both rare.
        constexpr uint32_t kPollsPerCheck = 16;
        for (uint32_t poll = 1;; ++poll) {
            if (hasItems() || stopped.load()) {
                return true;
            }
            if (poll % kPollsPerCheck == 0) {
                if (Clock::now() >= deadline) {
                    return false;
                }
                // With every core busy, the producer may be waiting for this very core: the scheduler
                // does not preempt a spinner for it, so a plain busy-wait would hold the producer,
                // and the element, back until the deadline.
                std::this_thread::yield();
            } else {
                cpuRelax();
            }
        }
    }

    // Lock-free: whether an element waits. Exact only as of the moment it is read.
    bool hasItems() const { return itemCount.load(std::memory_order_acquire) > 0; }

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
    // Under the lock.
    void takeFront(T& out) {
        out = std::move(items.front());
        items.pop_front();
        itemCount.store(items.size(), std::memory_order_release);
        condition.notify_all();
    }

    uint64_t capacity;
    std::atomic<bool> stopped{false};
    std::deque<T> items;
    // items.size(), mirrored for readers that must not take the lock.
    std::atomic<size_t> itemCount{0};
    mutable std::mutex mutex;
    std::condition_variable condition;
    QueueFullPolicy policy;
};
