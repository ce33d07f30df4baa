#include "fsutils.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace Varnelo {
namespace {

struct PathCase {
    std::string path;
    std::string name;
    std::string dir;
    std::string ext;
};

class PathSplitTest : public ::testing::TestWithParam<PathCase> {};

TEST_P(PathSplitTest, SplitsAtLastSlashOrBackslash) {
    const PathCase& c = GetParam();
    EXPECT_EQ(GetFileName(c.path), c.name);
    EXPECT_EQ(GetFilePath(c.path), c.dir);
    EXPECT_EQ(GetFileExt(c.path), c.ext);
}

INSTANTIATE_TEST_SUITE_P(
    Paths, PathSplitTest,
    ::testing::Values(PathCase{"C:\\a\\b.jpg", "b.jpg", "C:\\a", "jpg"},
                      PathCase{"b.jpg", "b.jpg", "", "jpg"},
                      PathCase{"x/y.JPG", "y.JPG", "x", "JPG"},
                      PathCase{"noext", "noext", "", "noext"},
                      PathCase{"dir.old/photo", "photo", "dir.old", "old/photo"},
                      PathCase{"/out/", "", "/out", "/out/"}, PathCase{"/log", "log", "", "/log"},
                      PathCase{"a/b\\c.d.jpeg", "c.d.jpeg", "a/b", "jpeg"}));

TEST(DirPlusFileTest, JoinsWithOneSeparator) {
    EXPECT_EQ(DirPlusFile("", "f"), "f");
    EXPECT_EQ(DirPlusFile("d/", "f"), "d/f");
    EXPECT_EQ(DirPlusFile("d\\", "f"), "d\\f");
    EXPECT_EQ(DirPlusFile("d", "f"), "d/f");
}

TEST(FileOpsTest, ExistsEraseAndCreateDir) {
    TempDir tmp;
    const std::string file = tmp.Path("a.txt");
    EXPECT_FALSE(FileExists(file));
    EXPECT_FALSE(EraseFile(file));
    tmp.Write("a.txt", "x");
    EXPECT_TRUE(FileExists(file));
    EXPECT_TRUE(EraseFile(file));
    EXPECT_FALSE(FileExists(file));
    EXPECT_FALSE(EraseFile(""));

    EXPECT_TRUE(Create_dir(tmp.Path("sub")));
    EXPECT_FALSE(Create_dir(tmp.Path("sub"))) << "an existing folder is a failure";
    EXPECT_FALSE(Create_dir(tmp.Path("missing/child"))) << "only one level is created";
    EXPECT_FALSE(Create_dir(""));
    EXPECT_TRUE(Create_dir("C:"));
    EXPECT_TRUE(Create_dir("C:\\"));
}

TEST(FileOpsTest, CurrentDirectoryRoundTrip) {
    TempDir tmp;
    const std::string before = Get_cur_dir();
    EXPECT_TRUE(Set_cur_dir(""));
    EXPECT_EQ(Get_cur_dir(), before);
    ASSERT_TRUE(Set_cur_dir(tmp.path()));
    char real[1024];
    ASSERT_NE(realpath(tmp.path().c_str(), real), nullptr);
    EXPECT_EQ(Get_cur_dir(), std::string(real));
    EXPECT_TRUE(Set_cur_dir(before));
    EXPECT_FALSE(Set_cur_dir(tmp.Path("nope")));
}

TEST(FileOpsTest, FileSearchIsAStubThatFindsNothing) {
    TempDir tmp;
    tmp.Write("a.jpg", "x");
    std::list<std::string> files;
    EXPECT_TRUE(FindFiles(tmp.path(), "*.jpg", files));
    EXPECT_TRUE(FindFilesInAllSubdirs(tmp.path(), "*.jpg", files));
    EXPECT_TRUE(files.empty());
    EXPECT_TRUE(EraseDir(tmp.path(), "*.jpg"));
    EXPECT_TRUE(FileExists(tmp.Path("a.jpg")));
}

TEST(TextTest, NumbersToAndFromText) {
    EXPECT_EQ(ToString(0), "0");
    EXPECT_EQ(ToString(-42), "-42");
    EXPECT_EQ(ToString(2147483647), "2147483647");

    int n = 7;
    EXPECT_TRUE(FromString("12abc", n));
    EXPECT_EQ(n, 12);
    EXPECT_TRUE(FromString("abc", n));
    EXPECT_EQ(n, 12) << "no number keeps the previous value";
    EXPECT_TRUE(FromString("  -5", n));
    EXPECT_EQ(n, -5);
    EXPECT_TRUE(FromString("", n));
    EXPECT_EQ(n, -5);
    EXPECT_TRUE(FromString("+8", n));
    EXPECT_EQ(n, 8);
    EXPECT_TRUE(FromString("99999999999", n));
    EXPECT_EQ(n, 2147483647) << "an overflowing number saturates as a stream read does";

    std::string text = "MiXeD.JPG";
    ToLower(text);
    EXPECT_EQ(text, "mixed.jpg");
}

TEST(NaturalOrderTest, ComparesDigitRunsByValue) {
    EXPECT_EQ(strcmpdig("file9", "file10"), -1);
    EXPECT_EQ(strcmpdig("file10", "file9"), 1);
    EXPECT_EQ(strcmpdig("x007", "x7"), 0);
    EXPECT_EQ(strcmpdig("Ab", "aB"), 0);
    EXPECT_EQ(strcmpdig("img", "img1"), -1);
    EXPECT_EQ(strcmpdig("img1", "img_"), -1);
    EXPECT_EQ(strcmpdig("", ""), 0);

    std::vector<std::string> names = {"img10", "IMG2", "img1", "img_", "img"};
    std::sort(names.begin(), names.end(), digit_string_comparer());
    EXPECT_EQ(names, (std::vector<std::string>{"img", "img1", "IMG2", "img10", "img_"}));
}

}  // namespace
}  // namespace Varnelo
