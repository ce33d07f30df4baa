#include "converter.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "coefficient_ring.h"
#include "exif.h"
#include "fsutils.h"
#include "processor_pool.h"
#include "staged_decoder.h"
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

// On one thread; that staging writes the same is the staged comparison's business.
class ConvertPixelTest : public ::testing::TestWithParam<PixelCase>, ThreadsTest {
  protected:
    ConvertPixelTest() : ThreadsTest(CONVERT_THREADS_ONE) {}
};

TEST_P(ConvertPixelTest, MatchesDecodeResizeEncodeByteForByte) {
    const PixelCase& c = GetParam();
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

INSTANTIATE_TEST_SUITE_P(Sources, ConvertPixelTest, ::testing::ValuesIn(kPixelCases));

// The sources the outcome cases read, by name; made once.
const std::map<std::string, std::string>& Sources() {
    static const std::map<std::string, std::string> sources = [] {
        ExifBlock outside = BuildExif({200, 150, "\xFF\xD8"});
        outside.Put(outside.thumbLengthEntry + 8, 3);  // one byte past the block
        // A few hundred bytes declaring a 60000 x 60000 progressive image, whose coefficients
        // the library would buffer in gigabytes. The first FF C2 written is the frame header.
        std::string huge = EncodeJpeg({16, 16, JpegKind::COLOUR_420, true});
        huge.replace(huge.find("\xFF\xC2") + 5, 4, "\xEA\x60\xEA\x60");
        return std::map<std::string, std::string>{
            {"big.jpg", EncodeJpeg({200, 150})},
            {"line.jpg", EncodeJpeg({300, 1})},
            {"text.jpg", "not a jpeg at all"},
            {"cmyk.jpg", EncodeJpeg({200, 150, JpegKind::CMYK})},
            {"huge.jpg", huge},
            {"cut.jpg", TruncateInScan(EncodeJpeg({200, 150}))},
            {"narrow.jpg", EncodeJpeg({8, 1000})},
            {"thumb.jpg",
             EncodeJpeg({200, 150}, {{0xE1, BuildExif({200, 150, "\xFF\xD8"}).payload}})},
            {"outside.jpg", EncodeJpeg({200, 150}, {{0xE1, outside.payload}})},
        };
    }();
    return sources;
}

// One conversion's outcome: its result, the source width it reports and how its log ends, with
// $SRC and $DST standing for the paths. An empty log tail: nothing is logged.
struct OutcomeCase {
    const char* name;
    bool thumbnail;
    const char* src;
    const char* dst;
    int result, width;
    std::string logTail;
    TypeOfResizer type = RESIZER_REDUCES;
};

const char kFault[] = "IJG decompression error\nClose output file\nClose input file\n";
const char kHookFault[] =
    "custom_error_exit (1)\nIJG decompression error\nClose output file\n"
    "Close input file\n";
const char kHeaderFault[] =
    "jpeg_read_header\ncustom_error_exit (1)\nIJG decompression error\nClose input file\n";

const OutcomeCase kOutcomes[] = {
    // A whole log; one source line gives the nearest-sample resizer a line too few.
    {"OneLine", false, "line.jpg", "dst.jpg", CR_OK, 300,
     "Open input file ok\njpeg_read_header\njpeg_start_decompress\n  dstw=64\n  dsth=8"
     "\n  srcw=300\n  srch=1\nOpen output file ok\njpeg_copy_critical_parameters"
     "\nCreate CResizerDirty\nCreate resizer ok\njpeg_start_compress\njcopy_markers_execute"
     "\nResizing...\nResizer not another output line\nDelete resizer\nClose output file"
     "\nClose input file\nCalculate hash\nConvertFile ok\n",
     RESIZER_DIRTY},
    {"Missing", false, "none.jpg", "dst.jpg", CR_FILE_NOT_FOUND, -1,
     "Open input file error: $SRC\n"},
    {"NoFolder", false, "big.jpg", "no/dst.jpg", CR_CREATE_DEST_ERROR, 200,
     "Open output file error: $DST\n"},
    {"Text", false, "text.jpg", "dst.jpg", CR_RESAMPLING_ERROR, -1, kHeaderFault},
    {"Cmyk", false, "cmyk.jpg", "dst.jpg", CR_RESAMPLING_ERROR, -1,
     std::string("jpeg_start_decompress\n") + kHookFault},
    {"Huge", false, "huge.jpg", "dst.jpg", CR_RESAMPLING_ERROR, -1, kFault},
    {"Cut", false, "cut.jpg", "dst.jpg", CR_JPEG_WARNINGS, 200,
     "Calculate hash\nConvertFile warnings\n"},
    // Only the widths count, though the height would shrink from 1000 to 64.
    {"Narrow", false, "narrow.jpg", "dst.jpg", CR_LESS_THAN_REQUESTED, 8,
     "  srch=1000\nClose input file\n"},
    {"SamePaths", false, "big.jpg", "big.jpg", CR_RESAMPLING_ERROR, -1, ""},
    {"NoSource", false, "", "dst.jpg", CR_RESAMPLING_ERROR, -1, ""},
    {"UnknownResizer", false, "big.jpg", "dst.jpg", CR_RESAMPLING_ERROR, -1, "",
     static_cast<TypeOfResizer>(3)},
    {"ThumbnailOfText", true, "text.jpg", "dst.jpg", CR_RESAMPLING_ERROR, -1,
     "Open file ok\njpeg_read_header\ncustom_error_exit (1)\nClose input file\n"},
    {"ThumbnailOfHuge", true, "huge.jpg", "dst.jpg", CR_RESAMPLING_ERROR, -1,
     "IJG decompression error\nClose input file\n"},
    // The embedded thumbnail cannot be written: the conversion it falls back to fails too.
    {"ThumbnailNoFolder", true, "thumb.jpg", "no/t.jpg", CR_CREATE_DEST_ERROR, 200,
     "Open output file error: $DST\n"},
    {"ThumbnailOutsideItsBlock", true, "outside.jpg", "dst.jpg", CR_OK, 200,
     "Calculate hash\nConvertFile ok\n"},
    {"ThumbnailUnknownResizer", true, "thumb.jpg", "dst.jpg", CR_RESAMPLING_ERROR, -1, "",
     static_cast<TypeOfResizer>(3)},
    {"FullDisk", false, "big.jpg", "/dev/full", CR_RESAMPLING_ERROR, 200, kHookFault},
};

class ConvertOutcomeTest : public ::testing::TestWithParam<std::tuple<OutcomeCase, ConvertThreads>>,
                           ThreadsTest {
  protected:
    ConvertOutcomeTest() : ThreadsTest(std::get<1>(GetParam())) {}
};

TEST_P(ConvertOutcomeTest, ReportsItsResultAndLogsIt) {
    const OutcomeCase& c = std::get<0>(GetParam());
    TempDir tmp;
    auto path = [&](const std::string& name) {
        if (name.empty() || name[0] == '/') return name;
        const auto source = Sources().find(name);
        return source == Sources().end() ? tmp.Path(name) : tmp.Write(name, source->second);
    };
    const std::string src = path(c.src), dst = path(c.dst);
    if (dst == "/dev/full" && access(dst.c_str(), W_OK) != 0) GTEST_SKIP() << "no /dev/full";
    LogCapture capture(15);
    const Outcome r =
        c.thumbnail ? Thumbnail(src, dst, c.type) : Convert(src, dst, 64, 75, HASH_CRC32, c.type);
    EXPECT_EQ(r.result, c.result);
    EXPECT_EQ(r.width, c.width);
    const bool converted = c.result == CR_OK || c.result == CR_JPEG_WARNINGS;
    EXPECT_EQ(r.hash, converted ? TailCrc32(src) : "untouched");
    const std::string log = capture.Text();
    const std::string tail = Replace(Replace(c.logTail, "$SRC", src), "$DST", dst);
    EXPECT_EQ(log.substr(log.size() - std::min(log.size(), tail.size())), tail);
    EXPECT_EQ(log.empty(), tail.empty());
    if (dst == src || dst.rfind(tmp.path(), 0) != 0) return;
    EXPECT_EQ(FileExists(dst), converted);
}

INSTANTIATE_TEST_SUITE_P(Cases, ConvertOutcomeTest,
                         ::testing::Combine(::testing::ValuesIn(kOutcomes),
                                            ::testing::Values(CONVERT_THREADS_ONE,
                                                              CONVERT_THREADS_STAGED)),
                         [](const auto& p) {
                             return std::string(std::get<0>(p.param).name) +
                                    (std::get<1>(p.param) == CONVERT_THREADS_ONE ? "OneThread"
                                                                                 : "Staged");
                         });

// What a conversion leaves behind: its answer, the destination's bytes, the trace and what the
// library printed.
struct Written {
    Outcome outcome;
    std::string bytes, log, printed;
};

bool operator==(const Written& a, const Written& b) {
    return a.outcome.result == b.outcome.result && a.outcome.width == b.outcome.width &&
           a.outcome.height == b.outcome.height && a.outcome.hash == b.outcome.hash &&
           a.bytes == b.bytes && a.log == b.log && a.printed == b.printed;
}

Written ConvertIn(ConvertThreads mode, const std::string& src, int size, const TempDir& tmp) {
    const ThreadsTest threads(mode);
    const std::string dst = tmp.Path("dst.jpg");
    Written w;
    {
        LogCapture capture(15);
        StderrCapture printed;
        w.outcome = Convert(src, dst, size, 85, HASH_MD5);
        w.printed = printed.Text();
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

JpegShape Photo(int width, int height, JpegKind kind = JpegKind::COLOUR_420,
                bool photographic = true) {
    return {width, height, kind, false, 92, 0, photographic};
}

const std::string& Photo420() {
    static const std::string jpeg = EncodeJpeg(Photo(999, 701));
    return jpeg;
}

const std::string& WithRestarts() {
    static const std::string jpeg = [] {
        JpegShape s = Photo(641, 479);
        s.restartRows = 1;
        return EncodeJpeg(s);
    }();
    return jpeg;
}

// A source shape a staged conversion must treat exactly as a one-thread one.
struct StagedCase {
    const char* name;
    std::string (*jpeg)();
    int size;
};

const StagedCase kStagedCases[] = {
    {"Subsampled420", [] { return Photo420(); }, 400},
    {"Subsampled422", [] { return EncodeJpeg(Photo(640, 479, JpegKind::COLOUR_422)); }, 320},
    {"Full444", [] { return EncodeJpeg(Photo(601, 803, JpegKind::COLOUR_444)); }, 100},
    {"GreyAt40x", [] { return EncodeJpeg(Photo(1200, 817, JpegKind::GREY, false)); }, 30},
    {"Cmyk", [] { return EncodeJpeg(Photo(300, 200, JpegKind::CMYK, false)); }, 100},
    {"SixteenLines", [] { return EncodeJpeg(Photo(256, 16)); }, 128},
    {"OneLine", [] { return EncodeJpeg(Photo(300, 1)); }, 100},
    {"RestartMarkers", [] { return WithRestarts(); }, 200},
    {"RestartMarkersDamaged", [] { return Damaged(WithRestarts(), 0.4, 24); }, 200},
    {"Cut", [] { return TruncateInScan(Photo420()); }, 200},
    {"AlreadySmall", [] { return Photo420(); }, 2000},
    {"TrailingBytes",
     [] { return Photo420().substr(0, Photo420().size() - 2) + "garbage\xFF\xD9"; }, 200},
    {"DamagedEarly", [] { return Damaged(Photo420(), 0.1, 24); }, 200},
    {"DamagedAtTheEnd", [] { return Damaged(Photo420(), 0.9, 24); }, 200},
    // A fault after the last line: met when the decoder is finished.
    {"FrameMarkerInTheScan",
     [] {
         std::string jpeg = Photo420();
         jpeg.replace(jpeg.size() / 2, 4, "\xFF\xC0\x00\x11");
         return jpeg;
     },
     200},
};

// Staged conversions write, answer, trace and print exactly what one-thread conversions do,
// whatever the sampling, height, reduction, restart markers or damage (warnings counted and
// printed once, faults logged once, where one thread meets them).
class StagedConversionTest : public ::testing::TestWithParam<StagedCase> {};

TEST_P(StagedConversionTest, WritesWhatOneThreadWrites) {
    TempDir tmp;
    const std::string src = tmp.Write("src.jpg", GetParam().jpeg());
    const Written one = ConvertIn(CONVERT_THREADS_ONE, src, GetParam().size, tmp);
    const std::uint64_t fellBack = StagedDecoder::FellBack();
    const Written staged = ConvertIn(CONVERT_THREADS_STAGED, src, GetParam().size, tmp);
    EXPECT_EQ(StagedDecoder::FellBack(), fellBack);
    EXPECT_TRUE(staged == one) << "one thread:\n"
                               << one.log << one.printed << "staged:\n"
                               << staged.log << staged.printed;
}

INSTANTIATE_TEST_SUITE_P(Sources, StagedConversionTest, ::testing::ValuesIn(kStagedCases),
                         [](const auto& p) { return std::string(p.param.name); });

// A library that used the ring outside its contract, at the point the case names: the staged
// conversion falls back to one thread unseen, on a clean photo and on one whose warnings come
// before and after that point.
struct BreakCase {
    const char* name;
    CoefficientRing::Role role;
    int row;
};

class StagedFallbackTest : public ::testing::TestWithParam<std::tuple<BreakCase, bool>> {};

TEST_P(StagedFallbackTest, WritesWhatOneThreadWrites) {
    const BreakCase& c = std::get<0>(GetParam());
    TempDir tmp;
    const std::string src =
        tmp.Write("src.jpg", std::get<1>(GetParam()) ? Damaged(Photo420(), 0.3, 24) : Photo420());
    const Written one = ConvertIn(CONVERT_THREADS_ONE, src, 200, tmp);
    const std::uint64_t fellBack = StagedDecoder::FellBack();
    CoefficientRing::InjectContractBreakForTesting(c.role, c.row);
    const Written staged = ConvertIn(CONVERT_THREADS_STAGED, src, 200, tmp);
    EXPECT_EQ(StagedDecoder::FellBack(), fellBack + 1);
    EXPECT_TRUE(staged == one) << "one thread:\n"
                               << one.log << one.printed << "staged:\n"
                               << staged.log << staged.printed;
}

INSTANTIATE_TEST_SUITE_P(
    Breaks, StagedFallbackTest,
    ::testing::Combine(
        ::testing::Values(BreakCase{"WriterAsksForArrays", CoefficientRing::WRITER, -1},
                          BreakCase{"WriterMidway", CoefficientRing::WRITER, 20},
                          BreakCase{"ReaderAsksForArrays", CoefficientRing::READER, -1},
                          BreakCase{"ReaderMidway", CoefficientRing::READER, 20}),
        ::testing::Bool()),
    [](const auto& p) {
        return std::string(std::get<0>(p.param).name) +
               (std::get<1>(p.param) ? "Damaged" : "Clean");
    });

// Staging happens only where the ring's contract was proven: not on a library the build does not
// know, and not on a progressive photo.
TEST(StagedConversionGuardTest, UnprovenLibrariesAndProcessesConvertOnOneThread) {
    TempDir tmp;
    JpegShape progressive = Photo(400, 300);
    progressive.progressive = true;
    const std::string src = tmp.Write("src.jpg", Photo420());
    const std::string multiScan = tmp.Write("p.jpg", EncodeJpeg(progressive));
    const Written one = ConvertIn(CONVERT_THREADS_ONE, src, 200, tmp);
    std::uint64_t staged = StagedDecoder::Staged();
    ConvertIn(CONVERT_THREADS_STAGED, src, 200, tmp);
    EXPECT_EQ(StagedDecoder::Staged(), ++staged);  // proven: staged
    OverrideLibraryProvenForTesting(false);
    EXPECT_TRUE(ConvertIn(CONVERT_THREADS_STAGED, src, 200, tmp) == one);
    OverrideLibraryProvenForTesting(std::nullopt);
    ConvertIn(CONVERT_THREADS_STAGED, multiScan, 200, tmp);
    EXPECT_EQ(StagedDecoder::Staged(), staged);
}

// A conversion alone stages while another processor is idle; conversions that find every
// processor held wait for one, and then run at once, each writing what it writes alone.
TEST(ConcurrentConversionTest, StagesWhileIdleWaitsWhenBusyAndWritesWhatEachWritesAlone) {
    TempDir tmp;
    const std::string src = tmp.Write("src.jpg", EncodeJpeg(Photo(900, 700)));
    const Written alone = ConvertIn(CONVERT_THREADS_ONE, src, 300, tmp);
    const std::uint64_t staged = StagedDecoder::Staged();
    EXPECT_TRUE(ConvertIn(CONVERT_THREADS_AUTO, src, 300, tmp) == alone);
    if (UsableProcessors() > 1) {
        EXPECT_EQ(StagedDecoder::Staged(), staged + 1);
    }
    ProcessorPool& pool = ProcessorPool::Shared();
    int held = 0;
    while (pool.TryTakeOne()) ++held;
    const std::uint64_t waits = pool.Waits();
    std::vector<std::string> outputs(static_cast<size_t>(std::min(held, 14) + 2));
    std::vector<std::thread> threads;
    for (size_t i = 0; i < outputs.size(); ++i) {
        threads.emplace_back([&, i] {
            const std::string dst = tmp.Path("dst" + std::to_string(i) + ".jpg");
            const Outcome r = Convert(src, dst, 300, 85, HASH_MD5);
            outputs[i] = r.result == CR_OK ? ReadFileBytes(dst) : "";
        });
    }
    while (pool.Waits() < waits + outputs.size()) std::this_thread::yield();
    for (int i = 0; i < held; ++i) pool.GiveOne();
    for (std::thread& t : threads) t.join();
    for (const std::string& out : outputs) EXPECT_TRUE(out == alone.bytes);
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
