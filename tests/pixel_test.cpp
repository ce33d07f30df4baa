#include "pixel.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace Varnelo {
namespace {

TEST(RGBPixelTest, WidensWithoutSignAndDividesTowardZero) {
    const CRGBPixel p(CPixel(255, 0, 128));
    EXPECT_EQ(p.r, 255);
    EXPECT_EQ(p.b, 128);
    const CRGBPixel q = CRGBPixel(-7, 7, -300) / 2;
    EXPECT_EQ(q.r, -3);
    EXPECT_EQ(q.g, 3);
    EXPECT_EQ((CRGBPixel(-1, -300, -255) / 256).r, 0);
    EXPECT_EQ((CRGBPixel(-1, -300, -255) / 256).g, -1);
    EXPECT_EQ((CRGBPixel(-1, -300, -255) / 256).b, 0);
}

TEST(RGBPixelTest, NormClampsAndGetKeepsLowByte) {
    CRGBPixel p(-5, 300, 17);
    p.Norm();
    EXPECT_EQ(p.Get(), CPixel(0, 255, 17));
    // Without Norm, Get wraps: this is why every resampler clamps first.
    EXPECT_EQ(CRGBPixel(256, 257, -1).Get(), CPixel(0, 1, 255));
}

TEST(RGBPixelTest, ArithmeticWrapsInThirtyTwoBits) {
    const CRGBPixel big(INT32_MAX, INT32_MIN, 1 << 30);
    const CRGBPixel sum = big + CRGBPixel(1, -1, 0);
    EXPECT_EQ(sum.r, INT32_MIN);
    EXPECT_EQ(sum.g, INT32_MAX);
    EXPECT_EQ((big * 4).b, 0);
    EXPECT_EQ((4 * big).b, 0);
    EXPECT_EQ((CRGBPixel(INT32_MIN, 0, 0) / -1).r, INT32_MIN);
}

}  // namespace
}  // namespace Varnelo
