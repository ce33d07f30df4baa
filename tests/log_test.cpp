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

TEST_F(LoggerTest, ThresholdZeroWritesNothingAndCreatesNoFile) {
    logger.Put("anything", -100);
    logger.Close();
    EXPECT_FALSE(FileExists(path));
}

TEST_F(LoggerTest, WritesOnlyLinesBelowTheThreshold) {
    logger.SetLevel(9);
    logger.Put("level 8", 8);
    logger.Put("level 9", 9);
    logger.Put("level 10", 10);
    logger.Put("\nBye.\n", 0);
    logger.Close();
    EXPECT_EQ(ReadFileBytes(path), "level 8\n\nBye.\n\n");
}

TEST_F(LoggerTest, NegativeThresholdWritesNothing) {
    logger.SetLevel(-1);
    logger.Put("x", 0);
    logger.Put("y", -1);
    logger.Close();
    EXPECT_FALSE(FileExists(path));
}

TEST_F(LoggerTest, FirstLineTruncatesOldFileAndCloseStartsAfresh) {
    tmp.Write("log", "old contents\n");
    logger.SetLevel(1);
    logger.Put("first", 0);
    EXPECT_EQ(ReadFileBytes(path), "first\n");
    logger.Close();
    logger.Put("second", 0);
    logger.Close();
    EXPECT_EQ(ReadFileBytes(path), "second\n");
}

TEST_F(LoggerTest, NothingWrittenWithoutATarget) {
    Logger silent(lock);
    silent.SetLevel(50);
    silent.SetFilename(tmp.Path("other"));
    silent.Put("x", 0);
    silent.Close();
    EXPECT_FALSE(FileExists(tmp.Path("other")));
}

TEST(DebugTest, PrintTextMasksControlAndHighBytes) {
    ::testing::internal::CaptureStdout();
    Debug::PrintText("ab", 2);
    Debug::PrintText("a\tb\x01\xC3\n", 6);
    Debug::PrintText("", 0);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "TEXT [2]\nab\nEND TEXT\n"
              "TEXT [6]\na\tb??\nEND TEXT\n"
              "TEXT [0]\n\nEND TEXT\n");
}

TEST(DebugTest, PrintDumpRowsOfEightWithSignedWidening) {
    ::testing::internal::CaptureStdout();
    Debug::PrintDump("\x01\x02\x03\x04\x05\x06\x07\x08", 8);
    Debug::PrintDump("ABCDEFGH\xFF", 9);
    Debug::PrintDump("", 0);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "DUMP [8]\n0x01 0x02 0x03 0x04 0x05 0x06 0x07 0x08 \nEND DUMP\n"
              "DUMP [9]\n0x41 0x42 0x43 0x44 0x45 0x46 0x47 0x48 \n0xFFFFFFFF \nEND DUMP\n"
              "DUMP [0]\n\nEND DUMP\n");
}

}  // namespace
}  // namespace Varnelo
