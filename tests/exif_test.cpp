#include "exif.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "support/jpeg_fixtures.h"

namespace Varnelo {
namespace {

const std::string kThumb = "\xFF\xD8thumbnail bytes\xFF\xD9";

unsigned char* Bytes(std::string& s) { return reinterpret_cast<unsigned char*>(&s[0]); }

// Runs extract_thumbnail on the TIFF block of `block`; returns the thumbnail bytes, or
// "<none>" when it reports none.
std::string Extract(const ExifBlock& block) {
    std::string tiff = block.Tiff();
    char* thumbnail = nullptr;
    unsigned int length = 0;
    if (!extract_thumbnail(Bytes(tiff), static_cast<unsigned int>(tiff.size()), &thumbnail,
                           &length)) {
        return "<none>";
    }
    EXPECT_GE(thumbnail, tiff.data());
    EXPECT_LE(thumbnail + length, tiff.data() + tiff.size());
    return std::string(thumbnail, length);
}

// A decompression object that has read the header of an in-memory JPEG with markers saved.
class HeaderReader {
  public:
    HeaderReader(const std::string& jpeg, JCOPY_OPTION option) : m_jpeg(jpeg) {
        m_src.err = jpeg_std_error(&m_err);
        jpeg_create_decompress(&m_src);
        jpeg_mem_src(&m_src, reinterpret_cast<const unsigned char*>(m_jpeg.data()),
                     static_cast<unsigned long>(m_jpeg.size()));
        jcopy_markers_setup(&m_src, option);
        jpeg_read_header(&m_src, TRUE);
    }
    ~HeaderReader() { jpeg_destroy_decompress(&m_src); }
    jpeg_decompress_struct* get() { return &m_src; }

  private:
    std::string m_jpeg;
    jpeg_error_mgr m_err;
    jpeg_decompress_struct m_src;
};

// Encodes a small image to memory with the given JFIF/Adobe switches, copying the markers
// saved by `reader` right after jpeg_start_compress.
std::string CopyMarkers(HeaderReader& reader, JCOPY_OPTION option, bool jfif, bool adobe) {
    jpeg_compress_struct dst;
    jpeg_error_mgr err;
    dst.err = jpeg_std_error(&err);
    jpeg_create_compress(&dst);
    unsigned char* buffer = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&dst, &buffer, &size);
    dst.image_width = 8;
    dst.image_height = 8;
    dst.input_components = 3;
    dst.in_color_space = JCS_RGB;
    jpeg_set_defaults(&dst);
    dst.write_JFIF_header = jfif ? TRUE : FALSE;
    dst.write_Adobe_marker = adobe ? TRUE : FALSE;
    jpeg_start_compress(&dst, TRUE);
    jcopy_markers_execute(reader.get(), &dst, option);
    std::vector<unsigned char> row(8 * 3, 128);
    while (dst.next_scanline < dst.image_height) {
        JSAMPROW rows[1] = {row.data()};
        jpeg_write_scanlines(&dst, rows, 1);
    }
    jpeg_finish_compress(&dst);
    jpeg_destroy_compress(&dst);
    std::string out(reinterpret_cast<char*>(buffer), size);
    std::free(buffer);
    return out;
}

std::vector<int> Markers(const std::vector<Segment>& segments) {
    std::vector<int> markers;
    for (const Segment& s : segments) markers.push_back(s.marker);
    return markers;
}

class ByteOrderTest : public ::testing::TestWithParam<bool> {};

TEST_P(ByteOrderTest, FindsTheEmbeddedThumbnail) {
    ExifSpec spec;
    spec.bigEndian = GetParam();
    spec.thumbnail = kThumb;
    EXPECT_EQ(Extract(BuildExif(spec)), kThumb);

    spec.pixelX = 640;
    spec.pixelY = 480;
    const ExifBlock withExifIfd = BuildExif(spec);
    EXPECT_EQ(Extract(withExifIfd), kThumb);
}

TEST_P(ByteOrderTest, IfdZeroLinkOfZeroReadsTheByteOrderMarkAsIfdOne) {
    // IFD0 at 50 with a zero link: IFD1 is then read at offset 0, whose entry count is the
    // byte-order mark, so entries are taken at 2, 14, 26, ... until the block ends.
    ExifBlock b;
    b.bigEndian = GetParam();
    b.payload.assign(6 + 72, '\0');
    b.payload.replace(0, 4, "Exif");
    b.payload.replace(6, 2, b.bigEndian ? "MM" : "II");
    b.PutWord(2, 42);
    b.PutDword(4, 50);
    b.PutWord(50, 1);
    b.PutEntry(52, 0x010E, 2, 1, 0);
    b.PutDword(64, 0);
    b.PutEntry(14, 0x0201, 4, 1, 68);
    b.PutEntry(26, 0x0202, 4, 1, 4);
    b.payload.replace(6 + 68, 4, "JPEG");
    EXPECT_EQ(Extract(b), "JPEG");
}

TEST_P(ByteOrderTest, AdjustRewritesSizesAndUnhooksTheThumbnailDirectory) {
    ExifSpec spec;
    spec.bigEndian = GetParam();
    spec.pixelX = 640;
    spec.pixelY = 480;
    spec.thumbnail = kThumb;
    ExifBlock b = BuildExif(spec);
    std::string tiff = b.Tiff();
    EXPECT_EQ(adjust_exif_parameters(Bytes(tiff), static_cast<unsigned int>(tiff.size()), 320, 240,
                                     false),
              b.ifd1);
    b.payload.replace(6, tiff.size(), tiff);
    EXPECT_EQ(b.GetDword(b.ifd0Link), 0u);
    EXPECT_EQ(Extract(b), "<none>");
    // The SHORT entries are now LONG, count 1.
    ExifBlock expected = b;
    expected.PutEntry(b.pixelXEntry, 0xA002, 4, 1, 320);
    expected.PutEntry(b.pixelYEntry, 0xA003, 4, 1, 240);
    EXPECT_EQ(b.payload, expected.payload);
    EXPECT_EQ(b.GetDword(b.pixelYEntry + 8), 240u);
}

INSTANTIATE_TEST_SUITE_P(LittleAndBigEndian, ByteOrderTest, ::testing::Bool());

struct BrokenCase {
    const char* name;
    std::function<void(ExifBlock&)> breakIt;
};

class BrokenExifTest : public ::testing::TestWithParam<BrokenCase> {};

TEST_P(BrokenExifTest, YieldsNoThumbnail) {
    for (bool bigEndian : {false, true}) {
        ExifSpec spec;
        spec.bigEndian = bigEndian;
        spec.pixelX = 64;
        spec.pixelY = 48;
        spec.thumbnail = kThumb;
        ExifBlock b = BuildExif(spec);
        GetParam().breakIt(b);
        EXPECT_EQ(Extract(b), "<none>") << (bigEndian ? "MM" : "II");
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, BrokenExifTest,
    ::testing::Values(
        BrokenCase{"ElevenBytes", [](ExifBlock& b) { b.payload.resize(6 + 11); }},
        BrokenCase{"UnknownByteOrder", [](ExifBlock& b) { b.payload[6] = 'X'; }},
        BrokenCase{"WrongMagic", [](ExifBlock& b) { b.PutWord(2, 43); }},
        BrokenCase{"IfdZeroPastTheEnd",
                   [](ExifBlock& b) { b.PutDword(4, static_cast<uint32_t>(b.payload.size())); }},
        BrokenCase{"IfdZeroEmpty", [](ExifBlock& b) { b.PutWord(b.ifd0, 0); }},
        BrokenCase{"IfdOneTooCloseToTheEnd",
                   [](ExifBlock& b) {
                       b.PutDword(b.ifd0Link, static_cast<uint32_t>(b.payload.size() - 6 - 11));
                   }},
        BrokenCase{"IfdOneEmpty", [](ExifBlock& b) { b.PutWord(b.ifd1, 0); }},
        BrokenCase{"LengthMissing", [](ExifBlock& b) { b.PutWord(b.thumbLengthEntry, 0x0203); }},
        BrokenCase{"LengthOfTypeShort", [](ExifBlock& b) { b.PutWord(b.thumbLengthEntry + 2, 3); }},
        BrokenCase{"OffsetWithCountTwo",
                   [](ExifBlock& b) { b.PutDword(b.thumbOffsetEntry + 4, 2); }},
        BrokenCase{"LengthZero", [](ExifBlock& b) { b.PutDword(b.thumbLengthEntry + 8, 0); }},
        BrokenCase{"ThumbnailRunsPastTheBlock",
                   [](ExifBlock& b) { b.PutDword(b.thumbLengthEntry + 8, kThumb.size() + 1); }},
        BrokenCase{"OffsetPlusLengthWraps",
                   [](ExifBlock& b) {
                       b.PutDword(b.thumbOffsetEntry + 8, 0xFFFFFFF0u);
                       b.PutDword(b.thumbLengthEntry + 8, 0x20);
                   }},
        BrokenCase{"IfdZeroOffsetNearTwoToThe32", [](ExifBlock& b) { b.PutDword(4, 0xFFFFFFFFu); }},
        BrokenCase{"IfdZeroCountRunsPastTheBlock", [](ExifBlock& b) { b.PutWord(b.ifd0, 0xFFFF); }},
        BrokenCase{"IfdOneOffsetNearTwoToThe32",
                   [](ExifBlock& b) { b.PutDword(b.ifd0Link, 0xFFFFFFFCu); }}),
    [](const ::testing::TestParamInfo<BrokenCase>& info) { return info.param.name; });

TEST(ExtractThumbnailTest, StopsAtTheEndOfTheBlockButKeepsWhatItFound) {
    // IFD1 claims more entries than fit; the two that do are still read.
    ExifSpec spec;
    spec.thumbnail = kThumb;
    ExifBlock b = BuildExif(spec);
    b.PutWord(b.ifd1, 0xFFFF);
    EXPECT_EQ(Extract(b), kThumb);
    EXPECT_FALSE(extract_thumbnail(nullptr, 100, nullptr, nullptr));
}

struct AdjustCase {
    const char* name;
    std::function<void(ExifBlock&)> breakIt;
    bool unhooked;  // IFD1's link zeroed all the same
};

class AdjustRefusalTest : public ::testing::TestWithParam<AdjustCase> {};

TEST_P(AdjustRefusalTest, ReturnsZeroAndRewritesNoSize) {
    ExifSpec spec;
    spec.pixelX = 640;
    spec.pixelY = 480;
    spec.thumbnail = kThumb;
    ExifBlock b = BuildExif(spec);
    GetParam().breakIt(b);
    ExifBlock expected = b;
    if (GetParam().unhooked) expected.PutDword(b.ifd0Link, 0);
    std::string tiff = b.Tiff();
    EXPECT_EQ(
        adjust_exif_parameters(Bytes(tiff), static_cast<unsigned int>(tiff.size()), 1, 1, false),
        0u);
    EXPECT_EQ(tiff, expected.Tiff());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, AdjustRefusalTest,
    ::testing::Values(
        AdjustCase{"ElevenBytes", [](ExifBlock& b) { b.payload.resize(6 + 11); }, false},
        AdjustCase{"WrongMagic", [](ExifBlock& b) { b.PutWord(2, 0); }, false},
        AdjustCase{"IfdZeroBeyond64K", [](ExifBlock& b) { b.PutDword(4, 0x10000); }, false},
        AdjustCase{"IfdZeroEmpty", [](ExifBlock& b) { b.PutWord(b.ifd0, 0); }, false},
        AdjustCase{"LinkPastTheBlock", [](ExifBlock& b) { b.PutWord(b.ifd0, 0xFFFF); }, false},
        AdjustCase{"IfdOneNearTwoToThe32",
                   [](ExifBlock& b) { b.PutDword(b.ifd0Link, 0xFFFFFFFFu); }, false},
        AdjustCase{"NoExifPointer", [](ExifBlock& b) { b.PutWord(b.ifd0 + 14, 0x8768); }, true},
        AdjustCase{"ExifIfdBeyond64K", [](ExifBlock& b) { b.PutDword(b.ifd0 + 22, 0x10000); },
                   true},
        // A single-entry Exif IFD is left alone even when that entry is PixelXDimension.
        AdjustCase{"SingleEntryExifIfd",
                   [](ExifBlock& b) {
                       b.payload.replace(6 + b.exifIfd + 2, 12,
                                         b.payload.substr(6 + b.pixelXEntry, 12));
                       b.PutWord(b.exifIfd, 1);
                   },
                   true}),
    [](const ::testing::TestParamInfo<AdjustCase>& info) { return info.param.name; });

TEST(JthumbnailTest, TakesTheFirstExifSegmentThatHasOne) {
    ExifSpec plain;
    plain.pixelX = 64;
    plain.pixelY = 48;
    ExifSpec withThumb = plain;
    withThumb.thumbnail = kThumb;
    ExifSpec bigThumb = plain;
    bigThumb.bigEndian = true;
    bigThumb.thumbnail = "second";
    const std::string jpeg =
        EncodeJpeg(JpegSpec{}, {{0xFE, "comment"},
                                {0xE1, std::string("http://ns.adobe.com/xap/1.0/\0<x/>", 33)},
                                {0xE1, std::string("Exif\0\0", 6)},
                                {0xE1, BuildExif(plain).payload},
                                {0xE1, BuildExif(withThumb).payload},
                                {0xE1, BuildExif(bigThumb).payload}});
    HeaderReader reader(jpeg, JCOPYOPT_ALL);
    char* thumbnail = nullptr;
    unsigned int length = 0;
    ASSERT_EQ(jthumbnail(reader.get(), &thumbnail, &length), 1);
    EXPECT_EQ(std::string(thumbnail, length), kThumb);

    HeaderReader commentsOnly(jpeg, JCOPYOPT_COMMENTS);
    EXPECT_EQ(jthumbnail(commentsOnly.get(), &thumbnail, &length), 0);
}

class MarkerCopyTest : public ::testing::TestWithParam<JCOPY_OPTION> {};

TEST_P(MarkerCopyTest, CopiesWhatWasSavedInFileOrder) {
    const std::vector<Segment> segments = {{0xE1, BuildExif(ExifSpec{}).payload},
                                           {0xFE, "first comment"},
                                           {0xE2, std::string("ICC_PROFILE\0\1\1", 14)},
                                           {0xED, "Photoshop 3.0"},
                                           {0xFE, ""},
                                           {0xEF, std::string(65533, 'x')}};
    JpegSpec spec;
    spec.jfif = true;
    const std::string jpeg = EncodeJpeg(spec, segments);
    const std::vector<Segment> source = ReadSegments(jpeg);
    ASSERT_EQ(source.size(), segments.size() + 1);  // with the JFIF APP0 first

    HeaderReader reader(jpeg, GetParam());
    const std::string out = CopyMarkers(reader, GetParam(), false, false);

    std::vector<Segment> expected;
    for (const Segment& s : source) {
        if (GetParam() == JCOPYOPT_ALL || (GetParam() == JCOPYOPT_COMMENTS && s.marker == 0xFE)) {
            expected.push_back(s);
        }
    }
    EXPECT_EQ(ReadSegments(out), expected);
}

INSTANTIATE_TEST_SUITE_P(Options, MarkerCopyTest,
                         ::testing::Values(JCOPYOPT_NONE, JCOPYOPT_COMMENTS, JCOPYOPT_ALL));

TEST(MarkerCopyTest, SkipsJfifAndAdobeOnlyWhenTheEncoderWritesThemItself) {
    JpegSpec spec;
    spec.jfif = true;
    const std::string jpeg = EncodeJpeg(
        spec, {{0xE0, "JFIF"}, {0xEE, "Adobe-from-source"}, {0xEE, "Adob"}, {0xE0, "JFXX"}});
    HeaderReader reader(jpeg, JCOPYOPT_ALL);
    // The encoder's JFIF and Adobe come first; the source's are dropped, except the 4-byte
    // "JFIF" and the "Adob" segment, which are too short to count.
    EXPECT_EQ(Markers(ReadSegments(CopyMarkers(reader, JCOPYOPT_ALL, true, true))),
              (std::vector<int>{0xE0, 0xEE, 0xE0, 0xEE, 0xE0}));
    EXPECT_EQ(ReadSegments(CopyMarkers(reader, JCOPYOPT_ALL, false, false)), ReadSegments(jpeg));
}

TEST(TransformAdjustTest, CutsTheOldThumbnailOnlyWhenTheSizeChanges) {
    ExifSpec spec;
    spec.pixelX = 64;
    spec.pixelY = 48;
    spec.thumbnail = kThumb;
    const ExifBlock exif = BuildExif(spec);
    const std::string jpeg = EncodeJpeg(JpegSpec{}, {{0xE1, exif.payload}});

    for (bool sameSize : {true, false}) {
        HeaderReader reader(jpeg, JCOPYOPT_ALL);
        jpeg_compress_struct dst;
        jpeg_error_mgr err;
        dst.err = jpeg_std_error(&err);
        jpeg_create_compress(&dst);
        dst.image_width = sameSize ? 64 : 8;
        dst.image_height = sameSize ? 48 : 6;
        dst.write_JFIF_header = TRUE;
        jtransform_adjust_parameters(reader.get(), &dst);
        EXPECT_FALSE(dst.write_JFIF_header);
        jpeg_destroy_compress(&dst);

        jpeg_saved_marker_ptr m = reader.get()->marker_list;
        while (m != nullptr && m->marker != 0xE1) m = m->next;
        ASSERT_NE(m, nullptr);
        ExifBlock out = exif;
        out.payload.assign(reinterpret_cast<char*>(m->data), m->data_length);
        if (sameSize) {
            EXPECT_EQ(out.payload, exif.payload);
        } else {
            ASSERT_EQ(out.payload.size(), exif.ifd1 + 6u);
            EXPECT_EQ(out.GetDword(out.ifd0Link), 0u);
            EXPECT_EQ(out.GetDword(out.pixelYEntry + 8), 6u);
        }
    }
}

}  // namespace
}  // namespace Varnelo
