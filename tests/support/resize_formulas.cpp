#include "support/resize_formulas.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>

#include "resizer.h"

namespace Varnelo {
namespace {

// Only the smooth resizer reads past a line's end.

using Samples = std::function<CRGBPixel(int64_t)>;

CPixel BoxSum(const Samples& v, uint32_t start, uint32_t end, int64_t i0, int64_t i1) {
    CRGBPixel s;
    for (int64_t k = i0 + 1; k <= i1 - 1; ++k) s += v(k);
    s = s * 256 + v(i0) * int(256 - start % 256) + v(i1) * int(end % 256);
    s /= int(end - start);
    s.Norm();
    return s.Get();
}

CPixel Trapezoid(const Samples& v, uint32_t start, uint32_t end, int64_t i0, int64_t i1) {
    const int w0 = 256 - start % 256, w1 = end % 256;
    const CRGBPixel ps = v(i0 + 1) + (w0 * (v(i0) - v(i0 + 1))) / 256;
    const CRGBPixel pe = v(i1) + (w1 * (v(i1 + 1) - v(i1))) / 256;
    CRGBPixel s;  // the whole intervals; none when the footprint lies inside one
    for (int64_t k = i0 + 1; k <= i1 - 1; ++k) s += v(k) + v(k + 1);
    s = i0 == i1 ? (ps + pe) / 2
                 : (s * 256 + (ps + v(i0 + 1)) * w0 + (pe + v(i1)) * w1) / int(2 * (end - start));
    s.Norm();
    return s.Get();
}

// Footprint edges in 1/256 pixel, pixel (or line) i covering [edges[i], edges[i + 1]): doubles for
// the smooth resizer; the reducer's Bresenham steps of 256 * size - 1 land on i * step / count.
std::vector<uint32_t> Edges(int type, int size, int count) {
    std::vector<uint32_t> edges;
    for (int i = 0; i <= count; ++i)
        edges.push_back(type == RESIZER_TIDY
                            ? static_cast<uint32_t>(static_cast<double>(size) * i * 256.0 / count)
                            : static_cast<uint32_t>(i * (uint64_t(size) * 256 - 1) / count));
    return edges;
}

template <typename Formula>
Row Across(Formula formula, const Row& src, const std::vector<uint32_t>& e) {
    Row dst;
    for (size_t x = 0; x + 1 < e.size(); ++x)
        dst.push_back(formula([&](int64_t k) { return CRGBPixel(src.at(k)); }, e[x], e[x + 1],
                              e[x] / 256, e[x + 1] / 256));
    return dst;
}

// Each of the following appends the rows it delivers to `out` and returns its destination
// buffer as it stands at the end.
Row NearestSampleFormulas(const Image& src, const Size& s, Image& out) {
    Row dst(s.dw);  // the one buffer, overwritten by every source line
    int lineAcc = s.sh / 2;
    for (int y = 0; y < s.sh; ++y) {
        for (int x = 0, acc = s.sw / 2, j = 0; x < s.sw; ++x)
            for (acc += s.dw; acc > s.sw; acc -= s.sw, ++j)
                if (j < s.dw) dst.at(j) = src[y].at(x);
        for (lineAcc += s.dh; lineAcc > s.sh; lineAcc -= s.sh) out.push_back(dst);
    }
    return dst;
}

Row SmoothFormulas(const Image& src, const Size& s, Image& out) {
    const auto across = Edges(RESIZER_TIDY, s.sw, s.dw), down = Edges(RESIZER_TIDY, s.sh, s.dh);
    const int lineCount = (s.sh - 1) / s.dh + 3;
    std::vector<Row> lines(lineCount, Row(s.dw));
    Row dst(s.dw);
    for (int y = 0, lineAcc = s.sh / 2, d = 0; y < s.sh; ++y) {
        Row padded = src[y];
        padded.resize(s.sw + 2, src[y].back());
        lines.erase(lines.begin());  // the oldest line leaves the queue
        lines.push_back(Across(Trapezoid, padded, across));
        lineAcc += s.dh;
        if (y + 1 < lineCount) continue;  // until every buffer has been filled once
        // The ready lines are taken at once, each from the rows counted from the oldest.
        for (int ready = lineAcc / s.sh; ready > 0; --ready, ++d) {
            const uint32_t start = down.at(d), end = down.at(d + 1);
            for (int x = 0; x < s.dw; ++x)
                dst[x] = Trapezoid([&](int64_t k) { return CRGBPixel(lines.at(k).at(x)); }, start,
                                   end, 0, end / 256 - start / 256);
            out.push_back(dst);
        }
        lineAcc %= s.sh;
    }
    return dst;
}

Row ReducerFormulas(const Image& src, const Size& s, Image& out) {
    const auto across = Edges(RESIZER_REDUCES, s.sw, s.dw),
               down = Edges(RESIZER_REDUCES, s.sh, s.dh);
    const int lineCount = (s.sh - 1) / s.dh + 2;
    std::vector<Row> lines(lineCount, Row(s.dw));
    Row dst(s.dw);
    for (int y = 0, firstLine = -lineCount; y < s.sh; ++y) {
        lines.erase(lines.begin());
        lines.push_back(Across(BoxSum, src[y], across));
        // At most one line is ready per source line, once the buffers hold the whole footprint
        // of the next one; none once the height is reached.
        const size_t d = out.size();
        if (++firstLine < 0 || d == size_t(s.dh)) continue;
        const int64_t first = down[d] / 256, last = down[d + 1] / 256;  // its source lines
        if (firstLine > first || firstLine + lineCount <= last) continue;
        for (int x = 0; x < s.dw; ++x)
            dst[x] = BoxSum([&](int64_t k) { return CRGBPixel(lines.at(k).at(x)); }, down[d],
                            down[d + 1], first - firstLine, last - firstLine);
        out.push_back(dst);
    }
    return dst;
}

}  // namespace

Image ExpectedRows(int type, const Image& src, const Size& s) {
    Image rows;
    const Row last = type == RESIZER_DIRTY  ? NearestSampleFormulas(src, s, rows)
                     : type == RESIZER_TIDY ? SmoothFormulas(src, s, rows)
                                            : ReducerFormulas(src, s, rows);
    rows.resize(std::min(rows.size(), size_t(s.dh)));
    while (rows.size() < size_t(s.dh)) rows.push_back(rows.empty() ? Row(s.dw) : last);
    return rows;
}

Image Rows(const std::vector<unsigned char>& rgb, int width, int height) {
    Image image(height, Row(width));
    for (int y = 0; y < height; ++y) {
        std::memcpy(image[y].data(), &rgb[3 * size_t(y) * width], 3 * size_t(width));
    }
    return image;
}

}  // namespace Varnelo
