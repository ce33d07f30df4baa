#pragma once

// The area-averaging reducer's per-line loops, and the divisions that turn its sums into pixels.
//
// The definition. tests/support/resize_formulas.cpp writes the reducer's formulas out pixel by
// pixel in CRGBPixel arithmetic; every kernel set here must give exactly its bytes, and the
// exactness tests compare every set with it on every size they try.
//
// The sets. The loops come in kernel sets over the same tables, one per instruction set. The
// plain set is portable C++ written so that compilers vectorise it; its loops are bodies forced
// inline into small entry points, and the same bodies are compiled a second time into entry
// points marked target("avx2") (PlainKernelsFor). Not a per-file -mavx2: that would compile in
// AVX2 the inline functions and template instances this file shares with others too, the linker
// may keep that copy for every caller, and a processor without AVX2 would fault on the plain
// path (tests/avx2_confinement.sh checks the objects). A loop is written in intrinsics only
// where the compiler's version of the plain loop loses clearly. One call, on a line of a 24 MP
// photograph (ns of CPU, medians of 5 interleaved runs, GCC 12 -O3 on an AMD EPYC):
//
//                                              plain loops         written by hand
//                                            baseline    AVX2       SSE2      AVX2
//   filter, 6000 px to 1600 (5 taps)           11870       -        5110      1210
//   filter, 6000 px to 160 (39 taps)            8020       -        2160       750
//   row quotients, 4800 samples                 1370     495         625       396
//   shift quotients, 480 samples (to 160)        186     116           -         -
//   column means, 4800 samples, 2 inner rows    5010    2230        1430       710
//   column means, 3072 samples, 5 inner rows    5640    3910        1130       565
//   column means, 720 samples, 24 inner rows    4210    3790         690       480
//
// (bench/reducer_kernels_bench.cpp; its set argument picks the hand-written or the plain
// loops.) So the filter, the row quotients and the column means stay written by hand at both
// widths: the multiply-adds of the filter and the column means pair two taps, or a column's two
// end rows, per instruction over the weights' layout, which no compiler here finds, and the
// quotients' packs saturate where the compiled loops compare and mask. The plain filter ran no
// faster compiled for AVX2, so it is built once. The shift quotients are the plain loop on every
// set, compiled for AVX2 in the AVX2 set, which took them from 183 to 116 ns there; every other
// loop measured as before the plain set was built twice (ratios 0.96 to 1.02).
//
// The sizes. The reducer gets the sizes the service asks for: a source side of 1 to 65535
// pixels, a destination side of 8 to 65536 and less than 256 times its source side (the service
// only raises sides below 8 to 8). Along either direction the footprint lengths are then
// floor or ceil of (256 * source - 1) / destination, so every divisor d satisfies
// 1 <= d <= 2097120 < 2^21, and the divisors of one line are within 1 of each other. The
// weights of a footprint add up to d (256 + d when it lies inside one pixel, which needs
// d < 256), so a sum of weight times sample stays below 255 * (d + 256) < 2^30: never wraps,
// never negative. On those bounds two routes divide exactly, and no other is kept:
// - float reciprocals when d < kReciprocalDivisors (the sums are then below kReciprocalSums);
// - otherwise, across, one multiplier per sample and one shift for the line (RowDivider's
//   SHARED_SHIFT), exact since the largest divisor needs at most 21 <= kMaxShiftBits bits;
//   down, the ClampedQuotient of the line's one divisor.
// Sizes outside that range (the resize tool takes any) still keep every read and write inside
// the buffers and never trap, but their pixels are not promised to match the formulas.
//
// Internal to the resizers: the tests reach the sets through CreateResizer's path argument,
// ReducerKernelsFor and PlainKernelsFor. Threads: the functions keep no state; tables are built
// once per resizer and only read.

#include <cstdint>
#include <vector>

#include "resizer.h"

namespace Varnelo {

// The smallest k with 2^k >= d, at most 32.
inline unsigned CeilLog2(uint64_t d) {
    unsigned bits = 0;
    while (bits < 32 && (uint64_t(1) << bits) < d) ++bits;
    return bits;
}

// The resamplers' "divide the 32-bit sum, truncating toward zero, then Norm and Get", done as a
// multiplication and a shift so that no pixel needs a hardware division. A sum that is negative
// read as signed gives 0; otherwise floor(sum / divisor) clamped to 255. Exact for every sum
// and every divisor in [1, 2^32): with k = 31 + ceil(log2 d) and m = ceil(2^k / d),
// floor(s / d) == (s * m) >> k for all s < 2^31 (the error m*d - 2^k stays below d), and m is
// below 2^32. Sums are clamped to 256 * d - 1 first, so the quotient needs no clamp after.
// A divisor of 0 is taken as 1, so that no size makes it trap.
class ClampedQuotient {
  public:
    ClampedQuotient() : ClampedQuotient(1) {}
    explicit ClampedQuotient(uint32_t divisor);

    uint8_t Of(uint32_t sum) const {
        const uint32_t s = static_cast<int32_t>(sum) < 0 ? 0 : (sum < m_limit ? sum : m_limit);
        return static_cast<uint8_t>((static_cast<uint64_t>(s) * m_mul) >> m_shift);
    }

  private:
    uint32_t m_limit;
    uint32_t m_mul;
    unsigned m_shift;
};

// The reducer's horizontal footprints laid out for the vector filters. Destination column x
// reads `chunks` runs of kRunPixels source pixels, the first starting at firstPixel[x], each run
// with one unaligned kLoadBytes load. Per run, kPairsPerRun vectors of eight 16-bit weights pair
// the taps (0, 1), (2, 3) and (4, none) channel by channel, {wa, wb, wa, wb, wa, wb, 0, 0}, so
// that one multiply-add gives the red, green and blue partial sums of two taps. Columns are
// stored two by two, side by side, so that one 256-bit register serves both; an odd last column
// has a zero partner.
struct ReducerFilterTable {
    static constexpr int kRunPixels = 5;
    static constexpr int kRunBytes = 3 * kRunPixels;
    static constexpr int kLoadBytes = 16;
    static constexpr int kPairsPerRun = (kRunPixels + 1) / 2;
    static constexpr int kPairWords = 16;  // a pair's eight weights for each of two columns
    static constexpr int kRunWords = kPairsPerRun * kPairWords;

    int columns = 0;
    int taps = 1;
    int chunks = 1;
    std::vector<int> firstPixel;
    std::vector<int16_t> weights;  // ((x / 2 * chunks + run) * 3 + pair) * 16 + x % 2 * 8
    std::vector<int> tapWeight;    // tap k's red weight, counted from its column's first one

    // Where tap k's red weight lies, counted from its column's first weight.
    static constexpr int TapPlace(int k) {
        return k / kRunPixels * kRunWords + k % kRunPixels / 2 * kPairWords + k % kRunPixels % 2;
    }
    // Where column x's weights start, in a table of `chunks` runs per window.
    static size_t ColumnPlace(int x, int chunks) {
        return static_cast<size_t>(x / 2) * chunks * kRunWords + static_cast<size_t>(x % 2) * 8;
    }

    // Lays out `plain`, `window` weights per column over windows starting at `first`.
    // REQUIRES: every weight below 2^15.
    void Build(int window, const std::vector<int>& first, const std::vector<uint32_t>& plain);
    // How many leading columns load only inside a line of `width` pixels.
    int ColumnsInside(int width) const;
    // The loads of columns [ColumnsInside(width), columns) read pixels from this one on, and at
    // most kLoadBytes past the line's end.
    int TailStart(int width) const;
};

// floor(sum / d) clamped to 255, computed in single precision as the truncation of
// (sum + 0.5) * fl(1 / d), which vectorises far better than a 64-bit multiplication. Exact
// for every d in [1, kReciprocalDivisors) and every sum below kReciprocalSums: the sum and
// sum + 0.5 are exact floats; the two roundings, each within 2^-24, move t = (sum + 0.5) / d by
// less than t * 2^-22 < 2^-14, while t lies more than 0.5 / d > 2^-14 inside (q, q + 1) for
// each quotient q < 256; a t of 256 or more stays above 255. Larger divisors take the shift.
constexpr uint32_t kReciprocalDivisors = 1u << 13;
constexpr uint32_t kReciprocalSums = 1u << 23;
inline float Reciprocal(uint32_t divisor) { return 1.0f / static_cast<float>(divisor); }
inline uint8_t QuotientByReciprocal(uint32_t sum, float reciprocal) {
    // Through a signed value, as the vector paths convert, so that the loops over it vectorise.
    const float x = static_cast<float>(static_cast<int32_t>(sum));
    const int q = static_cast<int>((x + 0.5f) * reciprocal);
    return static_cast<uint8_t>(q < 255 ? q : 255);
}

// The most bits of a line's largest divisor that the shared shift divides exactly by (see
// RowDivider); wider divisors, which no size the service asks for makes, are shifted as if
// they had this many, so that the shift stays below 64.
constexpr unsigned kMaxShiftBits = 22;

// The most inner rows whose samples a 16-bit column sum holds: 257 * 255 == 65535. A footprint
// with a divisor below kReciprocalDivisors never has more.
constexpr int kMaxColumnInnerRows = 257;
static_assert(kReciprocalDivisors / 256 + 1 <= kMaxColumnInnerRows,
              "the float column pass must fit its inner rows in 16 bits");

// One instruction set's versions of the reducer's loops.
struct ReducerKernels {
    // sums[3x + c] = sum over the window of weight * sample, for columns [begin, end), reading
    // the window of column x from src + 3 * (firstPixel[x] - origin). Writes sums[3 * end].
    // REQUIRES: every kLoadBytes load lies inside the caller's pixels.
    void (*filter)(const ReducerFilterTable& table, const unsigned char* src, int origin, int begin,
                   int end, uint32_t* sums);
    // out[i] = QuotientByReciprocal(sums[i], reciprocals[i]) for i < n.
    // REQUIRES: every sum below kReciprocalSums, every reciprocal that of a divisor in
    // [1, kReciprocalDivisors).
    void (*rowQuotients)(unsigned char* out, const uint32_t* sums, const float* reciprocals, int n);
    // out[i] = min(sums[i], limit[i]) * mul[i] >> shift for i < n.
    // REQUIRES: shift < 64.
    void (*shiftQuotients)(unsigned char* out, const uint32_t* sums, const uint32_t* mul,
                           const uint32_t* limit, unsigned shift, int n);
    // out[i] = QuotientByReciprocal(first[i] * w0 + 256 * sum of inner[k][i] + last[i] * w1,
    // reciprocal) for i < n.
    // REQUIRES: innerCount <= kMaxColumnInnerRows, w0 and w1 <= 256, the reciprocal as for
    // rowQuotients, and every such sum below kReciprocalSums (as when the weights add up to the
    // divisor).
    void (*columnMeans)(unsigned char* out, const unsigned char* first,
                        const unsigned char* const* inner, int innerCount,
                        const unsigned char* last, uint32_t w0, uint32_t w1, float reciprocal,
                        int n);
};

// The loops for `path` (not RESIZER_PATH_BEST), or null when this build or this CPU has no such
// path; RESIZER_PATH_PLAIN always exists.
const ReducerKernels* ReducerKernelsFor(ResizerPath path);

// The plain set alone, compiled for `path`'s instruction set, or null as for ReducerKernelsFor:
// what the compiler makes of the plain loops, for measuring the hand-written ones against.
const ReducerKernels* PlainKernelsFor(ResizerPath path);

// How the reducer divides a line of sums by its columns' footprint lengths (floor, clamped to
// 255), chosen once per resizer from the divisors: by float reciprocals when every divisor is
// below kReciprocalDivisors, which every kernel set does fastest, else by one multiplier per
// sample and one shift for the whole line. With k = 8 + 2 * bits, bits = ceil(log2) of the
// largest divisor, and sums clamped to 256 d - 1 < 2^(8 + bits), m = ceil(2^k / d) is exact for
// every column: its error m*d - 2^k is below d <= 2^bits. Since the divisors of a line are
// within 1 of each other, the smallest is at least 2^(bits - 1), so m <= 2^(9 + bits), which
// fits 32 bits up to kMaxShiftBits.
// Threads: built once, then only read.
class RowDivider {
  public:
    enum Method { RECIPROCALS, SHARED_SHIFT };

    // One divisor per destination column.
    void Build(const std::vector<uint32_t>& divisors);
    Method GetMethod() const { return m_method; }
    // out[3x + c] = sums[3x + c] / divisor of column x, for `columns` columns.
    void Divide(const ReducerKernels& kernels, const uint32_t* sums, unsigned char* out,
                int columns) const;

  private:
    Method m_method = SHARED_SHIFT;
    std::vector<float> m_reciprocals;  // RECIPROCALS: per sample
    std::vector<uint32_t> m_mul;       // SHARED_SHIFT: per sample, with m_limit and m_shift
    std::vector<uint32_t> m_limit;
    unsigned m_shift = 0;
};

}  // namespace Varnelo
