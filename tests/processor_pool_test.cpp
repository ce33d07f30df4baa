#include "processor_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

namespace Varnelo {
namespace {

// Waits until `pool` has counted `waits` waiters.
void AwaitWaiters(ProcessorPool& pool, std::uint64_t waits) {
    while (pool.Waits() < waits) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

// Three conversions queue for the one processor; each gets it in the order it came, and while
// any waits nobody takes a processor past them, not even one just given back.
TEST(ProcessorPoolTest, ServesWaitersInTheOrderTheyCameAndLetsNoOnePass) {
    ProcessorPool pool(1);
    pool.TakeOne();
    std::mutex mutex;
    std::vector<int> order;
    std::atomic<bool> release{false};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&, i] {
            pool.TakeOne();
            {
                std::lock_guard<std::mutex> lock(mutex);
                order.push_back(i);
            }
            while (!release) std::this_thread::yield();
            pool.GiveOne();
        });
        AwaitWaiters(pool, static_cast<std::uint64_t>(i) + 1);
    }
    EXPECT_FALSE(pool.Idle());
    pool.GiveOne();
    EXPECT_FALSE(pool.TryTakeOne());  // the first waiter's turn, though it may not run yet
    release = true;
    for (std::thread& t : waiters) t.join();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
    EXPECT_TRUE(pool.Idle());
    EXPECT_TRUE(pool.TryTakeOne());
    EXPECT_FALSE(pool.TryTakeOne());
    EXPECT_EQ(pool.Waits(), 3u);
}

// A thread that holds a processor (a helper that took it for a conversion) holds no second one
// when the conversion asks: it would wait for itself.
TEST(ProcessorPoolTest, AThreadHoldsOneProcessorHoweverOftenItAsks) {
    ProcessorPool& pool = ProcessorPool::Shared();
    int taken = 0;
    while (pool.TryTakeOne()) ++taken;
    ASSERT_GE(taken, 1);
    auto holder = std::async(std::launch::async, [&] {
        HeldProcessor outer{HeldProcessor::Taken{}};
        const HeldProcessor inner;  // waits forever if it takes
        return true;
    });
    EXPECT_EQ(holder.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_TRUE(pool.TryTakeOne());  // the outer holder gave its processor back
    for (int i = 0; i < taken; ++i) pool.GiveOne();
}

}  // namespace
}  // namespace Varnelo
