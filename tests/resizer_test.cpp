#include "resizer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "resizer_kernels.h"
#include "support/resize_formulas.h"

namespace Varnelo {
namespace {

// Noise with many exact 0 and 255 samples, so that clamping and negative differences occur.
Image RandomImage(int width, int height, uint32_t seed) {
    std::mt19937 rng(seed);
    auto sample = [&] { return static_cast<uint8_t>(rng() % 4 == 0 ? 255 * (rng() % 2) : rng()); };
    Image image(height, Row(width));
    for (Row& row : image)
        for (CPixel& px : row) px = CPixel(sample(), sample(), sample());
    return image;
}

// Grey levels: line y is `line` raised by `rise` * y.
Image Grey(const std::vector<int>& line, int height, int rise = 0) {
    Image image(height);
    for (int y = 0; y < height; ++y)
        for (int v : line) image[y].emplace_back(v + rise * y, v + rise * y, v + rise * y);
    return image;
}

// The image the encoder receives.
Image Pump(int type, const Image& src, int dw, int dh, ResizerPath path = RESIZER_PATH_BEST) {
    const int sw = static_cast<int>(src[0].size()), sh = static_cast<int>(src.size());
    std::unique_ptr<CResizer> resizer = CreateResizer(type, sw, sh, dw, dh, path);
    Image out;
    Row srcRow(sw + 2), black(dw);
    int read = 0;
    PumpLines(
        *resizer, sw, sh, dh, srcRow.data(), black.data(),
        [&](CPixel* row) { return std::copy_n(src[read++].begin(), sw, row) != nullptr; },
        [&](const CPixel* row) { return out.emplace_back(row, row + dw).size() != 0u; }, [] {});
    return out;
}

// Runs the resizer through PumpLines and the formulas through the same protocol written out
// again; names the first differing row only, so that a photo does not print whole images.
::testing::AssertionResult MatchesFormulas(int type, const Image& src, const Size& s,
                                           ResizerPath path) {
    const Image want = ExpectedRows(type, src, s);
    const Image got = Pump(type, src, s.dw, s.dh, path);
    const auto d = std::mismatch(want.begin(), want.end(), got.begin());
    if (d.first == want.end()) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << s.sw << "x" << s.sh << " -> " << s.dw << "x" << s.dh
                                         << ": row " << d.first - want.begin() << " differs";
}

// Every resizer, and the reducer once on each instruction set it can run here.
struct Variant {
    int type;
    ResizerPath path;
};

class ResizerExactnessTest : public ::testing::TestWithParam<Variant> {
  protected:
    void SetUp() override {
        if (!ResizerPathAvailable(GetParam().path)) GTEST_SKIP() << "this CPU lacks the path";
    }
    ::testing::AssertionResult Matches(const Image& src, const Size& s) {
        return MatchesFormulas(GetParam().type, src, s, GetParam().path);
    }
};

TEST_P(ResizerExactnessTest, MatchesPlainFormulasOnRandomImages) {
    // The widest source the reducer divides exactly to 8 pixels, a tall queue of buffers, and
    // for the others sums near 2^31 and footprints under 1/256 pixel; every pair below across
    // and down. Then what the vector filters (five-pixel runs per 16-byte load, column pairs)
    // make hard: widths below a load and around a run, odd column counts, windows of one to six
    // runs, factors just above 1 and past 32 (where quotients leave floats), the padded copy of
    // the line's end, and random sizes reduced by factors spread on a log scale.
    std::vector<Size> sizes = {{6000, 9, 1600, 3}, {65535, 2, 8, 1}, {2, 3000, 3, 2}};
    if (GetParam().type != RESIZER_REDUCES) {
        sizes.insert(sizes.end(), {{40000, 3, 1, 2}, {2, 4, 700, 2}, {3, 2, 5, 800}});
    }
    const std::pair<int, int> pairs[] = {{1, 1}, {1, 3}, {2, 4},   {4, 2},  {4, 4},
                                         {7, 1}, {7, 3}, {37, 11}, {9, 64}, {100, 33}};
    for (const auto& w : pairs)
        for (const auto& h : pairs) sizes.push_back({w.first, h.first, w.second, h.second});
    for (int sw : {1, 2, 3, 5, 6, 7, 11, 16, 17, 31}) sizes.push_back({sw, 5, (sw + 1) / 2, 3});
    for (int dw : {1, 2, 3, 7, 8, 63}) sizes.push_back({dw + 1, 4, dw, 3});
    for (int factor : {2, 3, 4, 5, 6, 9, 10, 11, 26, 31, 63, 65, 300})
        sizes.push_back({7 * factor + 3, 3, 7, 2});
    std::mt19937 rng(11);
    const auto reduce = [&](int size) {
        return std::max(1, static_cast<int>(size / std::exp2((rng() % 1000) / 120.0)));
    };
    for (int i = 0; i < 60; ++i) {
        const int sw = 1 + rng() % 900, sh = 1 + rng() % 40;
        sizes.push_back({sw, sh, reduce(sw), reduce(sh)});
    }
    for (const Size& s : sizes)
        ASSERT_TRUE(Matches(RandomImage(s.sw, s.sh, s.sw * s.dh + s.sh + 7 * s.dw), s));
}

TEST_P(ResizerExactnessTest, StaysInsideItsBuffersWhateverTheCallOrder) {
    // Rows of exactly the source width, all black, and calls in any order: the output stays
    // black, and under the address sanitizer the first read or write out of bounds fails.
    // Among them sizes the reducer does not divide exactly: enlarged 300 times, 70000 wide.
    const Size sizes[] = {{1, 1, 300, 300}, {300, 300, 1, 1}, {2, 2, 700, 700}, {5000, 3, 2, 1},
                          {13, 29, 31, 7},  {29, 13, 7, 31},  {37, 11, 11, 37}, {70000, 2, 1, 1}};
    std::mt19937 rng(7);
    for (const Size& s : sizes) {
        std::unique_ptr<CResizer> r =
            CreateResizer(GetParam().type, s.sw, s.sh, s.dw, s.dh, GetParam().path);
        const Row black(s.sw);
        for (int step = 0; step < 3 * (s.sh + s.dh) + 10; ++step) {
            const uint32_t op = rng() % 3;
            if (op == 0) r->SetSourceLine(black.data());
            if (op == 1) r->NewDestinationLine();
            ASSERT_TRUE(op != 2 || r->GetDestinationLinePointer()[s.dw - 1] == CPixel()) << step;
        }
    }
}

std::string VariantName(const ::testing::TestParamInfo<Variant>& info) {
    const char* const types[] = {"Dirty", "Tidy", "Reduces"};
    const char* const paths[] = {"Plain", "Sse2", "Avx2"};
    return std::string(types[info.param.type]) + paths[info.param.path];
}

INSTANTIATE_TEST_SUITE_P(, ResizerExactnessTest,
                         ::testing::Values(Variant{RESIZER_DIRTY, RESIZER_PATH_PLAIN},
                                           Variant{RESIZER_TIDY, RESIZER_PATH_PLAIN},
                                           Variant{RESIZER_REDUCES, RESIZER_PATH_PLAIN},
                                           Variant{RESIZER_REDUCES, RESIZER_PATH_SSE2},
                                           Variant{RESIZER_REDUCES, RESIZER_PATH_AVX2}),
                         VariantName);

// The kernel sets this CPU can run, the plain loops compiled for each path included, by name.
std::vector<std::pair<std::string, const ReducerKernels*>> AllKernelSets() {
    std::vector<std::pair<std::string, const ReducerKernels*>> sets;
    for (ResizerPath path : {RESIZER_PATH_PLAIN, RESIZER_PATH_SSE2, RESIZER_PATH_AVX2}) {
        const std::string name = "path " + std::to_string(path);
        if (const ReducerKernels* set = ReducerKernelsFor(path)) sets.emplace_back(name, set);
        if (const ReducerKernels* set = PlainKernelsFor(path))
            sets.emplace_back(name + " plain", set);
    }
    return sets;
}

TEST(ReducerQuotientTest, DividesByReciprocalsExactlyOnEveryPathAtEveryBoundary) {
    // Each divisor the float quotients accept, with the sums on both sides of every multiple
    // up to 256 times it, where a rounding error would first show; then sums far past it.
    std::vector<uint32_t> sums;
    std::vector<float> reciprocals;
    std::vector<uint8_t> want;
    for (uint32_t d = 1; d < kReciprocalDivisors; ++d) {
        for (uint32_t k = 0; k <= 256; ++k) {
            for (uint32_t s : {k * d, k * d + d - 1}) {
                sums.push_back(s);
                reciprocals.push_back(Reciprocal(d));
                want.push_back(static_cast<uint8_t>(std::min<uint32_t>(s / d, 255)));
            }
        }
        sums.push_back(kReciprocalSums - 1);
        reciprocals.push_back(Reciprocal(d));
        want.push_back(255);
    }
    for (const auto& [name, kernels] : AllKernelSets()) {
        std::vector<uint8_t> got(sums.size());
        kernels->rowQuotients(got.data(), sums.data(), reciprocals.data(),
                              static_cast<int>(sums.size()));
        const auto d = std::mismatch(want.begin(), want.end(), got.begin());
        EXPECT_TRUE(d.first == want.end()) << name << ": " << sums[d.first - want.begin()] << " * "
                                           << reciprocals[d.first - want.begin()];
    }
}

TEST(ReducerQuotientTest, DividesWideFootprintsExactlyByOneShiftPerLine) {
    // A line's divisors are d and d + 1, d around powers of two from where the floats stop to
    // the widest footprint of a 65535-pixel source, with sums either side of each multiple.
    for (const auto& [name, kernels] : AllKernelSets()) {
        for (uint32_t d : {8191u, 8192u, 65535u, 65537u, 1048575u, 1048577u, 2097119u}) {
            RowDivider divider;
            divider.Build({d, d + 1});
            ASSERT_EQ(divider.GetMethod(), RowDivider::SHARED_SHIFT) << d;
            for (uint32_t s = 0; s <= 257 * d; s += s % d == 0 ? d - 1 : 1) {
                const uint32_t sums[6] = {s, s, s, s, s, s};
                uint8_t out[6];
                divider.Divide(*kernels, sums, out, 2);
                ASSERT_EQ(out[0], std::min<uint32_t>(s / d, 255)) << name << ": " << s << "/" << d;
                ASSERT_EQ(out[3], std::min<uint32_t>(s / (d + 1), 255)) << name << ": " << s;
            }
        }
    }
}

// Worked numbers that pin the formulas down independently of the transcription above.

TEST(ReducerTest, WeighsPartialPixelsByCoverageWithTheLastPixelAt255) {
    // 4 -> 2: footprints [0, 511) and [511, 1023), so that no read passes the end of the line.
    const int a = 10, b = 200, c = 30, d = 41;
    EXPECT_EQ(Pump(RESIZER_REDUCES, Grey({a, b, c, d}, 4), 2, 2)[0],
              Grey({(256 * a + 255 * b) / 511, (b + 256 * c + 255 * d) / 512}, 1)[0]);
}

TEST(SmoothResizerTest, BlendsRightwardsTruncatesTowardZeroAndLagsDown) {
    // Halving: (a + 2b + c) / 4 and (c + 2d + e) / 4, the sample e past the end a copy of d.
    const int a = 10, b = 200, c = 30, d = 41;
    EXPECT_EQ(Pump(RESIZER_TIDY, Grey({a, b, c, d}, 4), 2, 2)[0],
              Grey({(a + 2 * b + c) / 4, (c + 2 * d + d) / 4}, 1)[0]);
    // Doubling (0, 253): pixel 1 starts half-way, at 253 + (128 * -253) / 256 = 127, not 126.
    EXPECT_EQ(Pump(RESIZER_TIDY, Grey({0, 253}, 4), 4, 4)[0],
              Grey({63, (127 + 253) / 2, 253, 253}, 1)[0]);
    // 10 -> 5 lines: the first two lines come together once the four buffers are full, both
    // made of source lines 0-2 as (L0 + 2 L1 + L2) / 4.
    EXPECT_EQ(Pump(RESIZER_TIDY, Grey({1}, 10, 25), 1, 5)[1], Grey({(1 + 2 * 26 + 51) / 4}, 1)[0]);
}

}  // namespace
}  // namespace Varnelo
