#include "resizer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "support/jpeg_fixtures.h"
#include "support/temp_dir.h"

namespace Varnelo {
namespace {

using Row = std::vector<CPixel>;

struct Image {
    int width;
    int height;
    std::vector<Row> rows;
};

struct Size {
    int srcWidth, srcHeight, dstWidth, dstHeight;
};

std::string Describe(int type, const Size& s) {
    static const char* const kNames[] = {"dirty", "tidy", "reduces"};
    std::ostringstream text;
    text << kNames[type] << " " << s.srcWidth << "x" << s.srcHeight << " -> " << s.dstWidth << "x"
         << s.dstHeight;
    return text.str();
}

// Noise with many exact 0 and 255 samples, so that clamping and negative differences occur.
Image RandomImage(int width, int height, uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> pick(0, 7);
    std::uniform_int_distribution<int> value(0, 255);
    auto sample = [&]() -> unsigned char {
        const int p = pick(rng);
        return static_cast<unsigned char>(p == 0 ? 0 : p == 1 ? 255 : value(rng));
    };
    Image image{width, height, {}};
    for (int y = 0; y < height; ++y) {
        Row row(width);
        for (CPixel& px : row) px = CPixel(sample(), sample(), sample());
        image.rows.push_back(row);
    }
    return image;
}

Image Filled(int width, int height, CPixel colour) {
    return Image{width, height, std::vector<Row>(height, Row(width, colour))};
}

// Rows given as grey levels, one list per source line.
Image Grey(const std::vector<std::vector<int>>& levels) {
    Image image{static_cast<int>(levels[0].size()), static_cast<int>(levels.size()), {}};
    for (const auto& line : levels) {
        Row row;
        for (int v : line) row.push_back(CPixel(v, v, v));
        image.rows.push_back(row);
    }
    return image;
}

std::vector<int> GreyLevels(const Row& row) {
    std::vector<int> levels;
    for (const CPixel& px : row) levels.push_back(px.r);
    return levels;
}

// What the encoder receives: every row written, and after how many source lines it came
// (-1 for a row repeated to fill the image).
struct Output {
    std::vector<int> after;
    std::vector<Row> rows;
};

Output Pump(int type, const Image& src, int dstWidth, int dstHeight) {
    std::unique_ptr<CResizer> resizer =
        CreateResizer(type, src.width, src.height, dstWidth, dstHeight);
    Output out;
    Row srcRow(src.width + 2), black(dstWidth);
    int read = 0;
    bool repeating = false;
    PumpLines(
        *resizer, src.width, src.height, dstHeight, srcRow.data(), black.data(),
        [&](CPixel* row) {
            std::copy(src.rows[read].begin(), src.rows[read].end(), row);
            ++read;
        },
        [&](CPixel* row) {
            out.after.push_back(repeating ? -1 : read);
            out.rows.emplace_back(row, row + dstWidth);
        },
        [&] { repeating = true; });
    return out;
}

// ---------------------------------------------------------------------------------------------
// Plain transcriptions of the three resamplers' formulas, to hold the optimised classes to:
// nested vectors, CRGBPixel arithmetic in the order written, one pixel at a time, every read
// through at() so that a formula running out of its buffers fails loudly. Source rows come
// padded with two copies of their last pixel, as the caller pads them.

class Reference {
  public:
    Reference(const Size& s) : sw(s.srcWidth), sh(s.srcHeight), dw(s.dstWidth), dh(s.dstHeight) {}
    virtual ~Reference() = default;
    virtual void SetSourceLine(const Row& padded) = 0;
    virtual bool NewDestinationLine() { return ready != 0; }
    // The row stays owned by the reference, like the resizers' destination buffer.
    virtual const Row& GetDestinationLine() = 0;

  protected:
    int sw, sh, dw, dh;
    int ready = 0;
};

uint32_t SmoothPosition(int size, uint32_t index, int count) {
    return static_cast<uint32_t>(static_cast<double>(size) * static_cast<double>(index) * 256.0 /
                                 static_cast<double>(count));
}

template <typename Sample>
CPixel BoxSum(Sample v, uint32_t start, uint32_t end, int64_t i0, int64_t i1) {
    const uint32_t len = end - start;
    const int w0 = 256 - start % 256, w1 = end % 256;
    CRGBPixel s;
    for (int64_t k = i0 + 1; k <= i1 - 1; ++k) s += v(k);
    s *= 256;
    s += v(i0) * w0;
    s += v(i1) * w1;
    s /= static_cast<int>(len == 0 ? 256 : len);  // a footprint under 1/256 px keeps its sample
    s.Norm();
    return s.Get();
}

template <typename Sample>
CPixel Trapezoid(Sample v, uint32_t start, uint32_t end, int64_t i0, int64_t i1) {
    const uint32_t len = end - start;
    const int w0 = 256 - start % 256, w1 = end % 256;
    const CRGBPixel ps = v(i0 + 1) + (w0 * (v(i0) - v(i0 + 1))) / 256;
    const CRGBPixel pe = v(i1) + (w1 * (v(i1 + 1) - v(i1))) / 256;
    CRGBPixel s;
    if (i0 != i1) {
        for (int64_t k = i0 + 1; k <= i1 - 1; ++k) s += v(k) + v(k + 1);
        s *= 256;
        s += (ps + v(i0 + 1)) * w0;
        s += (pe + v(i1)) * w1;
        s /= static_cast<int>(2 * len);
    } else {
        s = (ps + pe) / 2;
    }
    s.Norm();
    return s.Get();
}

class RefDirty : public Reference {
  public:
    explicit RefDirty(const Size& s) : Reference(s), dst(dw), lineAcc(sh / 2) {}
    void SetSourceLine(const Row& padded) override {
        const Row src(padded.begin(), padded.begin() + sw);
        int acc = sw / 2, j = 0;
        for (int x = 0; x < sw; ++x) {
            acc += dw;
            while (acc > sw) {
                acc -= sw;
                if (j < dw) dst.at(j) = src.at(x);
                ++j;
            }
        }
        lineAcc += dh;
        while (lineAcc > sh) {
            lineAcc -= sh;
            ++ready;
        }
    }
    const Row& GetDestinationLine() override {
        --ready;
        return dst;
    }

  private:
    Row dst;
    int lineAcc;
};

class RefTidy : public Reference {
  public:
    explicit RefTidy(const Size& s)
        : Reference(s), lineCount((sh - 1) / dh + 3), lineAcc(sh / 2), dst(dw) {
        lines.assign(lineCount, Row(dw));
    }
    void SetSourceLine(const Row& src) override {
        std::rotate(lines.begin(), lines.begin() + 1, lines.end());
        Row& row = lines.back();
        uint32_t start = 0;
        for (int x = 0; x < dw; ++x) {
            const uint32_t end = SmoothPosition(sw, x + 1, dw);
            row.at(x) = Trapezoid([&](int64_t k) { return CRGBPixel(src.at(k)); }, start, end,
                                  start / 256, end / 256);
            start = end;
        }
        lineAcc += dh;
        ++filled;
        if (filled < lineCount) return;
        filled = lineCount;
        ready += lineAcc / sh;
        lineAcc %= sh;
    }
    const Row& GetDestinationLine() override {
        const uint32_t start = SmoothPosition(sh, outIndex, dh);
        const uint32_t end = SmoothPosition(sh, outIndex + 1, dh);
        for (int x = 0; x < dw; ++x) {
            dst[x] = Trapezoid([&](int64_t k) { return CRGBPixel(lines.at(k).at(x)); }, start, end,
                               0, end / 256 - start / 256);
        }
        --ready;
        ++outIndex;
        return dst;
    }

  private:
    int lineCount, lineAcc;
    int filled = 0;
    uint32_t outIndex = 0;
    std::vector<Row> lines;
    Row dst;
};

class RefReduces : public Reference {
  public:
    explicit RefReduces(const Size& s)
        : Reference(s), lineCount((sh - 1) / dh + 2), firstLine(-lineCount), dst(dw) {
        lines.assign(lineCount, Row(dw));
        step = static_cast<uint32_t>(sh) * 256 - 1;
        rem = step;
        end += rem / dh;
        rem %= dh;
    }
    void SetSourceLine(const Row& padded) override {
        const Row src(padded.begin(), padded.begin() + sw);
        std::rotate(lines.begin(), lines.begin() + 1, lines.end());
        Row& row = lines.back();
        uint32_t s0 = 0, e0 = 0, r = 0;
        const uint32_t st = static_cast<uint32_t>(sw) * 256 - 1;
        for (int x = 0; x < dw; ++x) {
            r += st;
            e0 += r / dw;
            r %= dw;
            row.at(x) =
                BoxSum([&](int64_t k) { return CRGBPixel(src.at(k)); }, s0, e0, s0 / 256, e0 / 256);
            s0 = e0;
        }
        ++firstLine;
        if (firstLine < 0) return;
        if (firstLine > static_cast<int64_t>(start >> 8)) return;
        if (firstLine + lineCount <= static_cast<int64_t>(end >> 8)) return;
        ++ready;
    }
    bool NewDestinationLine() override { return produced < dh && ready != 0; }
    const Row& GetDestinationLine() override {
        const int64_t r0 = static_cast<int64_t>(start / 256) - firstLine;
        const int64_t r1 = static_cast<int64_t>(end / 256) - firstLine;
        for (int x = 0; x < dw; ++x) {
            // Rows past the last buffer read the last buffer.
            auto v = [&](int64_t k) {
                return CRGBPixel(lines.at(std::min<int64_t>(k, lineCount - 1)).at(x));
            };
            dst[x] = BoxSum(v, start, end, r0, r1);
        }
        start = end;
        rem += step;
        end += rem / dh;
        rem %= dh;
        --ready;
        ++produced;
        return dst;
    }

  private:
    int lineCount, firstLine;
    int produced = 0;
    uint32_t start = 0, end = 0, step, rem;
    std::vector<Row> lines;
    Row dst;
};

std::unique_ptr<Reference> MakeReference(int type, const Size& s) {
    if (type == RESIZER_DIRTY) return std::make_unique<RefDirty>(s);
    if (type == RESIZER_TIDY) return std::make_unique<RefTidy>(s);
    return std::make_unique<RefReduces>(s);
}

// The caller's protocol, written out again for the reference: the fill repeats the last row
// taken as it stands at the end, or black when none was taken.
Output PumpReference(Reference& ref, const Image& src, int dstWidth, int dstHeight) {
    Output out;
    const Row black(dstWidth);
    const Row* last = &black;
    int written = 0;
    for (int y = 0; y < src.height; ++y) {
        Row padded = src.rows[y];
        padded.push_back(padded.back());
        padded.push_back(padded.back());
        ref.SetSourceLine(padded);
        while (ref.NewDestinationLine()) {
            last = &ref.GetDestinationLine();
            if (written < dstHeight) {
                out.after.push_back(y + 1);
                out.rows.push_back(*last);
                ++written;
            }
        }
    }
    for (; written < dstHeight; ++written) {
        out.after.push_back(-1);
        out.rows.push_back(*last);
    }
    return out;
}

void ExpectSameOutput(const Output& want, const Output& got, const std::string& what) {
    ASSERT_EQ(want.rows.size(), got.rows.size()) << what;
    EXPECT_EQ(want.after, got.after) << what << ": rows delivered at different source lines";
    for (size_t y = 0; y < want.rows.size(); ++y) {
        for (size_t x = 0; x < want.rows[y].size(); ++x) {
            const CPixel& a = want.rows[y][x];
            const CPixel& b = got.rows[y][x];
            if (a != b) {
                ADD_FAILURE() << what << ": row " << y << " pixel " << x << " is (" << int(b.r)
                              << "," << int(b.g) << "," << int(b.b) << "), formulas give ("
                              << int(a.r) << "," << int(a.g) << "," << int(a.b) << ")";
                return;
            }
        }
    }
}

std::vector<Size> SizesToCompare() {
    // Reductions, enlargements and equal sizes in each direction, from 1 pixel up.
    const std::vector<std::pair<int, int>> pairs = {{1, 1},   {1, 3},   {2, 4},    {3, 2},  {4, 2},
                                                    {4, 4},   {5, 3},   {7, 3},    {10, 5}, {16, 9},
                                                    {37, 11}, {64, 17}, {100, 33}, {9, 64}};
    std::vector<Size> sizes;
    for (const auto& w : pairs)
        for (const auto& h : pairs) sizes.push_back({w.first, h.first, w.second, h.second});
    std::mt19937 rng(1234);
    std::uniform_int_distribution<int> dim(1, 80);
    for (int i = 0; i < 120; ++i) sizes.push_back({dim(rng), dim(rng), dim(rng), dim(rng)});
    // Photo-like ratios, extreme reductions (divisors up to 2^23, windows whose sums could
    // reach 2^31), enlargements past 256 times (footprints of length 0) and a tall queue of
    // line buffers.
    sizes.push_back({6000, 9, 1600, 3});
    sizes.push_back({4000, 6, 1067, 4});
    sizes.push_back({3000, 4, 1, 2});
    sizes.push_back({20000, 4, 1, 2});
    sizes.push_back({40000, 3, 1, 2});
    sizes.push_back({2, 4, 700, 2});
    sizes.push_back({3, 2, 5, 800});
    sizes.push_back({2, 3000, 3, 2});
    return sizes;
}

class ResizerExactnessTest : public ::testing::TestWithParam<int> {};

TEST_P(ResizerExactnessTest, MatchesPlainFormulasOnRandomImages) {
    const int type = GetParam();
    uint32_t seed = 1;
    for (const Size& s : SizesToCompare()) {
        const Image src = RandomImage(s.srcWidth, s.srcHeight, seed++);
        std::unique_ptr<Reference> ref = MakeReference(type, s);
        const Output want = PumpReference(*ref, src, s.dstWidth, s.dstHeight);
        const Output got = Pump(type, src, s.dstWidth, s.dstHeight);
        ExpectSameOutput(want, got, Describe(type, s));
        if (HasFailure()) return;
    }
}

TEST_P(ResizerExactnessTest, MatchesPlainFormulasOnRealPhotos) {
    const int type = GetParam();
    int compared = 0;
    for (const char* name : {"Canon_40D.jpg", "Fujifilm_FinePix_E500.jpg", "exif-org_sony-d700.jpg",
                             "hdr_canon_hdr_NO.jpg", "orientation_portrait_1.jpg",
                             "invalid_image01713.jpg", "xmp_no_exif.jpg"}) {
        const DecodedJpeg jpeg =
            DecodeJpeg(ReadFileBytes(std::string(VARNELO_PHOTOS_DIR) + "/" + name));
        if (!jpeg.ok) continue;
        Image src{jpeg.width, jpeg.height, {}};
        for (int y = 0; y < jpeg.height; ++y) {
            const unsigned char* p = &jpeg.rgb[static_cast<size_t>(y) * jpeg.width * 3];
            Row row(jpeg.width);
            for (int x = 0; x < jpeg.width; ++x)
                row[x] = CPixel(p[3 * x], p[3 * x + 1], p[3 * x + 2]);
            src.rows.push_back(row);
        }
        // Longer side to an upload size and to a thumbnail size, keeping the aspect ratio.
        for (int side : {1024, 100}) {
            const int longer = std::max(src.width, src.height);
            const int w = std::max(1, src.width * side / longer);
            const int h = std::max(1, src.height * side / longer);
            const Size s{src.width, src.height, w, h};
            std::unique_ptr<Reference> ref = MakeReference(type, s);
            ExpectSameOutput(PumpReference(*ref, src, w, h), Pump(type, src, w, h),
                             std::string(name) + " " + Describe(type, s));
            ++compared;
        }
    }
    if (compared == 0) GTEST_SKIP() << "no photographs in " VARNELO_PHOTOS_DIR;
}

TEST_P(ResizerExactnessTest, ConstantImageStaysConstantWhenReduced) {
    const int type = GetParam();
    std::mt19937 rng(99);
    std::uniform_int_distribution<int> dim(2, 90), level(0, 255);
    for (int i = 0; i < 60; ++i) {
        const int sw = dim(rng), sh = dim(rng);
        const Size s{sw, sh, std::uniform_int_distribution<int>(1, sw - 1)(rng),
                     std::uniform_int_distribution<int>(1, sh - 1)(rng)};
        const CPixel colour(level(rng), level(rng), level(rng));
        const Output out = Pump(type, Filled(sw, sh, colour), s.dstWidth, s.dstHeight);
        ASSERT_EQ(out.rows.size(), static_cast<size_t>(s.dstHeight));
        // Only when the resizer delivered nothing at all is the image filled with black.
        const CPixel expected = out.after[0] == -1 ? CPixel() : colour;
        for (const Row& row : out.rows)
            for (const CPixel& px : row) ASSERT_EQ(px, expected) << Describe(type, s);
    }
}

TEST_P(ResizerExactnessTest, NeverReadsOrWritesOutsideItsBuffersWhateverTheCallOrder) {
    // Rows of exactly srcWidth pixels (no spare pixels) and calls in any order: with the
    // address sanitizer this fails on the first read or write out of bounds.
    const int type = GetParam();
    std::mt19937 rng(7);
    std::uniform_int_distribution<int> dim(1, 40), op(0, 3);
    const std::vector<Size> extremes = {
        {1, 1, 1, 1}, {1, 1, 300, 300}, {300, 300, 1, 1}, {2, 2, 700, 700}, {5000, 3, 2, 1}};
    std::vector<Size> sizes = extremes;
    for (int i = 0; i < 40; ++i) sizes.push_back({dim(rng), dim(rng), dim(rng), dim(rng)});
    for (const Size& s : sizes) {
        std::unique_ptr<CResizer> r =
            CreateResizer(type, s.srcWidth, s.srcHeight, s.dstWidth, s.dstHeight);
        const Image src = RandomImage(s.srcWidth, 1, 5);
        for (int step = 0; step < 3 * (s.srcHeight + s.dstHeight) + 10; ++step) {
            switch (op(rng)) {
                case 0:
                case 1:
                    r->SetSourceLine(src.rows[0].data());
                    break;
                case 2:
                    r->NewDestinationLine();
                    break;
                default: {
                    const CPixel* line = r->GetDestinationLinePointer();
                    ASSERT_NE(line, nullptr);
                    volatile unsigned char sink = line[s.dstWidth - 1].b;
                    (void)sink;
                }
            }
        }
    }
}

std::string ResizerName(const ::testing::TestParamInfo<int>& info) {
    return info.param == RESIZER_DIRTY ? "Dirty" : info.param == RESIZER_TIDY ? "Tidy" : "Reduces";
}

INSTANTIATE_TEST_SUITE_P(AllResizers, ResizerExactnessTest,
                         ::testing::Values(RESIZER_DIRTY, RESIZER_TIDY, RESIZER_REDUCES),
                         ResizerName);

// ---------------------------------------------------------------------------------------------
// Worked numbers that pin the formulas down independently of the transcription above.

TEST(ReducerTest, HalvesALineByCoverageWithTheLastPixelWeighted255) {
    // Four equal lines, so the vertical pass keeps the value; footprints [0, 511), [511, 1023).
    const int a = 10, b = 200, c = 30, d = 41;
    const Output out =
        Pump(RESIZER_REDUCES, Grey(std::vector<std::vector<int>>(4, {a, b, c, d})), 2, 2);
    EXPECT_EQ(GreyLevels(out.rows[0]),
              (std::vector<int>{(256 * a + 255 * b) / 511, (1 * b + 256 * c + 255 * d) / 512}));
}

TEST(ReducerTest, DeliversALineOnlyOnceItsFootprintIsBuffered) {
    // Ten constant lines to five: three buffers; lines after source lines 2, 3 and 5 (0-based).
    std::vector<std::vector<int>> levels;
    for (int y = 0; y < 10; ++y) levels.push_back(std::vector<int>(4, 20 * y + 7));
    const Output out = Pump(RESIZER_REDUCES, Grey(levels), 2, 5);
    ASSERT_GE(out.after.size(), 3u);
    EXPECT_EQ(out.after[0], 3);
    EXPECT_EQ(out.after[1], 4);
    EXPECT_EQ(out.after[2], 6);
    EXPECT_EQ(out.rows[0][0].r, (256 * 7 + 255 * 27) / 511);
}

TEST(SmoothResizerTest, HalvesWithTheSampleBeyondTheEndCopiedFromTheLastPixel) {
    const int a = 10, b = 200, c = 30, d = 41;
    const Output out =
        Pump(RESIZER_TIDY, Grey(std::vector<std::vector<int>>(4, {a, b, c, d})), 2, 2);
    EXPECT_EQ(GreyLevels(out.rows[0]),
              (std::vector<int>{(a + 2 * b + c) / 4, (c + 2 * d + d) / 4}));
}

TEST(SmoothResizerTest, FirstLinesComeTogetherFromTheOldestRows) {
    // 10 -> 5 lines: four buffers, nothing before source line 3, then two equal lines made of
    // source lines 0-2 as (L0 + 2 L1 + L2) / 4.
    std::vector<std::vector<int>> levels;
    for (int y = 0; y < 10; ++y) levels.push_back(std::vector<int>(3, 25 * y + 1));
    const Output out = Pump(RESIZER_TIDY, Grey(levels), 3, 5);
    EXPECT_EQ(out.after[0], 4);
    EXPECT_EQ(out.after[1], 4);
    const int expected = (1 + 2 * 26 + 51) / 4;
    EXPECT_EQ(GreyLevels(out.rows[0]), std::vector<int>(3, expected));
    EXPECT_EQ(GreyLevels(out.rows[1]), std::vector<int>(3, expected));
}

TEST(NearestSampleTest, RepeatsOrKeepsTheLastOfEachGroup) {
    EXPECT_EQ(GreyLevels(Pump(RESIZER_DIRTY, Grey({{10, 20}, {10, 20}}), 4, 2).rows[0]),
              (std::vector<int>{10, 10, 20, 20}));
    EXPECT_EQ(GreyLevels(Pump(RESIZER_DIRTY, Grey({{10, 20, 30, 40}, {1, 2, 3, 4}}), 2, 2).rows[1]),
              (std::vector<int>{2, 4}));
    // A source one pixel wide leaves the last destination pixel black.
    EXPECT_EQ(GreyLevels(Pump(RESIZER_DIRTY, Grey({{9}, {9}}), 3, 2).rows[0]),
              (std::vector<int>{9, 9, 0}));
}

// ---------------------------------------------------------------------------------------------
// The caller's protocol.

// Hands out `perLine` copies of the row it was given after every source line.
class EchoResizer : public CResizer {
  public:
    EchoResizer(int width, int perLine)
        : CResizer(width, 1, width, 1), m_perLine(perLine), m_seen(width + 2) {
        m_dstLine.reset(new CPixel[width]);
    }
    void SetSourceLine(const CPixel* src) override {
        std::copy(src, src + m_srcWidth + 2, m_seen.begin());
        std::copy(src, src + m_srcWidth, m_dstLine.get());
        m_readyLines += m_perLine;
    }
    CPixel* GetDestinationLinePointer() override {
        --m_readyLines;
        ++taken;
        return m_dstLine.get();
    }
    const Row& Seen() const { return m_seen; }
    int taken = 0;

  private:
    int m_perLine;
    Row m_seen;
};

TEST(PumpLinesTest, PadsTheRowAndDropsLinesBeyondTheHeight) {
    EchoResizer echo(3, 2);
    Row srcRow(5), black(3);
    int read = 0, written = 0, repeats = 0;
    PumpLines(
        echo, 3, 4, 5, srcRow.data(), black.data(),
        [&](CPixel* row) {
            for (int x = 0; x < 3; ++x) row[x] = CPixel(read, x, 9);
            ++read;
        },
        [&](CPixel*) { ++written; }, [&] { ++repeats; });
    EXPECT_EQ(read, 4);
    EXPECT_EQ(echo.taken, 8);  // every ready line is taken...
    EXPECT_EQ(written, 5);     // ...but no more than the height is written
    EXPECT_EQ(repeats, 0);
    EXPECT_EQ(echo.Seen()[3], CPixel(3, 2, 9));
    EXPECT_EQ(echo.Seen()[4], CPixel(3, 2, 9));
}

TEST(PumpLinesTest, FillsWithBlackWhenNoLineWasDelivered) {
    // A destination height of 1 needs srcHeight + 1 reducer buffers, which never fill.
    const Output out = Pump(RESIZER_REDUCES, Filled(5, 3, CPixel(200, 100, 50)), 2, 1);
    EXPECT_EQ(out.after, (std::vector<int>{-1}));
    EXPECT_EQ(out.rows[0], Row(2));
}

// ---------------------------------------------------------------------------------------------

TEST(ClampedQuotientTest, EqualsTruncatingDivisionThenClamp) {
    std::mt19937 rng(42);
    std::uniform_int_distribution<uint32_t> any;
    std::uniform_int_distribution<int> bits(0, 32), small(0, 600);
    for (int i = 0; i < 20000; ++i) {
        const int b = bits(rng);
        uint32_t d = b == 32 ? any(rng) : (any(rng) & ((uint64_t(1) << b) - 1));
        if (d == 0) d = 1;
        // Sums near the multiples of d that decide rounding and clamping, and arbitrary ones.
        const uint64_t k = small(rng);
        const uint32_t sums[] = {any(rng), static_cast<uint32_t>(k * d),
                                 static_cast<uint32_t>(k * d - 1), 0x7FFFFFFFu, 0x80000000u};
        const ClampedQuotient q(d);
        for (uint32_t s : sums) {
            const int32_t signedSum = static_cast<int32_t>(s);
            const int64_t exact =
                signedSum < 0 ? 0 : std::min<int64_t>(255, signedSum / int64_t(d));
            ASSERT_EQ(q.Of(s), exact) << s << " / " << d;
        }
    }
}

}  // namespace
}  // namespace Varnelo
