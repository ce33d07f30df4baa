#include "support/jpeg_fixtures.h"

#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

// jpeglib.h needs size_t and FILE declared before it.
#include <jpeglib.h>

namespace Varnelo {

namespace {

struct ExitOnErrorManager {
    jpeg_error_mgr pub;
    std::jmp_buf jump;
};

void JumpOnError(j_common_ptr cinfo) {
    std::longjmp(reinterpret_cast<ExitOnErrorManager*>(cinfo->err)->jump, 1);
}

void SilentMessage(j_common_ptr) {}

bool IsStandalone(int marker) { return marker == 0x01 || (marker >= 0xD0 && marker <= 0xD8); }

bool IsFrameMarker(int marker) {
    return marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
}

// Calls `visit(marker, payloadOffset, payloadLength)` for every segment up to and including
// the first SOS; returns the offset just past the SOS header, or 0 when there is none.
template <typename Visit>
size_t WalkSegments(const std::string& jpeg, Visit&& visit) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(jpeg[i]); };
    if (jpeg.size() < 4 || byte(0) != 0xFF || byte(1) != 0xD8) return 0;
    size_t pos = 2;
    while (pos + 1 < jpeg.size()) {
        if (byte(pos) != 0xFF) return 0;
        while (pos < jpeg.size() && byte(pos) == 0xFF) ++pos;
        if (pos >= jpeg.size()) return 0;
        const int marker = byte(pos++);
        if (IsStandalone(marker)) continue;
        if (pos + 2 > jpeg.size()) return 0;
        const size_t length = (byte(pos) << 8) | byte(pos + 1);
        if (length < 2 || pos + length > jpeg.size()) return 0;
        visit(marker, pos + 2, length - 2);
        pos += length;
        if (marker == 0xDA) return pos;
        if (marker == 0xD9) return 0;
    }
    return 0;
}

void Encode(const JpegSpec& spec, const std::vector<Segment>& segments, unsigned char** buffer,
            unsigned long* size) {
    jpeg_compress_struct cinfo;
    jpeg_error_mgr err;
    cinfo.err = jpeg_std_error(&err);
    jpeg_create_compress(&cinfo);
    jpeg_mem_dest(&cinfo, buffer, size);

    cinfo.image_width = static_cast<JDIMENSION>(spec.width);
    cinfo.image_height = static_cast<JDIMENSION>(spec.height);
    switch (spec.kind) {
        case JpegKind::GREY:
            cinfo.input_components = 1;
            cinfo.in_color_space = JCS_GRAYSCALE;
            break;
        case JpegKind::CMYK:
            cinfo.input_components = 4;
            cinfo.in_color_space = JCS_CMYK;
            break;
        default:
            cinfo.input_components = 3;
            cinfo.in_color_space = JCS_RGB;
            break;
    }
    jpeg_set_defaults(&cinfo);
    jpeg_set_quality(&cinfo, spec.quality, TRUE);
    if (spec.kind == JpegKind::COLOUR_444) {
        cinfo.comp_info[0].h_samp_factor = 1;
        cinfo.comp_info[0].v_samp_factor = 1;
    }
    if (spec.progressive) jpeg_simple_progression(&cinfo);
    cinfo.write_JFIF_header = spec.jfif ? TRUE : FALSE;
    jpeg_start_compress(&cinfo, TRUE);
    for (const Segment& s : segments) {
        jpeg_write_marker(&cinfo, s.marker, reinterpret_cast<const JOCTET*>(s.data.data()),
                          static_cast<unsigned int>(s.data.size()));
    }

    std::vector<unsigned char> row(static_cast<size_t>(spec.width) * cinfo.input_components);
    while (cinfo.next_scanline < cinfo.image_height) {
        const int y = static_cast<int>(cinfo.next_scanline);
        for (int x = 0; x < spec.width; ++x) {
            unsigned char rgb[3];
            PatternPixel(x, y, rgb);
            unsigned char* out = &row[static_cast<size_t>(x) * cinfo.input_components];
            if (spec.kind == JpegKind::GREY) {
                out[0] = static_cast<unsigned char>((rgb[0] + rgb[1] + rgb[2]) / 3);
            } else if (spec.kind == JpegKind::CMYK) {
                out[0] = static_cast<unsigned char>(255 - rgb[0]);
                out[1] = static_cast<unsigned char>(255 - rgb[1]);
                out[2] = static_cast<unsigned char>(255 - rgb[2]);
                out[3] = static_cast<unsigned char>((x + y) & 0x3F);
            } else {
                out[0] = rgb[0];
                out[1] = rgb[1];
                out[2] = rgb[2];
            }
        }
        JSAMPROW rows[1] = {row.data()};
        jpeg_write_scanlines(&cinfo, rows, 1);
    }
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
}

// Decodes into `out`. The library objects belong to the caller and this frame holds only
// trivially destructible locals, since a library fault jumps back here.
void Decode(const std::string& jpeg, jpeg_decompress_struct& cinfo, ExitOnErrorManager& err,
            DecodedJpeg& out) {
    cinfo.err = jpeg_std_error(&err.pub);
    err.pub.error_exit = JumpOnError;
    err.pub.output_message = SilentMessage;
    if (setjmp(err.jump)) {
        jpeg_destroy_decompress(&cinfo);
        out.ok = false;
        return;
    }
    jpeg_create_decompress(&cinfo);
    jpeg_mem_src(&cinfo, reinterpret_cast<const unsigned char*>(jpeg.data()),
                 static_cast<unsigned long>(jpeg.size()));
    jpeg_read_header(&cinfo, TRUE);
    out.components = cinfo.num_components;
    out.jpegColorSpace = cinfo.jpeg_color_space;
    cinfo.out_color_space = JCS_RGB;
    jpeg_start_decompress(&cinfo);
    out.width = static_cast<int>(cinfo.output_width);
    out.height = static_cast<int>(cinfo.output_height);
    out.rgb.resize(static_cast<size_t>(out.width) * out.height * 3);
    while (cinfo.output_scanline < cinfo.output_height) {
        JSAMPROW rows[1] = {&out.rgb[static_cast<size_t>(cinfo.output_scanline) * out.width * 3]};
        jpeg_read_scanlines(&cinfo, rows, 1);
    }
    jpeg_finish_decompress(&cinfo);
    jpeg_destroy_decompress(&cinfo);
    out.ok = true;
}

void PutBytes(std::string& s, size_t at, uint32_t value, int count, bool bigEndian) {
    for (int i = 0; i < count; ++i) {
        const int shift = 8 * (bigEndian ? count - 1 - i : i);
        s[at + i] = static_cast<char>((value >> shift) & 0xFF);
    }
}

uint32_t GetBytes(const std::string& s, size_t at, int count, bool bigEndian) {
    uint32_t value = 0;
    for (int i = 0; i < count; ++i) {
        const int shift = 8 * (bigEndian ? count - 1 - i : i);
        value |= static_cast<uint32_t>(static_cast<unsigned char>(s[at + i])) << shift;
    }
    return value;
}

}  // namespace

void PatternPixel(int x, int y, unsigned char rgb[3]) {
    rgb[0] = static_cast<unsigned char>((x * 7 + y * 3) & 0xFF);
    rgb[1] = static_cast<unsigned char>(((x ^ y) * 5) & 0xFF);
    rgb[2] = static_cast<unsigned char>(((x / 8 + y / 8) % 2) != 0 ? 220 : 30);
}

std::string EncodeJpeg(const JpegSpec& spec, const std::vector<Segment>& segments) {
    unsigned char* buffer = nullptr;
    unsigned long size = 0;
    Encode(spec, segments, &buffer, &size);
    std::string bytes(reinterpret_cast<const char*>(buffer), size);
    std::free(buffer);
    return bytes;
}

std::vector<Segment> ReadSegments(const std::string& jpeg) {
    std::vector<Segment> segments;
    WalkSegments(jpeg, [&](int marker, size_t at, size_t length) {
        if ((marker >= 0xE0 && marker <= 0xEF) || marker == 0xFE) {
            segments.push_back(Segment{marker, jpeg.substr(at, length)});
        }
    });
    return segments;
}

std::string TruncateInScan(const std::string& jpeg) {
    const size_t scan = WalkSegments(jpeg, [](int, size_t, size_t) {});
    if (scan == 0) throw std::invalid_argument("TruncateInScan: no scan");
    return jpeg.substr(0, scan + (jpeg.size() - scan) / 2);
}

void PatchFrameSize(std::string& jpeg, int width, int height) {
    bool patched = false;
    WalkSegments(jpeg, [&](int marker, size_t at, size_t) {
        if (patched || !IsFrameMarker(marker)) return;
        PutBytes(jpeg, at + 1, static_cast<uint32_t>(height), 2, true);
        PutBytes(jpeg, at + 3, static_cast<uint32_t>(width), 2, true);
        patched = true;
    });
    if (!patched) throw std::invalid_argument("PatchFrameSize: no frame header");
}

DecodedJpeg DecodeJpeg(const std::string& jpeg) {
    DecodedJpeg out;
    jpeg_decompress_struct cinfo;
    ExitOnErrorManager err;
    Decode(jpeg, cinfo, err, out);
    if (!out.ok) out.rgb.clear();
    return out;
}

void ExifBlock::PutWord(uint32_t tiffOffset, uint16_t value) {
    PutBytes(payload, 6 + tiffOffset, value, 2, bigEndian);
}

void ExifBlock::PutDword(uint32_t tiffOffset, uint32_t value) {
    PutBytes(payload, 6 + tiffOffset, value, 4, bigEndian);
}

void ExifBlock::PutEntry(uint32_t tiffOffset, uint16_t tag, uint16_t type, uint32_t count,
                         uint32_t value) {
    PutWord(tiffOffset, tag);
    PutWord(tiffOffset + 2, type);
    PutDword(tiffOffset + 4, count);
    PutDword(tiffOffset + 8, 0);
    if (type == 3) {
        PutWord(tiffOffset + 8, static_cast<uint16_t>(value));
    } else {
        PutDword(tiffOffset + 8, value);
    }
}

uint16_t ExifBlock::GetWord(uint32_t tiffOffset) const {
    return static_cast<uint16_t>(GetBytes(payload, 6 + tiffOffset, 2, bigEndian));
}

uint32_t ExifBlock::GetDword(uint32_t tiffOffset) const {
    return GetBytes(payload, 6 + tiffOffset, 4, bigEndian);
}

ExifBlock BuildExif(const ExifSpec& spec) {
    static const char kDescription[] = "Varnelo test";  // 13 bytes with its NUL
    const bool withExifIfd = spec.pixelX != 0 || spec.pixelY != 0;
    const bool withIfd1 = !spec.thumbnail.empty();

    ExifBlock b;
    b.bigEndian = spec.bigEndian;
    const uint16_t count0 = withExifIfd ? 2 : 1;
    b.ifd0 = 8;
    b.ifd0Link = b.ifd0 + 2 + 12 * count0;
    const uint32_t description = b.ifd0Link + 4;
    uint32_t next = description + sizeof kDescription + 1;  // padded to an even offset
    if (withExifIfd) {
        b.exifIfd = next;
        b.pixelXEntry = b.exifIfd + 2 + 12;
        b.pixelYEntry = b.exifIfd + 2 + 24;
        next = b.exifIfd + 2 + 3 * 12 + 4;
    }
    if (withIfd1) {
        b.ifd1 = next;
        b.thumbOffsetEntry = b.ifd1 + 2 + 12;
        b.thumbLengthEntry = b.ifd1 + 2 + 24;
        b.thumbnail = b.ifd1 + 2 + 3 * 12 + 4;
        next = b.thumbnail + static_cast<uint32_t>(spec.thumbnail.size());
    }

    b.payload.assign(6 + next, '\0');
    b.payload.replace(0, 4, "Exif");
    b.payload.replace(6, 2, spec.bigEndian ? "MM" : "II");
    b.PutWord(2, 42);
    b.PutDword(4, b.ifd0);

    b.PutWord(b.ifd0, count0);
    b.PutEntry(b.ifd0 + 2, 0x010E, 2, sizeof kDescription, description);
    if (withExifIfd) b.PutEntry(b.ifd0 + 14, 0x8769, 4, 1, b.exifIfd);
    b.PutDword(b.ifd0Link, b.ifd1);
    b.payload.replace(6 + description, sizeof kDescription, kDescription, sizeof kDescription);

    if (withExifIfd) {
        b.PutWord(b.exifIfd, 3);
        b.PutEntry(b.exifIfd + 2, 0x9000, 7, 4, 0);
        b.payload.replace(6 + b.exifIfd + 2 + 8, 4, "0230");
        b.PutEntry(b.pixelXEntry, 0xA002, 3, 1, static_cast<uint32_t>(spec.pixelX));
        b.PutEntry(b.pixelYEntry, 0xA003, 3, 1, static_cast<uint32_t>(spec.pixelY));
    }
    if (withIfd1) {
        b.PutWord(b.ifd1, 3);
        b.PutEntry(b.ifd1 + 2, 0x0103, 3, 1, 6);
        b.PutEntry(b.thumbOffsetEntry, 0x0201, 4, 1, b.thumbnail);
        b.PutEntry(b.thumbLengthEntry, 0x0202, 4, 1, static_cast<uint32_t>(spec.thumbnail.size()));
        b.payload.replace(6 + b.thumbnail, spec.thumbnail.size(), spec.thumbnail);
    }
    return b;
}

}  // namespace Varnelo
