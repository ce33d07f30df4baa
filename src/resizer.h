#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "pixel.h"

namespace Varnelo {

enum TypeOfResizer { RESIZER_DIRTY = 0, RESIZER_TIDY = 1, RESIZER_REDUCES = 2 };

// A line-streaming image scaler. The caller hands the source lines over top to bottom with
// SetSourceLine and, after each one, takes every line that NewDestinationLine declares ready
// with GetDestinationLinePointer (PumpRows below is that protocol). A resizer may deliver fewer
// lines than the destination height; the caller fills the rest. It never holds a whole image:
// its memory is a few lines of the destination width plus per-column tables built once.
//
// Ownership: the resizer owns every buffer. The row returned by GetDestinationLinePointer holds
// dstWidth pixels and stays valid and unchanged until the next SetSourceLine or
// GetDestinationLinePointer.
// REQUIRES: all four sizes >= 1 (not checked). SetSourceLine reads exactly srcWidth pixels.
// Positions in 1/256 pixel fit 32 bits for sizes below 2^24; beyond that they wrap, and still
// no resizer reads or writes outside a buffer. The area-averaging reducer's pixels follow its
// formulas for the sizes the service asks for (resizer_kernels.h says which); at others, such as
// enlargements past 256 times, they are not promised.
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

// The instruction sets the area-averaging reducer's per-line loops can run on. Every path
// yields the same bytes; RESIZER_PATH_PLAIN is portable C++, the others exist on x86-64 only.
enum ResizerPath {
    RESIZER_PATH_BEST = -1,  // the widest path this CPU can run
    RESIZER_PATH_PLAIN = 0,
    RESIZER_PATH_SSE2 = 1,
    RESIZER_PATH_AVX2 = 2,
};

// True when this build and this CPU can run `path` (RESIZER_PATH_BEST always).
bool ResizerPathAvailable(ResizerPath path);

// The resizer for a TypeOfResizer: CResizerDirty (nearest sample), CResizerTidy (smoothing
// trapezoid mean) or CResizerReduces (area-averaging reducer); null for any other value. The
// reducer runs its loops on `path` when available, else on the best one; the other two resizers
// always run plain C++.
std::unique_ptr<CResizer> CreateResizer(int type, int srcWidth, int srcHeight, int dstWidth,
                                        int dstHeight, ResizerPath path = RESIZER_PATH_BEST);
// The class name of the resizer CreateResizer makes for `type` ("CResizerReduces", ...), or null
// for a type it refuses.
const char* ResizerName(int type);

// The caller's side of the line protocol, shared by the conversions and the tools.
// nextLine() returns the next source line in a row of srcWidth + 2 pixels that PumpRows may
// write (it copies the last pixel into the two spare ones before handing the row to the
// resizer), or null to stop at once; the row must stay unchanged only until the next call.
// writeLine(const CPixel* row) takes the next destination row (dstWidth pixels).
// beforeRepeat() is called before each repeat of the last row while the remainder is filled.
// blackRow: dstWidth black pixels, used as the fill row when the resizer delivered none. Lines
// the resizer delivers beyond dstHeight are taken and dropped. writeLine returns false to stop
// at once. Returns false when stopped.
template <typename NextLine, typename WriteLine, typename BeforeRepeat>
bool PumpRows(CResizer& resizer, int srcWidth, int srcHeight, int dstHeight, const CPixel* blackRow,
              NextLine&& nextLine, WriteLine&& writeLine, BeforeRepeat&& beforeRepeat) {
    int written = 0;
    const CPixel* lastRow = nullptr;
    for (int y = 0; y < srcHeight; ++y) {
        CPixel* srcRow = nextLine();
        if (srcRow == nullptr) return false;
        if (srcWidth > 0) {
            srcRow[srcWidth] = srcRow[srcWidth - 1];
            srcRow[srcWidth + 1] = srcRow[srcWidth - 1];
        }
        resizer.SetSourceLine(srcRow);
        while (resizer.NewDestinationLine()) {
            lastRow = resizer.GetDestinationLinePointer();
            if (written < dstHeight) {
                if (!writeLine(lastRow)) return false;
                ++written;
            }
        }
    }
    // The last row taken is repeated as it stands now; with no row at all the fill is black.
    const CPixel* fill = lastRow != nullptr ? lastRow : blackRow;
    while (written < dstHeight) {
        beforeRepeat();
        if (!writeLine(fill)) return false;
        ++written;
    }
    return true;
}

// PumpRows with one row buffer: srcRow, the caller's buffer of srcWidth + 2 pixels, which
// readLine(CPixel* row) fills with the next source line, returning false to stop at once.
template <typename ReadLine, typename WriteLine, typename BeforeRepeat>
bool PumpLines(CResizer& resizer, int srcWidth, int srcHeight, int dstHeight, CPixel* srcRow,
               const CPixel* blackRow, ReadLine&& readLine, WriteLine&& writeLine,
               BeforeRepeat&& beforeRepeat) {
    return PumpRows(
        resizer, srcWidth, srcHeight, dstHeight, blackRow,
        [&]() { return readLine(srcRow) ? srcRow : nullptr; }, writeLine, beforeRepeat);
}

}  // namespace Varnelo
