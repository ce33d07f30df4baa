#include "jpeg_layout.h"

#include <cstring>

namespace Varnelo {

namespace {

const int kSoi = 0xD8, kEoi = 0xD9, kSos = 0xDA;

unsigned Byte(const std::string& d, std::size_t at) { return static_cast<unsigned char>(d[at]); }

bool Standalone(int marker) { return marker == 0x01 || (marker >= 0xD0 && marker <= kEoi); }

// Start-of-frame markers: every 0xC0..0xCF but DHT, JPG and DAC.
bool IsFrame(int marker) {
    return (marker & 0xF0) == 0xC0 && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
}

// Markers the decoder accepts before the first scan: frames but JPG, tables, the restart
// interval, restart and TEM markers, the end of image, the scan, application segments and
// comments. It stops at any other (and at a second start of image).
bool KnownBeforeScan(int marker) {
    return ((marker & 0xF0) == 0xC0 && marker != 0xC8) || (marker >= 0xD0 && marker <= 0xD7) ||
           marker == 0x01 || marker == kEoi || marker == kSos || marker == 0xDB || marker == 0xDD ||
           (marker & 0xF0) == 0xE0 || marker == 0xFE;
}

// Markers that can end a scan: frames, tables, restart interval, line count, the next scan,
// the end of image, application segments and comments.
bool MayFollowScan(unsigned marker) {
    return ((marker & 0xF0) == 0xC0 && marker != 0xC8) || (marker >= 0xD9 && marker <= 0xDF) ||
           (marker & 0xF0) == 0xE0 || marker == 0xFE;
}

// Where the entropy-coded data that starts at `at` ends: at the 0xFF of the next marker that is
// not a stuffed byte or a restart marker, or at the end of the bytes.
std::size_t EndOfScan(const std::string& d, std::size_t at) {
    const char* base = d.data();
    while (at < d.size()) {
        const void* ff = std::memchr(base + at, 0xFF, d.size() - at);
        if (ff == nullptr) return d.size();
        at = static_cast<std::size_t>(static_cast<const char*>(ff) - base);
        if (at + 1 >= d.size()) return d.size();
        const unsigned next = Byte(d, at + 1);
        if (next == 0xFF) {
            at += 1;  // a fill byte; the marker follows the last of them
        } else if (MayFollowScan(next)) {
            return at;
        } else {
            // A stuffed zero, a restart marker, or a code no segment has (damaged data):
            // all part of the scan.
            at += 2;
        }
    }
    return d.size();
}

}  // namespace

JpegLayout SplitJpeg(const std::string& d, bool headOnly) {
    JpegLayout layout;
    if (d.size() < 2 || Byte(d, 0) != 0xFF || Byte(d, 1) != kSoi) {
        layout.problem = "it does not start like a JPEG";
        return layout;
    }
    layout.pieces.push_back({JpegPiece::MARKER, kSoi, 0, 2, 2});
    std::size_t at = 2;
    bool scanned = false;
    while (at < d.size()) {
        if (Byte(d, at) != 0xFF) {
            // Stray bytes where a marker should be: the decoder skips them, and so do we,
            // keeping them with the image data.
            const void* ff = std::memchr(d.data() + at, 0xFF, d.size() - at);
            const std::size_t next = ff ? static_cast<const char*>(ff) - d.data() : d.size();
            layout.pieces.push_back({JpegPiece::DATA, 0, at, next, next});
            at = next;
            continue;
        }
        std::size_t m = at;
        while (m + 1 < d.size() && Byte(d, m + 1) == 0xFF) ++m;  // fill bytes
        if (m + 1 >= d.size()) {
            layout.pieces.push_back({JpegPiece::DATA, 0, at, d.size(), d.size()});
            break;
        }
        const int marker = static_cast<int>(Byte(d, m + 1));
        if (marker == 0x00) {
            // A stuffed zero is no marker outside a scan either: the decoder skips it as stray
            // bytes and reads on, and so must we, or a segment behind it would go unseen.
            layout.pieces.push_back({JpegPiece::DATA, 0, at, m + 2, m + 2});
            at = m + 2;
            continue;
        }
        if (!scanned && !KnownBeforeScan(marker)) {
            // The decoder refuses the file here; readers of metadata differ on whether such a
            // marker has a length, so no reading of what follows is safe to rewrite.
            const char* const hex = "0123456789ABCDEF";
            layout.problem = std::string("a marker the decoder refuses (0x") + hex[marker >> 4] +
                             hex[marker & 15] + ") at byte " + std::to_string(m);
            return layout;
        }
        if (Standalone(marker)) {
            layout.pieces.push_back({JpegPiece::MARKER, marker, at, m + 2, m + 2});
            at = m + 2;
            if (marker == kEoi) {
                if (!scanned) layout.problem = "the image ends before its first scan";
                if (at < d.size()) {
                    layout.pieces.push_back({JpegPiece::TRAILER, 0, at, d.size(), d.size()});
                }
                return layout;
            }
            continue;
        }
        const std::size_t length = m + 4 <= d.size() ? Byte(d, m + 2) << 8 | Byte(d, m + 3) : 0;
        if (m + 4 > d.size() || length < 2 || m + 2 + length > d.size()) {
            if (scanned) {
                // What looks like a segment after a scan but does not fit is damaged image
                // data, kept as it is.
                layout.pieces.push_back({JpegPiece::DATA, 0, at, d.size(), d.size()});
                return layout;
            }
            layout.truncated = m + 4 > d.size() || length >= 2;
            layout.problem = layout.truncated ? "the file ends inside a segment"
                                              : "a segment at byte " + std::to_string(m) +
                                                    " has a broken length";
            return layout;
        }
        const std::size_t end = m + 2 + length;
        layout.pieces.push_back({JpegPiece::SEGMENT, marker, at, end, m + 4});
        if (IsFrame(marker) && length >= 7 && layout.width == 0) {
            layout.height = static_cast<int>(Byte(d, m + 5) << 8 | Byte(d, m + 6));
            layout.width = static_cast<int>(Byte(d, m + 7) << 8 | Byte(d, m + 8));
        }
        at = end;
        if (marker == kSos) {
            scanned = true;
            if (headOnly) return layout;
            const std::size_t scanEnd = EndOfScan(d, at);
            if (scanEnd > at) layout.pieces.push_back({JpegPiece::DATA, 0, at, scanEnd, scanEnd});
            at = scanEnd;
        }
    }
    if (!scanned) {
        layout.problem = "the file ends before its image data";
        layout.truncated = true;
    }
    return layout;
}

std::string MakeSegment(int marker, const std::string& payload) {
    const std::size_t length = payload.size() + 2;
    std::string segment = {'\xFF', static_cast<char>(marker), static_cast<char>(length >> 8),
                           static_cast<char>(length & 0xFF)};
    return segment + payload;
}

}  // namespace Varnelo
