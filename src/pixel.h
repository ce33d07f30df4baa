#pragma once

#include <cstdint>

namespace Varnelo {

// One stored pixel of an RGB scanline: red, green, blue, one byte each and nothing else, so an
// array of n CPixel is exactly 3n bytes and is handed to and taken from the JPEG library as a
// sample row without copying. A plain value; any thread.
class CPixel {
  public:
    CPixel() : r(0), g(0), b(0) {}
    CPixel(unsigned char red, unsigned char green, unsigned char blue)
        : r(red), g(green), b(blue) {}

    unsigned char r;
    unsigned char g;
    unsigned char b;
};

static_assert(sizeof(CPixel) == 3, "CPixel must stay exactly three bytes: rows are scanlines");

inline bool operator==(const CPixel& a, const CPixel& b) {
    return a.r == b.r && a.g == b.g && a.b == b.b;
}
inline bool operator!=(const CPixel& a, const CPixel& b) { return !(a == b); }

// The wide signed accumulator of the resamplers: three 32-bit components, red, green, blue.
// Addition, subtraction and multiplication wrap in two's complement; division truncates toward
// zero (-300 / 256 == -1). Norm clamps each component into 0..255 and Get keeps the low
// 8 bits, so results are stored as Norm() then Get(). Dividing by 0 is the caller's fault.
// A plain value; any thread.
class CRGBPixel {
  public:
    CRGBPixel() : r(0), g(0), b(0) {}
    CRGBPixel(int32_t red, int32_t green, int32_t blue) : r(red), g(green), b(blue) {}
    CRGBPixel(const CPixel& p) : r(p.r), g(p.g), b(p.b) {}  // NOLINT: widening is implicit
    CRGBPixel(const CRGBPixel&) = default;
    CRGBPixel& operator=(const CRGBPixel&) = default;

    CRGBPixel& operator+=(const CRGBPixel& o) {
        r = Wrap(uint32_t(r) + uint32_t(o.r));
        g = Wrap(uint32_t(g) + uint32_t(o.g));
        b = Wrap(uint32_t(b) + uint32_t(o.b));
        return *this;
    }
    CRGBPixel& operator-=(const CRGBPixel& o) {
        r = Wrap(uint32_t(r) - uint32_t(o.r));
        g = Wrap(uint32_t(g) - uint32_t(o.g));
        b = Wrap(uint32_t(b) - uint32_t(o.b));
        return *this;
    }
    CRGBPixel& operator*=(int k) {
        r = Wrap(uint32_t(r) * uint32_t(k));
        g = Wrap(uint32_t(g) * uint32_t(k));
        b = Wrap(uint32_t(b) * uint32_t(k));
        return *this;
    }
    CRGBPixel& operator/=(int k) {
        r = Divide(r, k);
        g = Divide(g, k);
        b = Divide(b, k);
        return *this;
    }

    void Norm() {
        r = Clamp(r);
        g = Clamp(g);
        b = Clamp(b);
    }
    CPixel Get() const {
        return CPixel(static_cast<unsigned char>(r), static_cast<unsigned char>(g),
                      static_cast<unsigned char>(b));
    }

    int32_t r;
    int32_t g;
    int32_t b;

  private:
    static int32_t Wrap(uint32_t v) { return static_cast<int32_t>(v); }
    // INT32_MIN / -1 wraps like the other operations instead of trapping.
    static int32_t Divide(int32_t v, int k) { return k == -1 ? Wrap(0u - uint32_t(v)) : v / k; }
    static int32_t Clamp(int32_t v) { return v < 0 ? 0 : (v > 255 ? 255 : v); }
};

inline CRGBPixel operator+(const CRGBPixel& a, const CRGBPixel& b) { return CRGBPixel(a) += b; }
inline CRGBPixel operator-(const CRGBPixel& a, const CRGBPixel& b) { return CRGBPixel(a) -= b; }
inline CRGBPixel operator*(const CRGBPixel& a, int k) { return CRGBPixel(a) *= k; }
inline CRGBPixel operator*(int k, const CRGBPixel& a) { return CRGBPixel(a) *= k; }
inline CRGBPixel operator/(const CRGBPixel& a, int k) { return CRGBPixel(a) /= k; }

}  // namespace Varnelo
