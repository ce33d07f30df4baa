#include "process.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <list>
#include <string>
#include <vector>

#include "converter.h"
#include "fsutils.h"
#include "support/jpeg_fixtures.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace Varnelo {
namespace {

using Lines = std::vector<std::string>;

JpegSpec Sized(int width, int height) {
    JpegSpec spec;
    spec.width = width;
    spec.height = height;
    return spec;
}

class ProcessTest : public ::testing::Test {
  protected:
    void SetUp() override {
        mkdir(tmp.Path("in").c_str(), 0777);
        src = tmp.Write("in/a.JPG", EncodeJpeg(Sized(400, 300), {{0xFE, "kept"}}));
    }
    TempDir tmp;
    std::string src;
};

TEST_F(ProcessTest, FreshJobAndMissingSourceReportInternalError) {
    const std::string cwd = Get_cur_dir();
    CProcess job;
    EXPECT_EQ(job.GetConvertResult(), CR_INTERNAL_ERROR);
    LogCapture capture(9);
    const std::string missing = tmp.Path("in/none.jpg");
    EXPECT_FALSE(job.ProcessAuto(missing, tmp.path()));
    EXPECT_FALSE(job.ProcessThumbnailAuto(missing, tmp.path()));
    EXPECT_FALSE(job.ProcessDir(tmp.Path("in"), tmp.path()));
    EXPECT_EQ(job.GetConvertResult(), CR_INTERNAL_ERROR);
    EXPECT_EQ(job.GetOriginalWidth(), 0);
    EXPECT_EQ(Get_cur_dir(), cwd);
    EXPECT_EQ(capture.Lines(),
              (Lines{"Path: " + missing, "Path: " + missing, "Path: " + tmp.Path("in")}));
}

struct DestinationCase {
    const char* dst;      // inside the temporary folder
    const char* written;  // the file expected, or "" for none
    int result;
};

class DestinationRuleTest : public ProcessTest,
                            public ::testing::WithParamInterface<DestinationCase> {};

TEST_P(DestinationRuleTest, ChoosesTheFileToWrite) {
    const DestinationCase& c = GetParam();
    mkdir(tmp.Path("out").c_str(), 0777);
    mkdir(tmp.Path("out/b.jpeg").c_str(), 0777);
    CProcess job;
    EXPECT_EQ(job.ProcessAuto(src, tmp.Path(c.dst)), c.result == CR_OK);
    EXPECT_EQ(job.GetConvertResult(), c.result);
    EXPECT_EQ(job.GetOriginalWidth(), 400);
    if (*c.written != '\0') {
        EXPECT_EQ(DecodeJpeg(ReadFileBytes(tmp.Path(c.written))).width, 320);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rules, DestinationRuleTest,
    ::testing::Values(DestinationCase{"out/b.JpG", "out/b.JpG", CR_OK},
                      DestinationCase{"out", "out/a.JPG", CR_OK},
                      DestinationCase{"out/", "out/a.JPG", CR_OK},
                      DestinationCase{"out/b.jpeg", "out/b.jpeg/a.JPG", CR_OK},  // a folder
                      DestinationCase{"new/b.jpg", "new/b.jpg", CR_OK},  // one level created
                      DestinationCase{"x/y/b.jpg", "", CR_CREATE_DEST_ERROR},
                      DestinationCase{"out/c.jpeg", "", CR_CREATE_DEST_ERROR}));

TEST_F(ProcessTest, PassesItsSettingsToTheConversion) {
    CProcess job;
    job.SetDestinationSize(100);
    job.SetDestinationQuality(30);
    job.SetUseResizer(RESIZER_TIDY);
    job.SetHash(HASH_MD5);
    job.SetOmitEXIF(true);
    ASSERT_TRUE(job.ProcessAuto(src, tmp.Path("job.jpg")));
    int w = 0, h = 0;
    std::string hash;
    ASSERT_EQ(
        ConvertFile(src, tmp.Path("direct.jpg"), 100, 30, w, h, hash, HASH_MD5, RESIZER_TIDY, true),
        CR_OK);
    EXPECT_EQ(ReadFileBytes(tmp.Path("job.jpg")), ReadFileBytes(tmp.Path("direct.jpg")));
    EXPECT_EQ(job.GetOriginalHash(), hash);
    EXPECT_EQ(job.GetOriginalHeight(), 300);

    // Defaults: 320 pixels, quality 75, the reducer, CRC-32, segments kept.
    CProcess fresh;
    ASSERT_TRUE(fresh.ProcessAuto(src, tmp.Path("fresh.jpg")));
    ASSERT_EQ(ConvertFile(src, tmp.Path("default.jpg"), 320, 75, w, h, hash, HASH_CRC32,
                          RESIZER_REDUCES, false),
              CR_OK);
    EXPECT_EQ(ReadFileBytes(tmp.Path("fresh.jpg")), ReadFileBytes(tmp.Path("default.jpg")));
    EXPECT_EQ(fresh.GetOriginalHash().substr(0, 3), "S1|");

    // The job's floor of 8 meets the conversion's floor of 32.
    fresh.SetDestinationSize(0);
    ASSERT_TRUE(fresh.ProcessAuto(src, tmp.Path("tiny.jpg")));
    EXPECT_EQ(DecodeJpeg(ReadFileBytes(tmp.Path("tiny.jpg"))).width, 32);
    fresh.SetDestinationSize(100000);
    EXPECT_FALSE(fresh.ProcessAuto(src, tmp.Path("huge.jpg")));
    EXPECT_EQ(fresh.GetConvertResult(), CR_LESS_THAN_REQUESTED);

    // A later job whose source is missing converts nothing and leaves the last result.
    EXPECT_FALSE(fresh.ProcessAuto(tmp.Path("none.jpg"), tmp.Path("x.jpg")));
    EXPECT_EQ(fresh.GetConvertResult(), CR_LESS_THAN_REQUESTED);
}

TEST_F(ProcessTest, LogsTheJobAtItsLevels) {
    CProcess job;
    {
        LogCapture capture(15);
        ASSERT_TRUE(job.ProcessAuto(src, tmp.Path("a.jpg")));
        const Lines& lines = capture.Lines();
        ASSERT_GE(lines.size(), 4u);
        EXPECT_EQ(Lines(lines.begin(), lines.begin() + 4),
                  (Lines{"Source file: " + src, "Destination file: " + tmp.Path("a.jpg"),
                         "ConvertFile", "Open input file ok"}));
    }
    {
        // ProcessFile names its files at level 8, below everything the conversion logs.
        LogCapture capture(9);
        ASSERT_TRUE(job.ProcessFile(src, tmp.Path("b.jpg")));
        EXPECT_EQ(capture.Lines(),
                  (Lines{"Source file: " + src, "Destination file: " + tmp.Path("b.jpg")}));
    }
}

TEST_F(ProcessTest, ThumbnailJobWritesTheEmbeddedThumbnail) {
    ExifSpec exif;
    exif.thumbnail = EncodeJpeg(Sized(32, 24));
    const std::string withThumb =
        tmp.Write("in/t.jpg", EncodeJpeg(Sized(400, 300), {{0xE1, BuildExif(exif).payload}}));
    CProcess job;
    LogCapture capture(15);
    EXPECT_TRUE(job.ProcessThumbnailAuto(withThumb, tmp.path()));
    EXPECT_EQ(ReadFileBytes(tmp.Path("t.jpg")), exif.thumbnail);
    EXPECT_EQ(job.GetOriginalWidth(), 0);
    EXPECT_EQ(capture.Lines().at(2), "ConvertFileThumbnail");
}

TEST_F(ProcessTest, FileListStopsAtTheFirstFailure) {
    const std::string broken = tmp.Write("in/broken.jpg", "not a jpeg");
    const std::string second = tmp.Write("in/second.jpg", EncodeJpeg(Sized(400, 300)));
    mkdir(tmp.Path("out").c_str(), 0777);
    CProcess job;
    EXPECT_TRUE(job.ProcessFiles({}, tmp.Path("out")));
    EXPECT_FALSE(job.ProcessFiles({broken, second}, tmp.Path("out")));
    EXPECT_EQ(job.GetConvertResult(), CR_RESAMPLING_ERROR);
    EXPECT_FALSE(FileExists(tmp.Path("out/second.jpg")));
    EXPECT_TRUE(job.ProcessFiles({src, second}, tmp.Path("out")));
    EXPECT_TRUE(FileExists(tmp.Path("out/second.jpg")));
}

}  // namespace
}  // namespace Varnelo
