#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "DataQueue.h"

namespace {

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

TEST(DataQueueTest, RejectNewestRefusesWhenFullAndKeepsFirst) {
    DataQueue<int> queue(1, QueueFullPolicy::RejectNewest);
    EXPECT_TRUE(queue.push(1));
    EXPECT_FALSE(queue.push(2));
    EXPECT_EQ(queue.size(), 1u);

    int out = 0;
    EXPECT_TRUE(queue.pop(out));
    EXPECT_EQ(out, 1);
    EXPECT_EQ(queue.size(), 0u);
    EXPECT_TRUE(queue.push(3));
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

TEST(DataQueueTest, StopReleasesBlockedProducerAndConsumerWithFalse) {
    DataQueue<int> full(1, QueueFullPolicy::Block);
    ASSERT_TRUE(full.push(1));
    DataQueue<int> empty(1, QueueFullPolicy::Block);

    std::atomic<bool> producerEntered{false};
    std::atomic<bool> consumerEntered{false};
    bool pushed = true;
    bool popped = true;
    std::thread producer([&] {
        producerEntered = true;
        pushed = full.push(2);
    });
    std::thread consumer([&] {
        consumerEntered = true;
        int out = 0;
        popped = empty.pop(out);
    });
    waitUntil(producerEntered);
    waitUntil(consumerEntered);
    letOthersRun();
    full.stop();
    empty.stop();
    producer.join();
    consumer.join();
    EXPECT_FALSE(pushed);
    EXPECT_FALSE(popped);

    // The refused element never entered; the one queued before the stop is still delivered.
    int out = 0;
    EXPECT_TRUE(full.pop(out));
    EXPECT_EQ(out, 1);
    EXPECT_FALSE(full.pop(out));
}

TEST(DataQueueTest, StoppedQueueDrainsInOrderThenReportsFalse) {
    DataQueue<int> queue(3, QueueFullPolicy::Block);
    for (int v : {7, 8, 9}) {
        ASSERT_TRUE(queue.push(v));
    }
    queue.stop();
    int out = 0;
    EXPECT_TRUE(queue.pop(out));
    EXPECT_EQ(out, 7);
    EXPECT_TRUE(queue.pop(out));
    EXPECT_EQ(out, 8);
    EXPECT_TRUE(queue.pop(out));
    EXPECT_EQ(out, 9);
    EXPECT_FALSE(queue.pop(out));
    EXPECT_FALSE(queue.pop(out));
}

TEST(DataQueueTest, StoppedQueueRefusesPushWithRoomOrWhenFull) {
    for (QueueFullPolicy policy : {QueueFullPolicy::Block, QueueFullPolicy::RejectNewest}) {
        DataQueue<int> roomy(2, policy);
        roomy.stop();
        EXPECT_FALSE(roomy.push(1)) << "policy " << static_cast<int>(policy);
        EXPECT_EQ(roomy.size(), 0u);
    }
    DataQueue<int> full(1, QueueFullPolicy::RejectNewest);
    ASSERT_TRUE(full.push(1));
    full.stop();
    EXPECT_FALSE(full.push(2));
    EXPECT_EQ(full.size(), 1u);
}

// Each stop lands while its waiter is between testing the flag and starting to wait; a wake-up lost
// there leaves the waiter asleep for good and hangs the join.
TEST(DataQueueTest, StopRacingAWaiterAlwaysReleasesIt) {
    for (int cycle = 0; cycle < 2000; ++cycle) {
        DataQueue<int> empty(1, QueueFullPolicy::Block);
        DataQueue<int> full(1, QueueFullPolicy::Block);
        ASSERT_TRUE(full.push(0));
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
            pushed = full.push(1);
        });
        waitUntil(consumerEntering);
        empty.stop();
        waitUntil(producerEntering);
        full.stop();
        consumer.join();
        producer.join();
        ASSERT_FALSE(popped) << "cycle " << cycle;
        ASSERT_FALSE(pushed) << "cycle " << cycle;
    }
}

// Two producers and a consumer hand elements over through a one-slot queue until it is stopped:
// nobody may sleep while work is pending, and every accepted element must come out.
TEST(DataQueueTest, BusyHandOverNeverStallsOrLosesElements) {
    for (int cycle = 0; cycle < 500; ++cycle) {
        DataQueue<int> queue(1, QueueFullPolicy::Block);
        std::atomic<int> pushes{0};
        std::atomic<int> pops{0};
        std::vector<std::thread> threads;
        for (int p = 0; p < 2; ++p) {
            threads.emplace_back([&, p] {
                while (queue.push(p)) {
                    ++pushes;
                }
            });
        }
        threads.emplace_back([&] {
            int out = 0;
            while (queue.pop(out)) {
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
    }
}

TEST(DataQueueTest, MultipleProducersKeepTheirOwnOrder) {
    constexpr int kProducers = 4;
    constexpr int kPerProducer = 2000;
    DataQueue<int> queue(8, QueueFullPolicy::Block);

    std::vector<int> received;
    std::thread consumer([&] {
        int out = 0;
        while (queue.pop(out)) {
            received.push_back(out);
        }
    });
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&queue, p] {
            for (int i = 0; i < kPerProducer; ++i) {
                ASSERT_TRUE(queue.push(p * kPerProducer + i));
            }
        });
    }
    for (std::thread& t : producers) {
        t.join();
    }
    queue.stop();
    consumer.join();

    ASSERT_EQ(received.size(), static_cast<size_t>(kProducers * kPerProducer));
    std::vector<int> next(kProducers, 0);
    for (int value : received) {
        const int p = value / kPerProducer;
        ASSERT_EQ(value % kPerProducer, next[p]) << "producer " << p << " out of order";
        ++next[p];
    }
}

}  // namespace
