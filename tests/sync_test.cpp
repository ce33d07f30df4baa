#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "mutex.h"
#include "semaphore.h"
#include "utils.h"

namespace Varnelo {
namespace {

std::string UniqueName(const char* stem) { return std::string(stem) + std::to_string(getpid()); }

TEST(MutexTest, AutoLockSerialisesCounters) {
    Mutex mutex;
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                AutoLock lock(mutex);
                ++counter;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(counter, 80000);
}

TEST(SemaphoreTest, SameNameSharesOneCount) {
    const std::string name = UniqueName("/vt_a");
    Semaphore first(name.c_str(), 0);
    Semaphore second(name.c_str(), 5);  // opened as it is: the initial count is not applied
    ASSERT_NE(first.Id(), -1);
    EXPECT_FALSE(second.TryWait());
    first.Post();
    EXPECT_TRUE(second.TryWait());
    EXPECT_FALSE(first.TryWait());
}

TEST(SemaphoreTest, WaitBlocksUntilPost) {
    const std::string name = UniqueName("/vt_b");
    Semaphore sem(name.c_str(), 0);
    std::thread poster([&] {
        Sleep_ms(20);
        sem.Post();
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(sem.Wait(), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(15));
    poster.join();
}

TEST(SemaphoreTest, LongNamesAreCutToFifteenCharacters) {
    const std::string longName = "/vt_" + std::to_string(getpid()) + "_abcdefghijklmnop";
    const std::string cut = longName.substr(0, 15);
    Semaphore full(longName.c_str(), 0);
    Semaphore truncated(cut.c_str(), 0);
    full.Post();
    EXPECT_TRUE(truncated.TryWait());
}

TEST(SemaphoreTest, FailedOpenReportsMinusOneAndNeverBlocks) {
    // A name with a second slash cannot be created.
    Semaphore broken("/no/such/sem", 0);
    EXPECT_EQ(broken.Id(), -1);
    EXPECT_FALSE(broken.TryWait());
}

TEST(SemaphoreTest, DestructionUnlinksTheName) {
    const std::string name = UniqueName("/vt_c");
    {
        Semaphore sem(name.c_str(), 0);
        sem.Post();
    }
    Semaphore again(name.c_str(), 0);
    EXPECT_FALSE(again.TryWait()) << "a fresh semaphore starts from its own count";
}

}  // namespace
}  // namespace Varnelo
