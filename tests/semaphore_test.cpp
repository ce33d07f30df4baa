#include "semaphore.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

namespace Varnelo {
namespace {

TEST(SemaphoreTest, NamesShareOneKernelCountCutToFifteenCharacters) {
    const std::string name = "/vt_" + std::to_string(getpid()) + "_abcdefghijklmnop";
    Semaphore first(name.c_str(), 0);
    Semaphore cut(name.substr(0, 15).c_str(), 5);  // opened as it is: its count is not applied
    ASSERT_NE(first.Id(), -1);
    EXPECT_FALSE(cut.TryWait());
    first.Post();
    EXPECT_TRUE(cut.TryWait());
    EXPECT_FALSE(first.TryWait());

    Semaphore broken("/no/such/sem", 0);
    EXPECT_EQ(broken.Id(), -1);
    EXPECT_FALSE(broken.TryWait());
    EXPECT_EQ(broken.Wait(), -1);
}

}  // namespace
}  // namespace Varnelo
