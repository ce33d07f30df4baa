#include "log.h"

#include <gtest/gtest.h>

#include <string>

#include "debug.h"
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

TEST(DebugTest, PrintsTextAndDumps) {
    ::testing::internal::CaptureStdout();
    Debug::PrintText("a\tb\x01\xC3", 5);
    Debug::PrintText("", 0);
    Debug::PrintDump("ABCDEFGH\xFF", 9);
    Debug::PrintDump("12345678", 8);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "TEXT [5]\na\tb??\nEND TEXT\n"
              "TEXT [0]\n\nEND TEXT\n"
              "DUMP [9]\n0x41 0x42 0x43 0x44 0x45 0x46 0x47 0x48 \n0xFFFFFFFF \nEND DUMP\n"
              "DUMP [8]\n0x31 0x32 0x33 0x34 0x35 0x36 0x37 0x38 \nEND DUMP\n");
}

}  // namespace
}  // namespace Varnelo
