#pragma once

// The resamplers' formulas and the caller's line protocol written out plainly, as the expected
// output of the resizers, the conversions and the resize tool: resize_formulas.cpp is the
// definition the resizers, every kernel set of the reducer included, must match byte for byte.

#include <vector>

#include "pixel.h"

namespace Varnelo {

using Row = std::vector<CPixel>;
using Image = std::vector<Row>;  // source lines top to bottom, all of one width

struct Size {
    int sw, sh, dw, dh;
};

// The dh rows the encoder receives when `src` is scaled to s.dw x s.dh by the resizer of `type`
// (a TypeOfResizer): CRGBPixel arithmetic in the order written, one pixel at a time, every read
// through at() so that a formula running out of its buffers fails loudly. Rows past the height
// are dropped; missing ones repeat the last row taken as it stands, or are black.
// REQUIRES for the reducer: sizes it divides exactly (resizer_kernels.h says which).
Image ExpectedRows(int type, const Image& src, const Size& s);

// The RGB pixels of a decoded image as rows.
Image Rows(const std::vector<unsigned char>& rgb, int width, int height);

}  // namespace Varnelo
