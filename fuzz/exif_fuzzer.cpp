// The EXIF and marker code on arbitrary data: the input is the TIFF block of an EXIF APP1
// segment. It is searched for a thumbnail and rewritten in memory, then carried as the APP1
// segment of a small JPEG through the decoder's marker saving, the thumbnail search, the
// rewrite for a new size and the copy of the markers into an encoder.

#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

// jpeglib.h needs size_t and FILE declared before it.
#include <jpeglib.h>

#include "exif.h"
#include "fuzz_support.h"
#include "samples/sample_photos.h"

namespace {

using namespace Varnelo;

// A found thumbnail must lie inside the block it was found in.
void CheckInside(const char* thumbnail, unsigned int length, const unsigned char* block,
                 std::size_t size) {
    const char* begin = reinterpret_cast<const char*>(block);
    if (thumbnail < begin || thumbnail + length > begin + size || length == 0) std::abort();
}

// What must survive a jump out of the library: kept in the caller's frame. The encoder writes
// into `sink`, which throws every full buffer away.
struct Library {
    jpeg_error_mgr err;
    std::jmp_buf jump;
    jpeg_destination_mgr sink;
    JOCTET buffer[4096];
};

void Rewind(j_compress_ptr cinfo) {
    Library* library = static_cast<Library*>(cinfo->client_data);
    library->sink.next_output_byte = library->buffer;
    library->sink.free_in_buffer = sizeof library->buffer;
}

void Fault(j_common_ptr cinfo) { std::longjmp(static_cast<Library*>(cinfo->client_data)->jump, 1); }

// Decodes the header of `jpeg` with every segment saved, looks for the thumbnail, adjusts the
// EXIF block for a new size and writes the markers into an encoder. The library objects live
// in the caller's frame, which holds nothing with a destructor between setjmp and a fault.
void ThroughTheLibrary(const std::string& jpeg, jpeg_decompress_struct& src,
                       jpeg_compress_struct& dst, Library& library) {
    src.err = jpeg_std_error(&library.err);
    dst.err = &library.err;
    library.err.error_exit = Fault;
    library.err.output_message = [](j_common_ptr) {};
    src.client_data = dst.client_data = &library;
    jpeg_create_decompress(&src);
    jpeg_create_compress(&dst);
    if (setjmp(library.jump) == 0) {
        jpeg_mem_src(&src, reinterpret_cast<const unsigned char*>(jpeg.data()), jpeg.size());
        jcopy_markers_setup(&src, JCOPYOPT_ALL);
        jpeg_read_header(&src, TRUE);
        char* thumbnail = nullptr;
        unsigned int length = 0;
        for (jpeg_saved_marker_ptr m = src.marker_list; m != nullptr; m = m->next) {
            if (m->marker == JPEG_APP0 + 1 && jthumbnail(&src, &thumbnail, &length) != 0) {
                CheckInside(thumbnail, length, m->data, m->data_length);
                break;
            }
        }
        library.sink.init_destination = Rewind;
        library.sink.empty_output_buffer = [](j_compress_ptr cinfo) -> boolean {
            Rewind(cinfo);
            return TRUE;
        };
        library.sink.term_destination = [](j_compress_ptr) {};
        dst.dest = &library.sink;
        jpeg_copy_critical_parameters(&src, &dst);
        dst.image_width = 7;
        dst.image_height = 5;
        jtransform_adjust_parameters(&src, &dst);
        dst.in_color_space = JCS_RGB;
        dst.input_components = 3;
        jpeg_set_defaults(&dst);
        jpeg_start_compress(&dst, TRUE);
        jcopy_markers_execute(&src, &dst, JCOPYOPT_ALL);
        jpeg_abort_compress(&dst);
    }
    jpeg_destroy_compress(&dst);
    jpeg_destroy_decompress(&src);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string base = EncodeJpeg({16, 16});
    Fuzz::RunOnSmallStack([data, size] {
        std::vector<unsigned char> block(data, data + size);
        char* thumbnail = nullptr;
        unsigned int length = 0;
        if (extract_thumbnail(block.data(), static_cast<unsigned int>(size), &thumbnail, &length)) {
            CheckInside(thumbnail, length, block.data(), size);
        }
        adjust_exif_parameters(block.data(), static_cast<unsigned int>(size), 640, 480, false);

        // The block as an APP1 segment right after the start of image.
        const std::size_t payload = size + 6;
        if (payload > 65533) return;
        std::string jpeg = base.substr(0, 2) + "\xFF\xE1";
        jpeg += static_cast<char>((payload + 2) >> 8);
        jpeg += static_cast<char>((payload + 2) & 0xFF);
        jpeg += std::string("Exif\0\0", 6);
        jpeg.append(reinterpret_cast<const char*>(data), size);
        jpeg += base.substr(2);
        jpeg_decompress_struct src;
        jpeg_compress_struct dst;
        Library library;
        ThroughTheLibrary(jpeg, src, dst, library);
    });
    return 0;
}
