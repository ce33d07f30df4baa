#include "orientation.h"

#include <cstdint>
#include <cstring>
#include <fstream>

namespace Varnelo {

namespace {

const char kExif[] = "Exif\0\0";  // 6 bytes with the terminator
const unsigned kOrientationTag = 0x0112, kShort = 3;

unsigned Get16(const std::string& d, std::size_t at, bool bigEndian) {
    const unsigned a = static_cast<unsigned char>(d[at]), b = static_cast<unsigned char>(d[at + 1]);
    return bigEndian ? (a << 8 | b) : (b << 8 | a);
}

std::uint32_t Get32(const std::string& d, std::size_t at, bool bigEndian) {
    const std::uint32_t hi = Get16(d, at, bigEndian), lo = Get16(d, at + 2, bigEndian);
    return bigEndian ? (hi << 16 | lo) : (lo << 16 | hi);
}

// The Orientation entry of IFD0 in a TIFF block, or 0.
int OrientationOf(const std::string& tiff) {
    if (tiff.size() < 8) return 0;
    bool big;
    if (tiff.compare(0, 4, "MM\0*", 4) == 0) {
        big = true;
    } else if (tiff.compare(0, 4, "II*\0", 4) == 0) {
        big = false;
    } else {
        return 0;
    }
    const std::uint64_t ifd = Get32(tiff, 4, big);
    if (ifd + 2 > tiff.size()) return 0;
    const unsigned count = Get16(tiff, ifd, big);
    for (unsigned i = 0; i < count; ++i) {
        const std::uint64_t entry = ifd + 2 + 12ull * i;
        if (entry + 12 > tiff.size()) return 0;
        if (Get16(tiff, entry, big) != kOrientationTag) continue;
        if (Get16(tiff, entry + 2, big) != kShort || Get32(tiff, entry + 4, big) != 1) return 0;
        const unsigned value = Get16(tiff, entry + 8, big);
        return value >= 1 && value <= 8 ? static_cast<int>(value) : 0;
    }
    return 0;
}

bool IsExif(const std::string& payload) {
    return payload.size() >= 6 && payload.compare(0, 6, kExif, 6) == 0;
}

}  // namespace

int ReadOrientation(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    char head[2];
    if (!in.read(head, 2) || static_cast<unsigned char>(head[0]) != 0xFF ||
        static_cast<unsigned char>(head[1]) != 0xD8) {
        return 0;
    }
    for (;;) {
        int marker = in.get();
        if (marker != 0xFF) return 0;
        while (marker == 0xFF) marker = in.get();  // fill bytes
        if (marker == EOF || marker == 0xDA || marker == 0xD9) return 0;
        char size[2];
        if (!in.read(size, 2)) return 0;
        const unsigned length = Get16(std::string(size, 2), 0, true);
        if (length < 2) return 0;
        std::string payload(length - 2, '\0');
        if (!in.read(payload.data(), static_cast<std::streamsize>(payload.size()))) return 0;
        if (marker == 0xE1 && IsExif(payload)) return OrientationOf(payload.substr(6));
    }
}

bool AddOrientation(std::string& jpeg, int orientation) {
    if (jpeg.size() < 4 || static_cast<unsigned char>(jpeg[0]) != 0xFF ||
        static_cast<unsigned char>(jpeg[1]) != 0xD8) {
        return false;
    }
    // Walk the segments before the scan: keep a file's own EXIF, and a JFIF APP0 first.
    std::size_t at = 2, insert = 2;
    while (at + 4 <= jpeg.size() && static_cast<unsigned char>(jpeg[at]) == 0xFF) {
        const unsigned marker = static_cast<unsigned char>(jpeg[at + 1]);
        if (marker == 0xDA || marker == 0xD9 || (marker >= 0xD0 && marker <= 0xD7)) break;
        const std::size_t length = Get16(jpeg, at + 2, true);
        if (length < 2 || at + 2 + length > jpeg.size()) break;
        const std::string payload = jpeg.substr(at + 4, length - 2);
        if (marker == 0xE1 && IsExif(payload)) return true;
        if (marker == 0xE0 && at == 2 && payload.compare(0, 5, "JFIF\0", 5) == 0) {
            insert = at + 2 + length;
        }
        at += 2 + length;
    }
    // "Exif\0\0", then a big-endian TIFF block: header, IFD0 with one SHORT entry, no next IFD.
    static const unsigned char kBlock[] = {0xFF, 0xE1, 0x00, 0x22, 'E',  'x',  'i',  'f',  0x00,
                                           0x00, 'M',  'M',  0x00, 0x2A, 0x00, 0x00, 0x00, 0x08,
                                           0x00, 0x01, 0x01, 0x12, 0x00, 0x03, 0x00, 0x00, 0x00,
                                           0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
    std::string block(reinterpret_cast<const char*>(kBlock), sizeof(kBlock));
    block[29] = static_cast<char>(orientation);
    jpeg.insert(insert, block);
    return true;
}

}  // namespace Varnelo
