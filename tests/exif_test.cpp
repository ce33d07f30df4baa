#include "exif.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/jpeg_fixtures.h"

namespace Varnelo {
namespace {

const std::string kThumb = "\xFF\xD8thumbnail bytes\xFF\xD9";

// The TIFF block goes into a buffer of exactly its size, so that the sanitizer sees any read
// past it. Returns the thumbnail extract_thumbnail finds, or "<none>".
std::string Extract(const ExifBlock& b) {
    std::vector<unsigned char> tiff(b.payload.begin() + 6, b.payload.end());
    char* thumbnail = nullptr;
    unsigned int length = 0;
    if (!extract_thumbnail(tiff.data(), tiff.size(), &thumbnail, &length)) return "<none>";
    return std::string(thumbnail, length);
}

// Adjusts the block in place for 320 x 240; returns what adjust_exif_parameters returned.
unsigned int Adjust(ExifBlock& b) {
    std::vector<unsigned char> tiff(b.payload.begin() + 6, b.payload.end());
    const unsigned int ifd1 = adjust_exif_parameters(tiff.data(), tiff.size(), 320, 240, false);
    b.payload.replace(b.payload.begin() + 6, b.payload.end(), tiff.begin(), tiff.end());
    return ifd1;
}

struct Case {
    const char* name;
    void (*breakIt)(ExifBlock&);
    bool thumbnail;  // still found
    bool adjusted;   // sizes still rewritten
};

class ExifBlockTest : public ::testing::TestWithParam<Case> {};

// Adjusting turns PixelXDimension and PixelYDimension into LONG values of the new size and
// unhooks IFD1 from IFD0, touching nothing else.
TEST_P(ExifBlockTest, IsReadOnlyInsideTheBlockInEitherByteOrder) {
    for (bool bigEndian : {false, true}) {
        ExifBlock b = BuildExif({640, 480, kThumb, bigEndian});
        GetParam().breakIt(b);
        EXPECT_EQ(Extract(b), GetParam().thumbnail ? kThumb : "<none>") << bigEndian;
        ExifBlock adjusted = b;
        const unsigned int ifd1 = Adjust(adjusted);
        if (!GetParam().adjusted) {
            EXPECT_EQ(ifd1, 0u) << bigEndian;
            continue;
        }
        b.PutEntry(b.pixelXEntry, 0xA002, 4, 320);
        b.PutEntry(b.pixelYEntry, 0xA003, 4, 240);
        b.Put(b.ifd0Link, 0);
        EXPECT_EQ(ifd1, b.ifd1) << bigEndian;
        EXPECT_EQ(adjusted.payload, b.payload) << bigEndian;
        EXPECT_EQ(Extract(adjusted), "<none>") << bigEndian;
    }
}

// A directory whose entries run past the block still yields the entries that fit.
const Case kCases[] = {
    {"Intact", [](ExifBlock&) {}, true, true},
    {"ElevenBytes", [](ExifBlock& b) { b.payload.resize(6 + 11); }, false, false},
    {"WrongMagic", [](ExifBlock& b) { b.Put(2, 43, 2); }, false, false},
    {"IfdZeroWraps", [](ExifBlock& b) { b.Put(4, 0xFFFFFFFFu); }, false, false},
    {"IfdZeroRunsPast", [](ExifBlock& b) { b.Put(b.ifd0, 0xFFFF, 2); }, false, false},
    {"IfdOneWraps", [](ExifBlock& b) { b.Put(b.ifd0Link, 0xFFFFFFFCu); }, false, false},
    {"IfdOneRunsPast", [](ExifBlock& b) { b.Put(b.ifd1, 0xFFFF, 2); }, true, true},
    {"ExifIfdRunsPast", [](ExifBlock& b) { b.Put(b.exifIfd, 0xFFFF, 2); }, true, true},
    {"ThumbnailRunsPast", [](ExifBlock& b) { b.Put(b.thumbLengthEntry + 8, kThumb.size() + 1); },
     false, true},
    {"ThumbnailWraps", [](ExifBlock& b) { b.Put(b.thumbOffsetEntry + 8, 0xFFFFFFF0u); }, false,
     true},
};

INSTANTIATE_TEST_SUITE_P(Cases, ExifBlockTest, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<Case>& i) { return i.param.name; });

}  // namespace
}  // namespace Varnelo
