#pragma once

// What a file is, told from its first bytes rather than its name, and the pixel size a JPEG's
// header declares. Discovery uses the first to name the files that are not JPEGs; the dry run
// uses the second to foresee what the service will do with a photo. Stateless functions.

#include <string>

namespace Varnelo {

enum class FileKind {
    JPEG,
    HEIC,  // HEIF holding HEVC, as phones write it
    HEIF,  // HEIF of another coding
    AVIF,  // HEIF holding AV1
    PNG,
    WEBP,
    GIF,
    TIFF,
    TIFF_RAW,  // a camera raw file built on TIFF (DNG, NEF, CR2, ARW, ...), told by its name
    RAW,       // a camera raw file of a format of its own (CR3, RAF, ORF, RW2, ...)
    OTHER,     // not an image as far as its first bytes tell (or empty)
};

// How many leading bytes Sniff wants.
const std::size_t kSniffBytes = 32;

// The kind of a file from `head`, its first bytes (fewer when the file is shorter), and its
// `name`, whose extension tells a TIFF from the camera raws built on it.
FileKind Sniff(const std::string& head, const std::string& name);
// The same for the file at `path`; OTHER when it cannot be read.
FileKind SniffFile(const std::string& path);

// A short name for the kind, as the summary counts it ("HEIC", "PNG", "camera raw").
std::string KindName(FileKind kind, const std::string& name);
// The kind as a reason: "a HEIC image", "a camera raw file (NEF)", "not an image".
std::string KindText(FileKind kind, const std::string& name);

// The width and height in the frame header of the JPEG file at `path`. False when the file
// cannot be read or holds no frame header with a height before its first scan.
bool ReadJpegSize(const std::string& path, int& width, int& height);

}  // namespace Varnelo
