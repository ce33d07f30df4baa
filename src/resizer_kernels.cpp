#include "resizer_kernels.h"

#include <algorithm>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace Varnelo {

namespace {

// Bits of a sample: a sum clamped below 256 times its divisor d has at most 8 + ceil(log2 d).
constexpr unsigned kSampleBits = 8;
// Sums that read as non-negative int32 values, the ones ClampedQuotient divides.
constexpr unsigned kSignedSumBits = 31;

}  // namespace

ClampedQuotient::ClampedQuotient(uint32_t divisor) {
    const uint64_t d = divisor == 0 ? 1 : divisor;
    m_shift = kSignedSumBits + CeilLog2(d);
    m_mul = static_cast<uint32_t>(((uint64_t(1) << m_shift) + d - 1) / d);
    m_limit = static_cast<uint32_t>(
        std::min<uint64_t>((d << kSampleBits) - 1, (uint64_t(1) << kSignedSumBits) - 1));
}

void ReducerFilterTable::Build(int window, const std::vector<int>& first,
                               const std::vector<uint32_t>& plain) {
    columns = static_cast<int>(first.size());
    taps = window;
    chunks = std::max(1, (taps + kRunPixels - 1) / kRunPixels);
    firstPixel = first;
    weights.assign(static_cast<size_t>((columns + 1) / 2) * chunks * kRunWords, 0);
    tapWeight.clear();
    for (int k = 0; k < taps; ++k) tapWeight.push_back(TapPlace(k));
    for (int x = 0; x < columns; ++x) {
        int16_t* column = weights.data() + ColumnPlace(x, chunks);
        for (int k = 0; k < taps; ++k) {
            // The same weight for red, green and blue, two words apart.
            int16_t* v = column + TapPlace(k);
            v[0] = v[2] = v[4] = static_cast<int16_t>(plain[static_cast<size_t>(x) * taps + k]);
        }
    }
}

int ReducerFilterTable::ColumnsInside(int width) const {
    // The last load of column x ends 3 * firstPixel[x] + kRunBytes * (chunks - 1) + kLoadBytes
    // bytes into the line; firstPixel never decreases, so the columns inside are a prefix.
    const int64_t lineBytes = int64_t(3) * width;
    const auto outside = std::find_if(firstPixel.begin(), firstPixel.end(), [&](int f) {
        return 3 * int64_t(f) + kRunBytes * (chunks - 1) + kLoadBytes > lineBytes;
    });
    return static_cast<int>(outside - firstPixel.begin());
}

int ReducerFilterTable::TailStart(int width) const {
    const int inside = ColumnsInside(width);
    return inside < columns ? firstPixel[inside] : width;
}

void RowDivider::Build(const std::vector<uint32_t>& divisors) {
    m_reciprocals.clear();
    m_mul.clear();
    m_limit.clear();
    const bool small = std::all_of(divisors.begin(), divisors.end(),
                                   [](uint32_t d) { return d >= 1 && d < kReciprocalDivisors; });
    if (small) {
        m_method = RECIPROCALS;
        for (uint32_t d : divisors) m_reciprocals.insert(m_reciprocals.end(), 3, Reciprocal(d));
        return;
    }
    m_method = SHARED_SHIFT;
    unsigned bits = 0;
    for (uint32_t d : divisors) bits = std::max(bits, CeilLog2(d));
    // Only sizes the service never asks for (sources over 65535 pixels, enlargements past 256
    // times) need more bits or have a divisor of 0: they get a defined shift and no trap, not
    // exact quotients.
    m_shift = kSampleBits + 2 * std::min(bits, kMaxShiftBits);
    for (uint32_t divisor : divisors) {
        const uint64_t d = std::max<uint64_t>(divisor, 1);
        m_mul.insert(m_mul.end(), 3, static_cast<uint32_t>(((uint64_t(1) << m_shift) + d - 1) / d));
        m_limit.insert(m_limit.end(), 3, static_cast<uint32_t>((d << kSampleBits) - 1));
    }
}

void RowDivider::Divide(const ReducerKernels& kernels, const uint32_t* sums, unsigned char* out,
                        int columns) const {
    if (m_method == RECIPROCALS) {
        kernels.rowQuotients(out, sums, m_reciprocals.data(), 3 * columns);
    } else {
        kernels.shiftQuotients(out, sums, m_mul.data(), m_limit.data(), m_shift, 3 * columns);
    }
}

namespace {

// ---------------------------------------------------------------------------------------------
// The plain set: loops the compiler vectorises. Each is a body forced inline into the entry
// points below, so that every entry point compiles it for its own instruction set. Whatever
// else a body calls compiles once, for the baseline.

#define VARNELO_BODY inline __attribute__((always_inline))

// Columns [begin, end) a tap at a time. With the window length known at compile time (Taps > 0)
// the loop over it unrolls completely and every weight's place in the table is a constant. No
// compiler here vectorises this loop, at either width, so it is built once.
template <int Taps>
void FilterColumnsPlain(const ReducerFilterTable& table, const unsigned char* src, int origin,
                        int begin, int end, uint32_t* sums) {
    const int taps = Taps > 0 ? Taps : table.taps;
    const int* place = table.tapWeight.data();
    for (int x = begin; x < end; ++x) {
        const unsigned char* p = src + 3 * (table.firstPixel[x] - origin);
        const int16_t* w = table.weights.data() + ReducerFilterTable::ColumnPlace(x, table.chunks);
        uint32_t r = 0, g = 0, b = 0;
        for (int k = 0; k < taps; ++k) {
            const uint32_t weight =
                static_cast<uint32_t>(w[Taps > 0 ? ReducerFilterTable::TapPlace(k) : place[k]]);
            r += p[3 * k] * weight;
            g += p[3 * k + 1] * weight;
            b += p[3 * k + 2] * weight;
        }
        sums[3 * x] = r;
        sums[3 * x + 1] = g;
        sums[3 * x + 2] = b;
    }
}

void FilterPlain(const ReducerFilterTable& table, const unsigned char* src, int origin, int begin,
                 int end, uint32_t* sums) {
    using Filter =
        void (*)(const ReducerFilterTable&, const unsigned char*, int, int, int, uint32_t*);
    // Windows up to kUnrolled taps long get a loop of their own.
    constexpr int kUnrolled = 8;
    static const Filter kByTaps[kUnrolled + 1] = {
        FilterColumnsPlain<0>, FilterColumnsPlain<1>, FilterColumnsPlain<2>,
        FilterColumnsPlain<3>, FilterColumnsPlain<4>, FilterColumnsPlain<5>,
        FilterColumnsPlain<6>, FilterColumnsPlain<7>, FilterColumnsPlain<8>};
    kByTaps[table.taps <= kUnrolled ? table.taps : 0](table, src, origin, begin, end, sums);
}

VARNELO_BODY void RowQuotients(unsigned char* __restrict out, const uint32_t* __restrict sums,
                               const float* __restrict reciprocals, int n) {
    for (int i = 0; i < n; ++i) out[i] = QuotientByReciprocal(sums[i], reciprocals[i]);
}

VARNELO_BODY void ShiftQuotients(unsigned char* __restrict out, const uint32_t* __restrict sums,
                                 const uint32_t* __restrict mul, const uint32_t* __restrict limit,
                                 unsigned shift, int n) {
    for (int i = 0; i < n; ++i) {
        const uint32_t s = sums[i] < limit[i] ? sums[i] : limit[i];
        out[i] = static_cast<unsigned char>((static_cast<uint64_t>(s) * mul[i]) >> shift);
    }
}

// The inner rows summed in blocks of samples that stay in registers, then the ends added.
VARNELO_BODY void ColumnMeans(unsigned char* out, const unsigned char* first,
                              const unsigned char* const* inner, int innerCount,
                              const unsigned char* last, uint32_t w0, uint32_t w1, float reciprocal,
                              int n) {
    constexpr int kBlock = 64;
    uint32_t sums[kBlock];
    for (int i = 0; i < n; i += kBlock) {
        const int m = std::min(kBlock, n - i);
        std::fill(sums, sums + m, 0u);
        for (int k = 0; k < innerCount; ++k) {
            const unsigned char* row = inner[k] + i;
            for (int j = 0; j < m; ++j) sums[j] += row[j];
        }
        for (int j = 0; j < m; ++j) {
            out[i + j] = QuotientByReciprocal(sums[j] * 256 + first[i + j] * w0 + last[i + j] * w1,
                                              reciprocal);
        }
    }
}

// Entry points for the baseline.
void RowQuotientsPlain(unsigned char* out, const uint32_t* sums, const float* reciprocals, int n) {
    RowQuotients(out, sums, reciprocals, n);
}
void ShiftQuotientsPlain(unsigned char* out, const uint32_t* sums, const uint32_t* mul,
                         const uint32_t* limit, unsigned shift, int n) {
    ShiftQuotients(out, sums, mul, limit, shift, n);
}
void ColumnMeansPlain(unsigned char* out, const unsigned char* first,
                      const unsigned char* const* inner, int innerCount, const unsigned char* last,
                      uint32_t w0, uint32_t w1, float reciprocal, int n) {
    ColumnMeans(out, first, inner, innerCount, last, w0, w1, reciprocal, n);
}

const ReducerKernels kPlain = {FilterPlain, RowQuotientsPlain, ShiftQuotientsPlain,
                               ColumnMeansPlain};

}  // namespace

#if defined(__x86_64__)

namespace {

#define VARNELO_AVX2 __attribute__((target("avx2")))

// The same bodies compiled for AVX2.
VARNELO_AVX2 void RowQuotientsPlainAvx2(unsigned char* out, const uint32_t* sums,
                                        const float* reciprocals, int n) {
    RowQuotients(out, sums, reciprocals, n);
}
VARNELO_AVX2 void ShiftQuotientsPlainAvx2(unsigned char* out, const uint32_t* sums,
                                          const uint32_t* mul, const uint32_t* limit,
                                          unsigned shift, int n) {
    ShiftQuotients(out, sums, mul, limit, shift, n);
}
VARNELO_AVX2 void ColumnMeansPlainAvx2(unsigned char* out, const unsigned char* first,
                                       const unsigned char* const* inner, int innerCount,
                                       const unsigned char* last, uint32_t w0, uint32_t w1,
                                       float reciprocal, int n) {
    ColumnMeans(out, first, inner, innerCount, last, w0, w1, reciprocal, n);
}

// The plain filter ran no faster compiled for AVX2, so it is built once.
const ReducerKernels kPlainAvx2 = {FilterPlain, RowQuotientsPlainAvx2, ShiftQuotientsPlainAvx2,
                                   ColumnMeansPlainAvx2};

// ---------------------------------------------------------------------------------------------
// SSE2 by hand: one destination column, or sixteen samples, per step.

// Words {a.r, b.r, a.g, b.g, a.b, b.b, junk, junk} of the pixels a and b starting at the
// first byte of `a` and of `b`, ready for a multiply-add with {wa, wb, wa, wb, wa, wb, 0, 0}.
inline __m128i PairWords(__m128i a, __m128i b) {
    return _mm_unpacklo_epi8(_mm_unpacklo_epi8(a, b), _mm_setzero_si128());
}

inline __m128i Load(const void* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }

// Columns [begin, end), one at a time; Pairs: the tap pairs used in each run, all of them
// unless a single run has fewer taps.
template <int Pairs>
void FilterColumnsSse2(const ReducerFilterTable& table, const unsigned char* src, int origin,
                       int begin, int end, uint32_t* sums) {
    const int chunks = table.chunks;
    for (int x = begin; x < end; ++x) {
        const unsigned char* p = src + 3 * (table.firstPixel[x] - origin);
        const int16_t* w = table.weights.data() + ReducerFilterTable::ColumnPlace(x, chunks);
        __m128i acc = _mm_setzero_si128();
        for (int run = 0; run < chunks;
             ++run, p += ReducerFilterTable::kRunBytes, w += ReducerFilterTable::kRunWords) {
            const __m128i px = Load(p);
            const __m128i* wv = reinterpret_cast<const __m128i*>(w);
            acc =
                _mm_add_epi32(acc, _mm_madd_epi16(PairWords(px, _mm_srli_si128(px, 3)), Load(wv)));
            if (Pairs > 1) {
                acc = _mm_add_epi32(
                    acc, _mm_madd_epi16(PairWords(_mm_srli_si128(px, 6), _mm_srli_si128(px, 9)),
                                        Load(wv + 2)));
            }
            if (Pairs > 2) {
                acc = _mm_add_epi32(
                    acc, _mm_madd_epi16(PairWords(_mm_srli_si128(px, 12), _mm_srli_si128(px, 15)),
                                        Load(wv + 4)));
            }
        }
        // {r, g, b, 0}: the fourth lane is overwritten by the next column.
        _mm_storeu_si128(reinterpret_cast<__m128i*>(sums + 3 * x), acc);
    }
}

// Tap pairs a run needs: all of them, unless the window is a single run with fewer taps.
inline int PairsPerRun(const ReducerFilterTable& table) {
    return table.chunks == 1 ? (table.taps + 1) / 2 : ReducerFilterTable::kPairsPerRun;
}

void FilterSse2(const ReducerFilterTable& table, const unsigned char* src, int origin, int begin,
                int end, uint32_t* sums) {
    switch (PairsPerRun(table)) {
        case 1:
            return FilterColumnsSse2<1>(table, src, origin, begin, end, sums);
        case 2:
            return FilterColumnsSse2<2>(table, src, origin, begin, end, sums);
        default:
            return FilterColumnsSse2<3>(table, src, origin, begin, end, sums);
    }
}

// Four QuotientByReciprocal results as 32-bit lanes, unclamped.
inline __m128i Quotients4(__m128i sums, __m128 reciprocals) {
    const __m128 x = _mm_add_ps(_mm_cvtepi32_ps(sums), _mm_set1_ps(0.5f));
    return _mm_cvttps_epi32(_mm_mul_ps(x, reciprocals));
}

// Sixteen quotients as bytes, clamped to 255 by the saturating packs.
inline __m128i PackQuotients(__m128i q0, __m128i q1, __m128i q2, __m128i q3) {
    return _mm_packus_epi16(_mm_packs_epi32(q0, q1), _mm_packs_epi32(q2, q3));
}

void RowQuotientsSse2(unsigned char* out, const uint32_t* sums, const float* reciprocals, int n) {
    int i = 0;
    for (; i + 16 <= n; i += 16) {
        __m128i q[4];
        for (int k = 0; k < 4; ++k) {
            q[k] = Quotients4(Load(sums + i + 4 * k), _mm_loadu_ps(reciprocals + i + 4 * k));
        }
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i),
                         PackQuotients(q[0], q[1], q[2], q[3]));
    }
    RowQuotients(out + i, sums + i, reciprocals + i, n - i);
}

// Sixteen samples of a column pass, lane by lane: the sums {first * w0 + 256 * inner +
// last * w1} of samples 0-3, 4-7, 8-11, 12-15 from the inner rows summed as 16-bit words.
inline void ColumnSums16(__m128i innerLo, __m128i innerHi, __m128i first, __m128i last,
                         __m128i weights, __m128i s[4]) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i ends[2] = {_mm_unpacklo_epi8(first, last), _mm_unpackhi_epi8(first, last)};
    const __m128i innerWords[2] = {innerLo, innerHi};
    for (int h = 0; h < 2; ++h) {
        const __m128i lo = _mm_madd_epi16(_mm_unpacklo_epi8(ends[h], zero), weights);
        const __m128i hi = _mm_madd_epi16(_mm_unpackhi_epi8(ends[h], zero), weights);
        s[2 * h] = _mm_add_epi32(lo, _mm_slli_epi32(_mm_unpacklo_epi16(innerWords[h], zero), 8));
        s[2 * h + 1] =
            _mm_add_epi32(hi, _mm_slli_epi32(_mm_unpackhi_epi16(innerWords[h], zero), 8));
    }
}

// The samples past the last whole block of `done`, one at a time.
void ColumnMeansTail(unsigned char* out, const unsigned char* first,
                     const unsigned char* const* inner, int innerCount, const unsigned char* last,
                     uint32_t w0, uint32_t w1, float reciprocal, int done, int n) {
    for (int i = done; i < n; ++i) {
        uint32_t s = 0;
        for (int k = 0; k < innerCount; ++k) s += inner[k][i];
        out[i] = QuotientByReciprocal(s * 256 + first[i] * w0 + last[i] * w1, reciprocal);
    }
}

void ColumnMeansSse2(unsigned char* out, const unsigned char* first,
                     const unsigned char* const* inner, int innerCount, const unsigned char* last,
                     uint32_t w0, uint32_t w1, float reciprocal, int n) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i weights = _mm_set1_epi32(static_cast<int>(w0 | w1 << 16));
    const __m128 r = _mm_set1_ps(reciprocal);
    int i = 0;
    for (; i + 16 <= n; i += 16) {
        __m128i lo = zero, hi = zero;
        for (int k = 0; k < innerCount; ++k) {
            const __m128i row = Load(inner[k] + i);
            lo = _mm_add_epi16(lo, _mm_unpacklo_epi8(row, zero));
            hi = _mm_add_epi16(hi, _mm_unpackhi_epi8(row, zero));
        }
        __m128i s[4];
        ColumnSums16(lo, hi, Load(first + i), Load(last + i), weights, s);
        for (__m128i& v : s) v = Quotients4(v, r);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i),
                         PackQuotients(s[0], s[1], s[2], s[3]));
    }
    ColumnMeansTail(out, first, inner, innerCount, last, w0, w1, reciprocal, i, n);
}

const ReducerKernels kSse2 = {FilterSse2, RowQuotientsSse2, ShiftQuotientsPlain, ColumnMeansSse2};

// ---------------------------------------------------------------------------------------------
// AVX2 by hand: two destination columns, or 32 samples, per step.

// Byte shuffles that spread the three tap pairs of a five-pixel run into {a.r, b.r, a.g, b.g,
// a.b, b.b, 0, 0} words, as PairWords does, in each 128-bit lane.
VARNELO_AVX2 inline __m256i PairShuffleAvx2(int pair) {
    const char a = static_cast<char>(6 * pair), z = static_cast<char>(-128);
    const char b = pair == 2 ? z : static_cast<char>(a + 3);  // tap 5 lies past the load
    const char c = pair == 2 ? z : static_cast<char>(a + 4),
               d = pair == 2 ? z : static_cast<char>(a + 5);
    return _mm256_setr_epi8(a, z, b, z, static_cast<char>(a + 1), z, c, z, static_cast<char>(a + 2),
                            z, d, z, z, z, z, z, a, z, b, z, static_cast<char>(a + 1), z, c, z,
                            static_cast<char>(a + 2), z, d, z, z, z, z, z);
}

// Columns [x, end) two by two, x even. Chunks: runs per window when known at compile time (a
// single run, the usual case, needs no loop); Pairs: tap pairs used in each run.
template <int Chunks, int Pairs>
VARNELO_AVX2 void FilterColumnPairsAvx2(const ReducerFilterTable& table, const unsigned char* src,
                                        int origin, int x, int end, uint32_t* sums) {
    constexpr int kRunVectors = ReducerFilterTable::kPairsPerRun;
    const int chunks = Chunks > 0 ? Chunks : table.chunks;
    const __m256i shuffle[kRunVectors] = {PairShuffleAvx2(0), PairShuffleAvx2(1),
                                          PairShuffleAvx2(2)};
    const int* first = table.firstPixel.data();
    const __m256i* w =
        reinterpret_cast<const __m256i*>(table.weights.data() + table.ColumnPlace(x, chunks));
    for (; x + 2 <= end; x += 2) {
        const unsigned char* p0 = src + 3 * (first[x] - origin);
        const unsigned char* p1 = src + 3 * (first[x + 1] - origin);
        __m256i acc = _mm256_setzero_si256();
        for (int run = 0; run < chunks; ++run) {
            const __m256i px =
                _mm256_inserti128_si256(_mm256_castsi128_si256(Load(p0)), Load(p1), 1);
            for (int pair = 0; pair < Pairs; ++pair) {
                acc =
                    _mm256_add_epi32(acc, _mm256_madd_epi16(_mm256_shuffle_epi8(px, shuffle[pair]),
                                                            _mm256_loadu_si256(w + pair)));
            }
            p0 += ReducerFilterTable::kRunBytes;
            p1 += ReducerFilterTable::kRunBytes;
            w += kRunVectors;
        }
        _mm_storeu_si128(reinterpret_cast<__m128i*>(sums + 3 * x), _mm256_castsi256_si128(acc));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(sums + 3 * x + 3),
                         _mm256_extracti128_si256(acc, 1));
    }
}

VARNELO_AVX2 void FilterAvx2(const ReducerFilterTable& table, const unsigned char* src, int origin,
                             int begin, int end, uint32_t* sums) {
    int x = begin;
    if (x % 2 != 0) {
        FilterSse2(table, src, origin, x, x + 1, sums);
        ++x;
    }
    const int pairs = PairsPerRun(table);
    const int last = x + (end - x) / 2 * 2;
    if (pairs == 1) {
        FilterColumnPairsAvx2<1, 1>(table, src, origin, x, last, sums);
    } else if (pairs == 2) {
        FilterColumnPairsAvx2<1, 2>(table, src, origin, x, last, sums);
    } else if (table.chunks == 1) {
        FilterColumnPairsAvx2<1, 3>(table, src, origin, x, last, sums);
    } else {
        FilterColumnPairsAvx2<0, 3>(table, src, origin, x, last, sums);
    }
    if (last < end) FilterSse2(table, src, origin, last, end, sums);
}

VARNELO_AVX2 inline __m256i LoadAvx2(const void* p) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}

VARNELO_AVX2 inline __m256i QuotientsAvx2(__m256i sums, __m256 reciprocals) {
    const __m256 x = _mm256_add_ps(_mm256_cvtepi32_ps(sums), _mm256_set1_ps(0.5f));
    return _mm256_cvttps_epi32(_mm256_mul_ps(x, reciprocals));
}

VARNELO_AVX2 void RowQuotientsAvx2(unsigned char* out, const uint32_t* sums,
                                   const float* reciprocals, int n) {
    // The packs work within 128-bit lanes; this puts the four groups back in order.
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    int i = 0;
    for (; i + 32 <= n; i += 32) {
        __m256i q[4];
        for (int k = 0; k < 4; ++k) {
            q[k] =
                QuotientsAvx2(LoadAvx2(sums + i + 8 * k), _mm256_loadu_ps(reciprocals + i + 8 * k));
        }
        const __m256i bytes =
            _mm256_packus_epi16(_mm256_packs_epi32(q[0], q[1]), _mm256_packs_epi32(q[2], q[3]));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + i),
                            _mm256_permutevar8x32_epi32(bytes, order));
    }
    RowQuotients(out + i, sums + i, reciprocals + i, n - i);
}

// The column pass of ColumnMeansSse2 with each 128-bit lane doing the work of one SSE2 register
// on its own sixteen samples: every step stays within its lane, so the bytes come out in order.
VARNELO_AVX2 void ColumnMeansAvx2(unsigned char* out, const unsigned char* first,
                                  const unsigned char* const* inner, int innerCount,
                                  const unsigned char* last, uint32_t w0, uint32_t w1,
                                  float reciprocal, int n) {
    const __m256i zero = _mm256_setzero_si256();
    const __m256i weights = _mm256_set1_epi32(static_cast<int>(w0 | w1 << 16));
    const __m256 r = _mm256_set1_ps(reciprocal);
    int i = 0;
    for (; i + 32 <= n; i += 32) {
        __m256i lo = zero, hi = zero;
        for (int k = 0; k < innerCount; ++k) {
            const __m256i row = LoadAvx2(inner[k] + i);
            lo = _mm256_add_epi16(lo, _mm256_unpacklo_epi8(row, zero));
            hi = _mm256_add_epi16(hi, _mm256_unpackhi_epi8(row, zero));
        }
        const __m256i f = LoadAvx2(first + i), l = LoadAvx2(last + i);
        const __m256i ends[2] = {_mm256_unpacklo_epi8(f, l), _mm256_unpackhi_epi8(f, l)};
        const __m256i innerWords[2] = {lo, hi};
        __m256i s[4];
        for (int h = 0; h < 2; ++h) {
            const __m256i endsLo = _mm256_madd_epi16(_mm256_unpacklo_epi8(ends[h], zero), weights);
            const __m256i endsHi = _mm256_madd_epi16(_mm256_unpackhi_epi8(ends[h], zero), weights);
            s[2 * h] = _mm256_add_epi32(
                endsLo, _mm256_slli_epi32(_mm256_unpacklo_epi16(innerWords[h], zero), 8));
            s[2 * h + 1] = _mm256_add_epi32(
                endsHi, _mm256_slli_epi32(_mm256_unpackhi_epi16(innerWords[h], zero), 8));
        }
        for (__m256i& v : s) v = QuotientsAvx2(v, r);
        const __m256i bytes =
            _mm256_packus_epi16(_mm256_packs_epi32(s[0], s[1]), _mm256_packs_epi32(s[2], s[3]));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + i), bytes);
    }
    ColumnMeansTail(out, first, inner, innerCount, last, w0, w1, reciprocal, i, n);
}

const ReducerKernels kAvx2 = {FilterAvx2, RowQuotientsAvx2, ShiftQuotientsPlainAvx2,
                              ColumnMeansAvx2};

#undef VARNELO_AVX2

}  // namespace

const ReducerKernels* ReducerKernelsFor(ResizerPath path) {
    if (path == RESIZER_PATH_PLAIN) return &kPlain;
    if (path == RESIZER_PATH_SSE2) return &kSse2;
    if (path == RESIZER_PATH_AVX2 && __builtin_cpu_supports("avx2")) return &kAvx2;
    return nullptr;
}

const ReducerKernels* PlainKernelsFor(ResizerPath path) {
    // The baseline of x86-64 includes SSE2.
    if (path == RESIZER_PATH_PLAIN || path == RESIZER_PATH_SSE2) return &kPlain;
    if (path == RESIZER_PATH_AVX2 && __builtin_cpu_supports("avx2")) return &kPlainAvx2;
    return nullptr;
}

#else

const ReducerKernels* ReducerKernelsFor(ResizerPath path) {
    return path == RESIZER_PATH_PLAIN ? &kPlain : nullptr;
}

const ReducerKernels* PlainKernelsFor(ResizerPath path) { return ReducerKernelsFor(path); }

#endif

#undef VARNELO_BODY

}  // namespace Varnelo
