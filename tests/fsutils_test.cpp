#include "fsutils.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace Varnelo {
namespace {

TEST(PathTest, SplitsAtTheLastSlashOrBackslash) {
    struct Case {
        const char* path;
        const char* name;
        const char* dir;
        const char* ext;
    };
    const Case cases[] = {
        {"C:\\a\\b.jpg", "b.jpg", "C:\\a", "jpg"},
        {"b.jpg", "b.jpg", "", "jpg"},
        {"noext", "noext", "", "noext"},
        {"dir.old/photo", "photo", "dir.old", "old/photo"},
        {"/out/", "", "/out", "/out/"},
        {"a/b\\c.d.JPEG", "c.d.JPEG", "a/b", "JPEG"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(GetFileName(c.path), c.name) << c.path;
        EXPECT_EQ(GetFilePath(c.path), c.dir) << c.path;
        EXPECT_EQ(GetFileExt(c.path), c.ext) << c.path;
    }
    EXPECT_EQ(DirPlusFile("", "f"), "f");
    EXPECT_EQ(DirPlusFile("d/", "f"), "d/f");
    EXPECT_EQ(DirPlusFile("d\\", "f"), "d\\f");
    EXPECT_EQ(DirPlusFile("d", "f"), "d/f");
}

TEST(FileOpsTest, EraseAndCreateOneFolderLevel) {
    TempDir tmp;
    const std::string file = tmp.Write("a.txt", "x");
    EXPECT_TRUE(FileExists(file));
    EXPECT_TRUE(EraseFile(file));
    EXPECT_FALSE(FileExists(file));
    EXPECT_FALSE(EraseFile(file));
    EXPECT_FALSE(EraseFile(""));

    EXPECT_TRUE(Create_dir(tmp.Path("sub")));
    EXPECT_FALSE(Create_dir(tmp.Path("sub"))) << "an existing folder is a failure";
    EXPECT_FALSE(Create_dir(tmp.Path("missing/child"))) << "parents are not created";
    EXPECT_FALSE(Create_dir(""));
    EXPECT_TRUE(Create_dir("C:"));
    EXPECT_TRUE(Create_dir("C:\\"));
}

TEST(TextTest, NumbersReadAsAStreamReadsThem) {
    EXPECT_EQ(ToString(-42), "-42");
    int n = 7;
    EXPECT_TRUE(FromString("12abc", n));
    EXPECT_EQ(n, 12);
    EXPECT_TRUE(FromString("abc", n));
    EXPECT_EQ(n, 12) << "no number keeps the previous value";
    EXPECT_TRUE(FromString("  -5", n));
    EXPECT_EQ(n, -5);
    EXPECT_TRUE(FromString("99999999999", n));
    EXPECT_EQ(n, 2147483647) << "an overflowing number saturates";
}

}  // namespace
}  // namespace Varnelo
