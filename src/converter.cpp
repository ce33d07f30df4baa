#include "converter.h"

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "exif.h"
#include "fsutils.h"
#include "log.h"
#include "pixel.h"

namespace Varnelo {

namespace {

// Failure texts logged at level 10 by the catching side.
const char kLibraryFault[] = "IJG decompression error";
const char kHeaderFault[] = "Error in jpeg_read_header";

const int kMinSize = 32;
const int kMaxSize = 65536;
const int kMinDimension = 8;
const int kHashedTailBytes = 2048;
// A small file may declare a huge progressive image whose coefficients the library would
// buffer whole; past this the library faults instead of exhausting the machine.
const long kMaxLibraryMemory = 1L << 30;

// The result that tells ConvertFileThumbnail to fall back to a full conversion.
const int kThumbnailNotWritten = -1;

void Trace(const std::string& text) { log.Put(text, 14); }

void ArmErrorManager(JpegErrorManager& manager, std::jmp_buf* jump) {
    jpeg_std_error(&manager.pub);
    manager.pub.error_exit = custom_error_exit;
    manager.jump = jump;
}

void CloseFile(FILE*& file) {
    if (file != nullptr) std::fclose(file);
    file = nullptr;
}

// Everything one full conversion owns. The destructor releases whatever the conversion has
// not released itself, so every path, a jump out of the library included, leaves nothing
// behind. Kept outside the frame that calls setjmp: its members change between the setjmp
// and a jump and must not be held in registers there.
struct FullConversion {
    JpegErrorManager srcErr;
    JpegErrorManager dstErr;
    jpeg_decompress_struct src{};
    jpeg_compress_struct dst{};
    bool srcCreated = false;
    bool dstCreated = false;
    FILE* in = nullptr;
    FILE* out = nullptr;
    bool headerRead = false;
    std::unique_ptr<CResizer> resizer;
    std::vector<CPixel> srcRow;
    std::vector<CPixel> blackRow;
    std::jmp_buf jump;

    FullConversion() = default;
    FullConversion(const FullConversion&) = delete;
    FullConversion& operator=(const FullConversion&) = delete;
    ~FullConversion() {
        ReleaseLines();
        DestroyCompress();
        DestroyDecompress();
        CloseFile(out);
        CloseFile(in);
    }

    void DestroyCompress() {
        if (dstCreated) jpeg_destroy_compress(&dst);
        dstCreated = false;
    }
    void DestroyDecompress() {
        if (srcCreated) jpeg_destroy_decompress(&src);
        srcCreated = false;
    }
    void ReleaseLines() {
        resizer.reset();
        std::vector<CPixel>().swap(srcRow);
        std::vector<CPixel>().swap(blackRow);
    }

    // Clean-up after a fault: `text` is what was caught.
    int Fail(const char* text) {
        log.Put(text, 10);
        ReleaseLines();
        if (headerRead) {
            Trace("Close output file");
            DestroyCompress();
            CloseFile(out);
        }
        Trace("Close input file");
        DestroyDecompress();
        CloseFile(in);
        return CR_RESAMPLING_ERROR;
    }
};

void CreateResizerFor(FullConversion& c, TypeOfResizer type, int srcw, int srch, int dstw,
                      int dsth) {
    switch (type) {
        case RESIZER_DIRTY:
            Trace("Create CResizerDirty");
            c.resizer.reset(new CResizerDirty(srcw, srch, dstw, dsth));
            break;
        case RESIZER_TIDY:
            Trace("Create CResizerTidy");
            c.resizer.reset(new CResizerTidy(srcw, srch, dstw, dsth));
            break;
        case RESIZER_REDUCES:
            Trace("Create CResizerReduces");
            c.resizer.reset(new CResizerReduces(srcw, srch, dstw, dsth));
            break;
    }
    Trace("Create resizer ok");
}

// Decodes, resizes and encodes: every step of a full conversion up to the hash. Returns
// CR_OK when the destination is complete, otherwise the conversion's result.
// A library fault jumps back to the setjmp below, so this frame holds only trivially
// destructible locals and every resource lives in `c`.
int DecodeResizeEncode(FullConversion& c, const std::string& src, const std::string& dst, int size,
                       int quality, int& srcWidth, int& srcHeight, TypeOfResizer resizerType,
                       JCOPY_OPTION copyOption) {
    // Encoder faults (a full disk among them) come back here too: they fail this image only.
    ArmErrorManager(c.dstErr, &c.jump);
    ArmErrorManager(c.srcErr, &c.jump);
    c.dst.err = &c.dstErr.pub;
    c.src.err = &c.srcErr.pub;
    if (setjmp(c.jump) != 0) return c.Fail(kLibraryFault);

    jpeg_create_compress(&c.dst);
    c.dstCreated = true;
    c.dst.mem->max_memory_to_use = kMaxLibraryMemory;

    c.in = std::fopen(src.c_str(), "rb");
    if (c.in == nullptr) {
        log.Put("Open input file error: " + src, 5);
        return CR_FILE_NOT_FOUND;
    }
    Trace("Open input file ok");
    jpeg_create_decompress(&c.src);
    c.srcCreated = true;
    c.src.mem->max_memory_to_use = kMaxLibraryMemory;
    jpeg_stdio_src(&c.src, c.in);
    jcopy_markers_setup(&c.src, copyOption);

    Trace("jpeg_read_header");
    if (jpeg_read_header(&c.src, TRUE) != JPEG_HEADER_OK) return c.Fail(kHeaderFault);
    c.headerRead = true;

    // Full-size decoding with the library's default DCT method and upsampling.
    c.src.out_color_space = JCS_RGB;
    c.src.output_components = 3;
    Trace("jpeg_start_decompress");
    if (!jpeg_start_decompress(&c.src)) {
        Trace("Close input file");
        c.DestroyDecompress();
        CloseFile(c.in);
        return CR_RESAMPLING_ERROR;
    }

    const int srcw = static_cast<int>(c.src.output_width);
    const int srch = static_cast<int>(c.src.output_height);
    srcWidth = srcw;
    srcHeight = srch;

    // The longer side becomes `size`; the products are taken in 64 bits so that sources
    // larger than 32768 pixels keep their proportions.
    int dstw = srcw;
    int dsth = srch;
    if (srcw < srch && srch > size) {
        dsth = size;
        dstw = static_cast<int>(static_cast<int64_t>(srcw) * size / srch);
    } else if (srcw > size) {
        dstw = size;
        dsth = static_cast<int>(static_cast<int64_t>(srch) * size / srcw);
    }
    if (dstw < kMinDimension) dstw = kMinDimension;
    if (dsth < kMinDimension) dsth = kMinDimension;
    Trace("  dstw=" + ToString(dstw));
    Trace("  dsth=" + ToString(dsth));
    Trace("  srcw=" + ToString(srcw));
    Trace("  srch=" + ToString(srch));

    // Only the widths are compared: a source as wide as the result is left alone even when
    // its height would shrink.
    if (dstw == srcw) {
        Trace("Close input file");
        c.DestroyDecompress();
        CloseFile(c.in);
        return CR_LESS_THAN_REQUESTED;
    }

    c.out = std::fopen(dst.c_str(), "wb");
    if (c.out == nullptr) {
        log.Put("Open output file error: " + dst, 5);
        c.DestroyDecompress();
        CloseFile(c.in);
        return CR_CREATE_DEST_ERROR;
    }
    Trace("Open output file ok");
    jpeg_stdio_dest(&c.dst, c.out);
    Trace("jpeg_copy_critical_parameters");
    jpeg_copy_critical_parameters(&c.src, &c.dst);

    CreateResizerFor(c, resizerType, srcw, srch, dstw, dsth);

    // The colour space is the one jpeg_set_defaults derives from the source's, copied above:
    // greyscale stays greyscale, colour becomes YCbCr. The source's JFIF APP0, if any, is
    // copied with the other segments, so the encoder writes none of its own.
    c.dst.image_width = static_cast<JDIMENSION>(dstw);
    c.dst.image_height = static_cast<JDIMENSION>(dsth);
    jpeg_set_defaults(&c.dst);
    jpeg_set_quality(&c.dst, quality, TRUE);
    c.dst.write_JFIF_header = FALSE;
    c.dst.input_components = 3;
    c.dst.in_color_space = JCS_RGB;

    Trace("jpeg_start_compress");
    jpeg_start_compress(&c.dst, TRUE);
    Trace("jcopy_markers_execute");
    jcopy_markers_execute(&c.src, &c.dst, copyOption);

    Trace("Resizing...");
    c.srcRow.resize(static_cast<size_t>(srcw) + 2);
    c.blackRow.resize(static_cast<size_t>(dstw));
    PumpLines(
        *c.resizer, srcw, srch, dsth, c.srcRow.data(), c.blackRow.data(),
        [&c](CPixel* row) {
            JSAMPROW rows[1] = {reinterpret_cast<JSAMPROW>(row)};
            jpeg_read_scanlines(&c.src, rows, 1);
        },
        [&c](CPixel* row) {
            JSAMPROW rows[1] = {reinterpret_cast<JSAMPROW>(row)};
            jpeg_write_scanlines(&c.dst, rows, 1);
        },
        [] { Trace("Resizer not another output line"); });

    Trace("Delete resizer");
    c.ReleaseLines();

    Trace("Close output file");
    jpeg_finish_compress(&c.dst);
    c.DestroyCompress();
    CloseFile(c.out);
    Trace("Close input file");
    jpeg_finish_decompress(&c.src);
    c.DestroyDecompress();
    CloseFile(c.in);
    return CR_OK;
}

// What one thumbnail search owns; released by the destructor on every path.
struct ThumbnailSearch {
    JpegErrorManager err;
    jpeg_decompress_struct src{};
    bool srcCreated = false;
    FILE* in = nullptr;
    FILE* out = nullptr;
    bool headerRead = false;
    std::jmp_buf jump;

    ThumbnailSearch() = default;
    ThumbnailSearch(const ThumbnailSearch&) = delete;
    ThumbnailSearch& operator=(const ThumbnailSearch&) = delete;
    ~ThumbnailSearch() {
        DestroyDecompress();
        CloseFile(out);
        CloseFile(in);
    }

    void DestroyDecompress() {
        if (srcCreated) jpeg_destroy_decompress(&src);
        srcCreated = false;
    }

    // Clean-up after a fault. A header fault is not logged here (the hook has logged its own
    // line); a later one is.
    int Fail() {
        if (headerRead) log.Put(kLibraryFault, 10);
        Trace("Close input file");
        DestroyDecompress();
        CloseFile(out);
        CloseFile(in);
        return CR_RESAMPLING_ERROR;
    }
};

// Finds and writes the embedded thumbnail. Returns CR_OK when it was written,
// kThumbnailNotWritten when the caller should convert the image instead, or a result.
// Like DecodeResizeEncode, this frame holds only trivially destructible locals.
int WriteEmbeddedThumbnail(ThumbnailSearch& t, const std::string& src, const std::string& dst) {
    ArmErrorManager(t.err, &t.jump);
    t.src.err = &t.err.pub;
    if (setjmp(t.jump) != 0) return t.Fail();

    t.in = std::fopen(src.c_str(), "rb");
    if (t.in == nullptr) {
        log.Put("Open input file error: " + src, 5);
        return CR_FILE_NOT_FOUND;
    }
    Trace("Open file ok");
    jpeg_create_decompress(&t.src);
    t.srcCreated = true;
    t.src.mem->max_memory_to_use = kMaxLibraryMemory;
    jpeg_stdio_src(&t.src, t.in);
    jcopy_markers_setup(&t.src, JCOPYOPT_ALL);

    Trace("jpeg_read_header");
    if (jpeg_read_header(&t.src, TRUE) != JPEG_HEADER_OK) return t.Fail();
    t.headerRead = true;

    Trace("jpeg_start_decompress");
    jpeg_start_decompress(&t.src);

    Trace("jthumbnail");
    char* thumbnail = nullptr;
    unsigned int length = 0;
    bool written = false;
    if (jthumbnail(&t.src, &thumbnail, &length) != 0) {
        Trace("Thumbnail available");
        Trace("thumbnail_length=" + std::to_string(length));
        t.out = std::fopen(dst.c_str(), "wb");
        if (t.out == nullptr) {
            log.Put("Open output file error: " + dst, 5);
        } else {
            // The result of the write is not checked: the thumbnail counts as written.
            Trace("Write output file");
            std::fwrite(thumbnail, 1, length, t.out);
            Trace("Close output file");
            CloseFile(t.out);
            written = true;
        }
    } else {
        Trace("Thumbnail not available");
    }

    // The image data is never read, so the decompression is not finished.
    Trace("Close input file");
    t.DestroyDecompress();
    CloseFile(t.in);
    return written ? CR_OK : kThumbnailNotWritten;
}

bool IsResizerType(TypeOfResizer type) {
    return type == RESIZER_DIRTY || type == RESIZER_TIDY || type == RESIZER_REDUCES;
}

}  // namespace

void custom_error_exit(jpeg_common_struct* cinfo) {
    {
        // Whether the manager's message hook is set; jpeg_std_error always sets it. The
        // library's own text is deliberately not fetched here.
        const bool hasOutputMessage = cinfo->err->output_message != nullptr;
        log.Put("custom_error_exit (" + ToString(hasOutputMessage ? 1 : 0) + ")", 10);
    }
    std::jmp_buf* jump = reinterpret_cast<JpegErrorManager*>(cinfo->err)->jump;
    if (jump == nullptr) std::abort();
    std::longjmp(*jump, 1);
}

int ConvertFile(const std::string& src, const std::string& dst, int size, int quality,
                int& srcWidth, int& srcHeight, std::string& hash, HashType hashType,
                TypeOfResizer resizerType, bool omitEXIF) {
    if (src.empty() || dst.empty() || src == dst) return CR_RESAMPLING_ERROR;
    if (!IsResizerType(resizerType)) return CR_RESAMPLING_ERROR;
    if (size > kMaxSize) size = kMaxSize;
    if (size < kMinSize) size = kMinSize;
    if (quality < 0) quality = 0;
    if (quality > 100) quality = 100;

    FullConversion c;
    const int result = DecodeResizeEncode(c, src, dst, size, quality, srcWidth, srcHeight,
                                          resizerType, omitEXIF ? JCOPYOPT_NONE : JCOPYOPT_ALL);
    if (result != CR_OK) return result;

    Trace("Calculate hash");
    std::unique_ptr<Hash> hasher = CreateHash(hashType);
    hash.clear();
    if (hasher && hasher->File(src.c_str(), Hash::FROM_END, kHashedTailBytes)) {
        hash = hasher->GetResultString();
    }
    hasher.reset();
    // A failed hash leaves the bare prefix.
    if (hashType == HASH_CRC32) {
        hash = "S1|" + hash;
    } else if (hashType == HASH_MD5) {
        hash = "S2|" + hash;
    }

    if (c.srcErr.pub.num_warnings == 0 && c.dstErr.pub.num_warnings == 0) {
        Trace("ConvertFile ok");
        return CR_OK;
    }
    Trace("ConvertFile warnings");
    return CR_JPEG_WARNINGS;
}

int ConvertFileThumbnail(const std::string& src, const std::string& dst, int size, int quality,
                         int& srcWidth, int& srcHeight, std::string& hash, HashType hashType,
                         TypeOfResizer resizerType) {
    if (src.empty() || dst.empty() || src == dst) return CR_RESAMPLING_ERROR;
    if (!IsResizerType(resizerType)) return CR_RESAMPLING_ERROR;

    long warnings = 0;
    int result = 0;
    {
        ThumbnailSearch t;
        result = WriteEmbeddedThumbnail(t, src, dst);
        warnings = t.err.pub.num_warnings;
    }
    if (result == kThumbnailNotWritten) {
        Trace("Call ConvertFile (not thumbnali)");
        return ConvertFile(src, dst, size, quality, srcWidth, srcHeight, hash, hashType,
                           resizerType, true);
    }
    if (result != CR_OK) return result;
    if (warnings == 0) {
        Trace("ConvertFile ok");
        return CR_OK;
    }
    Trace("ConvertFile warnings");
    return CR_JPEG_WARNINGS;
}

}  // namespace Varnelo
