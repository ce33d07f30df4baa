// varnelo-batch's report encoding of file names, and the Orientation it gives files made
// without metadata.

#include <gtest/gtest.h>

#include "support/jpeg_fixtures.h"
#include "support/temp_dir.h"
#include "varnelo-batch/orientation.h"
#include "varnelo-batch/report.h"

namespace Varnelo {
namespace {

TEST(BatchReportTest, WritesEveryNameAsValidJsonAndKeepsItsBytes) {
    const struct {
        std::string name, json;
        bool valid;
    } cases[] = {
        {"plain.jpg", "\"plain.jpg\"", true},
        {"caf\xC3\xA9 \xF0\x9F\x93\xB7.jpg", "\"caf\xC3\xA9 \xF0\x9F\x93\xB7.jpg\"", true},
        {"q\"b\\\t\x7F.jpg", "\"q\\\"b\\\\\\u0009\\u007f.jpg\"", true},
        {"caf\xE9.jpg", "\"caf\xEF\xBF\xBD.jpg\"", false},                    // Latin-1
        {"\xC0\xAF.jpg", "\"\xEF\xBF\xBD\xEF\xBF\xBD.jpg\"", false},          // overlong '/'
        {"\xED\xA0\x80", "\"\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\"", false},  // a surrogate
        {"\xF0\x9F\x93", "\"\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\"", false},  // cut short
        {"", "null", true}};
    for (const auto& c : cases) {
        bool valid = false;
        EXPECT_EQ(JsonString(c.name, valid), c.json) << c.name;
        EXPECT_EQ(valid, c.valid) << c.name;
    }
    EXPECT_EQ(Hex("caf\xE9"), "636166e9");
}

// A JPEG whose EXIF holds IFD0 with one entry `tag` = `value` (SHORT), in either byte order.
std::string WithExif(unsigned tag, unsigned value, bool bigEndian) {
    auto word = [bigEndian](unsigned v) {
        return bigEndian ? std::string{char(v >> 8), char(v & 255)}
                         : std::string{char(v & 255), char(v >> 8)};
    };
    auto dword = [&word, bigEndian](unsigned v) {
        return bigEndian ? word(v >> 16) + word(v & 0xFFFF) : word(v & 0xFFFF) + word(v >> 16);
    };
    const std::string tiff = (bigEndian ? "MM" : "II") + word(42) + dword(8) + word(1) + word(tag) +
                             word(3) + dword(1) + word(value) + word(0) + dword(0);
    return EncodeJpeg({}, {{0xE1, std::string("Exif\0\0", 6) + tiff}});
}

TEST(BatchOrientationTest, ReadsTheTagAndGivesItToFilesWithoutExif) {
    TempDir tmp;
    EXPECT_EQ(ReadOrientation(tmp.Write("le.jpg", WithExif(0x0112, 6, false))), 6);
    EXPECT_EQ(ReadOrientation(tmp.Write("be.jpg", WithExif(0x0112, 8, true))), 8);
    EXPECT_EQ(ReadOrientation(tmp.Write("other.jpg", WithExif(0x0110, 6, false))), 0);
    EXPECT_EQ(ReadOrientation(tmp.Write("bad.jpg", WithExif(0x0112, 9, false))), 0);
    EXPECT_EQ(ReadOrientation(tmp.Write("plain.jpg", EncodeJpeg({}))), 0);
    EXPECT_EQ(ReadOrientation(tmp.Write("cut.jpg", WithExif(0x0112, 6, false).substr(0, 30))), 0);

    // Added after the JFIF APP0, alone, and the image still decodes.
    std::string jpeg = EncodeJpeg({});
    ASSERT_TRUE(AddOrientation(jpeg, 6));
    EXPECT_EQ(ReadOrientation(tmp.Write("turned.jpg", jpeg)), 6);
    const std::vector<Segment> segments = ReadSegments(jpeg);
    ASSERT_EQ(segments.size(), 2u);
    EXPECT_EQ(segments[0].marker, 0xE0);
    EXPECT_EQ(segments[1].data.size(), 32u);
    EXPECT_TRUE(DecodeJpeg(jpeg).ok);
    // A file with EXIF of its own keeps it; what is not a JPEG is refused.
    std::string own = WithExif(0x0112, 3, true);
    const std::string before = own;
    EXPECT_TRUE(AddOrientation(own, 6));
    EXPECT_EQ(own, before);
    std::string text = "not a photo";
    EXPECT_FALSE(AddOrientation(text, 6));
}

}  // namespace
}  // namespace Varnelo
