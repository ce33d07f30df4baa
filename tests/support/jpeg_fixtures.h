#pragma once

// JPEG files and EXIF blocks made in code for the tests: encoded with libjpeg from a fixed
// test pattern, with chosen APPn/COM segments; EXIF APP1 payloads built byte by byte in
// either byte order, with the offsets of their fields exposed so a test can break them.

#include <cstdint>
#include <string>
#include <vector>

namespace Varnelo {

// How a fixture JPEG is coded.
enum class JpegKind {
    COLOUR_420,  // YCbCr, chroma halved both ways
    COLOUR_444,  // YCbCr, full-resolution chroma
    GREY,        // one component
    CMYK,        // four components, Adobe APP14 written by the library
};

struct JpegSpec {
    int width = 64;
    int height = 48;
    JpegKind kind = JpegKind::COLOUR_420;
    bool progressive = false;
    int quality = 90;
    bool jfif = true;  // JFIF APP0 written by the library
};

// One APPn or COM segment: its marker code (0xE0..0xEF, 0xFE) and payload, without the
// marker and length bytes.
struct Segment {
    int marker;
    std::string data;

    bool operator==(const Segment& other) const {
        return marker == other.marker && data == other.data;
    }
};

// The RGB test pattern: smooth gradients with sharp edges, different in each channel.
void PatternPixel(int x, int y, unsigned char rgb[3]);

// Encodes the test pattern; `segments` are written, in order, after the library's own
// JFIF/Adobe marker.
std::string EncodeJpeg(const JpegSpec& spec, const std::vector<Segment>& segments = {});

// The APPn and COM segments of a JPEG byte string, in file order, up to the first SOS.
std::vector<Segment> ReadSegments(const std::string& jpeg);

// The JPEG cut in the middle of its entropy-coded data (half of what follows the first SOS).
std::string TruncateInScan(const std::string& jpeg);

// Sets the width and height in the first SOFn of a JPEG byte string.
void PatchFrameSize(std::string& jpeg, int width, int height);

// A decoded image with the library's default settings.
struct DecodedJpeg {
    bool ok = false;
    int width = 0;
    int height = 0;
    int components = 0;              // components in the file
    int jpegColorSpace = 0;          // J_COLOR_SPACE of the file
    std::vector<unsigned char> rgb;  // width * height * 3, when ok
};

// Decodes to RGB (decode errors make ok false).
DecodedJpeg DecodeJpeg(const std::string& jpeg);

// An EXIF APP1 payload ("Exif\0\0" then the TIFF block). Offsets below are from the start
// of the TIFF block (6 bytes into `payload`); 0 where the field is absent.
struct ExifBlock {
    std::string payload;
    bool bigEndian = false;
    uint32_t ifd0 = 0;              // IFD0 (entry count)
    uint32_t ifd0Link = 0;          // IFD0's next-IFD link
    uint32_t exifIfd = 0;           // Exif IFD (entry count)
    uint32_t pixelXEntry = 0;       // 0xA002 entry
    uint32_t pixelYEntry = 0;       // 0xA003 entry
    uint32_t ifd1 = 0;              // IFD1 (entry count)
    uint32_t thumbOffsetEntry = 0;  // 0x0201 entry
    uint32_t thumbLengthEntry = 0;  // 0x0202 entry
    uint32_t thumbnail = 0;         // first byte of the embedded thumbnail

    // The TIFF block alone, as a byte string.
    std::string Tiff() const { return payload.substr(6); }
    // Writes a 16- or 32-bit value at a TIFF offset in the block's byte order.
    void PutWord(uint32_t tiffOffset, uint16_t value);
    void PutDword(uint32_t tiffOffset, uint32_t value);
    // Writes a whole 12-byte IFD entry; a SHORT value goes in the first two value bytes.
    void PutEntry(uint32_t tiffOffset, uint16_t tag, uint16_t type, uint32_t count, uint32_t value);
    uint16_t GetWord(uint32_t tiffOffset) const;
    uint32_t GetDword(uint32_t tiffOffset) const;
};

struct ExifSpec {
    bool bigEndian = false;
    // Exif IFD with PixelXDimension/PixelYDimension (SHORT) and one more entry; none when 0.
    int pixelX = 0;
    int pixelY = 0;
    // Embedded in IFD1 (0x0201/0x0202 as LONG); no IFD1 when empty.
    std::string thumbnail;
};

// IFD0 holds ImageDescription (ASCII, out of line) and, with pixel sizes, the Exif IFD
// pointer; IFD1, when present, follows the Exif IFD and the thumbnail follows IFD1.
ExifBlock BuildExif(const ExifSpec& spec);

}  // namespace Varnelo
