#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "pixel.h"

namespace Varnelo {

enum TypeOfResizer { RESIZER_DIRTY = 0, RESIZER_TIDY = 1, RESIZER_REDUCES = 2 };

// A line-streaming image scaler. The caller hands the source lines over top to bottom with
// SetSourceLine and, after each one, takes every line that NewDestinationLine declares ready
// with GetDestinationLinePointer (PumpLines below is that protocol). A resizer may deliver fewer
// lines than the destination height; the caller fills the rest. It never holds a whole image:
// its memory is a few lines of the destination width plus per-column tables built once.
//
// Ownership: the resizer owns every buffer. The row returned by GetDestinationLinePointer holds
// dstWidth pixels and stays valid and unchanged until the next SetSourceLine or
// GetDestinationLinePointer.
// REQUIRES: all four sizes >= 1 (not checked). SetSourceLine reads exactly srcWidth pixels.
// Positions in 1/256 pixel fit 32 bits for sizes below 2^24; beyond that they wrap, and still
// no resizer reads or writes outside a buffer.
// Threads: one resizer per image, used by one thread; resizers share nothing.
class CResizer {
  public:
    CResizer(int srcWidth, int srcHeight, int dstWidth, int dstHeight);
    virtual ~CResizer();
    CResizer(const CResizer&) = delete;
    CResizer& operator=(const CResizer&) = delete;

    // Takes the next source line; the resizer copies what it needs before returning.
    virtual void SetSourceLine(const CPixel* src) = 0;
    // True while a destination line can be taken.
    virtual bool NewDestinationLine();
    // Consumes one ready line and returns it.
    virtual CPixel* GetDestinationLinePointer() = 0;

  protected:
    int m_srcWidth;
    int m_srcHeight;
    int m_dstWidth;
    int m_dstHeight;
    std::unique_ptr<CPixel[]> m_dstLine;  // m_dstWidth pixels, allocated by the derived class
    int m_readyLines;
};

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

  private:
    uint32_t m_limit;
    uint32_t m_mul;
    unsigned m_shift;
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
class CResizerReduces : public CResizer {
  public:
    CResizerReduces(int srcWidth, int srcHeight, int dstWidth, int dstHeight);
    void SetSourceLine(const CPixel* src) override;
    bool NewDestinationLine() override;
    CPixel* GetDestinationLinePointer() override;

  private:
    void Init();
    void LineProcess(const CPixel* src, CPixel* dst);

    uint32_t m_start;
    uint32_t m_end;
    uint32_t m_step;
    uint32_t m_rem;
    int m_lineCount;
    int m_firstLine;
    int m_produced;
    CLineRing m_lines;
    // Across, every footprint is a filter of m_taps weights (w0, 256, ..., 256, w1, zeros) over
    // the source pixels from m_firstPixel[x]: one tight loop of equal length for all columns.
    int m_taps;
    std::vector<int> m_firstPixel;
    std::vector<uint32_t> m_weights;  // m_taps per destination column
    std::vector<ClampedQuotient> m_means;
    // The same divisions for a whole line of sums in one loop that vectorises: a multiplier and
    // a clamp per sample and one shift for all. Empty when some divisor does not allow it.
    std::vector<uint32_t> m_rowMul;
    std::vector<uint32_t> m_rowLimit;
    unsigned m_rowShift;
    std::vector<uint32_t> m_sums;  // per-sample scratch: the sums across, then down
};

// The resizer for a TypeOfResizer, or null for any other value.
std::unique_ptr<CResizer> CreateResizer(int type, int srcWidth, int srcHeight, int dstWidth,
                                        int dstHeight);

// The caller's side of the line protocol, shared by the conversions and the tools.
// srcRow: the caller's decode buffer of srcWidth + 2 pixels. readLine(CPixel* row) fills its
// first srcWidth pixels with the next source line; PumpLines then copies the last pixel into the
// two spare pixels and hands the row to the resizer. writeLine(CPixel* row) takes the next
// destination row (dstWidth pixels). beforeRepeat() is called before each repeat of the last
// row while the remainder is filled. blackRow: dstWidth black pixels, used as the fill row when
// the resizer delivered none. Lines the resizer delivers beyond dstHeight are taken and dropped.
// It holds no object with a destructor, so a caller may longjmp out of readLine/writeLine.
template <typename ReadLine, typename WriteLine, typename BeforeRepeat>
void PumpLines(CResizer& resizer, int srcWidth, int srcHeight, int dstHeight, CPixel* srcRow,
               CPixel* blackRow, ReadLine&& readLine, WriteLine&& writeLine,
               BeforeRepeat&& beforeRepeat) {
    int written = 0;
    CPixel* lastRow = nullptr;
    for (int y = 0; y < srcHeight; ++y) {
        readLine(srcRow);
        if (srcWidth > 0) {
            srcRow[srcWidth] = srcRow[srcWidth - 1];
            srcRow[srcWidth + 1] = srcRow[srcWidth - 1];
        }
        resizer.SetSourceLine(srcRow);
        while (resizer.NewDestinationLine()) {
            lastRow = resizer.GetDestinationLinePointer();
            if (written < dstHeight) {
                writeLine(lastRow);
                ++written;
            }
        }
    }
    // The last row taken is repeated as it stands now; with no row at all the fill is black.
    CPixel* fill = lastRow != nullptr ? lastRow : blackRow;
    while (written < dstHeight) {
        beforeRepeat();
        writeLine(fill);
        ++written;
    }
}

}  // namespace Varnelo
