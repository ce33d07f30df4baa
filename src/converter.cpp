#include "converter.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "crc32.h"
#include "fsutils.h"
#include "jpeg_boundary.h"
#include "line_source.h"
#include "log.h"
#include "md5.h"
#include "processor_pool.h"

namespace Varnelo {

namespace {

// Failure texts logged at level 10 when a conversion gives up.
const char kLibraryFault[] = "IJG decompression error";
const char kHeaderFault[] = "Error in jpeg_read_header";

// The bounds of the requested size and quality, and of each side of a result.
const int kMinSize = 32;
const int kMaxSize = 65536;
const int kMaxQuality = 100;
const int kMinDimension = 8;
// A source's hash covers this many bytes at its end.
const int kHashedTailBytes = 2048;

// The result that tells ConvertFileThumbnail to fall back to a full conversion.
const int kThumbnailNotWritten = -1;

void Trace(const std::string& text) { log.Put(text, 14); }

// The end of a conversion that failed with only the source open, or that the decoder would not
// start on, or that found the source small enough. The decoders and files are released by their
// owners as the conversion returns.
int CloseSource(int result) {
    Trace("Close input file");
    return result;
}

int SourceFault(const char* text) {
    log.Put(text, 10);
    return CloseSource(CR_RESAMPLING_ERROR);
}

// A fault once the header has been read, in the decoder or the encoder. A destination file
// already written stays on disk, closed.
int ConversionFault(JpegWriter& writer) {
    log.Put(kLibraryFault, 10);
    Trace("Close output file");
    writer.Close();
    return CloseSource(CR_RESAMPLING_ERROR);
}

struct Size {
    int width;
    int height;
};

// The longer side becomes `size`, the other in proportion (truncated), neither below 8. The
// products are taken in 64 bits so that sources wider than 32768 pixels keep their proportions.
Size FitInto(int srcw, int srch, int size) {
    Size dst = {srcw, srch};
    if (srcw < srch && srch > size) {
        dst.height = size;
        dst.width = static_cast<int>(static_cast<int64_t>(srcw) * size / srch);
    } else if (srcw > size) {
        dst.width = size;
        dst.height = static_cast<int>(static_cast<int64_t>(srch) * size / srcw);
    }
    dst.width = std::max(dst.width, kMinDimension);
    dst.height = std::max(dst.height, kMinDimension);
    return dst;
}

// The hashes a conversion can report: what computes each and the prefix that names it.
struct HashKind {
    HashType type;
    const char* prefix;
    std::unique_ptr<Hash> (*make)();
};

template <typename Algorithm>
std::unique_ptr<Hash> MakeHash() {
    return std::make_unique<Algorithm>();
}

const HashKind kHashes[] = {
    {HASH_CRC32, "S1|", MakeHash<CRC32>},
    {HASH_MD5, "S2|", MakeHash<MD5>},
};

// The hash text of the source's last 2048 bytes: the prefix of its kind and the hexadecimal
// digits, the prefix alone when the file cannot be read, "" for a type with no hash.
std::string SourceHash(const std::string& src, HashType hashType) {
    Trace("Calculate hash");
    for (const HashKind& kind : kHashes) {
        if (kind.type != hashType) continue;
        std::unique_ptr<Hash> hash = kind.make();
        const bool hashed = hash->File(src.c_str(), Hash::FROM_END, kHashedTailBytes);
        return kind.prefix + (hashed ? hash->GetResultString() : std::string());
    }
    return std::string();
}

// The end of a conversion that wrote its destination whole.
int Finished(long warnings) {
    if (warnings == 0) {
        Trace("ConvertFile ok");
        return CR_OK;
    }
    Trace("ConvertFile warnings");
    return CR_JPEG_WARNINGS;
}

// Decodes, scales and encodes every line: the resizer takes the source lines as the line
// source gives them, and the encoder its lines as they come out. False on a fault of either
// library object, logged by its hook.
bool ConvertLines(LineSource& lines, JpegWriter& writer, CResizer& resizer, int srcw, int srch,
                  const Size& out) {
    DecoderRow row(srcw);
    const std::vector<CPixel> blackRow(static_cast<size_t>(out.width));
    return PumpLines(
        resizer, srcw, srch, out.height, row.Get(), blackRow.data(),
        [&lines](CPixel* line) { return lines.ReadLine(line); },
        [&writer](const CPixel* line) { return writer.WriteLine(line); },
        [] { Trace("Resizer not another output line"); });
}

// Finds the thumbnail embedded in the source's EXIF block and writes it to `dst` as it is.
// Returns CR_OK when it was written (with the decoder's warning count in `warnings`),
// kThumbnailNotWritten when the caller should convert the image instead, or a failure.
int WriteEmbeddedThumbnail(const std::string& src, const std::string& dst, long& warnings) {
    JpegReader reader;
    if (!reader.Open(src)) {
        log.Put("Open input file error: " + src, 5);
        return CR_FILE_NOT_FOUND;
    }
    Trace("Open file ok");
    // A fault before the header has been read is left to the hook's own log line.
    int header = 0;
    if (!reader.CreateStdio(JCOPYOPT_ALL)) return CloseSource(CR_RESAMPLING_ERROR);
    Trace("jpeg_read_header");
    if (!reader.ReadHeader(header) || header != JPEG_HEADER_OK) {
        return CloseSource(CR_RESAMPLING_ERROR);
    }

    Trace("jpeg_start_decompress");
    bool started = false;
    if (!reader.Start(started)) return SourceFault(kLibraryFault);

    Trace("jthumbnail");
    char* thumbnail = nullptr;
    unsigned int length = 0;
    bool written = false;
    if (jthumbnail(&reader.Info(), &thumbnail, &length) != 0) {
        Trace("Thumbnail available");
        Trace("thumbnail_length=" + std::to_string(length));
        File out(std::fopen(dst.c_str(), "wb"));
        if (!out) {
            log.Put("Open output file error: " + dst, 5);
        } else {
            // The result of the write is not checked: the thumbnail counts as written.
            Trace("Write output file");
            std::fwrite(thumbnail, 1, length, out.get());
            Trace("Close output file");
            out.reset();
            written = true;
        }
    } else {
        Trace("Thumbnail not available");
    }

    // The image data is never read, so the decompression is not finished.
    warnings = reader.Warnings();
    return CloseSource(written ? CR_OK : kThumbnailNotWritten);
}

}  // namespace

int ConvertFile(const std::string& src, const std::string& dst, int size, int quality,
                int& srcWidth, int& srcHeight, std::string& hash, HashType hashType,
                TypeOfResizer resizerType, bool omitEXIF) {
    if (src.empty() || dst.empty() || src == dst) return CR_RESAMPLING_ERROR;
    // An unknown resizer is refused before any file is opened.
    const char* resizerName = ResizerName(resizerType);
    if (resizerName == nullptr) return CR_RESAMPLING_ERROR;
    const HeldProcessor processor;  // the one this conversion runs on
    size = std::min(std::max(size, kMinSize), kMaxSize);
    quality = std::min(std::max(quality, 0), kMaxQuality);
    const JCOPY_OPTION copy = omitEXIF ? JCOPYOPT_NONE : JCOPYOPT_ALL;

    const File source(std::fopen(src.c_str(), "rb"));
    if (!source) {
        log.Put("Open input file error: " + src, 5);
        return CR_FILE_NOT_FOUND;
    }
    Trace("Open input file ok");
    const int descriptor = fileno(source.get());
    auto reader = std::make_unique<JpegReader>();
    if (!reader->CreateBuffered(copy, descriptor)) return SourceFault(kLibraryFault);
    Trace("jpeg_read_header");
    int header = 0;
    if (!reader->ReadHeader(header)) return SourceFault(kLibraryFault);
    if (header != JPEG_HEADER_OK) return SourceFault(kHeaderFault);
    reader->DecodeToRgb();
    // The decoder is read at full size, so the header's size is the decoded one.
    const jpeg_decompress_struct& head = reader->Info();
    const bool reduces =
        FitInto(static_cast<int>(head.image_width), static_cast<int>(head.image_height), size)
            .width != static_cast<int>(head.image_width);
    const std::unique_ptr<LineSource> lines =
        ChooseLineSource(std::move(reader), descriptor, copy, reduces);

    JpegWriter writer;
    Trace("jpeg_start_decompress");
    bool started = false;
    if (!lines->Start(started)) return ConversionFault(writer);
    if (!started) return CloseSource(CR_RESAMPLING_ERROR);

    const int srcw = static_cast<int>(lines->Info().output_width);
    const int srch = static_cast<int>(lines->Info().output_height);
    srcWidth = srcw;
    srcHeight = srch;
    const Size out = FitInto(srcw, srch, size);
    Trace("  dstw=" + ToString(out.width));
    Trace("  dsth=" + ToString(out.height));
    Trace("  srcw=" + ToString(srcw));
    Trace("  srch=" + ToString(srch));
    // Only the widths are compared: a source as wide as the result is left alone even when
    // its height would shrink.
    if (out.width == srcw) return CloseSource(CR_LESS_THAN_REQUESTED);

    if (!writer.Open(dst)) {
        log.Put("Open output file error: " + dst, 5);
        return CR_CREATE_DEST_ERROR;
    }
    Trace("Open output file ok");
    if (!writer.Create()) return ConversionFault(writer);
    Trace("jpeg_copy_critical_parameters");
    if (!writer.CopyCriticalParameters(lines->Info())) return ConversionFault(writer);

    Trace(std::string("Create ") + resizerName);
    std::unique_ptr<CResizer> resizer =
        CreateResizer(resizerType, srcw, srch, out.width, out.height);
    Trace("Create resizer ok");

    Trace("jpeg_start_compress");
    if (!writer.Start(out.width, out.height, quality)) return ConversionFault(writer);
    Trace("jcopy_markers_execute");
    if (!writer.WriteMarkers(lines->Info(), copy)) return ConversionFault(writer);

    Trace("Resizing...");
    if (!ConvertLines(*lines, writer, *resizer, srcw, srch, out)) return ConversionFault(writer);
    Trace("Delete resizer");
    resizer.reset();

    Trace("Close output file");
    if (!writer.Finish()) return ConversionFault(writer);
    writer.Close();
    Trace("Close input file");
    if (!lines->Finish()) return ConversionFault(writer);
    const long warnings = lines->Warnings() + writer.Warnings();

    hash = SourceHash(src, hashType);
    return Finished(warnings);
}

int ConvertFileThumbnail(const std::string& src, const std::string& dst, int size, int quality,
                         int& srcWidth, int& srcHeight, std::string& hash, HashType hashType,
                         TypeOfResizer resizerType) {
    if (src.empty() || dst.empty() || src == dst) return CR_RESAMPLING_ERROR;
    if (ResizerName(resizerType) == nullptr) return CR_RESAMPLING_ERROR;

    long warnings = 0;
    const int result = WriteEmbeddedThumbnail(src, dst, warnings);
    if (result == kThumbnailNotWritten) {
        // Misspelt, and kept so: it is the text this step has always logged, and log readers
        // match it.
        Trace("Call ConvertFile (not thumbnali)");
        return ConvertFile(src, dst, size, quality, srcWidth, srcHeight, hash, hashType,
                           resizerType, true);
    }
    if (result != CR_OK) return result;
    return Finished(warnings);
}

}  // namespace Varnelo
