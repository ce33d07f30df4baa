#include "log.h"

#include <gtest/gtest.h>

#include <string>

#include "support/temp_dir.h"

namespace Varnelo {
namespace {

class LoggerTest : public ::testing::Test {
  protected:
    LoggerTest() : logger(lock), path(tmp.Path("log")) {
        logger.SetFilename(path);
        logger.EnableFile();
    }

    TempDir tmp;
    Mutex lock;
    Logger logger;
    std::string path;
};

TEST_F(LoggerTest, WritesOnlyLinesBelowThePositiveThresholdAndEachOpenStartsAfresh) {
    tmp.Write("log", "old contents\n");
    for (int threshold : {0, -1}) {
        logger.SetLevel(threshold);
        logger.Put("x", 0);
        logger.Close();
        EXPECT_EQ(ReadFileBytes(path), "old contents\n") << "threshold " << threshold;
    }
    logger.SetLevel(9);
    logger.Put("first", 0);
    logger.Close();
    logger.Put("level 8", 8);
    logger.Put("level 9", 9);
    logger.Put("\nBye.\n", 0);
    logger.Close();
    EXPECT_EQ(ReadFileBytes(path), "level 8\n\nBye.\n\n");
}

}  // namespace
}  // namespace Varnelo
