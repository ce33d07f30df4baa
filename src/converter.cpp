#include "converter.h"

#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <system_error>
#include <thread>
#include <vector>

// jpeglib.h needs size_t and FILE declared before it.
#include <jpeglib.h>

#include "crc32.h"
#include "exif.h"
#include "fsutils.h"
#include "log.h"
#include "md5.h"
#include "pixel.h"
#include "thread.h"

namespace Varnelo {

namespace {

// Failure texts logged at level 10 when a conversion gives up.
const char kLibraryFault[] = "IJG decompression error";
const char kHeaderFault[] = "Error in jpeg_read_header";

const int kMinSize = 32;
const int kMaxSize = 65536;
const int kMinDimension = 8;
const int kHashedTailBytes = 2048;

// The library buffers a whole image's coefficients for progressive and multi-scan files, and a
// file of a few kilobytes can declare an image of gigapixels. A real photo's coefficients stay
// within a multiple of its compressed size, so the library may use a base that any ordinary
// photo fits in plus that multiple of the source file's size; past it the library faults at
// once instead of exhausting the machine. The encoder never buffers a whole image.
const long kMemoryBase = 256L << 20;
const long kMemoryPerSourceByte = 64;

// The result that tells ConvertFileThumbnail to fall back to a full conversion.
const int kThumbnailNotWritten = -1;

// The decoded lines in flight between the decoding and the scaling thread of a conversion.
const size_t kRelayBytes = 512 << 10;

std::atomic<int> g_overlap{CONVERT_OVERLAP_AUTO};
// Conversions running in this process, for CONVERT_OVERLAP_AUTO.
std::atomic<int> g_running{0};

class RunningConversion {
  public:
    RunningConversion() { ++g_running; }
    ~RunningConversion() { --g_running; }
    RunningConversion(const RunningConversion&) = delete;
    RunningConversion& operator=(const RunningConversion&) = delete;
};

// The processors this process may run on (its affinity mask, which a container or taskset may
// narrow), or the processors online when that cannot be read.
int UsableProcessors() {
#if defined(__linux__)
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof set, &set) == 0 && CPU_COUNT(&set) > 0) return CPU_COUNT(&set);
#endif
    return GetNumOfCores();
}

// Whether the conversion about to scale its lines should decode on one thread and scale and
// encode on another. Counting itself, it overlaps only while every running conversion can
// have a processor to itself and one is left over.
bool Overlaps() {
    static const int cores = UsableProcessors();
    switch (g_overlap.load()) {
        case CONVERT_OVERLAP_NEVER:
            return false;
        case CONVERT_OVERLAP_ALWAYS:
            return true;
        default:
            return g_running.load() < cores;
    }
}

void Trace(const std::string& text) { log.Put(text, 14); }

// The library's standard error manager, with the jump point of the guarded call that is
// running on its object (null between calls).
struct JpegErrorManager {
    jpeg_error_mgr pub;  // what the library object's `err` points at
    std::jmp_buf* jump = nullptr;
};

void InitErrorManager(JpegErrorManager& err) {
    jpeg_std_error(&err.pub);
    err.pub.error_exit = custom_error_exit;
}

// Runs `call`, one call into the JPEG library, with a jump point for its faults: true when it
// returned, false when the library faulted and custom_error_exit jumped back here.
// This is the only place where the library leaves a frame other than by returning, so the rule
// that makes that safe lives here: between this jump point and the fault there are only the
// library's own frames and `call`, a lambda that captures by reference and owns nothing, so no
// destructor is ever skipped. Every caller is ordinary C++.
template <typename Call>
[[gnu::noinline]] bool Guarded(JpegErrorManager& err, const Call& call) {
    std::jmp_buf jump;
    err.jump = &jump;
    const bool returned = setjmp(jump) == 0;
    if (returned) call();
    err.jump = nullptr;
    return returned;
}

struct FileCloser {
    void operator()(FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<FILE, FileCloser>;

long MemoryCap(FILE* file) {
    struct stat info;
    const long size = fstat(fileno(file), &info) == 0 && info.st_size > 0 ? info.st_size : 0;
    if (size > (LONG_MAX - kMemoryBase) / kMemoryPerSourceByte) return LONG_MAX;
    return kMemoryBase + size * kMemoryPerSourceByte;
}

// What the decoding and the encoding side of a conversion share: the library object with its
// error manager, and the file. Close (and the destructor) destroys the object and closes the
// file; after a fault the object is only good for that.
template <typename Object, void (*Destroy)(Object*)>
class JpegSide {
  public:
    JpegSide() {
        InitErrorManager(m_err);
        m_object.err = &m_err.pub;
    }
    ~JpegSide() { Close(); }
    JpegSide(const JpegSide&) = delete;
    JpegSide& operator=(const JpegSide&) = delete;

    void Close() {
        if (m_created) Destroy(&m_object);
        m_created = false;
        m_file.reset();
    }
    Object& Info() { return m_object; }
    long Warnings() const { return m_err.pub.num_warnings; }

  protected:
    // False when the file cannot be opened in `mode`.
    bool OpenFile(const std::string& path, const char* mode) {
        m_file.reset(std::fopen(path.c_str(), mode));
        return m_file != nullptr;
    }
    // Every call into the library goes through here.
    template <typename Call>
    bool Guard(const Call& call) {
        return Guarded(m_err, call);
    }

    JpegErrorManager m_err;
    Object m_object{};
    bool m_created = false;  // destroying a half-created object is harmless
    File m_file;
};

// The decoding side: the source file and the decompressor. Every member that calls into the
// library returns false when the library faulted.
class JpegReader : public JpegSide<jpeg_decompress_struct, jpeg_destroy_decompress> {
  public:
    // False when the file cannot be opened for reading.
    bool Open(const std::string& path) { return OpenFile(path, "rb"); }
    // Creates the decompressor on the open file, keeping in memory the segments `copy` names.
    bool Create(JCOPY_OPTION copy) {
        m_created = true;
        return Guard([&] {
            jpeg_create_decompress(&m_object);
            m_object.mem->max_memory_to_use = MemoryCap(m_file.get());
            jpeg_stdio_src(&m_object, m_file.get());
            jcopy_markers_setup(&m_object, copy);
        });
    }
    bool ReadHeader(int& result) {
        return Guard([&] { result = jpeg_read_header(&m_object, TRUE); });
    }
    // Asks for RGB lines, at full size and with the library's default DCT method.
    void DecodeToRgb() {
        m_object.out_color_space = JCS_RGB;
        m_object.output_components = 3;
    }
    bool Start(bool& started) {
        return Guard([&] { started = jpeg_start_decompress(&m_object) != FALSE; });
    }
    bool ReadLine(CPixel* row) {
        JSAMPROW rows[1] = {reinterpret_cast<JSAMPROW>(row)};
        return Guard([&] { jpeg_read_scanlines(&m_object, rows, 1); });
    }
    bool Finish() {
        return Guard([&] { jpeg_finish_decompress(&m_object); });
    }
};

// The encoding side: the destination file and the compressor, with the same conventions.
// Encoder faults (a full disk among them) fail the one image like decoder faults.
class JpegWriter : public JpegSide<jpeg_compress_struct, jpeg_destroy_compress> {
  public:
    // False when the file cannot be created.
    bool Open(const std::string& path) { return OpenFile(path, "wb"); }
    // Creates the compressor on the open file.
    bool Create() {
        m_created = true;
        return Guard([&] {
            jpeg_create_compress(&m_object);
            m_object.mem->max_memory_to_use = kMemoryBase;
            jpeg_stdio_dest(&m_object, m_file.get());
        });
    }
    bool CopyCriticalParameters(JpegReader& source) {
        return Guard([&] { jpeg_copy_critical_parameters(&source.Info(), &m_object); });
    }
    // Starts a baseline image of RGB lines at `quality`. The colour space is the one
    // jpeg_set_defaults derives from the source's (greyscale stays greyscale, colour becomes
    // YCbCr); the source's quantisation tables are replaced. No JFIF header of the encoder's
    // own: the source's, if any, is copied with the other segments.
    bool Start(int width, int height, int quality) {
        return Guard([&] {
            m_object.image_width = static_cast<JDIMENSION>(width);
            m_object.image_height = static_cast<JDIMENSION>(height);
            jpeg_set_defaults(&m_object);
            jpeg_set_quality(&m_object, quality, TRUE);
            m_object.write_JFIF_header = FALSE;
            m_object.input_components = 3;
            m_object.in_color_space = JCS_RGB;
            jpeg_start_compress(&m_object, TRUE);
        });
    }
    bool WriteMarkers(JpegReader& source, JCOPY_OPTION copy) {
        return Guard([&] { jcopy_markers_execute(&source.Info(), &m_object, copy); });
    }
    bool WriteLine(const CPixel* row) {
        // The library only reads the row.
        JSAMPROW rows[1] = {reinterpret_cast<JSAMPROW>(const_cast<CPixel*>(row))};
        return Guard([&] { jpeg_write_scanlines(&m_object, rows, 1); });
    }
    bool Finish() {
        return Guard([&] { jpeg_finish_compress(&m_object); });
    }
};

// Maps the pages of a fresh buffer in one call, before its first lines are written into them
// one page fault at a time; on virtual machines a fault costs as much as decoding part of a
// line. Where the system cannot, the pages are faulted in as before.
void Prefault(void* buffer, size_t bytes) {
#ifdef MADV_POPULATE_WRITE
    const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(buffer) + page - 1) / page * page;
    const uintptr_t end = (reinterpret_cast<uintptr_t>(buffer) + bytes) / page * page;
    if (end > begin) {
        madvise(reinterpret_cast<void*>(begin), end - begin, MADV_POPULATE_WRITE);
    }
#else
    (void)buffer;
    (void)bytes;
#endif
}

// Hands decoded source lines from the thread that decodes them to the thread that scales and
// encodes them, through a ring of line buffers of width + 2 pixels (PumpRows pads them).
// Scaling and encoding a line takes a fraction of the time its decoding does, so the scaler
// polls: when it has caught up it sleeps for about the time a few lines take to decode. The
// decoder thus never pays for waking it, which on virtual machines costs about as much as
// decoding a line; it only sleeps itself in the rare case that the ring is full. Either side
// may end the hand-over early.
// Threads: one producer calls Free, Publish and Finish; one consumer calls Next and Stop.
class LineRelay {
  public:
    explicit LineRelay(int width)
        : m_stride(static_cast<size_t>(width) + 2),
          m_slots(static_cast<int64_t>(
              std::min<size_t>(64, std::max<size_t>(8, kRelayBytes / (3 * m_stride))))),
          m_bytes(new unsigned char[3 * m_stride * static_cast<size_t>(m_slots)]) {
        Prefault(m_bytes.get(), 3 * m_stride * static_cast<size_t>(m_slots));
    }
    LineRelay(const LineRelay&) = delete;
    LineRelay& operator=(const LineRelay&) = delete;

    // A buffer for the next line, once one is free; null when the consumer has stopped.
    CPixel* Free() {
        while (m_published - m_released.load(std::memory_order_acquire) == m_slots) {
            if (m_state.load(std::memory_order_acquire) == STOPPED) return nullptr;
            Pause();
        }
        return m_state.load(std::memory_order_acquire) == STOPPED ? nullptr : Slot(m_published);
    }
    // The buffer from Free holds the next line.
    void Publish() { m_publishedShared.store(++m_published, std::memory_order_release); }
    // No more lines will come; `complete` when every line came.
    void Finish(bool complete) {
        m_state.store(complete ? COMPLETE : FAILED, std::memory_order_release);
    }
    // Releases the line taken last and takes the next one, once it is there; null when the
    // producer finished without it or failed.
    CPixel* Next() {
        m_released.store(m_taken, std::memory_order_release);
        for (;;) {
            // The state is read before the count, so a COMPLETE seen here covers every line.
            const int state = m_state.load(std::memory_order_acquire);
            if (state == FAILED) return nullptr;
            if (m_taken < m_publishedShared.load(std::memory_order_acquire)) break;
            if (state == COMPLETE) return nullptr;
            Pause();
        }
        return Slot(m_taken++);
    }
    // Takes no more lines: the producer's next Free returns null.
    void Stop() { m_state.store(STOPPED, std::memory_order_release); }

  private:
    enum State { RUNNING, COMPLETE, FAILED, STOPPED };

    static void Pause() { std::this_thread::sleep_for(std::chrono::microseconds(200)); }
    // Rows are scanlines, written by the library as bytes (like every CPixel row).
    CPixel* Slot(int64_t line) {
        return reinterpret_cast<CPixel*>(
            &m_bytes[3 * m_stride * static_cast<size_t>(line % m_slots)]);
    }

    const size_t m_stride;
    const int64_t m_slots;
    std::unique_ptr<unsigned char[]> m_bytes;  // left uninitialised, so untouched until Prefault
    int64_t m_published = 0;                   // the producer's own count of lines filled
    int64_t m_taken = 0;                       // the consumer's own count of lines taken
    std::atomic<int64_t> m_publishedShared{0};
    std::atomic<int64_t> m_released{0};  // lines the consumer is done with: all taken but the last
    std::atomic<int> m_state{RUNNING};
};

// The lines of a conversion, decoded, scaled and encoded on this thread.
bool PumpSerial(JpegReader& reader, JpegWriter& writer, CResizer& resizer, int srcw, int srch,
                int dsth, const CPixel* blackRow) {
    std::vector<CPixel> srcRow(static_cast<size_t>(srcw) + 2);
    return PumpLines(
        resizer, srcw, srch, dsth, srcRow.data(), blackRow,
        [&reader](CPixel* row) { return reader.ReadLine(row); },
        [&writer](const CPixel* row) { return writer.WriteLine(row); },
        [] { Trace("Resizer not another output line"); });
}

// The lines of a conversion, decoded on this thread while a second one scales and encodes those
// already decoded; each library object is used by one of the two threads only. Does it all on
// this thread when no second thread can be had.
bool PumpOverlapped(JpegReader& reader, JpegWriter& writer, CResizer& resizer, int srcw, int srch,
                    int dsth, const CPixel* blackRow) {
    LineRelay relay(srcw);
    bool written = false;
    std::exception_ptr failure;
    std::thread scaler;
    try {
        scaler = std::thread([&] {
            try {
                written = PumpRows(
                    resizer, srcw, srch, dsth, blackRow, [&relay] { return relay.Next(); },
                    [&writer](const CPixel* row) { return writer.WriteLine(row); },
                    [] { Trace("Resizer not another output line"); });
            } catch (...) {
                failure = std::current_exception();  // allocation failure, rethrown below
            }
            relay.Stop();
        });
    } catch (const std::system_error&) {
        return PumpSerial(reader, writer, resizer, srcw, srch, dsth, blackRow);
    }
    bool read = true;
    for (int y = 0; y < srch && read; ++y) {
        CPixel* row = relay.Free();
        if (row == nullptr) break;  // the scaler stopped: the encoder faulted
        read = reader.ReadLine(row);
        if (read) relay.Publish();
    }
    relay.Finish(read);
    scaler.join();
    if (failure) std::rethrow_exception(failure);
    return read && written;
}

// A fault while only the source is open.
int SourceFault(JpegReader& reader, const char* text) {
    log.Put(text, 10);
    Trace("Close input file");
    reader.Close();
    return CR_RESAMPLING_ERROR;
}

// A fault once the header has been read, in the decoder or the encoder. A destination file
// already written stays on disk, closed.
int ConversionFault(JpegReader& reader, JpegWriter& writer) {
    log.Put(kLibraryFault, 10);
    Trace("Close output file");
    writer.Close();
    Trace("Close input file");
    reader.Close();
    return CR_RESAMPLING_ERROR;
}

// A source already within the requested size, or one the decoder would not start on.
int CloseSource(JpegReader& reader, int result) {
    Trace("Close input file");
    reader.Close();
    return result;
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
    if (!reader.Create(JCOPYOPT_ALL)) return CloseSource(reader, CR_RESAMPLING_ERROR);
    Trace("jpeg_read_header");
    if (!reader.ReadHeader(header) || header != JPEG_HEADER_OK) {
        return CloseSource(reader, CR_RESAMPLING_ERROR);
    }

    Trace("jpeg_start_decompress");
    bool started = false;
    if (!reader.Start(started)) return SourceFault(reader, kLibraryFault);

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
    return CloseSource(reader, written ? CR_OK : kThumbnailNotWritten);
}

}  // namespace

void custom_error_exit(jpeg_common_struct* cinfo) {
    // Whether the manager's message hook is set; jpeg_std_error always sets it. The library's
    // own text is deliberately not fetched: the log shows this line for every fault.
    const bool hasOutputMessage = cinfo->err->output_message != nullptr;
    log.Put("custom_error_exit (" + ToString(hasOutputMessage ? 1 : 0) + ")", 10);
    std::jmp_buf* jump = reinterpret_cast<JpegErrorManager*>(cinfo->err)->jump;
    if (jump == nullptr) std::abort();  // a library call made outside Guarded
    std::longjmp(*jump, 1);
}

void SetConvertOverlap(ConvertOverlap mode) { g_overlap.store(mode); }

int ConvertFile(const std::string& src, const std::string& dst, int size, int quality,
                int& srcWidth, int& srcHeight, std::string& hash, HashType hashType,
                TypeOfResizer resizerType, bool omitEXIF) {
    const RunningConversion running;
    if (src.empty() || dst.empty() || src == dst) return CR_RESAMPLING_ERROR;
    // An unknown resizer is refused before any file is opened.
    const char* resizerName = ResizerName(resizerType);
    if (resizerName == nullptr) return CR_RESAMPLING_ERROR;
    size = std::min(std::max(size, kMinSize), kMaxSize);
    quality = std::min(std::max(quality, 0), 100);
    const JCOPY_OPTION copy = omitEXIF ? JCOPYOPT_NONE : JCOPYOPT_ALL;

    JpegReader reader;
    if (!reader.Open(src)) {
        log.Put("Open input file error: " + src, 5);
        return CR_FILE_NOT_FOUND;
    }
    Trace("Open input file ok");
    if (!reader.Create(copy)) return SourceFault(reader, kLibraryFault);
    Trace("jpeg_read_header");
    int header = 0;
    if (!reader.ReadHeader(header)) return SourceFault(reader, kLibraryFault);
    if (header != JPEG_HEADER_OK) return SourceFault(reader, kHeaderFault);

    JpegWriter writer;
    reader.DecodeToRgb();
    Trace("jpeg_start_decompress");
    bool started = false;
    if (!reader.Start(started)) return ConversionFault(reader, writer);
    if (!started) return CloseSource(reader, CR_RESAMPLING_ERROR);

    const int srcw = static_cast<int>(reader.Info().output_width);
    const int srch = static_cast<int>(reader.Info().output_height);
    srcWidth = srcw;
    srcHeight = srch;
    const Size out = FitInto(srcw, srch, size);
    Trace("  dstw=" + ToString(out.width));
    Trace("  dsth=" + ToString(out.height));
    Trace("  srcw=" + ToString(srcw));
    Trace("  srch=" + ToString(srch));
    // Only the widths are compared: a source as wide as the result is left alone even when
    // its height would shrink.
    if (out.width == srcw) return CloseSource(reader, CR_LESS_THAN_REQUESTED);

    if (!writer.Open(dst)) {
        log.Put("Open output file error: " + dst, 5);
        reader.Close();
        return CR_CREATE_DEST_ERROR;
    }
    Trace("Open output file ok");
    if (!writer.Create()) return ConversionFault(reader, writer);
    Trace("jpeg_copy_critical_parameters");
    if (!writer.CopyCriticalParameters(reader)) return ConversionFault(reader, writer);

    Trace(std::string("Create ") + resizerName);
    std::unique_ptr<CResizer> resizer =
        CreateResizer(resizerType, srcw, srch, out.width, out.height);
    Trace("Create resizer ok");

    Trace("jpeg_start_compress");
    if (!writer.Start(out.width, out.height, quality)) return ConversionFault(reader, writer);
    Trace("jcopy_markers_execute");
    if (!writer.WriteMarkers(reader, copy)) return ConversionFault(reader, writer);

    Trace("Resizing...");
    std::vector<CPixel> blackRow(static_cast<size_t>(out.width));
    const auto pump = Overlaps() ? PumpOverlapped : PumpSerial;
    if (!pump(reader, writer, *resizer, srcw, srch, out.height, blackRow.data())) {
        return ConversionFault(reader, writer);
    }
    Trace("Delete resizer");
    resizer.reset();
    std::vector<CPixel>().swap(blackRow);

    Trace("Close output file");
    if (!writer.Finish()) return ConversionFault(reader, writer);
    writer.Close();
    Trace("Close input file");
    if (!reader.Finish()) return ConversionFault(reader, writer);
    reader.Close();

    hash = SourceHash(src, hashType);
    return Finished(reader.Warnings() + writer.Warnings());
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
