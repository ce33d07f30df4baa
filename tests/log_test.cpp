#include "log.h"

#include <gtest/gtest.h>

#include <string>

#include "fsutils.h"
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

TEST_F(LoggerTest, WritesOnlyLinesBelowThePositiveThreshold) {
    for (int threshold : {0, -1}) {
        logger.SetLevel(threshold);
        logger.Put("x", 0);
        logger.Close();
        EXPECT_FALSE(FileExists(path)) << "threshold " << threshold << " creates no file";
    }
    logger.SetLevel(9);
    logger.Put("level 8", 8);
    logger.Put("level 9", 9);
    logger.Put("\nBye.\n", 0);
    logger.Close();
    EXPECT_EQ(ReadFileBytes(path), "level 8\n\nBye.\n\n");
}

TEST_F(LoggerTest, EachOpenStartsTheFileAfresh) {
    tmp.Write("log", "old contents\n");
    logger.SetLevel(1);
    logger.Put("first", 0);
    logger.Close();
    logger.Put("second", 0);
    logger.Close();
    EXPECT_EQ(ReadFileBytes(path), "second\n");
}

}  // namespace
}  // namespace Varnelo
