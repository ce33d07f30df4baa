#include "support/jpeg_fixtures.h"

#include <csetjmp>
#include <cstdio>
#include <cstdlib>

// jpeglib.h needs size_t and FILE declared before it.
#include <jpeglib.h>

namespace Varnelo {
namespace {

struct Contents {
    std::vector<Segment> segments;
    size_t scan = 0;  // where the data of the first scan starts
    DecodedJpeg image;
};

// Reads `jpeg` with the library's defaults, keeping every APPn and COM segment and, when
// `decode`, the pixels as RGB; false when the library faults. Since a fault jumps back here,
// the library objects live in the caller's frame and this one holds none with a destructor.
bool Read(const std::string& jpeg, bool decode, jpeg_decompress_struct& cinfo, jpeg_error_mgr& err,
          std::jmp_buf& jump, Contents& out) {
    cinfo.err = jpeg_std_error(&err);
    err.error_exit = [](j_common_ptr c) {
        std::longjmp(*static_cast<std::jmp_buf*>(c->client_data), 1);
    };
    err.output_message = [](j_common_ptr) {};
    cinfo.client_data = &jump;
    jpeg_create_decompress(&cinfo);
    if (setjmp(jump) != 0) {
        jpeg_destroy_decompress(&cinfo);
        return false;
    }
    jpeg_mem_src(&cinfo, reinterpret_cast<const unsigned char*>(jpeg.data()), jpeg.size());
    jpeg_save_markers(&cinfo, JPEG_COM, 0xFFFF);
    for (int n = 0; n < 16; ++n) jpeg_save_markers(&cinfo, JPEG_APP0 + n, 0xFFFF);
    jpeg_read_header(&cinfo, TRUE);
    out.scan = jpeg.size() - cinfo.src->bytes_in_buffer;
    for (jpeg_saved_marker_ptr m = cinfo.marker_list; m != nullptr; m = m->next) {
        out.segments.push_back(
            {m->marker, std::string(reinterpret_cast<char*>(m->data), m->data_length)});
    }
    if (decode) {
        DecodedJpeg& image = out.image;
        cinfo.out_color_space = JCS_RGB;
        jpeg_start_decompress(&cinfo);
        image.width = static_cast<int>(cinfo.output_width);
        image.height = static_cast<int>(cinfo.output_height);
        image.rgb.resize(static_cast<size_t>(image.width) * image.height * 3);
        while (cinfo.output_scanline < cinfo.output_height) {
            JSAMPROW row = &image.rgb[static_cast<size_t>(cinfo.output_scanline) * image.width * 3];
            jpeg_read_scanlines(&cinfo, &row, 1);
        }
        jpeg_finish_decompress(&cinfo);
        image.ok = true;
    }
    jpeg_destroy_decompress(&cinfo);
    return true;
}

Contents Read(const std::string& jpeg, bool decode) {
    Contents out;
    jpeg_decompress_struct cinfo;
    jpeg_error_mgr err;
    std::jmp_buf jump;
    if (!Read(jpeg, decode, cinfo, err, jump, out)) out = Contents();
    return out;
}

}  // namespace

std::string EncodeJpeg(const JpegShape& shape, const std::vector<Segment>& segments) {
    jpeg_compress_struct cinfo;
    jpeg_error_mgr err;
    cinfo.err = jpeg_std_error(&err);
    jpeg_create_compress(&cinfo);
    unsigned char* buffer = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&cinfo, &buffer, &size);
    const int n = shape.kind == JpegKind::GREY ? 1 : shape.kind == JpegKind::CMYK ? 4 : 3;
    cinfo.image_width = shape.width;
    cinfo.image_height = shape.height;
    cinfo.input_components = n;
    cinfo.in_color_space = n == 1 ? JCS_GRAYSCALE : n == 4 ? JCS_CMYK : JCS_RGB;
    jpeg_set_defaults(&cinfo);
    jpeg_set_quality(&cinfo, shape.quality, TRUE);
    if (shape.kind == JpegKind::COLOUR_444) {
        cinfo.comp_info[0].h_samp_factor = cinfo.comp_info[0].v_samp_factor = 1;
    }
    if (shape.progressive) jpeg_simple_progression(&cinfo);
    jpeg_start_compress(&cinfo, TRUE);
    for (const Segment& s : segments) {
        jpeg_write_marker(&cinfo, s.marker, reinterpret_cast<const JOCTET*>(s.data.data()),
                          s.data.size());
    }
    // Smooth gradients with sharp edges, different in each channel; grey is their mean.
    std::vector<JSAMPLE> line(static_cast<size_t>(shape.width) * n);
    for (int y = 0; y < shape.height; ++y) {
        for (int x = 0; x < shape.width; ++x) {
            const int rgb[3] = {(x * 7 + y * 3) & 0xFF, ((x ^ y) * 5) & 0xFF,
                                (x / 8 + y / 8) % 2 != 0 ? 220 : 30};
            for (int c = 0; c < n; ++c) {
                line[x * n + c] = n == 1 ? (rgb[0] + rgb[1] + rgb[2]) / 3 : rgb[c % 3];
            }
        }
        JSAMPROW row = line.data();
        jpeg_write_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
    std::string bytes(reinterpret_cast<char*>(buffer), size);
    std::free(buffer);
    return bytes;
}

std::vector<Segment> ReadSegments(const std::string& jpeg) { return Read(jpeg, false).segments; }

std::string TruncateInScan(const std::string& jpeg) {
    const size_t scan = Read(jpeg, false).scan;
    return jpeg.substr(0, scan + (jpeg.size() - scan) / 2);
}

DecodedJpeg DecodeJpeg(const std::string& jpeg) { return Read(jpeg, true).image; }

void ExifBlock::Put(uint32_t at, uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) {
        payload[6 + at + (bigEndian ? bytes - 1 - i : i)] = static_cast<char>(value >> (8 * i));
    }
}

void ExifBlock::PutEntry(uint32_t at, uint16_t tag, uint16_t type, uint32_t value) {
    Put(at, tag, 2);
    Put(at + 2, type, 2);
    Put(at + 4, 1);
    Put(at + 8, 0);
    Put(at + 8, value, type == 3 ? 2 : 4);
}

ExifBlock BuildExif(const ExifShape& shape) {
    ExifBlock b;
    b.bigEndian = shape.bigEndian;
    const bool withThumbnail = !shape.thumbnail.empty();
    b.payload = std::string("Exif\0\0", 6) + (shape.bigEndian ? "MM" : "II") +
                std::string((withThumbnail ? b.thumbnail : b.ifd1) - 2, '\0') + shape.thumbnail;
    b.Put(2, 42, 2);
    b.Put(4, b.ifd0);
    b.Put(b.ifd0, 1, 2);
    b.PutEntry(b.ifd0 + 2, 0x8769, 4, b.exifIfd);
    b.Put(b.ifd0Link, withThumbnail ? b.ifd1 : 0);
    b.Put(b.exifIfd, 2, 2);
    b.PutEntry(b.pixelXEntry, 0xA002, 3, shape.pixelX);
    b.PutEntry(b.pixelYEntry, 0xA003, 3, shape.pixelY);
    if (withThumbnail) {
        b.Put(b.ifd1, 2, 2);
        b.PutEntry(b.thumbOffsetEntry, 0x0201, 4, b.thumbnail);
        b.PutEntry(b.thumbLengthEntry, 0x0202, 4, shape.thumbnail.size());
    }
    return b;
}

}  // namespace Varnelo
