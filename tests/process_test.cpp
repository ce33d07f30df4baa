#include "process.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <climits>
#include <ostream>
#include <string>

#include "converter.h"
#include "support/jpeg_fixtures.h"
#include "support/temp_dir.h"

namespace Varnelo {
namespace {

const int kDefault = INT_MIN;  // setter not called

struct JobCase {
    int size, quality;
    const char* dst;      // in a folder where "out" exists
    const char* written;  // the file expected, or "" for none
    int result, width = 0, height = 0;
};

void PrintTo(const JobCase& c, std::ostream* os) {
    *os << "size " << c.size << ", quality " << c.quality << ", to " << c.dst;
}

class JobTest : public ::testing::TestWithParam<JobCase> {};

TEST_P(JobTest, ClampsItsSettingsAndChoosesTheFileToWrite) {
    const JobCase& c = GetParam();
    TempDir tmp;
    mkdir(tmp.Path("out").c_str(), 0777);
    const std::string src = tmp.Write("a.JPG", EncodeJpeg({400, 300}));
    CProcess job;
    EXPECT_EQ(job.GetConvertResult(), CR_INTERNAL_ERROR);
    if (c.size != kDefault) job.SetDestinationSize(c.size);
    if (c.quality != kDefault) job.SetDestinationQuality(c.quality);
    EXPECT_EQ(job.ProcessAuto(src, tmp.Path(c.dst)), c.result == CR_OK);
    EXPECT_EQ(job.GetConvertResult(), c.result);
    if (*c.written == '\0') return;
    const DecodedJpeg out = DecodeJpeg(ReadFileBytes(tmp.Path(c.written)));
    EXPECT_EQ(out.width, c.width);
    EXPECT_EQ(out.height, c.height);
}

const JobCase kJobCases[] = {
    {kDefault, kDefault, "out/b.JpG", "out/b.JpG", CR_OK, 320, 240},
    {0, 150, "out/", "out/a.JPG", CR_OK, 32, 24},  // the job's floor of 8, the conversion's of 32
    {100000, -5, "out/b.jpg", "", CR_LESS_THAN_REQUESTED},
    {100, 75, "new/c.jpg", "new/c.jpg", CR_OK, 100, 75},  // one missing folder level is made
    {100, 75, "two/levels/c.jpg", "", CR_CREATE_DEST_ERROR},
    {100, 75, "out/c.jpeg", "", CR_CREATE_DEST_ERROR},  // .jpeg names a folder, and a missing one
};

INSTANTIATE_TEST_SUITE_P(Cases, JobTest, ::testing::ValuesIn(kJobCases));

}  // namespace
}  // namespace Varnelo
