#include "resizer_kernels.h"

#include <algorithm>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace Varnelo {

ClampedQuotient::ClampedQuotient(uint32_t divisor) {
    const uint64_t d = divisor == 0 ? 1 : divisor;  // callers never divide by 0
    m_shift = 31 + CeilLog2(d);
    m_mul = static_cast<uint32_t>(((uint64_t(1) << m_shift) + d - 1) / d);
    m_limit = static_cast<uint32_t>(std::min<uint64_t>(256 * d - 1, 0x7FFFFFFF));
}

void ReducerFilterTable::Build(int window, const std::vector<int>& first,
                               const std::vector<uint32_t>& plain) {
    columns = static_cast<int>(first.size());
    taps = window;
    chunks = std::max(1, (taps + kRunPixels - 1) / kRunPixels);
    firstPixel = first;
    weights.assign(static_cast<size_t>((columns + 1) / 2) * chunks * 3 * 16, 0);
    tapWeight.clear();
    for (int k = 0; k < taps; ++k) {
        tapWeight.push_back(k / kRunPixels * 48 + k % kRunPixels / 2 * 16 + k % kRunPixels % 2);
    }
    for (int x = 0; x < columns; ++x) {
        for (int k = 0; k < taps; ++k) {
            const uint32_t w = plain[static_cast<size_t>(x) * taps + k];
            const int run = k / kRunPixels, pair = k % kRunPixels / 2, slot = k % kRunPixels % 2;
            int16_t* v =
                &weights[((static_cast<size_t>(x / 2) * chunks + run) * 3 + pair) * 16 + x % 2 * 8];
            v[slot] = v[slot + 2] = v[slot + 4] = static_cast<int16_t>(w);
        }
    }
}

int ReducerFilterTable::ColumnsInside(int width) const {
    // The last load of column x ends 3 * (firstPixel[x] + 5 * (chunks - 1)) + 16 bytes into the
    // line; firstPixel never decreases, so the columns inside are a prefix.
    const int64_t lineBytes = int64_t(3) * width;
    const auto outside = std::find_if(firstPixel.begin(), firstPixel.end(), [&](int f) {
        return 3 * (int64_t(f) + kRunPixels * (chunks - 1)) + kLoadBytes > lineBytes;
    });
    return static_cast<int>(outside - firstPixel.begin());
}

int ReducerFilterTable::TailStart(int width) const {
    const int inside = ColumnsInside(width);
    return inside < columns ? firstPixel[inside] : width;
}

void RowDivider::Build(const std::vector<uint32_t>& divisors, int taps) {
    m_reciprocals.clear();
    m_mul.clear();
    m_limit.clear();
    m_means.clear();
    // Windows of at most 64 weights of at most 511 keep every sum below 2^23.
    const bool small = taps <= 64 && std::all_of(divisors.begin(), divisors.end(), [](uint32_t d) {
                           return d < kReciprocalDivisors;
                       });
    if (small) {
        m_method = RECIPROCALS;
        for (uint32_t d : divisors) m_reciprocals.insert(m_reciprocals.end(), 3, Reciprocal(d));
        return;
    }
    // One shift for the whole line: sums clamped to 256 d - 1 are below 2^(8 + bits), so with
    // k = 8 + 2 * bits, bits = ceil(log2) of the largest divisor, m = ceil(2^k / d) is exact
    // for every column (its error m*d - 2^k is below d <= 2^bits). That needs every sum below
    // 2^31 (no window long enough to overflow), bits <= 24 and every m below 2^32.
    unsigned bits = 0;
    for (uint32_t d : divisors) bits = std::max(bits, CeilLog2(d));
    const unsigned shift = 8 + 2 * bits;
    bool shared = uint64_t(taps) * 255 * 256 < 0x80000000u && bits <= 24;
    for (size_t x = 0; x < divisors.size() && shared; ++x) {
        const uint64_t d = divisors[x];
        const uint64_t m = ((uint64_t(1) << shift) + d - 1) / d;
        shared = m <= 0xFFFFFFFFu;
        m_mul.insert(m_mul.end(), 3, static_cast<uint32_t>(m));
        m_limit.insert(m_limit.end(), 3, static_cast<uint32_t>(256 * d - 1));
    }
    if (shared) {
        m_method = SHARED_SHIFT;
        m_shift = shift;
        return;
    }
    m_method = PER_COLUMN;
    m_mul.clear();
    m_limit.clear();
    for (uint32_t d : divisors) m_means.push_back(ClampedQuotient(d));
}

namespace {

void SharedShiftQuotients(unsigned char* __restrict out, const uint32_t* __restrict sums,
                          const uint32_t* __restrict mul, const uint32_t* __restrict limit,
                          unsigned shift, int n) {
    for (int i = 0; i < n; ++i) {
        const uint32_t s = sums[i] < limit[i] ? sums[i] : limit[i];
        out[i] = static_cast<unsigned char>((static_cast<uint64_t>(s) * mul[i]) >> shift);
    }
}

}  // namespace

void RowDivider::Divide(const ReducerKernels& kernels, const uint32_t* sums, unsigned char* out,
                        int columns) const {
    switch (m_method) {
        case RECIPROCALS:
            return kernels.rowQuotients(out, sums, m_reciprocals.data(), 3 * columns);
        case SHARED_SHIFT:
            return SharedShiftQuotients(out, sums, m_mul.data(), m_limit.data(), m_shift,
                                        3 * columns);
        case PER_COLUMN:
            for (int x = 0; x < columns; ++x) {
                const ClampedQuotient& q = m_means[x];
                for (int c = 0; c < 3; ++c) out[3 * x + c] = q.Of(sums[3 * x + c]);
            }
            return;
    }
}

namespace {

// ---------------------------------------------------------------------------------------------
// Plain C++: the same tables, read a tap at a time; loops the compiler may vectorise.

// Columns [begin, end) a tap at a time. With the window length known at compile time (Taps > 0)
// the loop over it unrolls completely and every weight's place in the table is a constant.
template <int Taps>
void FilterColumnsPlain(const ReducerFilterTable& table, const unsigned char* src, int origin,
                        int begin, int end, uint32_t* sums) {
    const int taps = Taps > 0 ? Taps : table.taps;
    const int* place = table.tapWeight.data();
    for (int x = begin; x < end; ++x) {
        const unsigned char* p = src + 3 * (table.firstPixel[x] - origin);
        const int16_t* w = &table.weights[static_cast<size_t>(x / 2) * table.chunks * 48 +
                                          static_cast<size_t>(x % 2) * 8];
        uint32_t r = 0, g = 0, b = 0;
        for (int k = 0; k < taps; ++k) {
            const int at = Taps > 0 ? k / 5 * 48 + k % 5 / 2 * 16 + k % 5 % 2 : place[k];
            const uint32_t weight = static_cast<uint32_t>(w[at]);
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
    static const Filter kFilters[] = {
        FilterColumnsPlain<0>, FilterColumnsPlain<1>, FilterColumnsPlain<2>,
        FilterColumnsPlain<3>, FilterColumnsPlain<4>, FilterColumnsPlain<5>,
        FilterColumnsPlain<6>, FilterColumnsPlain<7>, FilterColumnsPlain<8>};
    kFilters[table.taps <= 8 ? table.taps : 0](table, src, origin, begin, end, sums);
}

void RowQuotientsPlain(unsigned char* __restrict out, const uint32_t* __restrict sums,
                       const float* __restrict reciprocals, int n) {
    for (int i = 0; i < n; ++i) out[i] = QuotientByReciprocal(sums[i], reciprocals[i]);
}

// The inner rows summed in blocks of samples that stay in registers, then the ends added.
void ColumnMeansPlain(unsigned char* out, const unsigned char* first,
                      const unsigned char* const* inner, int innerCount, const unsigned char* last,
                      uint32_t w0, uint32_t w1, float reciprocal, int n) {
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

const ReducerKernels kPlain = {FilterPlain, RowQuotientsPlain, ColumnMeansPlain};

}  // namespace

#if defined(__x86_64__)

namespace {

// ---------------------------------------------------------------------------------------------
// SSE2: one destination column per step.

// Words {a.r, b.r, a.g, b.g, a.b, b.b, junk, junk} of the pixels a and b starting at the
// first byte of `a` and of `b`, ready for a multiply-add with {wa, wb, wa, wb, wa, wb, 0, 0}.
inline __m128i PairWords(__m128i a, __m128i b) {
    return _mm_unpacklo_epi8(_mm_unpacklo_epi8(a, b), _mm_setzero_si128());
}

// Columns [begin, end), one at a time; Pairs: the tap pairs used in each run, 3 unless a single
// run has fewer taps.
template <int Pairs>
void FilterColumnsSse2(const ReducerFilterTable& table, const unsigned char* src, int origin,
                       int begin, int end, uint32_t* sums) {
    const int chunks = table.chunks;
    for (int x = begin; x < end; ++x) {
        const unsigned char* p = src + 3 * (table.firstPixel[x] - origin);
        const int16_t* w = &table.weights[static_cast<size_t>(x / 2) * chunks * 48 +
                                          static_cast<size_t>(x % 2) * 8];
        __m128i acc = _mm_setzero_si128();
        for (int run = 0; run < chunks; ++run, p += 15, w += 48) {
            const __m128i px = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
            const __m128i* wv = reinterpret_cast<const __m128i*>(w);
            acc = _mm_add_epi32(
                acc, _mm_madd_epi16(PairWords(px, _mm_srli_si128(px, 3)), _mm_loadu_si128(wv)));
            if (Pairs > 1) {
                acc = _mm_add_epi32(
                    acc, _mm_madd_epi16(PairWords(_mm_srli_si128(px, 6), _mm_srli_si128(px, 9)),
                                        _mm_loadu_si128(wv + 2)));
            }
            if (Pairs > 2) {
                acc = _mm_add_epi32(
                    acc, _mm_madd_epi16(PairWords(_mm_srli_si128(px, 12), _mm_srli_si128(px, 15)),
                                        _mm_loadu_si128(wv + 4)));
            }
        }
        // {r, g, b, 0}: the fourth lane is overwritten by the next column.
        _mm_storeu_si128(reinterpret_cast<__m128i*>(sums + 3 * x), acc);
    }
}

// Tap pairs a run needs: all three, unless the window is a single run of at most four taps.
inline int PairsPerRun(const ReducerFilterTable& table) {
    return table.chunks == 1 ? (table.taps + 1) / 2 : 3;
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

inline __m128i Load(const void* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }

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
    for (; i < n; ++i) out[i] = QuotientByReciprocal(sums[i], reciprocals[i]);
}

void ColumnMeansTail(unsigned char* out, const unsigned char* first,
                     const unsigned char* const* inner, int innerCount, const unsigned char* last,
                     uint32_t w0, uint32_t w1, float reciprocal, int begin, int n) {
    for (int i = begin; i < n; ++i) {
        uint32_t s = 0;
        for (int k = 0; k < innerCount; ++k) s += inner[k][i];
        out[i] = QuotientByReciprocal(s * 256 + first[i] * w0 + last[i] * w1, reciprocal);
    }
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

const ReducerKernels kSse2 = {FilterSse2, RowQuotientsSse2, ColumnMeansSse2};

// ---------------------------------------------------------------------------------------------
// AVX2: two destination columns, or 32 samples, per step.

#define VARNELO_AVX2 __attribute__((target("avx2")))

// Byte shuffles that spread the three tap pairs of a five-pixel run into {a.r, b.r, a.g, b.g,
// a.b, b.b, 0, 0} words, as PairWords does, in each 128-bit lane.
VARNELO_AVX2 inline __m256i PairShuffle(int pair) {
    const char a = static_cast<char>(6 * pair), z = static_cast<char>(-128);
    const char b = pair == 2 ? z : static_cast<char>(a + 3);  // tap 5 lies past the load
    const char c = pair == 2 ? z : static_cast<char>(a + 4),
               d = pair == 2 ? z : static_cast<char>(a + 5);
    return _mm256_setr_epi8(a, z, b, z, static_cast<char>(a + 1), z, c, z, static_cast<char>(a + 2),
                            z, d, z, z, z, z, z, a, z, b, z, static_cast<char>(a + 1), z, c, z,
                            static_cast<char>(a + 2), z, d, z, z, z, z, z);
}

// Columns [x, end) two by two, x even. Chunks: runs per window when known at compile time (a
// single run, the usual case, needs no loop); Pairs: tap pairs used in each run, 3 unless a
// single run has fewer taps.
template <int Chunks, int Pairs>
VARNELO_AVX2 void FilterColumnPairsAvx2(const ReducerFilterTable& table, const unsigned char* src,
                                        int origin, int x, int end, uint32_t* sums) {
    const int chunks = Chunks > 0 ? Chunks : table.chunks;
    const __m256i shuffle[3] = {PairShuffle(0), PairShuffle(1), PairShuffle(2)};
    const int* first = table.firstPixel.data();
    const __m256i* w = reinterpret_cast<const __m256i*>(table.weights.data()) +
                       static_cast<size_t>(x / 2) * chunks * 3;
    for (; x + 2 <= end; x += 2) {
        const unsigned char* p0 = src + 3 * (first[x] - origin);
        const unsigned char* p1 = src + 3 * (first[x + 1] - origin);
        __m256i acc = _mm256_setzero_si256();
        for (int run = 0; run < chunks; ++run, p0 += 15, p1 += 15, w += 3) {
            const __m256i px = _mm256_inserti128_si256(
                _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p0))),
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(p1)), 1);
            for (int pair = 0; pair < Pairs; ++pair) {
                acc =
                    _mm256_add_epi32(acc, _mm256_madd_epi16(_mm256_shuffle_epi8(px, shuffle[pair]),
                                                            _mm256_loadu_si256(w + pair)));
            }
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

VARNELO_AVX2 inline __m256i Load256(const void* p) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}

VARNELO_AVX2 inline __m256i Quotients8(__m256i sums, __m256 reciprocals) {
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
            q[k] = Quotients8(Load256(sums + i + 8 * k), _mm256_loadu_ps(reciprocals + i + 8 * k));
        }
        const __m256i bytes =
            _mm256_packus_epi16(_mm256_packs_epi32(q[0], q[1]), _mm256_packs_epi32(q[2], q[3]));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + i),
                            _mm256_permutevar8x32_epi32(bytes, order));
    }
    for (; i < n; ++i) out[i] = QuotientByReciprocal(sums[i], reciprocals[i]);
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
            const __m256i row = Load256(inner[k] + i);
            lo = _mm256_add_epi16(lo, _mm256_unpacklo_epi8(row, zero));
            hi = _mm256_add_epi16(hi, _mm256_unpackhi_epi8(row, zero));
        }
        const __m256i f = Load256(first + i), l = Load256(last + i);
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
        for (__m256i& v : s) v = Quotients8(v, r);
        const __m256i bytes =
            _mm256_packus_epi16(_mm256_packs_epi32(s[0], s[1]), _mm256_packs_epi32(s[2], s[3]));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + i), bytes);
    }
    ColumnMeansTail(out, first, inner, innerCount, last, w0, w1, reciprocal, i, n);
}

#undef VARNELO_AVX2

const ReducerKernels kAvx2 = {FilterAvx2, RowQuotientsAvx2, ColumnMeansAvx2};

}  // namespace

const ReducerKernels* ReducerKernelsFor(ResizerPath path) {
    if (path == RESIZER_PATH_PLAIN) return &kPlain;
    if (path == RESIZER_PATH_SSE2) return &kSse2;
    if (path == RESIZER_PATH_AVX2 && __builtin_cpu_supports("avx2")) return &kAvx2;
    return nullptr;
}

#else

const ReducerKernels* ReducerKernelsFor(ResizerPath path) {
    return path == RESIZER_PATH_PLAIN ? &kPlain : nullptr;
}

#endif

}  // namespace Varnelo
