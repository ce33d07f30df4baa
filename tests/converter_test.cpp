#include "converter.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "crc32.h"
#include "md5.h"
#include "support/jpeg_fixtures.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace Varnelo {
namespace {

using Lines = std::vector<std::string>;

// What the conversion must produce: the source decoded with the library's defaults, its rows
// run through the resizer with PumpLines, and encoded with the conversion's parameters.
std::string ReferenceConversion(const std::string& jpeg, int dstw, int dsth, int quality,
                                TypeOfResizer type) {
    jpeg_decompress_struct src;
    jpeg_error_mgr srcErr;
    src.err = jpeg_std_error(&srcErr);
    jpeg_create_decompress(&src);
    jpeg_mem_src(&src, reinterpret_cast<const unsigned char*>(jpeg.data()), jpeg.size());
    jpeg_read_header(&src, TRUE);
    src.out_color_space = JCS_RGB;
    jpeg_start_decompress(&src);
    const int w = static_cast<int>(src.output_width);
    const int h = static_cast<int>(src.output_height);

    jpeg_compress_struct dst;
    jpeg_error_mgr dstErr;
    dst.err = jpeg_std_error(&dstErr);
    jpeg_create_compress(&dst);
    unsigned char* buffer = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&dst, &buffer, &size);
    jpeg_copy_critical_parameters(&src, &dst);
    dst.image_width = dstw;
    dst.image_height = dsth;
    jpeg_set_defaults(&dst);
    jpeg_set_quality(&dst, quality, TRUE);
    dst.write_JFIF_header = FALSE;
    dst.input_components = 3;
    dst.in_color_space = JCS_RGB;
    jpeg_start_compress(&dst, TRUE);

    std::unique_ptr<CResizer> resizer = CreateResizer(type, w, h, dstw, dsth);
    std::vector<CPixel> row(w + 2);
    std::vector<CPixel> black(dstw);
    PumpLines(
        *resizer, w, h, dsth, row.data(), black.data(),
        [&](CPixel* line) {
            JSAMPROW rows[1] = {reinterpret_cast<JSAMPROW>(line)};
            jpeg_read_scanlines(&src, rows, 1);
        },
        [&](CPixel* line) {
            JSAMPROW rows[1] = {reinterpret_cast<JSAMPROW>(line)};
            jpeg_write_scanlines(&dst, rows, 1);
        },
        [] {});
    jpeg_finish_compress(&dst);
    jpeg_destroy_compress(&dst);
    jpeg_finish_decompress(&src);
    jpeg_destroy_decompress(&src);
    std::string out(reinterpret_cast<char*>(buffer), size);
    std::free(buffer);
    return out;
}

// One conversion with its outputs.
struct Outcome {
    int result = -1;
    int width = -1;
    int height = -1;
    std::string hash = "untouched";
};

Outcome Convert(const std::string& src, const std::string& dst, int size, int quality = 75,
                HashType hashType = HASH_CRC32, TypeOfResizer type = RESIZER_REDUCES,
                bool omitEXIF = false) {
    Outcome r;
    r.result =
        ConvertFile(src, dst, size, quality, r.width, r.height, r.hash, hashType, type, omitEXIF);
    return r;
}

Outcome Thumbnail(const std::string& src, const std::string& dst, int size = 72) {
    Outcome r;
    r.result = ConvertFileThumbnail(src, dst, size, 75, r.width, r.height, r.hash, HASH_CRC32,
                                    RESIZER_REDUCES);
    return r;
}

JpegSpec Sized(int width, int height, JpegKind kind = JpegKind::COLOUR_420) {
    JpegSpec spec;
    spec.width = width;
    spec.height = height;
    spec.kind = kind;
    return spec;
}

std::string ExpectedTailHash(Hash&& hash, const std::string& file) {
    const std::string tail = file.size() > 2048 ? file.substr(file.size() - 2048) : file;
    hash.Init();
    hash.Update(reinterpret_cast<const unsigned char*>(tail.data()), tail.size());
    hash.Final();
    return hash.GetResultString();
}

bool FileExistsForTest(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

struct SizeCase {
    int srcw, srch, size;
    int result, dstw, dsth;
};

class ConvertSizeTest : public ::testing::TestWithParam<SizeCase> {};

TEST_P(ConvertSizeTest, FitsTheLongerSideAndReportsTheSource) {
    const SizeCase& c = GetParam();
    TempDir tmp;
    const std::string src = tmp.Write("src.jpg", EncodeJpeg(Sized(c.srcw, c.srch)));
    const Outcome r = Convert(src, tmp.Path("dst.jpg"), c.size);
    EXPECT_EQ(r.result, c.result);
    EXPECT_EQ(r.width, c.srcw);
    EXPECT_EQ(r.height, c.srch);
    const DecodedJpeg out = DecodeJpeg(ReadFileBytes(tmp.Path("dst.jpg")));
    if (c.result == CR_LESS_THAN_REQUESTED) {
        EXPECT_FALSE(out.ok);
        EXPECT_EQ(r.hash, "untouched");
        return;
    }
    ASSERT_TRUE(out.ok);
    EXPECT_EQ(out.width, c.dstw);
    EXPECT_EQ(out.height, c.dsth);
}

INSTANTIATE_TEST_SUITE_P(
    Table, ConvertSizeTest,
    ::testing::Values(SizeCase{400, 300, 160, CR_OK, 160, 120},
                      SizeCase{300, 400, 160, CR_OK, 120, 160},
                      SizeCase{160, 120, 160, CR_LESS_THAN_REQUESTED, 0, 0},
                      SizeCase{120, 160, 200, CR_LESS_THAN_REQUESTED, 0, 0},
                      SizeCase{100, 100, 10, CR_OK, 32, 32},  // size raised to 32
                      SizeCase{400, 300, 100000, CR_LESS_THAN_REQUESTED, 0, 0},
                      SizeCase{8, 1000, 32, CR_LESS_THAN_REQUESTED, 0, 0},  // width stays 8
                      SizeCase{5, 1000, 32, CR_OK, 8, 32},                  // widened to 8
                      SizeCase{1, 300, 32, CR_OK, 8, 32}, SizeCase{300, 1, 32, CR_OK, 32, 8},
                      SizeCase{1, 1, 32, CR_OK, 8, 8}));

struct PixelCase {
    JpegKind kind;
    bool progressive;
    int srcw, srch, size, quality;
    TypeOfResizer resizer;
    int dstw, dsth;
};

class ConvertPixelTest : public ::testing::TestWithParam<PixelCase> {};

TEST_P(ConvertPixelTest, MatchesDecodeResizeEncodeByteForByte) {
    const PixelCase& c = GetParam();
    JpegSpec spec = Sized(c.srcw, c.srch, c.kind);
    spec.progressive = c.progressive;
    const std::string jpeg = EncodeJpeg(spec);
    TempDir tmp;
    const Outcome r = Convert(tmp.Write("src.jpg", jpeg), tmp.Path("dst.jpg"), c.size, c.quality,
                              HASH_NONE, c.resizer, true);
    ASSERT_EQ(r.result, CR_OK);
    const std::string out = ReadFileBytes(tmp.Path("dst.jpg"));
    EXPECT_TRUE(out == ReferenceConversion(jpeg, c.dstw, c.dsth, c.quality, c.resizer));
    const DecodedJpeg decoded = DecodeJpeg(out);
    EXPECT_EQ(decoded.components, c.kind == JpegKind::GREY ? 1 : 3);
    EXPECT_EQ(decoded.jpegColorSpace, c.kind == JpegKind::GREY ? JCS_GRAYSCALE : JCS_YCbCr);
}

INSTANTIATE_TEST_SUITE_P(
    Sources, ConvertPixelTest,
    ::testing::Values(
        PixelCase{JpegKind::COLOUR_420, false, 301, 207, 97, 75, RESIZER_REDUCES, 97, 66},
        PixelCase{JpegKind::COLOUR_444, false, 207, 301, 97, 90, RESIZER_REDUCES, 66, 97},
        PixelCase{JpegKind::GREY, false, 256, 256, 40, 50, RESIZER_REDUCES, 40, 40},
        PixelCase{JpegKind::COLOUR_420, true, 333, 100, 64, 150, RESIZER_REDUCES, 64, 19},
        PixelCase{JpegKind::COLOUR_420, false, 5, 1000, 32, -5, RESIZER_REDUCES, 8, 32},
        PixelCase{JpegKind::COLOUR_444, false, 300, 1, 32, 75, RESIZER_DIRTY, 32, 8},
        PixelCase{JpegKind::COLOUR_420, false, 120, 90, 50, 75, RESIZER_TIDY, 50, 37}));

TEST(ConvertFileTest, LogsEveryStepOfASuccessfulConversion) {
    TempDir tmp;
    const std::string src = tmp.Write("src.jpg", EncodeJpeg(Sized(300, 1)));
    LogCapture capture(15);
    EXPECT_EQ(Convert(src, tmp.Path("dst.jpg"), 32, 75, HASH_CRC32, RESIZER_DIRTY).result, CR_OK);
    // A source one line high gives the nearest-sample resizer one line fewer than asked.
    EXPECT_EQ(capture.Lines(), (Lines{"Open input file ok",
                                      "jpeg_read_header",
                                      "jpeg_start_decompress",
                                      "  dstw=32",
                                      "  dsth=8",
                                      "  srcw=300",
                                      "  srch=1",
                                      "Open output file ok",
                                      "jpeg_copy_critical_parameters",
                                      "Create CResizerDirty",
                                      "Create resizer ok",
                                      "jpeg_start_compress",
                                      "jcopy_markers_execute",
                                      "Resizing...",
                                      "Resizer not another output line",
                                      "Delete resizer",
                                      "Close output file",
                                      "Close input file",
                                      "Calculate hash",
                                      "ConvertFile ok"}));
}

TEST(ConvertFileTest, CopiesEverySegmentInOrderUnlessOmitted) {
    ExifSpec exif;
    exif.pixelX = 200;
    exif.pixelY = 150;
    exif.thumbnail = EncodeJpeg(Sized(16, 12));
    const std::vector<Segment> segments = {{0xE1, BuildExif(exif).payload},
                                           {0xFE, "a comment"},
                                           {0xE2, std::string("ICC_PROFILE\0\1\1", 14)},
                                           {0xED, "Photoshop 3.0"},
                                           {0xFE, std::string(65533, 'c')}};
    const std::string jpeg = EncodeJpeg(Sized(200, 150), segments);
    TempDir tmp;
    const std::string src = tmp.Write("src.jpg", jpeg);

    ASSERT_EQ(Convert(src, tmp.Path("kept.jpg"), 64).result, CR_OK);
    const std::vector<Segment> kept = ReadSegments(ReadFileBytes(tmp.Path("kept.jpg")));
    ASSERT_EQ(kept.size(), 6u);
    EXPECT_EQ(kept, ReadSegments(jpeg));  // the source's JFIF APP0 first, EXIF unchanged

    ASSERT_EQ(
        Convert(src, tmp.Path("omitted.jpg"), 64, 75, HASH_CRC32, RESIZER_REDUCES, true).result,
        CR_OK);
    EXPECT_TRUE(ReadSegments(ReadFileBytes(tmp.Path("omitted.jpg"))).empty());
}

TEST(ConvertFileTest, HashesTheLastTwoKilobytesOfTheSource) {
    TempDir tmp;
    const std::string jpeg = EncodeJpeg(Sized(200, 150));
    ASSERT_GT(jpeg.size(), 2048u);
    const std::string src = tmp.Write("src.jpg", jpeg);
    EXPECT_EQ(Convert(src, tmp.Path("a.jpg"), 64, 75, HASH_CRC32).hash,
              "S1|" + ExpectedTailHash(CRC32(), jpeg));
    const std::string md5 = Convert(src, tmp.Path("b.jpg"), 64, 75, HASH_MD5).hash;
    EXPECT_EQ(md5, "S2|" + ExpectedTailHash(MD5(), jpeg));
    EXPECT_EQ(md5.size(), 35u);
    EXPECT_EQ(Convert(src, tmp.Path("c.jpg"), 64, 75, HASH_NONE).hash, "");
    EXPECT_EQ(Convert(src, tmp.Path("d.jpg"), 64, 75, static_cast<HashType>(7)).hash, "");
}

TEST(ConvertFileTest, RefusesBadArgumentsWithoutTouchingAnyFile) {
    TempDir tmp;
    const std::string src = tmp.Write("src.jpg", EncodeJpeg(Sized(200, 150)));
    const std::string dst = tmp.Path("dst.jpg");
    const TypeOfResizer unknown = static_cast<TypeOfResizer>(3);
    LogCapture capture(15);
    EXPECT_EQ(Convert("", dst, 64).result, CR_RESAMPLING_ERROR);
    EXPECT_EQ(Convert(src, "", 64).result, CR_RESAMPLING_ERROR);
    EXPECT_EQ(Convert(src, src, 64).result, CR_RESAMPLING_ERROR);
    const Outcome bad = Convert(src, dst, 64, 75, HASH_CRC32, unknown);
    EXPECT_EQ(bad.result, CR_RESAMPLING_ERROR);
    EXPECT_EQ(bad.width, -1);
    EXPECT_EQ(Thumbnail(src, src).result, CR_RESAMPLING_ERROR);
    int w = -1, h = -1;
    std::string hash;
    EXPECT_EQ(ConvertFileThumbnail(src, dst, 72, 75, w, h, hash, HASH_CRC32, unknown),
              CR_RESAMPLING_ERROR);
    EXPECT_TRUE(capture.Lines().empty());
    EXPECT_FALSE(FileExistsForTest(dst));
}

TEST(ConvertFileTest, ReportsEachFailureWithItsResultAndLog) {
    TempDir tmp;
    const std::string big = tmp.Write("big.jpg", EncodeJpeg(Sized(200, 150)));
    const std::string small = tmp.Write("small.jpg", EncodeJpeg(Sized(40, 30)));
    const std::string noDir = tmp.Path("missing/dst.jpg");
    {
        LogCapture capture(15);
        const Outcome r = Convert(tmp.Path("none.jpg"), tmp.Path("dst.jpg"), 64);
        EXPECT_EQ(r.result, CR_FILE_NOT_FOUND);
        EXPECT_EQ(r.width, -1);
        EXPECT_EQ(capture.Lines(), Lines{"Open input file error: " + tmp.Path("none.jpg")});
    }
    {
        LogCapture capture(15);
        const Outcome r = Convert(big, noDir, 64);
        EXPECT_EQ(r.result, CR_CREATE_DEST_ERROR);
        EXPECT_EQ(r.width, 200);
        EXPECT_EQ(r.hash, "untouched");
        EXPECT_EQ(capture.Lines().back(), "Open output file error: " + noDir);
        // The size check comes first.
        EXPECT_EQ(Convert(small, noDir, 64).result, CR_LESS_THAN_REQUESTED);
    }
    {
        LogCapture capture(15);
        EXPECT_EQ(
            Convert(tmp.Write("text.jpg", "not a jpeg at all"), tmp.Path("dst.jpg"), 64).result,
            CR_RESAMPLING_ERROR);
        EXPECT_EQ(capture.Lines(),
                  (Lines{"Open input file ok", "jpeg_read_header", "custom_error_exit (1)",
                         "IJG decompression error", "Close input file"}));
    }
    {
        // CMYK cannot be decoded to RGB: the library faults in jpeg_start_decompress.
        LogCapture capture(15);
        const Outcome r =
            Convert(tmp.Write("cmyk.jpg", EncodeJpeg(Sized(200, 150, JpegKind::CMYK))),
                    tmp.Path("dst.jpg"), 64);
        EXPECT_EQ(r.result, CR_RESAMPLING_ERROR);
        EXPECT_EQ(r.width, -1);
        EXPECT_EQ(capture.Lines(),
                  (Lines{"Open input file ok", "jpeg_read_header", "jpeg_start_decompress",
                         "custom_error_exit (1)", "IJG decompression error", "Close output file",
                         "Close input file"}));
    }
}

TEST(ConvertFileTest, TruncatedSourceConvertsWithWarnings) {
    TempDir tmp;
    for (bool progressive : {false, true}) {
        JpegSpec spec = Sized(200, 150);
        spec.progressive = progressive;
        const std::string src = tmp.Write("cut.jpg", TruncateInScan(EncodeJpeg(spec)));
        LogCapture capture(15);
        const Outcome r = Convert(src, tmp.Path("dst.jpg"), 64, 75, HASH_MD5);
        EXPECT_EQ(r.result, CR_JPEG_WARNINGS);
        EXPECT_EQ(r.hash.substr(0, 3), "S2|");
        EXPECT_EQ(capture.Lines().back(), "ConvertFile warnings");
        const DecodedJpeg out = DecodeJpeg(ReadFileBytes(tmp.Path("dst.jpg")));
        EXPECT_TRUE(out.ok);
        EXPECT_EQ(out.height, 48);
    }
}

TEST(ConvertFileTest, EncoderAndMemoryFaultsFailOnlyThatImage) {
    TempDir tmp;
    const std::string src = tmp.Write("src.jpg", EncodeJpeg(Sized(400, 300)));
    if (access("/dev/full", W_OK) == 0) {
        LogCapture capture(15);
        EXPECT_EQ(Convert(src, "/dev/full", 320).result, CR_RESAMPLING_ERROR);
        const Lines& lines = capture.Lines();
        ASSERT_GE(lines.size(), 4u);
        EXPECT_EQ(Lines(lines.end() - 4, lines.end()),
                  (Lines{"custom_error_exit (1)", "IJG decompression error", "Close output file",
                         "Close input file"}));
    }
    // A few hundred bytes declaring a 60000 x 60000 progressive image: its coefficient
    // buffer would need gigabytes.
    JpegSpec spec = Sized(16, 16);
    spec.progressive = true;
    std::string huge = EncodeJpeg(spec);
    PatchFrameSize(huge, 60000, 60000);
    const Outcome r = Convert(tmp.Write("huge.jpg", huge), tmp.Path("dst.jpg"), 64);
    EXPECT_EQ(r.result, CR_RESAMPLING_ERROR);
    EXPECT_EQ(r.width, -1);
}

TEST(ConvertFileTest, ConcurrentConversionsKeepTheirOwnFaults) {
    TempDir tmp;
    const std::string good = tmp.Write("good.jpg", EncodeJpeg(Sized(300, 200)));
    const std::string bad = tmp.Write("bad.jpg", "\xFF\xD8\xFF\xC0 broken");
    const std::string cut = tmp.Write("cut.jpg", TruncateInScan(EncodeJpeg(Sized(300, 200))));
    const std::string expected =
        ReferenceConversion(ReadFileBytes(good), 90, 60, 75, RESIZER_REDUCES);
    std::vector<int> failures(6, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 10; ++i) {
                const std::string dst = tmp.Path("out" + std::to_string(t) + ".jpg");
                int want = CR_OK;
                Outcome r;
                if (t % 3 == 0) {
                    r = Convert(good, dst, 90, 75, HASH_CRC32, RESIZER_REDUCES, true);
                    if (ReadFileBytes(dst) != expected) ++failures[t];
                } else if (t % 3 == 1) {
                    r = Convert(bad, dst, 90);
                    want = CR_RESAMPLING_ERROR;
                } else {
                    r = Convert(cut, dst, 90);
                    want = CR_JPEG_WARNINGS;
                }
                if (r.result != want) ++failures[t];
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(failures, std::vector<int>(6, 0));
}

// A source with an EXIF block whose embedded thumbnail is `thumbnail`.
std::string WithThumbnail(const JpegSpec& spec, const std::string& thumbnail) {
    ExifSpec exif;
    exif.bigEndian = true;
    exif.pixelX = spec.width;
    exif.pixelY = spec.height;
    exif.thumbnail = thumbnail;
    return EncodeJpeg(spec, {{0xE1, BuildExif(exif).payload}, {0xFE, "comment"}});
}

TEST(ConvertFileThumbnailTest, WritesTheEmbeddedThumbnailVerbatim) {
    TempDir tmp;
    const std::string thumb = EncodeJpeg(Sized(40, 30));
    const std::string src = tmp.Write("src.jpg", WithThumbnail(Sized(400, 300), thumb));
    LogCapture capture(15);
    const Outcome r = Thumbnail(src, tmp.Path("t.jpg"));
    EXPECT_EQ(r.result, CR_OK);
    EXPECT_EQ(ReadFileBytes(tmp.Path("t.jpg")), thumb);
    EXPECT_EQ(r.width, -1);
    EXPECT_EQ(r.hash, "untouched");
    EXPECT_EQ(
        capture.Lines(),
        (Lines{"Open file ok", "jpeg_read_header", "jpeg_start_decompress", "jthumbnail",
               "Thumbnail available", "thumbnail_length=" + std::to_string(thumb.size()),
               "Write output file", "Close output file", "Close input file", "ConvertFile ok"}));
}

TEST(ConvertFileThumbnailTest, FallsBackToAFullConversionWithoutSegments) {
    TempDir tmp;
    const std::string plain = tmp.Write("plain.jpg", EncodeJpeg(Sized(400, 300)));
    {
        LogCapture capture(15);
        const Outcome r = Thumbnail(plain, tmp.Path("t.jpg"));
        EXPECT_EQ(r.result, CR_OK);
        EXPECT_EQ(r.width, 400);
        EXPECT_EQ(r.hash.substr(0, 3), "S1|");
        const Lines& lines = capture.Lines();
        ASSERT_GE(lines.size(), 8u);
        EXPECT_EQ(Lines(lines.begin() + 4, lines.begin() + 8),
                  (Lines{"Thumbnail not available", "Close input file",
                         "Call ConvertFile (not thumbnali)", "Open input file ok"}));
        EXPECT_EQ(
            Convert(plain, tmp.Path("full.jpg"), 72, 75, HASH_CRC32, RESIZER_REDUCES, true).result,
            CR_OK);
        EXPECT_EQ(ReadFileBytes(tmp.Path("t.jpg")), ReadFileBytes(tmp.Path("full.jpg")));
    }
    // A thumbnail that runs past its EXIF block counts as absent.
    ExifSpec exif;
    exif.thumbnail = "\xFF\xD8 thumb";
    ExifBlock block = BuildExif(exif);
    block.PutDword(block.thumbLengthEntry + 8, 4096);
    const std::string outside =
        tmp.Write("outside.jpg", EncodeJpeg(Sized(400, 300), {{0xE1, block.payload}}));
    EXPECT_EQ(Thumbnail(outside, tmp.Path("o.jpg")).result, CR_OK);
    EXPECT_TRUE(ReadSegments(ReadFileBytes(tmp.Path("o.jpg"))).empty());
    EXPECT_EQ(DecodeJpeg(ReadFileBytes(tmp.Path("o.jpg"))).width, 72);

    // Too small to reduce, and an unwritable destination for an embedded thumbnail.
    EXPECT_EQ(
        Thumbnail(tmp.Write("small.jpg", EncodeJpeg(Sized(60, 40))), tmp.Path("s.jpg")).result,
        CR_LESS_THAN_REQUESTED);
    const std::string withThumb =
        tmp.Write("thumb.jpg", WithThumbnail(Sized(400, 300), EncodeJpeg(Sized(40, 30))));
    LogCapture capture(15);
    EXPECT_EQ(Thumbnail(withThumb, tmp.Path("missing/t.jpg")).result, CR_CREATE_DEST_ERROR);
    const Lines& lines = capture.Lines();
    ASSERT_GE(lines.size(), 9u);
    EXPECT_EQ(lines[6], "Open output file error: " + tmp.Path("missing/t.jpg"));
    EXPECT_EQ(lines[8], "Call ConvertFile (not thumbnali)");
}

TEST(ConvertFileThumbnailTest, LibraryFaultsEndWithoutFallback) {
    TempDir tmp;
    {
        LogCapture capture(15);
        EXPECT_EQ(Thumbnail(tmp.Write("text.jpg", "plain text"), tmp.Path("t.jpg")).result,
                  CR_RESAMPLING_ERROR);
        EXPECT_EQ(capture.Lines(), (Lines{"Open file ok", "jpeg_read_header",
                                          "custom_error_exit (1)", "Close input file"}));
    }
    // A 60000 x 60000 progressive image: jpeg_start_decompress would buffer all of its
    // coefficients, more than a conversion may use.
    JpegSpec spec = Sized(16, 16);
    spec.progressive = true;
    std::string huge = WithThumbnail(spec, EncodeJpeg(Sized(40, 30)));
    PatchFrameSize(huge, 60000, 60000);
    LogCapture capture(15);
    EXPECT_EQ(Thumbnail(tmp.Write("huge.jpg", huge), tmp.Path("t.jpg")).result,
              CR_RESAMPLING_ERROR);
    EXPECT_EQ(capture.Lines(),
              (Lines{"Open file ok", "jpeg_read_header", "jpeg_start_decompress",
                     "custom_error_exit (1)", "IJG decompression error", "Close input file"}));
    EXPECT_FALSE(FileExistsForTest(tmp.Path("t.jpg")));
}

struct Photo {
    const char* name;
    int width, height;
    bool thumbnail;
};

class PhotoTest : public ::testing::TestWithParam<Photo> {
  protected:
    std::string Path() const { return std::string(VARNELO_PHOTOS_DIR) + "/" + GetParam().name; }
    void SetUp() override {
        if (!FileExistsForTest(Path())) GTEST_SKIP() << "no photo " << Path();
    }
};

TEST_P(PhotoTest, ConvertsAndFindsTheEmbeddedThumbnail) {
    const Photo& p = GetParam();
    const std::string source = ReadFileBytes(Path());
    TempDir tmp;
    const Outcome r = Convert(Path(), tmp.Path("full.jpg"), 48, 75, HASH_MD5);
    EXPECT_EQ(r.result, std::string(p.name) == "corrupted.jpg" ? CR_JPEG_WARNINGS : CR_OK);
    EXPECT_EQ(r.width, p.width);
    EXPECT_EQ(r.height, p.height);
    EXPECT_EQ(r.hash, "S2|" + ExpectedTailHash(MD5(), source));
    const std::string full = ReadFileBytes(tmp.Path("full.jpg"));
    EXPECT_EQ(ReadSegments(full), ReadSegments(source));
    EXPECT_EQ(std::max(DecodeJpeg(full).width, DecodeJpeg(full).height), 48);

    const Outcome t = Thumbnail(Path(), tmp.Path("thumb.jpg"));
    EXPECT_EQ(t.result, CR_OK);
    const std::string thumb = ReadFileBytes(tmp.Path("thumb.jpg"));
    const DecodedJpeg decoded = DecodeJpeg(thumb);
    EXPECT_TRUE(decoded.ok);
    if (p.thumbnail) {
        // The embedded bytes: a complete JPEG stream found verbatim inside the source.
        EXPECT_EQ(t.width, -1);
        EXPECT_EQ(thumb.substr(0, 2), "\xFF\xD8");
        EXPECT_NE(source.find(thumb), std::string::npos);
    } else {
        EXPECT_EQ(t.width, p.width);
        EXPECT_EQ(std::max(decoded.width, decoded.height), 72);
        EXPECT_TRUE(ReadSegments(thumb).empty());
    }
}

INSTANTIATE_TEST_SUITE_P(Cameras, PhotoTest,
                         ::testing::Values(Photo{"Canon_40D.jpg", 100, 68, true},
                                           Photo{"Nikon_D70.jpg", 100, 66, true},
                                           Photo{"Fujifilm_FinePix_E500.jpg", 59, 100, false},
                                           Photo{"Panasonic_DMC-FZ30.jpg", 100, 75, true},
                                           Photo{"exif-org_kodak-dc240.jpg", 640, 480, true},
                                           Photo{"exif-org_sony-d700.jpg", 672, 512, false},
                                           Photo{"gps_DSCN0010.jpg", 640, 480, true},
                                           Photo{"hdr_canon_hdr_NO.jpg", 2048, 1536, true},
                                           Photo{"orientation_portrait_1.jpg", 450, 600, false},
                                           Photo{"invalid_image01713.jpg", 49, 500, false},
                                           Photo{"xmp_no_exif.jpg", 322, 466, false},
                                           Photo{"corrupted.jpg", 3648, 2736, true}),
                         [](const ::testing::TestParamInfo<Photo>& info) {
                             std::string name = info.param.name;
                             name = name.substr(0, name.size() - 4);
                             for (char& ch : name) {
                                 if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
                             }
                             return name;
                         });

}  // namespace
}  // namespace Varnelo
