#include "resizer.h"

#include <algorithm>
#include <cmath>

#include "log.h"
#include "resizer_kernels.h"

namespace Varnelo {

namespace {

// The reducer's footprints along one direction: `count` intervals [Start(), End()) in 1/256
// pixel that tile [0, 256 * size - 1), advanced by an exact (Bresenham) division of that length.
// Starts on the first footprint; Next moves to the following one.
class FootprintStepper {
  public:
    FootprintStepper(int size, int count)
        : m_step(static_cast<uint32_t>(size) * 256 - 1), m_count(static_cast<uint32_t>(count)) {
        Next();
    }
    uint32_t Start() const { return m_start; }
    uint32_t End() const { return m_end; }
    void Next() {
        m_start = m_end;
        m_rem += m_step;
        m_end += m_rem / m_count;
        m_rem %= m_count;
    }

  private:
    uint32_t m_step;
    uint32_t m_count;
    uint32_t m_start = 0, m_end = 0, m_rem = 0;
};

}  // namespace

// Nearest-sample scaling: a Bresenham selector across and another down. A reduction keeps the
// last source pixel (and line) of each group, an enlargement repeats them. Both selectors start
// half-way (size / 2), so a source 1 pixel wide leaves the last destination pixel black and a
// source 1 line high delivers one line fewer than asked; that is the defined output.
class CResizerDirty : public CResizer {
  public:
    CResizerDirty(int srcWidth, int srcHeight, int dstWidth, int dstHeight);
    void SetSourceLine(const CPixel* src) override;
    CPixel* GetDestinationLinePointer() override;

  private:
    void Init();
    void LineProcess(const CPixel* src, CPixel* dst) const;

    int m_lineAcc;
    // m_sourceColumn[j] is the source pixel copied into destination pixel j. The selector may
    // fill fewer than m_dstWidth pixels; the rest are never written and stay black.
    std::vector<int> m_sourceColumn;
};

// A fixed set of equally wide line buffers in one block, used as a queue: Row(0) is the oldest
// line, Row(Count() - 1) the newest, and Rotate turns the oldest buffer into the newest without
// moving pixels. Row clamps its index into the queue, so no caller can read past it.
class CLineRing {
  public:
    CLineRing(int count, int width);

    int Count() const { return m_count; }
    CPixel* Row(int k) {
        k = k < 0 ? 0 : (k >= m_count ? m_count - 1 : k);
        int slot = m_head + k;
        if (slot >= m_count) slot -= m_count;
        return m_pixels.data() + static_cast<size_t>(slot) * static_cast<size_t>(m_width);
    }
    // Makes the oldest buffer the newest and returns it for filling.
    CPixel* Rotate() {
        m_head = m_head + 1 == m_count ? 0 : m_head + 1;
        return Row(m_count - 1);
    }

  private:
    int m_count;
    int m_width;
    int m_head;
    std::vector<CPixel> m_pixels;
};

// Smoothing scaler for reduction and enlargement: each line and each column is read as the
// piecewise-linear signal through its samples, and every destination pixel gets the trapezoid-
// rule mean of that signal over its footprint, in 1/256-pixel fixed point (positions computed
// in double). Deliberate properties of the output, which the callers' results depend on:
// - every pixel is blended half-way with its right-hand neighbour even at equal sizes, and the
//   last one with the sample past the line's end, taken as a copy of the last pixel;
// - lines are computed from the buffered rows as they stand when taken, counted from the
//   oldest, so lines made ready together are equal and later ones lag their source position.
class CResizerTidy : public CResizer {
  public:
    CResizerTidy(int srcWidth, int srcHeight, int dstWidth, int dstHeight);
    void SetSourceLine(const CPixel* src) override;
    CPixel* GetDestinationLinePointer() override;

  private:
    // One destination column: the source interval [i0, i1] its footprint touches, with the
    // right-hand samples already clamped into the line, and the weights of the partial ends.
    struct Column {
        int i0;
        int i0Next;  // i0 + 1, clamped to the last pixel
        int i1;      // clamped to the last pixel
        int i1Next;  // i1 + 1, clamped to the last pixel
        int inner;   // whole intervals strictly inside the footprint, i1 - i0 - 1 (or 0)
        bool split;  // the footprint crosses a sample (i0 != i1)
        int32_t w0;
        int32_t w1;
        ClampedQuotient mean;  // division by twice the footprint length
    };

    void Init();
    void LineProcess(const CPixel* src, CPixel* dst) const;

    int m_lineAcc;
    int m_filled;
    uint32_t m_outIndex;
    int m_lineCount;
    CLineRing m_lines;
    std::vector<Column> m_columns;
    std::vector<uint32_t> m_sums;  // per-component scratch for the vertical pass
};

// Area-averaging reducer, the scaler of the image methods: every destination pixel is the
// coverage-weighted mean of the source pixels under its footprint, with the partial pixels at
// both ends weighted in 1/256 units and integer (Bresenham) positions. The footprints step by
// 256 * size - 1, so the last source pixel and line weigh 255/256: deliberate, it keeps every
// read inside the line. A line is computed once the buffers hold exactly the source lines its
// footprint covers, at most one per source line, so equal or larger sizes deliver fewer lines
// (and near-doubled values) and the caller pads. Never more than dstHeight lines are handed out.
// Its pixels match the formulas for the sizes the service asks for (resizer_kernels.h says
// which, and why its divisions are exact there); other sizes stay inside the buffers.
class CResizerReduces : public CResizer {
  public:
    CResizerReduces(int srcWidth, int srcHeight, int dstWidth, int dstHeight, ResizerPath path);
    void SetSourceLine(const CPixel* src) override;
    bool NewDestinationLine() override;
    CPixel* GetDestinationLinePointer() override;

  private:
    // One destination column's footprint across, clamped into the line.
    struct Footprint {
        int first, inner, last;
        uint32_t w0, w1, len;
    };

    void Init();
    std::vector<Footprint> FootprintsAcross() const;
    void BuildFilterTable(const std::vector<Footprint>& footprints);
    void BuildDivider(const std::vector<Footprint>& footprints);
    void LineProcess(const CPixel* src, CPixel* dst);

    FootprintStepper m_footprint;  // of the next destination line, down the image
    int m_lineCount;
    int m_firstLine;
    int m_produced;
    CLineRing m_lines;
    // Across, every footprint is a filter of weights (w0, 256, ..., 256, w1, zeros) over a
    // window of source pixels, laid out in m_table for the loops of m_kernels; the filter reads
    // each window with 16-byte loads, so columns from m_insideColumns on, whose loads would pass
    // the line's end, read a copy of the line from pixel m_tailStart on, padded to take them.
    const ReducerKernels* m_kernels;
    ReducerFilterTable m_table;
    int m_insideColumns;
    int m_tailStart;
    std::vector<unsigned char> m_tail;
    RowDivider m_divider;          // the sums across, divided by their footprints' lengths
    std::vector<uint32_t> m_sums;  // per-sample scratch: the sums across, then down
    std::vector<const unsigned char*> m_innerRows;  // the column pass's whole rows
};

namespace {

// Rows are walked as flat arrays of 8-bit samples (R, G, B, R, ...): CPixel is exactly three
// bytes, and per-sample loops over a whole row are what the compiler vectorises.
inline unsigned char* Samples(CPixel* row) { return reinterpret_cast<unsigned char*>(row); }
inline const unsigned char* Samples(const CPixel* row) {
    return reinterpret_cast<const unsigned char*>(row);
}

inline int ClampIndex(int64_t i, int size) {
    return static_cast<int>(std::min<int64_t>(std::max<int64_t>(i, 0), size - 1));
}

// size * index * 256 / count in double, multiplied in that order and truncated to an unsigned
// 32-bit position. Values past 2^64 (absurd sizes only) are first reduced modulo 2^32 so the
// conversion stays defined.
uint32_t SmoothPosition(int size, uint32_t index, int count) {
    double p =
        static_cast<double>(size) * static_cast<double>(index) * 256.0 / static_cast<double>(count);
    if (!(p < 18446744073709551616.0)) p = std::fmod(p, 4294967296.0);
    return static_cast<uint32_t>(static_cast<uint64_t>(p));
}

// The reducer's loops for `path`: the widest the CPU has for RESIZER_PATH_BEST, and the best
// one when the path does not exist here.
const ReducerKernels* KernelsFor(ResizerPath path) {
    if (path == RESIZER_PATH_BEST) {
        for (ResizerPath widest : {RESIZER_PATH_AVX2, RESIZER_PATH_SSE2}) {
            if (const ReducerKernels* kernels = ReducerKernelsFor(widest)) return kernels;
        }
        return ReducerKernelsFor(RESIZER_PATH_PLAIN);
    }
    const ReducerKernels* kernels = ReducerKernelsFor(path);
    return kernels != nullptr ? kernels : KernelsFor(RESIZER_PATH_BEST);
}

// The smooth resizer's interpolation towards the next sample, (w * (next - here)) / 256
// truncated toward zero, added to the sample the partial interval starts from.
inline int32_t Lerp(int32_t base, int32_t w, int32_t diff) { return base + (w * diff) / 256; }

// The per-sample loops over whole rows take __restrict pointers, so that they vectorise without
// aliasing checks. The plain row sum is also written in fixed blocks of kBlock samples, a trip
// count known at compile time, which even GCC's -O2 cost model vectorises.
constexpr int kBlock = 16;

void AddRow(uint32_t* __restrict sums, const unsigned char* __restrict row, int n) {
    int i = 0;
    for (; i + kBlock <= n; i += kBlock)
        for (int j = i; j < i + kBlock; ++j) sums[j] += row[j];
    for (; i < n; ++i) sums[i] += row[i];
}

void AddRowTimes(uint32_t* __restrict sums, const unsigned char* __restrict row, uint32_t times,
                 int n) {
    for (int i = 0; i < n; ++i) sums[i] += times * row[i];
}

// sums[i] = sum of ring.Row(k)[i] over k = lo .. hi, with every k clamped into the ring as Row
// does, in time bounded by the ring's size however far the range runs past it.
void SumRows(CLineRing& ring, int64_t lo, int64_t hi, uint32_t* sums, int n) {
    std::fill(sums, sums + n, 0u);
    if (hi < lo) return;
    const int64_t last = ring.Count() - 1;
    const uint32_t before =
        static_cast<uint32_t>(std::max<int64_t>(0, std::min<int64_t>(hi, -1) - lo + 1));
    const uint32_t after =
        static_cast<uint32_t>(std::max<int64_t>(0, hi - std::max<int64_t>(lo, last + 1) + 1));
    for (int64_t k = std::max<int64_t>(lo, 0); k <= std::min(hi, last); ++k)
        AddRow(sums, Samples(ring.Row(static_cast<int>(k))), n);
    if (before != 0) AddRowTimes(sums, Samples(ring.Row(0)), before, n);
    if (after != 0) AddRowTimes(sums, Samples(ring.Row(static_cast<int>(last))), after, n);
}

// One sample of the reducer's column pass: (inner * 256 + first * w0 + last * w1) / len.
inline unsigned char BoxSample(uint32_t inner, uint32_t first, uint32_t last, uint32_t w0,
                               uint32_t w1, const ClampedQuotient& mean) {
    return mean.Of(inner * 256 + first * w0 + last * w1);
}

// One sample of the smooth resizer's column pass, rows a0, a1 at the start of the footprint
// and b0, b1 at its end: (2 * inner - a1 + b0) * 256 + (Ps + a1) * w0 + (Pe + b0) * w1, over
// 2 * len.
inline unsigned char TrapezoidSample(uint32_t inner, int32_t a0, int32_t a1, int32_t b0, int32_t b1,
                                     int32_t w0, int32_t w1, const ClampedQuotient& mean) {
    const int32_t ps = Lerp(a1, w0, a0 - a1);
    const int32_t pe = Lerp(b0, w1, b1 - b0);
    return mean.Of((2 * inner - a1 + b0) * 256 + uint32_t(ps + a1) * uint32_t(w0) +
                   uint32_t(pe + b0) * uint32_t(w1));
}

// Both ends of the footprint inside one interval: the mean of the two end values.
inline unsigned char InsideSample(int32_t a0, int32_t a1, int32_t b0, int32_t b1, int32_t w0,
                                  int32_t w1) {
    return static_cast<unsigned char>((Lerp(a1, w0, a0 - a1) + Lerp(b0, w1, b1 - b0)) / 2);
}

void FinishBox(unsigned char* __restrict out, const uint32_t* __restrict inner,
               const unsigned char* __restrict first, const unsigned char* __restrict last,
               uint32_t w0, uint32_t w1, const ClampedQuotient mean, int n) {
    for (int i = 0; i < n; ++i) out[i] = BoxSample(inner[i], first[i], last[i], w0, w1, mean);
}

void FinishTrapezoid(unsigned char* __restrict out, const uint32_t* __restrict inner,
                     const unsigned char* __restrict l0, const unsigned char* __restrict l1,
                     const unsigned char* __restrict m0, const unsigned char* __restrict m1,
                     int32_t w0, int32_t w1, const ClampedQuotient mean, int n) {
    for (int i = 0; i < n; ++i)
        out[i] = TrapezoidSample(inner[i], l0[i], l1[i], m0[i], m1[i], w0, w1, mean);
}

void FinishInside(unsigned char* __restrict out, const unsigned char* __restrict l0,
                  const unsigned char* __restrict l1, const unsigned char* __restrict m0,
                  const unsigned char* __restrict m1, int32_t w0, int32_t w1, int n) {
    for (int i = 0; i < n; ++i) out[i] = InsideSample(l0[i], l1[i], m0[i], m1[i], w0, w1);
}

}  // namespace

CLineRing::CLineRing(int count, int width)
    : m_count(std::max(count, 1)),
      m_width(std::max(width, 0)),
      m_head(0),
      m_pixels(static_cast<size_t>(m_count) * static_cast<size_t>(m_width)) {}

CResizer::CResizer(int srcWidth, int srcHeight, int dstWidth, int dstHeight)
    : m_srcWidth(srcWidth),
      m_srcHeight(srcHeight),
      m_dstWidth(dstWidth),
      m_dstHeight(dstHeight),
      m_dstLine(nullptr),
      m_readyLines(0) {}

CResizer::~CResizer() = default;

bool CResizer::NewDestinationLine() { return m_readyLines != 0; }

namespace {

// The resizers by TypeOfResizer, with the names the conversion's trace shows.
struct ResizerKind {
    const char* name;
    std::unique_ptr<CResizer> (*make)(int srcWidth, int srcHeight, int dstWidth, int dstHeight,
                                      ResizerPath path);
};

template <typename Resizer>
std::unique_ptr<CResizer> Make(int srcWidth, int srcHeight, int dstWidth, int dstHeight,
                               ResizerPath) {
    return std::make_unique<Resizer>(srcWidth, srcHeight, dstWidth, dstHeight);
}

template <>
std::unique_ptr<CResizer> Make<CResizerReduces>(int srcWidth, int srcHeight, int dstWidth,
                                                int dstHeight, ResizerPath path) {
    return std::make_unique<CResizerReduces>(srcWidth, srcHeight, dstWidth, dstHeight, path);
}

const ResizerKind kResizers[] = {
    {"CResizerDirty", Make<CResizerDirty>},      // RESIZER_DIRTY
    {"CResizerTidy", Make<CResizerTidy>},        // RESIZER_TIDY
    {"CResizerReduces", Make<CResizerReduces>},  // RESIZER_REDUCES
};

const ResizerKind* KindOf(int type) {
    const int count = static_cast<int>(sizeof kResizers / sizeof kResizers[0]);
    return type >= 0 && type < count ? &kResizers[type] : nullptr;
}

}  // namespace

bool ResizerPathAvailable(ResizerPath path) {
    return path == RESIZER_PATH_BEST || path == RESIZER_PATH_PLAIN ||
           ReducerKernelsFor(path) != nullptr;
}

std::unique_ptr<CResizer> CreateResizer(int type, int srcWidth, int srcHeight, int dstWidth,
                                        int dstHeight, ResizerPath path) {
    const ResizerKind* kind = KindOf(type);
    return kind != nullptr ? kind->make(srcWidth, srcHeight, dstWidth, dstHeight, path) : nullptr;
}

const char* ResizerName(int type) {
    const ResizerKind* kind = KindOf(type);
    return kind != nullptr ? kind->name : nullptr;
}

// ---------------------------------------------------------------------------------------------
// Nearest sample

CResizerDirty::CResizerDirty(int srcWidth, int srcHeight, int dstWidth, int dstHeight)
    : CResizer(srcWidth, srcHeight, dstWidth, dstHeight), m_lineAcc(0) {
    Init();
}

void CResizerDirty::Init() {
    m_dstLine.reset(new CPixel[std::max(m_dstWidth, 1)]);
    m_readyLines = 0;
    m_lineAcc = m_srcHeight / 2;

    // The horizontal selector is the same for every line, so it is run once here.
    m_sourceColumn.clear();
    int acc = m_srcWidth / 2;
    for (int x = 0; x < m_srcWidth && static_cast<int>(m_sourceColumn.size()) < m_dstWidth; ++x) {
        acc += m_dstWidth;
        while (acc > m_srcWidth) {
            acc -= m_srcWidth;
            if (static_cast<int>(m_sourceColumn.size()) < m_dstWidth) m_sourceColumn.push_back(x);
        }
    }
}

void CResizerDirty::LineProcess(const CPixel* src, CPixel* dst) const {
    const int* column = m_sourceColumn.data();
    const int n = static_cast<int>(m_sourceColumn.size());
    for (int j = 0; j < n; ++j) dst[j] = src[column[j]];
}

void CResizerDirty::SetSourceLine(const CPixel* src) {
    // Every line overwrites the one buffer, whether or not it becomes ready.
    LineProcess(src, m_dstLine.get());
    m_lineAcc += m_dstHeight;
    while (m_lineAcc > m_srcHeight) {
        m_lineAcc -= m_srcHeight;
        ++m_readyLines;
    }
}

CPixel* CResizerDirty::GetDestinationLinePointer() {
    --m_readyLines;
    return m_dstLine.get();
}

// ---------------------------------------------------------------------------------------------
// Smooth (trapezoid) resizer

CResizerTidy::CResizerTidy(int srcWidth, int srcHeight, int dstWidth, int dstHeight)
    : CResizer(srcWidth, srcHeight, dstWidth, dstHeight),
      m_lineAcc(0),
      m_filled(0),
      m_outIndex(0),
      m_lineCount((srcHeight - 1) / dstHeight + 3),
      m_lines(m_lineCount, dstWidth) {
    Init();
}

void CResizerTidy::Init() {
    m_filled = 0;
    m_outIndex = 0;
    m_dstLine.reset(new CPixel[std::max(m_dstWidth, 1)]);
    m_readyLines = 0;
    m_lineAcc = m_srcHeight / 2;
    m_sums.assign(static_cast<size_t>(std::max(m_dstWidth, 0)) * 3, 0);

    // Footprints and weights of every destination column, built once. Samples past the end of
    // the line read the last pixel: the line is taken as continuing flat to the right.
    m_columns.clear();
    m_columns.reserve(std::max(m_dstWidth, 0));
    uint32_t start = 0;
    for (int x = 0; x < m_dstWidth; ++x) {
        const uint32_t end = SmoothPosition(m_srcWidth, static_cast<uint32_t>(x) + 1, m_dstWidth);
        const int64_t i0 = start / 256;
        const int64_t i1 = end / 256;
        Column c;
        c.i0 = ClampIndex(i0, m_srcWidth);
        c.i0Next = ClampIndex(i0 + 1, m_srcWidth);
        c.i1 = ClampIndex(i1, m_srcWidth);
        c.i1Next = ClampIndex(i1 + 1, m_srcWidth);
        c.split = i0 != i1;
        // Whole intervals k = i0+1 .. i1-1, all inside the line (k <= i1 - 1 <= srcWidth - 1).
        c.inner = static_cast<int>(
            std::max<int64_t>(0, std::min<int64_t>(i1 - i0 - 1, m_srcWidth - 1 - c.i0)));
        c.w0 = static_cast<int32_t>(256 - start % 256);
        c.w1 = static_cast<int32_t>(end % 256);
        c.mean = ClampedQuotient(2 * (end - start));
        m_columns.push_back(c);
        start = end;
    }
}

void CResizerTidy::LineProcess(const CPixel* src, CPixel* dst) const {
    const int n = static_cast<int>(m_columns.size());
    for (int x = 0; x < n; ++x) {
        const Column& c = m_columns[x];
        const CPixel a0 = src[c.i0], a1 = src[c.i0Next], b0 = src[c.i1], b1 = src[c.i1Next];
        const int32_t psR = Lerp(a1.r, c.w0, a0.r - a1.r);
        const int32_t psG = Lerp(a1.g, c.w0, a0.g - a1.g);
        const int32_t psB = Lerp(a1.b, c.w0, a0.b - a1.b);
        const int32_t peR = Lerp(b0.r, c.w1, b1.r - b0.r);
        const int32_t peG = Lerp(b0.g, c.w1, b1.g - b0.g);
        const int32_t peB = Lerp(b0.b, c.w1, b1.b - b0.b);
        if (!c.split) {
            // Both ends inside one interval: the mean of the two end values (0..510, so the
            // quotient needs no clamping).
            dst[x] = CPixel(static_cast<unsigned char>((psR + peR) / 2),
                            static_cast<unsigned char>((psG + peG) / 2),
                            static_cast<unsigned char>((psB + peB) / 2));
            continue;
        }
        // Sum over the whole intervals of (s[k] + s[k+1]) == 2 * sum(s[k]) - s[i0+1] + s[i1].
        uint32_t r = 0, g = 0, b = 0;
        const CPixel* p = src + c.i0 + 1;
        for (int k = 0; k < c.inner; ++k) {
            r += p[k].r;
            g += p[k].g;
            b += p[k].b;
        }
        const uint32_t w0 = static_cast<uint32_t>(c.w0), w1 = static_cast<uint32_t>(c.w1);
        r = (2 * r - a1.r + b0.r) * 256 + uint32_t(psR + a1.r) * w0 + uint32_t(peR + b0.r) * w1;
        g = (2 * g - a1.g + b0.g) * 256 + uint32_t(psG + a1.g) * w0 + uint32_t(peG + b0.g) * w1;
        b = (2 * b - a1.b + b0.b) * 256 + uint32_t(psB + a1.b) * w0 + uint32_t(peB + b0.b) * w1;
        dst[x] = CPixel(c.mean.Of(r), c.mean.Of(g), c.mean.Of(b));
    }
}

void CResizerTidy::SetSourceLine(const CPixel* src) {
    LineProcess(src, m_lines.Rotate());
    m_lineAcc += m_dstHeight;
    ++m_filled;
    // Nothing is ready until every buffer has been filled once; then all the lines accumulated
    // so far become ready together.
    if (m_filled < m_lineCount) return;
    m_filled = m_lineCount;
    m_readyLines += m_lineAcc / m_srcHeight;
    m_lineAcc %= m_srcHeight;
}

CPixel* CResizerTidy::GetDestinationLinePointer() {
    const uint32_t start = SmoothPosition(m_srcHeight, m_outIndex, m_dstHeight);
    const uint32_t end = SmoothPosition(m_srcHeight, m_outIndex + 1, m_dstHeight);
    const int32_t w0 = static_cast<int32_t>(256 - start % 256);
    const int32_t w1 = static_cast<int32_t>(end % 256);
    // Rows are counted from the oldest buffer, whatever source line it holds: deliberately not
    // re-aligned to the start position (the lag is part of this resizer's output). Row indices
    // past the queue, never reached when lines are taken as they become ready, read its ends.
    const int64_t i1 = end / 256 - start / 256;
    const int n = m_dstWidth * 3;
    const unsigned char* l0 = Samples(m_lines.Row(0));
    const unsigned char* l1 = Samples(m_lines.Row(1));
    const unsigned char* m0 = Samples(m_lines.Row(ClampIndex(i1, m_lineCount)));
    const unsigned char* m1 = Samples(m_lines.Row(ClampIndex(i1 + 1, m_lineCount)));
    unsigned char* out = Samples(m_dstLine.get());

    if (i1 == 0) {
        FinishInside(out, l0, l1, m0, m1, w0, w1, n);
    } else {
        // Sum over the whole intervals of (L[k] + L[k+1]) == 2 * sum(L[k]) - L[1] + L[i1].
        SumRows(m_lines, 1, i1 - 1, m_sums.data(), n);
        FinishTrapezoid(out, m_sums.data(), l0, l1, m0, m1, w0, w1,
                        ClampedQuotient(2 * (end - start)), n);
    }
    --m_readyLines;
    ++m_outIndex;
    return m_dstLine.get();
}

// ---------------------------------------------------------------------------------------------
// Area-averaging reducer

CResizerReduces::CResizerReduces(int srcWidth, int srcHeight, int dstWidth, int dstHeight,
                                 ResizerPath path)
    : CResizer(srcWidth, srcHeight, dstWidth, dstHeight),
      m_footprint(srcHeight, dstHeight),
      m_lineCount((srcHeight - 1) / dstHeight + 2),
      m_firstLine(0),
      m_produced(0),
      m_lines(m_lineCount, dstWidth),
      m_kernels(KernelsFor(path)),
      m_insideColumns(0),
      m_tailStart(0) {
    Init();
}

void CResizerReduces::Init() {
    m_dstLine.reset(new CPixel[std::max(m_dstWidth, 1)]);
    m_firstLine = -m_lineCount;
    m_produced = 0;
    m_readyLines = 0;
    m_footprint = FootprintStepper(m_srcHeight, m_dstHeight);
    // The vector filter stores four sums per column, the fourth overwritten by the next one.
    m_sums.assign(static_cast<size_t>(std::max(m_dstWidth, 0)) * 3 + 1, 0);
    m_innerRows.assign(m_lineCount, nullptr);

    const std::vector<Footprint> footprints = FootprintsAcross();
    BuildFilterTable(footprints);
    BuildDivider(footprints);
}

// The horizontal footprints are the same for every line: the Bresenham division runs once.
std::vector<CResizerReduces::Footprint> CResizerReduces::FootprintsAcross() const {
    std::vector<Footprint> footprints;
    footprints.reserve(std::max(m_dstWidth, 0));
    FootprintStepper across(m_srcWidth, m_dstWidth);
    for (int x = 0; x < m_dstWidth; ++x, across.Next()) {
        const uint32_t start = across.Start(), end = across.End();
        const int64_t i0 = start / 256;
        const int64_t i1 = end / 256;
        Footprint f;
        f.first = ClampIndex(i0, m_srcWidth);
        f.last = ClampIndex(i1, m_srcWidth);
        f.inner = static_cast<int>(
            std::max<int64_t>(0, std::min<int64_t>(i1 - i0 - 1, m_srcWidth - 1 - f.first)));
        f.w0 = 256 - start % 256;
        f.w1 = end % 256;
        f.len = end - start;
        footprints.push_back(f);
    }
    return footprints;
}

// Each footprint as weights over a window of as many pixels as the widest needs, starting at
// its first pixel, moved left as far as needed to end inside the line (the weights before the
// footprint are then zero). A pixel's weight is at most w0 + 256 + w1, so 16 bits hold it.
void CResizerReduces::BuildFilterTable(const std::vector<Footprint>& footprints) {
    int taps = 1;
    for (const Footprint& f : footprints) {
        taps = std::max(taps, std::max(f.last, f.first + f.inner) - f.first + 1);
    }
    std::vector<int> firstPixel;
    std::vector<uint32_t> weights(footprints.size() * static_cast<size_t>(taps), 0);
    for (size_t x = 0; x < footprints.size(); ++x) {
        const Footprint& f = footprints[x];
        const int window = std::max(0, std::min(f.first, m_srcWidth - taps));
        uint32_t* w = &weights[x * taps];
        w[f.first - window] += f.w0;
        for (int k = 1; k <= f.inner; ++k) w[f.first + k - window] += 256;
        w[f.last - window] += f.w1;  // the same pixel as w0 when the footprint is inside one
        firstPixel.push_back(window);
    }
    m_table.Build(taps, firstPixel, weights);
    m_insideColumns = m_table.ColumnsInside(m_srcWidth);
    m_tailStart = m_table.TailStart(m_srcWidth);
    m_tail.assign(
        3 * static_cast<size_t>(m_srcWidth - m_tailStart) + ReducerFilterTable::kLoadBytes, 0);
}

void CResizerReduces::BuildDivider(const std::vector<Footprint>& footprints) {
    std::vector<uint32_t> divisors;
    divisors.reserve(footprints.size());
    for (const Footprint& f : footprints) divisors.push_back(f.len);
    m_divider.Build(divisors);
}

void CResizerReduces::LineProcess(const CPixel* src, CPixel* dst) {
    const int n = m_table.columns;
    uint32_t* sums = m_sums.data();
    const unsigned char* line = Samples(src);
    m_kernels->filter(m_table, line, 0, 0, m_insideColumns, sums);
    if (m_insideColumns < n) {
        std::copy(line + 3 * m_tailStart, line + 3 * m_srcWidth, m_tail.begin());
        m_kernels->filter(m_table, m_tail.data(), m_tailStart, m_insideColumns, n, sums);
    }
    m_divider.Divide(*m_kernels, sums, Samples(dst), n);
}

void CResizerReduces::SetSourceLine(const CPixel* src) {
    LineProcess(src, m_lines.Rotate());
    ++m_firstLine;
    if (m_firstLine < 0) return;  // buffers not full yet
    const int64_t firstNeeded = m_footprint.Start() >> 8;
    const int64_t lastNeeded = m_footprint.End() >> 8;
    if (m_firstLine > firstNeeded) return;  // the footprint's first line is gone for good
    if (m_firstLine + m_lineCount <= lastNeeded) return;  // its last line has not arrived
    ++m_readyLines;
}

bool CResizerReduces::NewDestinationLine() { return m_produced < m_dstHeight && m_readyLines != 0; }

CPixel* CResizerReduces::GetDestinationLinePointer() {
    const uint32_t start = m_footprint.Start(), end = m_footprint.End();
    const uint32_t w0 = 256 - start % 256;
    const uint32_t w1 = end % 256;
    const int64_t r0 = static_cast<int64_t>(start >> 8) - m_firstLine;
    const int64_t r1 = static_cast<int64_t>(end >> 8) - m_firstLine;
    if (m_lineCount <= r1) log.Put("CResizerReduces::GetDestinationLinePointer", 8);
    // Row indices outside the queue, only reached when lines are not taken as soon as they are
    // ready, read its nearest end.
    const int n = m_dstWidth * 3;
    const unsigned char* f = Samples(m_lines.Row(ClampIndex(r0, m_lineCount)));
    const unsigned char* l = Samples(m_lines.Row(ClampIndex(r1, m_lineCount)));
    unsigned char* out = Samples(m_dstLine.get());
    const uint32_t divisor = end - start;
    // The kernels' column pass takes the rows of a footprint that lies inside the buffers, as it
    // does whenever lines are taken as soon as they are ready; a divisor below
    // kReciprocalDivisors spans at most 32 inner rows, which its 16-bit sums hold.
    if (divisor >= 1 && divisor < kReciprocalDivisors && r0 >= 0 && r0 <= r1 && r1 < m_lineCount) {
        const int inner = static_cast<int>(r1 - r0) - 1 > 0 ? static_cast<int>(r1 - r0) - 1 : 0;
        for (int k = 0; k < inner; ++k) {
            m_innerRows[k] = Samples(m_lines.Row(static_cast<int>(r0) + 1 + k));
        }
        m_kernels->columnMeans(out, f, m_innerRows.data(), inner, l, w0, w1, Reciprocal(divisor),
                               n);
    } else {
        uint32_t* sums = m_sums.data();
        SumRows(m_lines, r0 + 1, r1 - 1, sums, n);
        FinishBox(out, sums, f, l, w0, w1, ClampedQuotient(divisor), n);
    }

    m_footprint.Next();
    --m_readyLines;
    ++m_produced;
    return m_dstLine.get();
}

}  // namespace Varnelo
