#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "semaphore.h"

namespace Varnelo {
namespace {

TEST(SemaphoreTest, SameNameSharesOneKernelCount) {
    const std::string name = "/vt_" + std::to_string(getpid());
    Semaphore first(name.c_str(), 0);
    Semaphore second(name.c_str(), 5);  // opened as it is: its initial count is not applied
    ASSERT_NE(first.Id(), -1);
    EXPECT_FALSE(second.TryWait());
    first.Post();
    EXPECT_TRUE(second.TryWait());
    EXPECT_FALSE(first.TryWait());
}

TEST(SemaphoreTest, LongNamesAreCutToFifteenCharacters) {
    const std::string longName = "/vt_" + std::to_string(getpid()) + "_abcdefghijklmnop";
    Semaphore full(longName.c_str(), 0);
    Semaphore cut(longName.substr(0, 15).c_str(), 0);
    full.Post();
    EXPECT_TRUE(cut.TryWait());
}

TEST(SemaphoreTest, FailedOpenIsMinusOneAndNeverBlocks) {
    Semaphore broken("/no/such/sem", 0);
    EXPECT_EQ(broken.Id(), -1);
    EXPECT_FALSE(broken.TryWait());
    EXPECT_EQ(broken.Wait(), -1);
}

}  // namespace
}  // namespace Varnelo
