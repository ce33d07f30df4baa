#include "converter.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "exif.h"
#include "fsutils.h"
#include "support/jpeg_fixtures.h"
#include "support/resize_formulas.h"
#include "support/service_process.h"
#include "support/temp_dir.h"

namespace Varnelo {
namespace {

// What a conversion must write: the source's segments unless omitted, then its pixels as
// decoded with the library's defaults, scaled by the plain formulas and encoded baseline at
// `quality` with the library's defaults and no JFIF header, greyscale staying greyscale.
std::string ReferenceConversion(const std::string& jpeg, bool grey, int dstw, int dsth, int quality,
                                TypeOfResizer type, bool omitEXIF) {
    const DecodedJpeg image = DecodeJpeg(jpeg);
    const Image rows = ExpectedRows(type, Rows(image.rgb, image.width, image.height),
                                    {image.width, image.height, dstw, dsth});
    jpeg_compress_struct dst;
    jpeg_error_mgr err;
    dst.err = jpeg_std_error(&err);
    jpeg_create_compress(&dst);
    unsigned char* buffer = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&dst, &buffer, &size);
    dst.image_width = dstw;
    dst.image_height = dsth;
    dst.input_components = 3;
    dst.in_color_space = JCS_RGB;
    jpeg_set_defaults(&dst);
    if (grey) jpeg_set_colorspace(&dst, JCS_GRAYSCALE);
    jpeg_set_quality(&dst, quality, TRUE);
    dst.write_JFIF_header = FALSE;
    jpeg_start_compress(&dst, TRUE);
    for (const Segment& m : omitEXIF ? std::vector<Segment>() : ReadSegments(jpeg)) {
        jpeg_write_marker(&dst, m.marker, reinterpret_cast<const JOCTET*>(m.data.data()),
                          m.data.size());
    }
    for (const Row& row : rows) {
        JSAMPROW r = const_cast<JSAMPROW>(reinterpret_cast<const JSAMPLE*>(row.data()));
        jpeg_write_scanlines(&dst, &r, 1);
    }
    jpeg_finish_compress(&dst);
    jpeg_destroy_compress(&dst);
    std::string out(reinterpret_cast<char*>(buffer), size);
    std::free(buffer);
    return out;
}

struct Outcome {
    int result = -1, width = -1, height = -1;
    std::string hash = "untouched";
};

Outcome Convert(const std::string& src, const std::string& dst, int size = 64, int quality = 75,
                HashType hashType = HASH_CRC32, TypeOfResizer type = RESIZER_REDUCES,
                bool omitEXIF = false) {
    Outcome r;
    r.result =
        ConvertFile(src, dst, size, quality, r.width, r.height, r.hash, hashType, type, omitEXIF);
    return r;
}

Outcome Thumbnail(const std::string& src, const std::string& dst,
                  TypeOfResizer type = RESIZER_REDUCES) {
    Outcome r;
    r.result = ConvertFileThumbnail(src, dst, 72, 75, r.width, r.height, r.hash, HASH_CRC32, type);
    return r;
}

struct PixelCase {
    JpegShape source;
    int size, quality;
    TypeOfResizer resizer;
    HashType hash;
    bool omitEXIF;
    int dstw, dsth;
};

void PrintTo(const PixelCase& c, std::ostream* os) {
    *os << c.source.width << "x" << c.source.height << " to " << c.dstw << "x" << c.dsth;
}

// Conversions run on one thread or staged on two; both ways must write the same bytes and logs.
class ThreadsTest {
  public:
    explicit ThreadsTest(ConvertThreads mode) { SetConvertThreads(mode); }
    ~ThreadsTest() { SetConvertThreads(CONVERT_THREADS_AUTO); }
};

const ConvertThreads kThreads[] = {CONVERT_THREADS_ONE, CONVERT_THREADS_STAGED};

class ConvertPixelTest : public ::testing::TestWithParam<std::tuple<PixelCase, ConvertThreads>>,
                         ThreadsTest {
  protected:
    ConvertPixelTest() : ThreadsTest(std::get<1>(GetParam())) {}
};

TEST_P(ConvertPixelTest, MatchesDecodeResizeEncodeByteForByte) {
    const PixelCase& c = std::get<0>(GetParam());
    const std::string jpeg = EncodeJpeg(c.source, {{0xE1, BuildExif({9, 9, "\xFF\xD8"}).payload},
                                                   {0xE2, std::string("ICC_PROFILE\0\1\1", 14)},
                                                   {0xFE, std::string(65533, 'c')}});
    TempDir tmp;
    const std::string src = tmp.Write("src.jpg", jpeg);
    const Outcome r =
        Convert(src, tmp.Path("dst.jpg"), c.size, c.quality, c.hash, c.resizer, c.omitEXIF);
    ASSERT_EQ(r.result, CR_OK);
    EXPECT_EQ(r.width, c.source.width);
    EXPECT_EQ(r.hash, c.hash == HASH_CRC32 ? TailCrc32(src)
                      : c.hash == HASH_MD5 ? TailMd5(src)
                                           : "");
    const std::string out = ReadFileBytes(tmp.Path("dst.jpg"));
    EXPECT_EQ(ReadSegments(out), c.omitEXIF ? std::vector<Segment>() : ReadSegments(jpeg));
    EXPECT_TRUE(out == ReferenceConversion(jpeg, c.source.kind == JpegKind::GREY, c.dstw, c.dsth,
                                           std::clamp(c.quality, 0, 100), c.resizer, c.omitEXIF));
}

const PixelCase kPixelCases[] = {
    {{301, 207}, 97, 75, RESIZER_REDUCES, HASH_CRC32, false, 97, 66},
    {{207, 301, JpegKind::COLOUR_444}, 97, 90, RESIZER_REDUCES, HASH_MD5, true, 66, 97},
    {{256, 256, JpegKind::GREY}, 40, 150, RESIZER_REDUCES, HASH_NONE, false, 40, 40},
    {{333, 100, JpegKind::COLOUR_420, true}, 64, 100, RESIZER_TIDY, HashType(3), true, 64, 19},
    {{5, 1000}, 10, -5, RESIZER_REDUCES, HASH_CRC32, true, 8, 32},  // 32 at quality 0; width 8
    {{300, 1, JpegKind::COLOUR_444}, 32, 75, RESIZER_DIRTY, HASH_MD5, false, 32, 8},
};

INSTANTIATE_TEST_SUITE_P(Sources, ConvertPixelTest,
                         ::testing::Combine(::testing::ValuesIn(kPixelCases),
                                            ::testing::ValuesIn(kThreads)));

class ConvertFileTest : public ::testing::TestWithParam<ConvertThreads>, ThreadsTest {
  protected:
    ConvertFileTest() : ThreadsTest(GetParam()) {}
};

TEST_P(ConvertFileTest, ReportsEachOutcomeWithItsResultAndLog) {
    TempDir tmp;
    const std::string big = tmp.Write("big.jpg", EncodeJpeg({200, 150}));
    const std::string text = tmp.Write("text.jpg", "not a jpeg at all");
    const std::string embedded = tmp.Write(
        "thumb.jpg", EncodeJpeg({200, 150}, {{0xE1, BuildExif({200, 150, "\xFF\xD8"}).payload}}));
    ExifBlock outside = BuildExif({200, 150, "\xFF\xD8"});
    outside.Put(outside.thumbLengthEntry + 8, 3);  // one byte past the block
    // A few hundred bytes declaring a 60000 x 60000 progressive image, whose coefficients the
    // library would buffer in gigabytes. The first FF C2 libjpeg writes is the frame header.
    std::string huge = EncodeJpeg({16, 16, JpegKind::COLOUR_420, true});
    huge.replace(huge.find("\xFF\xC2") + 5, 4, "\xEA\x60\xEA\x60");
    tmp.Write("huge.jpg", huge);
    const std::string dst = tmp.Path("dst.jpg");
    const std::string fault = "IJG decompression error\nClose output file\nClose input file\n";
    const TypeOfResizer kUnknown = static_cast<TypeOfResizer>(3);
    struct Case {
        const char* name;
        bool thumbnail;
        std::string src, dst;
        int result, width;
        std::string logTail;  // how the log ends; empty: nothing is logged
        TypeOfResizer type = RESIZER_REDUCES;
    };
    std::vector<Case> cases = {
        // A whole log; one source line gives the nearest-sample resizer a line too few.
        {"one line", false, tmp.Write("line.jpg", EncodeJpeg({300, 1})), dst, CR_OK, 300,
         "Open input file ok\njpeg_read_header\njpeg_start_decompress\n  dstw=64\n  dsth=8"
         "\n  srcw=300\n  srch=1\nOpen output file ok\njpeg_copy_critical_parameters"
         "\nCreate CResizerDirty\nCreate resizer ok\njpeg_start_compress\njcopy_markers_execute"
         "\nResizing...\nResizer not another output line\nDelete resizer\nClose output file"
         "\nClose input file\nCalculate hash\nConvertFile ok\n",
         RESIZER_DIRTY},
        {"missing", false, tmp.Path("none.jpg"), dst, CR_FILE_NOT_FOUND, -1,
         "Open input file error: " + tmp.Path("none.jpg") + "\n"},
        {"no folder", false, big, tmp.Path("no/dst.jpg"), CR_CREATE_DEST_ERROR, 200,
         "Open output file error: " + tmp.Path("no/dst.jpg") + "\n"},
        {"text", false, text, dst, CR_RESAMPLING_ERROR, -1,
         "jpeg_read_header\ncustom_error_exit (1)\nIJG decompression error\nClose input file\n"},
        {"empty", false, tmp.Write("empty.jpg", ""), dst, CR_RESAMPLING_ERROR, -1,
         "jpeg_read_header\ncustom_error_exit (1)\nIJG decompression error\nClose input file\n"},
        {"CMYK", false, tmp.Write("cmyk.jpg", EncodeJpeg({200, 150, JpegKind::CMYK})), dst,
         CR_RESAMPLING_ERROR, -1, "jpeg_start_decompress\ncustom_error_exit (1)\n" + fault},
        {"huge", false, tmp.Path("huge.jpg"), dst, CR_RESAMPLING_ERROR, -1, fault},
        {"cut", false, tmp.Write("cut.jpg", TruncateInScan(EncodeJpeg({200, 150}))), dst,
         CR_JPEG_WARNINGS, 200, "Calculate hash\nConvertFile warnings\n"},
        // Only the widths count, though the height would shrink from 1000 to 64.
        {"narrow", false, tmp.Write("narrow.jpg", EncodeJpeg({8, 1000})), dst,
         CR_LESS_THAN_REQUESTED, 8, "  srch=1000\nClose input file\n"},
        {"same paths", false, big, big, CR_RESAMPLING_ERROR, -1, ""},
        {"no source", false, "", dst, CR_RESAMPLING_ERROR, -1, ""},
        {"no destination", false, big, "", CR_RESAMPLING_ERROR, -1, ""},
        {"unknown resizer", false, big, dst, CR_RESAMPLING_ERROR, -1, "", kUnknown},
        {"thumbnail of text", true, text, dst, CR_RESAMPLING_ERROR, -1,
         "Open file ok\njpeg_read_header\ncustom_error_exit (1)\nClose input file\n"},
        {"thumbnail of huge", true, tmp.Path("huge.jpg"), dst, CR_RESAMPLING_ERROR, -1,
         "IJG decompression error\nClose input file\n"},
        // The embedded thumbnail cannot be written: the conversion it falls back to fails too.
        {"thumbnail no folder", true, embedded, tmp.Path("no/t.jpg"), CR_CREATE_DEST_ERROR, 200,
         "Open output file error: " + tmp.Path("no/t.jpg") + "\n"},
        {"thumbnail outside", true,
         tmp.Write("o.jpg", EncodeJpeg({200, 150}, {{0xE1, outside.payload}})), dst, CR_OK, 200,
         "Calculate hash\nConvertFile ok\n"},
        {"thumbnail same paths", true, big, big, CR_RESAMPLING_ERROR, -1, ""},
        {"thumbnail unknown resizer", true, embedded, dst, CR_RESAMPLING_ERROR, -1, "", kUnknown},
    };
    if (access("/dev/full", W_OK) == 0) {
        cases.push_back({"full disk", false, big, "/dev/full", CR_RESAMPLING_ERROR, 200, fault});
    }
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        LogCapture capture(15);
        const Outcome r = c.thumbnail ? Thumbnail(c.src, c.dst, c.type)
                                      : Convert(c.src, c.dst, 64, 75, HASH_CRC32, c.type);
        EXPECT_EQ(r.result, c.result);
        EXPECT_EQ(r.width, c.width);
        const bool converted = c.result == CR_OK || c.result == CR_JPEG_WARNINGS;
        EXPECT_EQ(r.hash, converted ? TailCrc32(c.src) : "untouched");
        const std::string log = capture.Text();
        EXPECT_EQ(log.substr(log.size() - std::min(log.size(), c.logTail.size())), c.logTail);
        EXPECT_EQ(log.empty(), c.logTail.empty());
        EXPECT_EQ(FileExists(dst), converted);
        // A thumbnail made by conversion carries no segments.
        if (converted) {
            EXPECT_EQ(ReadSegments(ReadFileBytes(dst)).empty(), c.thumbnail);
        }
        std::remove(dst.c_str());
    }
}

INSTANTIATE_TEST_SUITE_P(Threads, ConvertFileTest, ::testing::ValuesIn(kThreads));

// What a conversion leaves behind: its answer, the destination's bytes and the trace.
struct Written {
    Outcome outcome;
    std::string bytes, log;
};

bool operator==(const Written& a, const Written& b) {
    return a.outcome.result == b.outcome.result && a.outcome.width == b.outcome.width &&
           a.outcome.height == b.outcome.height && a.outcome.hash == b.outcome.hash &&
           a.bytes == b.bytes && a.log == b.log;
}

Written ConvertIn(ConvertThreads mode, const std::string& src, int size, const TempDir& tmp) {
    const ThreadsTest threads(mode);
    const std::string dst = tmp.Path("dst.jpg");
    Written w;
    {
        LogCapture capture(15);
        w.outcome = Convert(src, dst, size, 85, HASH_MD5);
        w.log = capture.Text();
    }
    w.bytes = ReadFileBytes(dst);
    std::remove(dst.c_str());
    return w;
}

// `jpeg` with `count` bytes of its entropy-coded data overwritten at `fraction` of it.
std::string Damaged(std::string jpeg, double fraction, int count) {
    const size_t scan = jpeg.find("\xFF\xDA");
    const size_t at = scan + static_cast<size_t>((jpeg.size() - scan) * fraction);
    for (int i = 0; i < count; ++i) jpeg[at + i] = static_cast<char>(0x5A ^ (i * 37));
    return jpeg;
}

// Every source shape, staged: the conversion writes, answers and traces exactly what the
// one-thread conversion does, whatever its height, sampling and reduction (2x to 40x), with
// restart markers, on damaged and cut photos (warnings counted once, faults logged once), on a
// source already small enough (the entropy stage started, then stopped) and on the camera
// photos when their folder is there.
TEST(StagedConversionTest, WritesWhatOneThreadWrites) {
    TempDir tmp;
    JpegShape photo;
    photo.photographic = true;
    photo.quality = 92;
    auto shape = [&](int w, int h, JpegKind kind, bool photographic = true) {
        JpegShape s = photo;
        s.width = w;
        s.height = h;
        s.kind = kind;
        s.photographic = photographic;
        return s;
    };
    const std::string p420 = EncodeJpeg(shape(999, 701, JpegKind::COLOUR_420));
    JpegShape restarts = shape(641, 479, JpegKind::COLOUR_420);
    restarts.restartRows = 1;
    const std::string withRestarts = EncodeJpeg(restarts);
    struct Case {
        std::string name, jpeg;
        int size;
    };
    std::vector<Case> cases = {
        {"4:2:0 2.5x", p420, 400},
        {"4:2:2 2x", EncodeJpeg(shape(640, 479, JpegKind::COLOUR_422)), 320},
        {"4:4:4 8x", EncodeJpeg(shape(601, 803, JpegKind::COLOUR_444)), 100},
        {"grey 40x", EncodeJpeg(shape(1200, 817, JpegKind::GREY, false)), 30},
        {"CMYK 3x", EncodeJpeg(shape(300, 200, JpegKind::CMYK, false)), 100},
        {"pattern 40x", EncodeJpeg(shape(1601, 1283, JpegKind::COLOUR_420, false)), 40},
        {"portrait 3x", EncodeJpeg(shape(333, 1001, JpegKind::COLOUR_420)), 333},
        {"16 lines", EncodeJpeg(shape(256, 16, JpegKind::COLOUR_420)), 128},
        {"one line", EncodeJpeg(shape(300, 1, JpegKind::COLOUR_420)), 100},
        {"restart markers", withRestarts, 200},
        {"restart markers damaged", Damaged(withRestarts, 0.4, 24), 200},
        {"progressive", EncodeJpeg([&] {
             JpegShape s = shape(400, 300, JpegKind::COLOUR_420);
             s.progressive = true;
             return s;
         }()),
         100},
        {"cut", TruncateInScan(p420), 200},
        {"already small", p420, 2000},
        {"trailing bytes", p420.substr(0, p420.size() - 2) + "garbage\xFF\xD9", 200},
    };
    for (double at : {0.1, 0.45, 0.62, 0.7, 0.78, 0.9}) {
        cases.push_back({"damaged at " + std::to_string(at), Damaged(p420, at, 24), 200});
    }
    std::string marker = p420;
    marker.replace(marker.size() / 2, 4, "\xFF\xC0\x00\x11");
    cases.push_back({"frame in the scan", marker, 200});
    const std::string folder = VARNELO_PHOTOS_DIR;
    for (const char* name :
         {"corrupted.jpg", "hdr_canon_hdr_NO.jpg", "gps_DSCN0010.jpg", "exif-org_sony-d700.jpg",
          "orientation_portrait_1.jpg", "xmp_no_exif.jpg", "invalid_image01713.jpg"}) {
        const std::string bytes = ReadFileBytes(folder + "/" + name);
        if (!bytes.empty()) cases.push_back({name, bytes, 300});
    }
    int warned = 0, failed = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string src = tmp.Write("src.jpg", c.jpeg);
        const Written one = ConvertIn(CONVERT_THREADS_ONE, src, c.size, tmp);
        const Written staged = ConvertIn(CONVERT_THREADS_STAGED, src, c.size, tmp);
        EXPECT_TRUE(staged == one) << "one thread:\n" << one.log << "staged:\n" << staged.log;
        warned += one.outcome.result == CR_JPEG_WARNINGS;
        failed += one.outcome.result == CR_RESAMPLING_ERROR;
    }
    EXPECT_GE(warned, 5);  // the damage does make warnings
    EXPECT_GE(failed, 1);  // and a fault, met after the last line
}

// Conversions on several threads at once share the processors (waiting for one while all are
// held, taking idle ones to stage) and each writes what it writes alone.
TEST(StagedConversionTest, ConversionsRunningAtOnceWriteWhatEachWritesAlone) {
    TempDir tmp;
    JpegShape shape;
    shape.width = 900;
    shape.height = 700;
    shape.photographic = true;
    const std::string src = tmp.Write("src.jpg", EncodeJpeg(shape));
    const Written alone = ConvertIn(CONVERT_THREADS_ONE, src, 300, tmp);
    std::vector<std::string> outputs(6);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < outputs.size(); ++i) {
        threads.emplace_back([&, i] {
            const std::string dst = tmp.Path("dst" + std::to_string(i) + ".jpg");
            Outcome r = Convert(src, dst, 300, 85, HASH_MD5);
            outputs[i] = r.result == CR_OK ? ReadFileBytes(dst) : "";
        });
    }
    for (std::thread& t : threads) t.join();
    for (const std::string& out : outputs) EXPECT_TRUE(out == alone.bytes);
}

TEST(ConvertFileThumbnailTest, WritesTheFirstEmbeddedThumbnailVerbatim) {
    TempDir tmp;
    const std::string thumb = EncodeJpeg({40, 30});
    const std::string src = tmp.Write(
        "src.jpg",
        EncodeJpeg({400, 300}, {{0xE1, std::string("http://ns.adobe.com/xap/1.0/\0<x/>", 33)},
                                {0xE1, std::string("Exif\0\0", 6)},
                                {0xE1, BuildExif({400, 300}).payload},
                                {0xE1, BuildExif({400, 300, thumb, true}).payload},
                                {0xE1, BuildExif({400, 300, "second"}).payload}}));
    const Outcome r = Thumbnail(src, tmp.Path("t.jpg"));
    EXPECT_EQ(r.result, CR_OK);
    EXPECT_EQ(r.width, -1);
    EXPECT_EQ(r.hash, "untouched");
    EXPECT_EQ(ReadFileBytes(tmp.Path("t.jpg")), thumb);
}

// A genuine progressive photo whose coefficients take about 1.2 GB: the library's memory cap
// grows with the file, so it converts and its embedded thumbnail is found. (The tiny file that
// declares 60000 x 60000 above is still refused.)
TEST(ConvertFileLongTest, LargeProgressivePhotoConvertsAndItsThumbnailIsFound) {
    TempDir tmp;
    const std::string thumb = EncodeJpeg({160, 160});
    const std::string src =
        tmp.Write("large.jpg", EncodeJpeg({14000, 14000, JpegKind::COLOUR_444, true},
                                          {{0xE1, BuildExif({14000, 14000, thumb}).payload}}));
    const Outcome r = Convert(src, tmp.Path("small.jpg"), 1600);
    EXPECT_EQ(r.result, CR_OK);
    EXPECT_EQ(r.width, 14000);
    const DecodedJpeg small = DecodeJpeg(ReadFileBytes(tmp.Path("small.jpg")));
    EXPECT_EQ(small.width, 1600);
    EXPECT_EQ(small.height, 1600);
    EXPECT_EQ(Thumbnail(src, tmp.Path("thumb.jpg")).result, CR_OK);
    EXPECT_EQ(ReadFileBytes(tmp.Path("thumb.jpg")), thumb);
}

}  // namespace
}  // namespace Varnelo
