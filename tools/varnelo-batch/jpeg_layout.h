#pragma once

// The layout of a JPEG file: its pieces in file order, each a marker with its segment, the
// entropy-coded data of a scan, or the bytes after the end of the image. It tells the metadata
// segments (APPn and COM) from the image's own (frame, tables, scans), so that metadata can be
// rewritten while the image data is copied byte for byte. Every read is checked against the
// bytes given. Stateless functions; a layout refers to the string it was made from by offsets.

#include <cstddef>
#include <string>
#include <vector>

namespace Varnelo {

struct JpegPiece {
    enum Kind {
        MARKER,   // a marker without a segment: SOI, EOI, RSTn, TEM
        SEGMENT,  // a marker with its length and payload
        DATA,     // entropy-coded data, or stray bytes between segments
        TRAILER,  // whatever follows the end of the image
    };
    Kind kind = DATA;
    int marker = 0;           // the byte after 0xFF; 0 for DATA and TRAILER
    std::size_t begin = 0;    // the piece's first byte (fill bytes before a marker included)
    std::size_t end = 0;      // one past its last byte
    std::size_t payload = 0;  // where a SEGMENT's payload starts, after its length

    bool IsMetadata() const {
        return kind == SEGMENT && ((marker & 0xF0) == 0xE0 || marker == 0xFE);
    }
};

struct JpegLayout {
    std::vector<JpegPiece> pieces;
    // Empty when the file was split cleanly; otherwise why not, and `pieces` hold what came
    // before the fault.
    std::string problem;
    // The problem is only that the bytes end too soon: inside a segment, or before the first
    // scan.
    bool truncated = false;
    int width = 0, height = 0;  // from the frame header; 0 when there is none
};

// Splits `jpeg`. With `headOnly`, stops after the first start-of-scan segment: the bytes up to
// there are all that the metadata and the frame header need. Data that ends inside a scan is
// not a problem (a cut photo still has all of its metadata); a segment cut short is.
JpegLayout SplitJpeg(const std::string& jpeg, bool headOnly = false);

// The payload of a SEGMENT piece of `jpeg`.
inline std::string Payload(const std::string& jpeg, const JpegPiece& piece) {
    return jpeg.substr(piece.payload, piece.end - piece.payload);
}

// A whole segment: marker, length, payload. REQUIRES: payload.size() <= 65533.
std::string MakeSegment(int marker, const std::string& payload);

}  // namespace Varnelo
