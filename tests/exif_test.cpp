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

// Encodes a small grey image to memory, calling `beforeRows` after jpeg_start_compress.
std::string EncodeWith(const std::function<void(jpeg_compress_struct*)>& configure,
                       const std::function<void(jpeg_compress_struct*)>& beforeRows) {
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
    configure(&dst);
    jpeg_start_compress(&dst, TRUE);
    beforeRows(&dst);
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

TEST(RawWorkerTest, ReadsAndWritesInTheSelectedByteOrder) {
    unsigned char bytes[4] = {0x12, 0x34, 0x56, 0x78};
    RAW_worker raw;
    EXPECT_EQ(raw.ReadWord(bytes), 0x3412);
    EXPECT_EQ(raw.ReadDword(bytes), 0x78563412UL);
    raw.SetIsMotorollaFlag(true);
    EXPECT_EQ(raw.ReadWord(bytes), 0x1234);
    EXPECT_EQ(raw.ReadDword(bytes), 0x12345678UL);

    raw.WriteDword(bytes, 0x1CAFEBABEUL);  // only the low 32 bits are stored
    EXPECT_EQ(bytes[0], 0xCA);
    EXPECT_EQ(bytes[3], 0xBE);
    raw.WriteWord(bytes, 0xA002);
    EXPECT_EQ(bytes[0], 0xA0);
    raw.SetIsMotorollaFlag(false);
    raw.WriteWord(bytes, 0xA002);
    EXPECT_EQ(bytes[0], 0x02);
    EXPECT_EQ(bytes[1], 0xA0);
    raw.WriteDword(bytes, 0x01020304UL);
    EXPECT_EQ(raw.ReadDword(bytes), 0x01020304UL);
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
    b.PutWord(52, 0x010E);
    b.PutDword(64, 0);
    b.PutWord(14, 0x0201);
    b.PutWord(16, 4);
    b.PutDword(18, 1);
    b.PutDword(22, 68);
    b.PutWord(26, 0x0202);
    b.PutWord(28, 4);
    b.PutDword(30, 1);
    b.PutDword(34, 4);
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
    // SHORT entries become LONG, count 1.
    EXPECT_EQ(b.GetWord(b.pixelXEntry), 0xA002);
    EXPECT_EQ(b.GetWord(b.pixelXEntry + 2), 4);
    EXPECT_EQ(b.GetDword(b.pixelXEntry + 4), 1u);
    EXPECT_EQ(b.GetDword(b.pixelXEntry + 8), 320u);
    EXPECT_EQ(b.GetWord(b.pixelYEntry + 2), 4);
    EXPECT_EQ(b.GetDword(b.pixelYEntry + 8), 240u);
    EXPECT_EQ(Extract(b), "<none>");
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

TEST(AdjustExifTest, LeavesSingleEntryExifDirectoryAlone) {
    ExifSpec spec;
    spec.pixelX = 640;
    spec.pixelY = 480;
    spec.thumbnail = kThumb;
    ExifBlock b = BuildExif(spec);
    // Make the Exif IFD hold only its PixelXDimension entry.
    b.payload.replace(6 + b.exifIfd + 2, 12, b.payload.substr(6 + b.pixelXEntry, 12));
    b.PutWord(b.exifIfd, 1);
    std::string tiff = b.Tiff();
    EXPECT_EQ(
        adjust_exif_parameters(Bytes(tiff), static_cast<unsigned int>(tiff.size()), 1, 2, false),
        0u);
    const std::string before = b.payload;
    b.payload.replace(6, tiff.size(), tiff);
    EXPECT_EQ(b.GetDword(b.ifd0Link), 0u);  // unhooked all the same
    EXPECT_EQ(b.GetWord(b.exifIfd + 2 + 2), 3);
    EXPECT_EQ(b.GetDword(b.exifIfd + 2 + 8), 640u);
    b.PutDword(b.ifd0Link, b.ifd1);
    EXPECT_EQ(b.payload, before);
}

TEST(AdjustExifTest, WithoutThumbnailDirectoryRewritesSizesAndReturnsZero) {
    ExifSpec spec;
    spec.bigEndian = true;
    spec.pixelX = 640;
    spec.pixelY = 480;
    ExifBlock b = BuildExif(spec);
    std::string tiff = b.Tiff();
    EXPECT_EQ(
        adjust_exif_parameters(Bytes(tiff), static_cast<unsigned int>(tiff.size()), 64, 48, false),
        0u);
    b.payload.replace(6, tiff.size(), tiff);
    EXPECT_EQ(b.GetDword(b.pixelXEntry + 8), 64u);
    EXPECT_EQ(b.GetDword(b.pixelYEntry + 8), 48u);
}

TEST(AdjustExifTest, RefusesBlocksItCannotFollowWithoutTouchingThem) {
    ExifSpec spec;
    spec.pixelX = 640;
    spec.pixelY = 480;
    spec.thumbnail = kThumb;
    const std::vector<std::function<void(ExifBlock&)>> breakers = {
        [](ExifBlock& b) { b.payload.resize(6 + 11); },
        [](ExifBlock& b) { b.PutWord(2, 0); },
        [](ExifBlock& b) { b.PutDword(4, 0x10000); },
        [](ExifBlock& b) { b.PutWord(b.ifd0, 0); },
        [](ExifBlock& b) { b.PutWord(b.ifd0, 0xFFFF); },  // link past the block
        [](ExifBlock& b) { b.PutDword(b.ifd0Link, 0xFFFFFFFFu); },
    };
    for (size_t i = 0; i < breakers.size(); ++i) {
        ExifBlock b = BuildExif(spec);
        breakers[i](b);
        std::string tiff = b.Tiff();
        const std::string before = tiff;
        EXPECT_EQ(adjust_exif_parameters(Bytes(tiff), static_cast<unsigned int>(tiff.size()), 1, 1,
                                         false),
                  0u)
            << i;
        EXPECT_EQ(tiff, before) << i;
    }
    // Exif IFD pointer missing, or pointing far away: IFD1 is unhooked, sizes stay.
    for (uint32_t pointer : {0u, 0x10000u}) {
        ExifBlock b = BuildExif(spec);
        if (pointer == 0) {
            b.PutWord(b.ifd0 + 14, 0x8768);
        } else {
            b.PutDword(b.ifd0 + 14 + 8, pointer);
        }
        std::string tiff = b.Tiff();
        EXPECT_EQ(adjust_exif_parameters(Bytes(tiff), static_cast<unsigned int>(tiff.size()), 1, 1,
                                         false),
                  0u);
        b.payload.replace(6, tiff.size(), tiff);
        EXPECT_EQ(b.GetDword(b.ifd0Link), 0u);
        EXPECT_EQ(b.GetDword(b.pixelXEntry + 8), 640u);
    }
}

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
    const std::string out = EncodeWith(
        [](jpeg_compress_struct* dst) { dst->write_JFIF_header = FALSE; },
        [&](jpeg_compress_struct* dst) { jcopy_markers_execute(reader.get(), dst, GetParam()); });

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
    const auto copyAll = [&](jpeg_compress_struct* dst) {
        jcopy_markers_execute(reader.get(), dst, JCOPYOPT_ALL);
    };

    const std::string own = EncodeWith(
        [](jpeg_compress_struct* dst) {
            dst->write_JFIF_header = TRUE;
            dst->write_Adobe_marker = TRUE;
        },
        copyAll);
    // The encoder's JFIF and Adobe come first; the source's are dropped, except the 4-byte
    // "JFIF" and the "Adob" segment, which are too short to count.
    EXPECT_EQ(Markers(ReadSegments(own)), (std::vector<int>{0xE0, 0xEE, 0xE0, 0xEE, 0xE0}));

    const std::string copied =
        EncodeWith([](jpeg_compress_struct* dst) { dst->write_JFIF_header = FALSE; }, copyAll);
    EXPECT_EQ(ReadSegments(copied), ReadSegments(jpeg));
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
        std::string app1;
        EncodeWith(
            [&](jpeg_compress_struct* dst) {
                dst->image_width = sameSize ? 64 : 8;
                dst->image_height = sameSize ? 48 : 8;
                dst->write_JFIF_header = TRUE;
                jtransform_adjust_parameters(reader.get(), dst);
                EXPECT_FALSE(dst->write_JFIF_header);
                dst->image_width = 8;
                dst->image_height = 8;
            },
            [&](jpeg_compress_struct*) {
                jpeg_saved_marker_ptr m = reader.get()->marker_list;
                while (m != nullptr && m->marker != 0xE1) m = m->next;
                ASSERT_NE(m, nullptr);
                app1.assign(reinterpret_cast<char*>(m->data), m->data_length);
            });
        if (sameSize) {
            EXPECT_EQ(app1, exif.payload);
        } else {
            ASSERT_EQ(app1.size(), exif.ifd1 + 6u);
            ExifBlock cut = exif;
            cut.payload = app1;
            EXPECT_EQ(cut.GetDword(cut.ifd0Link), 0u);
            EXPECT_EQ(cut.GetDword(cut.pixelXEntry + 8), 8u);
        }
    }
}

}  // namespace
}  // namespace Varnelo
