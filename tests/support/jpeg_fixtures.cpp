#include "support/jpeg_fixtures.h"

#include <csetjmp>
#include <cstdio>

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

std::vector<Segment> ReadSegments(const std::string& jpeg) { return Read(jpeg, false).segments; }

std::string TruncateInScan(const std::string& jpeg) {
    const size_t scan = Read(jpeg, false).scan;
    return jpeg.substr(0, scan + (jpeg.size() - scan) / 2);
}

DecodedJpeg DecodeJpeg(const std::string& jpeg) { return Read(jpeg, true).image; }

}  // namespace Varnelo
