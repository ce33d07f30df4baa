#pragma once

// The area-averaging reducer's per-line loops, in one set per instruction set (plain C++, SSE2,
// and AVX2 where the CPU has it) over the same tables, all giving the same bytes, and the
// divisions that turn its sums into pixels. The vector sets are written by hand: Highway's
// one-source version of the column pass ran 20% slower than the AVX2 one here even on AVX-512,
// and Debian ships Highway only as a shared library, which the static service cannot link.
// Internal to the resizers: the tests reach the sets through CreateResizer's path argument, and
// check the float quotients through ReducerKernelsFor.
//
// Threads: the functions keep no state; tables are built once per resizer and only read.

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
// below 2^32. Sums are clamped to 256 * d - 1 first, so the quotient needs no clamp after; the
// whole is 32-bit compares and one 32 x 32 -> 64-bit multiplication, which vectorises.
class ClampedQuotient {
  public:
    ClampedQuotient() : ClampedQuotient(1) {}
    explicit ClampedQuotient(uint32_t divisor);

    uint8_t Of(uint32_t sum) const {
        const uint32_t s = static_cast<int32_t>(sum) < 0 ? 0 : (sum < m_limit ? sum : m_limit);
        return static_cast<uint8_t>((static_cast<uint64_t>(s) * m_mul) >> m_shift);
    }
    uint32_t Limit() const { return m_limit; }
    uint32_t Multiplier() const { return m_mul; }
    unsigned Shift() const { return m_shift; }

  private:
    uint32_t m_limit;
    uint32_t m_mul;
    unsigned m_shift;
};

// The reducer's horizontal footprints laid out for the vector filters. Destination column x
// reads `chunks` runs of five source pixels, the first starting at firstPixel[x], each run with
// one unaligned 16-byte load. Per run, three vectors of eight 16-bit weights pair the taps
// (0, 1), (2, 3) and (4, none) channel by channel, {wa, wb, wa, wb, wa, wb, 0, 0}, so that one
// multiply-add gives the red, green and blue partial sums of two taps. Columns are stored two
// by two, side by side, so that one 256-bit register serves both; an odd last column has a
// zero partner.
struct ReducerFilterTable {
    int columns = 0;
    int taps = 1;
    int chunks = 1;
    std::vector<int> firstPixel;
    std::vector<int16_t> weights;  // ((x / 2 * chunks + run) * 3 + pair) * 16 + x % 2 * 8
    std::vector<int> tapWeight;    // tap k's red weight, counted from its column's first one

    static constexpr int kRunPixels = 5;
    static constexpr int kLoadBytes = 16;

    // Lays out `plain`, `window` weights per column over windows starting at `first`.
    // REQUIRES: every weight below 2^15.
    void Build(int window, const std::vector<int>& first, const std::vector<uint32_t>& plain);
    // How many leading columns load only inside a line of `width` pixels.
    int ColumnsInside(int width) const;
    // The loads of columns [ColumnsInside(width), columns) read pixels from this one on, and at
    // most 16 bytes past the line's end.
    int TailStart(int width) const;
};

// floor(sum / d) clamped to 255, computed in single precision as the truncation of
// (sum + 0.5) * fl(1 / d), which vectorises far better than a 64-bit multiplication. Exact
// for every d below kReciprocalDivisors and every sum below 2^23: the sum and sum + 0.5 are
// exact floats; the two roundings, each within 2^-24, move t = (sum + 0.5) / d by less than
// t * 2^-22 < 2^-14, while t lies more than 0.5 / d > 2^-14 inside (q, q + 1) for each
// quotient q < 256; a t of 256 or more stays above 255. Larger divisors take the integer path.
constexpr uint32_t kReciprocalDivisors = 1u << 13;
inline float Reciprocal(uint32_t divisor) { return 1.0f / static_cast<float>(divisor); }
inline uint8_t QuotientByReciprocal(uint32_t sum, float reciprocal) {
    // Through a signed value, as the vector paths convert, so that the loops over it vectorise.
    const float x = static_cast<float>(static_cast<int32_t>(sum));
    const int q = static_cast<int>((x + 0.5f) * reciprocal);
    return static_cast<uint8_t>(q < 255 ? q : 255);
}

// One instruction set's versions of the reducer's loops.
struct ReducerKernels {
    // sums[3x + c] = sum over the window of weight * sample, for columns [begin, end), reading
    // the window of column x from src + 3 * (firstPixel[x] - origin). Writes sums[3 * end].
    // REQUIRES: every 16-byte load lies inside the caller's pixels.
    void (*filter)(const ReducerFilterTable& table, const unsigned char* src, int origin, int begin,
                   int end, uint32_t* sums);
    // out[i] = QuotientByReciprocal(sums[i], reciprocals[i]) for i < n.
    // REQUIRES: every sum below 2^23, every reciprocal that of a divisor below
    // kReciprocalDivisors.
    void (*rowQuotients)(unsigned char* out, const uint32_t* sums, const float* reciprocals, int n);
    // out[i] = QuotientByReciprocal(first[i] * w0 + 256 * sum of inner[k][i] + last[i] * w1,
    // reciprocal) for i < n.
    // REQUIRES: innerCount <= 257, w0 and w1 <= 256, the reciprocal as for rowQuotients, and
    // every such sum below 2^23 (as when the weights add up to the divisor).
    void (*columnMeans)(unsigned char* out, const unsigned char* first,
                        const unsigned char* const* inner, int innerCount,
                        const unsigned char* last, uint32_t w0, uint32_t w1, float reciprocal,
                        int n);
};

// The loops for `path` (not RESIZER_PATH_BEST), or null when this build or this CPU has no such
// path; RESIZER_PATH_PLAIN always exists.
const ReducerKernels* ReducerKernelsFor(ResizerPath path);

// How the reducer divides a line of sums by its columns' footprint lengths (floor, clamped to
// 255), chosen once per resizer from the divisors: by float reciprocals when every divisor is
// below kReciprocalDivisors and every sum below 2^23, which every kernel set does fastest; else
// by one multiplier per sample and one shift for the whole line, when that is exact; else by
// each column's ClampedQuotient.
// Threads: built once, then only read.
class RowDivider {
  public:
    enum Method { RECIPROCALS, SHARED_SHIFT, PER_COLUMN };

    // One divisor per destination column, each a sum of at most `taps` weights of at most 511
    // times a sample.
    void Build(const std::vector<uint32_t>& divisors, int taps);
    Method GetMethod() const { return m_method; }
    // out[3x + c] = sums[3x + c] / divisor of column x, for `columns` columns.
    void Divide(const ReducerKernels& kernels, const uint32_t* sums, unsigned char* out,
                int columns) const;

  private:
    Method m_method = PER_COLUMN;
    std::vector<float> m_reciprocals;  // RECIPROCALS: per sample
    std::vector<uint32_t> m_mul;       // SHARED_SHIFT: per sample, with m_limit and m_shift
    std::vector<uint32_t> m_limit;
    unsigned m_shift = 0;
    std::vector<ClampedQuotient> m_means;  // PER_COLUMN
};

}  // namespace Varnelo
