#pragma once

// Photos and EXIF blocks made in code: JPEGs of a fixed test pattern or of a photographic scene
// made from a seed, with chosen APPn/COM segments, and EXIF blocks in either byte order whose
// field offsets can be broken on purpose. The sample-photo tool, the benchmark's corpus, the fuzz
// seeds and the tests all make their JPEGs here; the same arguments always give the same bytes.

#include <cstdint>
#include <string>
#include <vector>

namespace Varnelo {

// YCbCr with chroma halved both ways, halved across only or at full resolution, greyscale, or
// CMYK (which the library marks with an Adobe APP14 instead of a JFIF APP0).
enum class JpegKind { COLOUR_420, COLOUR_444, GREY, CMYK, COLOUR_422 };

struct JpegShape {
    int width = 64, height = 48;
    JpegKind kind = JpegKind::COLOUR_420;
    bool progressive = false;
    int quality = 90;
    int restartRows = 0;  // a restart marker every this many rows of MCUs, when not 0
    // Instead of the test pattern, a scene that compresses like a photograph: soft light,
    // textures at several scales and sensor grain, all made from `seed` with integer maths.
    bool photographic = false;
    uint32_t seed = 1;
};

// An APPn or COM segment: its marker code (0xE0..0xEF, 0xFE) and its payload.
struct Segment {
    int marker;
    std::string data;
    bool operator==(const Segment& o) const { return marker == o.marker && data == o.data; }
};

// Encodes the test pattern; `segments` follow the library's own JFIF/Adobe marker, in order.
std::string EncodeJpeg(const JpegShape& shape, const std::vector<Segment>& segments = {});
struct ExifShape {
    int pixelX = 0, pixelY = 0;  // PixelXDimension and PixelYDimension, as SHORT
    std::string thumbnail = "";  // embedded through IFD1 when not empty
    bool bigEndian = false;
};

// An EXIF APP1 payload: "Exif\0\0", then a TIFF block laid out as below (offsets count from
// its first byte): IFD0 holding only the Exif IFD pointer; the Exif IFD with PixelXDimension
// and PixelYDimension; and, with a thumbnail, IFD1 with JPEGInterchangeFormat and its length
// (LONG), then the thumbnail.
struct ExifBlock {
    std::string payload;
    bool bigEndian = false;
    uint32_t ifd0 = 8, ifd0Link = 22, exifIfd = 26, pixelXEntry = 28, pixelYEntry = 40;
    uint32_t ifd1 = 56, thumbOffsetEntry = 58, thumbLengthEntry = 70, thumbnail = 86;

    // Writes a 2- or 4-byte value in the block's byte order.
    void Put(uint32_t at, uint32_t value, int bytes = 4);
    // Writes a 12-byte IFD entry of count 1; a SHORT value fills the first two value bytes.
    void PutEntry(uint32_t at, uint16_t tag, uint16_t type, uint32_t value);
};

ExifBlock BuildExif(const ExifShape& shape);

}  // namespace Varnelo
