#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "DataQueue.h"

namespace {

using Clock = std::chrono::steady_clock;
// Far enough that reaching it means the call missed what should have released it.
constexpr auto kNever = std::chrono::hours(1);

void waitUntil(const std::atomic<bool>& flag) {
    while (!flag.load()) {
        std::this_thread::yield();
    }
}

// Gives a thread that has announced itself a chance to reach its blocking call; correctness never
// depends on it, it only makes a call that wrongly returns early more likely to be seen.
void letOthersRun() {
    for (int i = 0; i < 1000; ++i) {
        std::this_thread::yield();
    }
}

TEST(DataQueueTest, BlockedPushReturnsOnlyAfterConsumerPop) {
    DataQueue<int> queue(1, QueueFullPolicy::Block);
    ASSERT_TRUE(queue.push(1));
    std::atomic<bool> entered{false};
    std::atomic<bool> returned{false};
    bool pushed = false;
    std::thread producer([&] {
        entered = true;
        pushed = queue.push(2);
        returned = true;
    });
    waitUntil(entered);
    letOthersRun();
    EXPECT_FALSE(returned.load()) << "push into a full Block queue returned before any pop";
    int out = 0;
    ASSERT_TRUE(queue.pop(out));
    EXPECT_EQ(out, 1);
    producer.join();
    EXPECT_TRUE(pushed);
    ASSERT_TRUE(queue.pop(out));
    EXPECT_EQ(out, 2);
}

// With few cycles the stop lands while its waiters sleep; with many, also while a waiter is between
// testing the flag and starting to wait, where a lost wake-up leaves it asleep for good and hangs the join.
TEST(DataQueueTest, StopReleasesBlockedProducerAndConsumerWithFalse) {
    for (int cycle = 0; cycle < 2000; ++cycle) {
        DataQueue<int> empty(1, QueueFullPolicy::Block);
        DataQueue<int> full(1, QueueFullPolicy::Block);
        ASSERT_TRUE(full.push(1));
        std::atomic<bool> consumerEntering{false};
        std::atomic<bool> producerEntering{false};
        bool popped = true;
        bool pushed = true;
        std::thread consumer([&] {
            int out = 0;
            consumerEntering = true;
            popped = empty.pop(out);
        });
        std::thread producer([&] {
            producerEntering = true;
            pushed = full.push(2);
        });
        waitUntil(consumerEntering);
        waitUntil(producerEntering);
        if (cycle == 0) {
            letOthersRun();
        }
        empty.stop();
        full.stop();
        consumer.join();
        producer.join();
        ASSERT_FALSE(popped) << "cycle " << cycle;
        ASSERT_FALSE(pushed) << "cycle " << cycle;
        // The refused element never entered; the one queued before the stop is still delivered.
        int out = 0;
        ASSERT_TRUE(full.pop(out));
        ASSERT_EQ(out, 1);
        ASSERT_FALSE(full.pop(out));
    }
}

TEST(DataQueueTest, StoppedQueueRefusesPushesAndDrainsInOrderThenReportsFalse) {
    for (QueueFullPolicy policy : {QueueFullPolicy::Block, QueueFullPolicy::RejectNewest}) {
        SCOPED_TRACE(static_cast<int>(policy));
        DataQueue<int> queue(4, policy);
        for (int v : {7, 8, 9}) {
            ASSERT_TRUE(queue.push(v));
        }
        queue.stop();
        EXPECT_FALSE(queue.push(10));  // room left, but stopped
        int out = 0;
        for (int expected : {7, 8, 9}) {
            ASSERT_TRUE(queue.pop(out));
            EXPECT_EQ(out, expected);
        }
        EXPECT_FALSE(queue.pop(out));
    }
}

// Two producers and a consumer hand elements over through a one-slot queue until it is stopped:
// nobody may sleep while work is pending, every accepted element comes out, each producer's in order.
TEST(DataQueueTest, BusyHandOverNeverStallsLosesOrReordersElements) {
    for (int cycle = 0; cycle < 500; ++cycle) {
        DataQueue<int> queue(1, QueueFullPolicy::Block);
        std::atomic<int> pushes{0};
        std::atomic<int> pops{0};
        bool ordered = true;
        std::vector<std::thread> threads;
        for (int p = 0; p < 2; ++p) {
            threads.emplace_back([&, p] {
                for (int n = p; queue.push(n); n += 2) {
                    ++pushes;
                }
            });
        }
        threads.emplace_back([&] {
            int out = 0;
            int next[2] = {0, 1};
            while (queue.pop(out)) {
                ordered = ordered && out == next[out % 2];
                next[out % 2] = out + 2;
                ++pops;
            }
        });
        // A stall leaves all three asleep; the stop below releases them, so the bound turns a stall
        // into a failure instead of a hang.
        bool progressed = false;
        for (long spin = 0; spin < 20000000 && !progressed; ++spin) {
            progressed = pops.load() >= 20;
            std::this_thread::yield();
        }
        queue.stop();
        for (std::thread& t : threads) {
            t.join();
        }
        ASSERT_TRUE(progressed) << "producers and consumer all asleep, cycle " << cycle;
        ASSERT_EQ(pushes.load(), pops.load()) << "cycle " << cycle;
        ASSERT_TRUE(ordered) << "cycle " << cycle;
    }
}

// A timed pop without another thread: what is queued comes out even past the deadline, an empty
// queue times out, a stopped one drains and then reports the stop.
TEST(DataQueueTest, TimedPopReturnsTheElementTimesOutOrReportsTheStop) {
    const struct {
        const char* name;
        std::vector<int> queued;
        bool stop;
        std::chrono::milliseconds deadlineFromNow;
        std::vector<QueuePopResult> results;  // of successive pops
        std::vector<int> popped;
    } cases[] = {
        {"element, deadline passed", {5}, false, std::chrono::milliseconds(-10),
         {QueuePopResult::Popped, QueuePopResult::TimedOut}, {5}},
        {"two elements in order", {5, 6}, false, std::chrono::milliseconds(1),
         {QueuePopResult::Popped, QueuePopResult::Popped, QueuePopResult::TimedOut}, {5, 6}},
        {"empty", {}, false, std::chrono::milliseconds(1), {QueuePopResult::TimedOut}, {}},
        {"stopped, empty", {}, true, std::chrono::milliseconds(-10), {QueuePopResult::Stopped}, {}},
        {"stopped, drained first", {7}, true, std::chrono::milliseconds(1),
         {QueuePopResult::Popped, QueuePopResult::Stopped}, {7}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        DataQueue<int> queue(4, QueueFullPolicy::Block);
        for (int v : c.queued) {
            ASSERT_TRUE(queue.push(v));
        }
        if (c.stop) {
            queue.stop();
        }
        std::vector<QueuePopResult> results;
        std::vector<int> popped;
        for (size_t i = 0; i < c.results.size(); ++i) {
            int out = -1;
            const QueuePopResult result = queue.popUntil(out, Clock::now() + c.deadlineFromNow);
            results.push_back(result);
            if (result == QueuePopResult::Popped) {
                popped.push_back(out);
            }
        }
        EXPECT_EQ(results, c.results);
        EXPECT_EQ(popped, c.popped);
        EXPECT_FALSE(queue.hasItems());
    }
}

// A consumer waiting with a distant deadline is released by a push (with the element) or a stop.
TEST(DataQueueTest, TimedPopIsReleasedByAPushOrAStop) {
    for (const bool byStop : {false, true}) {
        SCOPED_TRACE(byStop ? "stop" : "push");
        DataQueue<int> queue(1, QueueFullPolicy::Block);
        std::atomic<bool> entered{false};
        QueuePopResult result = QueuePopResult::TimedOut;
        int out = 0;
        std::thread consumer([&] {
            entered = true;
            result = queue.popUntil(out, Clock::now() + kNever);
        });
        waitUntil(entered);
        letOthersRun();
        if (byStop) {
            queue.stop();
        } else {
            ASSERT_TRUE(queue.push(42));
        }
        consumer.join();
        EXPECT_EQ(result, byStop ? QueuePopResult::Stopped : QueuePopResult::Popped);
        EXPECT_EQ(out, byStop ? 0 : 42);
    }
}

// The busy-wait ends as soon as a pop would not block, and only at its deadline otherwise. A full
// Reject Newest queue refuses the newest element and keeps the first.
TEST(DataQueueTest, SpinEndsAtAnElementAStopOrTheDeadline) {
    DataQueue<int> queue(1, QueueFullPolicy::RejectNewest);
    EXPECT_FALSE(queue.hasItems());
    EXPECT_FALSE(queue.spinUntilReady(Clock::now() + std::chrono::milliseconds(1)));
    ASSERT_TRUE(queue.push(1));
    EXPECT_FALSE(queue.push(2));
    EXPECT_TRUE(queue.hasItems()) << "a refused push leaves the count alone";
    EXPECT_TRUE(queue.spinUntilReady(Clock::now() - std::chrono::seconds(1))) << "an element already waits";
    int out = 0;
    ASSERT_TRUE(queue.pop(out));
    EXPECT_EQ(out, 1);
    EXPECT_EQ(queue.size(), 0u);
    ASSERT_TRUE(queue.push(3)) << "room again after the pop";
    ASSERT_TRUE(queue.pop(out));
    queue.stop();
    EXPECT_TRUE(queue.spinUntilReady(Clock::now() - std::chrono::seconds(1))) << "a stopped queue never blocks";
    EXPECT_FALSE(queue.pop(out));
}

// A consumer that spins, then pops, as the inference thread does: a push from another thread during
// the spin is taken; a stop during the spin ends the consumer. Many cycles, so that the push or stop
// also lands between the consumer's last poll and its pop.
TEST(DataQueueTest, PushOrStopDuringTheSpinIsSeen) {
    for (const bool byStop : {false, true}) {
        SCOPED_TRACE(byStop ? "stop" : "push");
        for (int cycle = 0; cycle < 100; ++cycle) {
            DataQueue<int> queue(1, QueueFullPolicy::Block);
            std::atomic<bool> spinning{false};
            bool ready = false;
            bool popped = false;
            int out = 0;
            std::thread consumer([&] {
                spinning = true;
                ready = queue.spinUntilReady(Clock::now() + kNever);
                popped = queue.pop(out);
            });
            waitUntil(spinning);
            if (byStop) {
                queue.stop();
            } else {
                ASSERT_TRUE(queue.push(cycle + 1));
            }
            consumer.join();
            ASSERT_TRUE(ready) << "cycle " << cycle;
            ASSERT_EQ(popped, !byStop) << "cycle " << cycle;
            ASSERT_EQ(out, byStop ? 0 : cycle + 1) << "cycle " << cycle;
        }
    }
}

}  // namespace
