#include "converter.h"

#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <mutex>
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

std::atomic<int> g_mode{CONVERT_THREADS_AUTO};
std::atomic<int> g_bands{2};

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

// The usable processors, shared out among the conversions of the process: a conversion holds
// one while it runs and waits for one while all are held, so that the pool's spare worker never
// makes two conversions share a processor; helper threads hold one more each, taken only when
// idle and no conversion waits, and give it back as they end.
// Threads: any.
class ProcessorPool {
  public:
    explicit ProcessorPool(int count) : m_idle(count) {}
    ProcessorPool(const ProcessorPool&) = delete;
    ProcessorPool& operator=(const ProcessorPool&) = delete;

    void TakeOne() {
        std::unique_lock<std::mutex> lock(m_mutex);
        ++m_waiting;
        m_released.wait(lock, [this] { return m_idle > 0; });
        --m_waiting;
        --m_idle;
    }
    // Up to `wanted` idle processors, without waiting; none while a conversion waits for one,
    // since a helper would spend it on work that only a lone conversion gains from.
    int TakeIdle(int wanted) {
        std::lock_guard<std::mutex> lock(m_mutex);
        const int taken = m_waiting > 0 ? 0 : std::max(0, std::min(wanted, m_idle));
        m_idle -= taken;
        return taken;
    }
    void Give(int count) {
        if (count <= 0) return;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_idle += count;
        }
        m_released.notify_all();
    }

  private:
    std::mutex m_mutex;
    std::condition_variable m_released;
    int m_idle;
    int m_waiting = 0;
};

ProcessorPool& Processors() {
    static ProcessorPool pool(UsableProcessors());
    return pool;
}

// Processors taken from the pool, given back when the holder goes; Split hands some of them to
// another holder.
class HeldProcessors {
  public:
    explicit HeldProcessors(int count = 0) : m_count(count) {}
    ~HeldProcessors() { Processors().Give(m_count); }
    HeldProcessors(const HeldProcessors&) = delete;
    HeldProcessors& operator=(const HeldProcessors&) = delete;

    int Count() const { return m_count; }
    void Add(int count) { m_count += count; }
    // Takes up to `count` away from this holder, for another one.
    int Split(int count) {
        count = std::max(0, std::min(count, m_count));
        m_count -= count;
        return count;
    }
    // Gives back all but `count`.
    void Keep(int count) { Processors().Give(Split(m_count - count)); }

  private:
    int m_count;
};

// The helper threads of one conversion, joined when the owner goes (or at Join), whatever path
// the conversion leaves by. Declared after everything the threads use, so that it goes first.
class HelperThreads {
  public:
    HelperThreads() = default;
    ~HelperThreads() { Join(); }
    HelperThreads(const HelperThreads&) = delete;
    HelperThreads& operator=(const HelperThreads&) = delete;

    // False when the system has no thread to give.
    template <typename Body>
    bool Start(Body&& body) {
        try {
            m_threads.emplace_back(std::forward<Body>(body));
            return true;
        } catch (const std::system_error&) {
            return false;
        }
    }
    void Join() {
        for (std::thread& thread : m_threads) thread.join();
        m_threads.clear();
    }

  private:
    std::vector<std::thread> m_threads;
};

void Trace(const std::string& text) { log.Put(text, 14); }

void LogHookLine(bool hasOutputMessage) {
    log.Put("custom_error_exit (" + ToString(hasOutputMessage ? 1 : 0) + ")", 10);
}

// The library's standard error manager, with the jump point of the guarded call that is
// running on its object (null between calls).
struct JpegErrorManager {
    jpeg_error_mgr pub;  // what the library object's `err` points at
    std::jmp_buf* jump = nullptr;
    // Faults are not logged by the hook: a banded conversion logs its one fault itself.
    bool quiet = false;
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
    if (setjmp(jump) != 0) {
        err.jump = nullptr;
        return false;
    }
    call();
    err.jump = nullptr;
    return true;
}

struct FileCloser {
    void operator()(FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<FILE, FileCloser>;

// The size of an open file, 0 when unknown.
long FileSize(FILE* file) {
    struct stat info;
    return fstat(fileno(file), &info) == 0 && info.st_size > 0 ? info.st_size : 0;
}

long MemoryCap(FILE* file) {
    const long size = FileSize(file);
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
    void SetQuiet(bool quiet) { m_err.quiet = quiet; }

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
    JpegReader() : m_printMessage(m_err.pub.output_message) {}

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
    // Passes over the next `lines` lines, decoding only what later lines depend on.
    bool Skip(int lines) {
        JDIMENSION skipped = 0;
        const bool returned = Guard(
            [&] { skipped = jpeg_skip_scanlines(&m_object, static_cast<JDIMENSION>(lines)); });
        return returned && skipped == static_cast<JDIMENSION>(lines);
    }
    long FileBytes() { return FileSize(m_file.get()); }
    // Progressive and other multi-scan files; valid once started.
    bool MultiScan() { return jpeg_has_multiple_scans(&m_object) != FALSE; }
    // The library prints the first warning of each decoder on the standard error stream; a
    // band's decoder prints nothing, or (the one that counts) carries on the count of the
    // decoder that read the header, as if it had met that decoder's warnings itself.
    void SilenceMessages() {
        m_err.pub.output_message = [](j_common_ptr) {};
    }
    void CarryOn(long warnings) {
        m_err.pub.output_message = m_printMessage;
        m_err.pub.num_warnings = warnings;
    }
    bool Finish() {
        return Guard([&] { jpeg_finish_decompress(&m_object); });
    }

  private:
    void (*m_printMessage)(j_common_ptr);
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

// Rows for the decoder to fill, of width + 2 pixels each (PumpRows pads them). The library
// writes a row that starts on a 32-byte boundary with non-temporal stores, which go around the
// cache, and the scaler reads every row right after it is written, from memory then: so every
// row here starts 16 bytes past such a boundary, and is written through the cache.
// The bytes are left uninitialised: the decoder writes every pixel before any is read.
class SourceRows {
  public:
    SourceRows(int width, size_t count)
        : m_stride((3 * (static_cast<size_t>(width) + 2) + kAlign - 1) / kAlign * kAlign),
          m_size(m_stride * count),
          m_bytes(new unsigned char[m_size + 2 * kAlign]),
          m_first(m_bytes.get() + (kAlign - reinterpret_cast<uintptr_t>(m_bytes.get()) % kAlign) +
                  kAlign / 2) {}
    SourceRows(const SourceRows&) = delete;
    SourceRows& operator=(const SourceRows&) = delete;

    CPixel* Row(size_t i) { return reinterpret_cast<CPixel*>(m_first + m_stride * i); }
    // The rows' bytes, all of them.
    unsigned char* Bytes() { return m_first; }
    size_t Size() const { return m_size; }

  private:
    static constexpr size_t kAlign = 32;
    const size_t m_stride;
    const size_t m_size;
    std::unique_ptr<unsigned char[]> m_bytes;
    unsigned char* const m_first;
};

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
        : m_slots(static_cast<int64_t>(std::min<size_t>(
              64, std::max<size_t>(8, kRelayBytes / (3 * (static_cast<size_t>(width) + 2)))))),
          m_rows(width, static_cast<size_t>(m_slots)) {
        Prefault(m_rows.Bytes(), m_rows.Size());
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
    CPixel* Slot(int64_t line) { return m_rows.Row(static_cast<size_t>(line % m_slots)); }

    const int64_t m_slots;
    SourceRows m_rows;        // untouched until Prefault
    int64_t m_published = 0;  // the producer's own count of lines filled
    int64_t m_taken = 0;      // the consumer's own count of lines taken
    std::atomic<int64_t> m_publishedShared{0};
    std::atomic<int64_t> m_released{0};  // lines the consumer is done with: all taken but the last
    std::atomic<int> m_state{RUNNING};
};

// The lines of a conversion, decoded, scaled and encoded on this thread.
bool PumpSerial(JpegReader& reader, JpegWriter& writer, CResizer& resizer, int srcw, int srch,
                int dsth, const CPixel* blackRow) {
    SourceRows srcRow(srcw, 1);
    return PumpLines(
        resizer, srcw, srch, dsth, srcRow.Row(0), blackRow,
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
    HelperThreads scaler;
    const bool started = scaler.Start([&] {
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
    if (!started) return PumpSerial(reader, writer, resizer, srcw, srch, dsth, blackRow);
    // Nothing below throws, so the scaler always sees the end of the lines before the join.
    bool read = true;
    for (int y = 0; y < srch && read; ++y) {
        CPixel* row = relay.Free();
        if (row == nullptr) break;  // the scaler stopped: the encoder faulted
        read = reader.ReadLine(row);
        if (read) relay.Publish();
    }
    relay.Finish(read);
    scaler.Join();
    if (failure) std::rethrow_exception(failure);
    return read && written;
}

// ---------------------------------------------------------------------------------------------
// Bands
//
// The decoder's work is a serial entropy decoding and, per line, the inverse DCT, upsampling
// and colour conversion. A second decoder can pass over the lines before its band, entropy
// decoding them only (jpeg_skip_scanlines), and reconstruct its band's lines while the first
// decoder reconstructs the lines above: each band's thread decodes and scales its own lines, and
// the conversion's own thread, which decodes and scales the first band, encodes them all in
// order. Passing over the earlier lines makes every decoder meet the same warnings and faults
// a whole decoding meets before its band; the last one meets all of them, so it alone counts
// and prints warnings, carrying on from the header read by the first. Band threads log nothing:
// a fault is logged once by the conversion.

// Passing over a line costs its entropy decoding, which grows with the compressed bytes, while
// decoding and scaling it adds the inverse DCT, upsampling, colour conversion and scaling, which
// grow with the pixels: a byte weighs about as much as 6.3 pixels, so passing over a line of a
// detailed photo of 3 bits a pixel costs about 0.7 of decoding it, of a plainer one less.
// A line of the first band costs this much more than one of the others, since the first band's
// thread also encodes it. So the first band is shorter by the encoding, and each later one by
// what its decoder passes over.
const double kPixelsPerByte = 6.3;
const double kEncodeShare = 0.03;
// A band decodes at least this many lines, so that its decoder's set-up stays small beside them
// (unless bands are asked for, as the tests do on small images).
const int kMinBandLines = 64;
// The lines of the bands after the first wait in memory until the encoder takes them.
const size_t kBandBufferBytes = 24 << 20;

// Destination lines [firstRow, endRow), scaled from source lines firstSource on.
struct Band {
    int firstRow;
    int endRow;
    int firstSource;
};

// The cost of passing over a line of the source relative to decoding and scaling it.
double SkipCost(long bytes, int srcw, int srch) {
    const double entropy = kPixelsPerByte * static_cast<double>(bytes);
    const double rest = srcw * static_cast<double>(srch);
    return std::min(0.9, std::max(0.2, entropy / (entropy + rest)));
}

// Up to `count` bands balanced for the cost s of passing over lines: band 0 ends at source
// fraction x1 = T / (1 + e), band k at x(k+1) = x(k) * (1 - s) + T, where T, the time of each
// band, is found so that the last ends at 1. Bands that would be too short are dropped.
std::vector<Band> PlanBands(const ReducerRows& rows, int srch, double skipCost, int count,
                            int minLines) {
    std::vector<Band> bands;
    if (rows.first.empty() || count < 2) return bands;
    const auto split = [&](double time, std::vector<double>* at) {
        double x = time / (1 + kEncodeShare);
        for (int k = 1; k < count; ++k) {
            if (at != nullptr) at->push_back(x);
            x = x * (1 - skipCost) + time;
        }
        return x;
    };
    double lo = 0, hi = 1 + kEncodeShare;  // one band would take 1 + e
    for (int i = 0; i < 50; ++i) {
        const double mid = (lo + hi) / 2;
        (split(mid, nullptr) < 1 ? lo : hi) = mid;
    }
    std::vector<double> at;
    split(hi, &at);
    const int dsth = static_cast<int>(rows.first.size());
    bands.push_back({0, dsth, 0});
    for (double x : at) {
        const int line = static_cast<int>(x * srch);
        const int row = static_cast<int>(
            std::lower_bound(rows.first.begin(), rows.first.end(), line) - rows.first.begin());
        if (row >= dsth || rows.first[row] - bands.back().firstSource < minLines) continue;
        bands.back().endRow = row;
        bands.push_back({row, dsth, rows.first[row]});
    }
    if (srch - bands.back().firstSource < minLines && bands.size() > 1) {
        bands.pop_back();
        bands.back().endRow = dsth;
    }
    if (bands.size() < 2) bands.clear();
    return bands;
}

// Decodes and scales one band: passes over the lines before it, then hands out its destination
// lines through emit(const CPixel*), which returns false to stop. The last band reads the image
// to its end, as the decoder must before it is finished. False when stopped or faulted.
template <typename Emit>
bool ScaleBand(JpegReader& reader, CResizer& resizer, const ReducerRows& rows, const Band& band,
               bool last, int srcw, int srch, const CPixel* blackRow, const std::atomic<bool>& stop,
               Emit&& emit) {
    if (band.firstSource > 0 && !reader.Skip(band.firstSource)) return false;
    resizer.StartAt(band.firstSource, band.firstRow);
    const int lines = (last ? srch : rows.ready[band.endRow - 1] + 1) - band.firstSource;
    SourceRows buffer(srcw, 1);
    CPixel* srcRow = buffer.Row(0);
    return PumpRows(
        resizer, srcw, lines, band.endRow - band.firstRow, blackRow,
        [&]() -> CPixel* {
            if (stop.load(std::memory_order_relaxed)) return nullptr;
            return reader.ReadLine(srcRow) ? srcRow : nullptr;
        },
        emit, [] {});
}

// One band after the first: its decoder, its resizer and its scaled lines, which its thread
// writes and the encoding thread reads as `ready` grows.
struct BandWork {
    enum State { RUNNING, DONE, FAILED };

    Band band;
    bool last = false;
    JpegReader reader;  // the band thread's until it ends; then the last is finished by the owner
    std::unique_ptr<CPixel[]> rows;
    std::atomic<int> ready{0};
    std::atomic<int> state{RUNNING};
    std::exception_ptr failure;
};

// A banded conversion's bands after the first and their threads.
// Threads: created and used by the conversion's thread; each BandWork is shared with its band's
// thread through `ready` and `state` only, until the threads are joined.
class BandedDecoder {
  public:
    BandedDecoder(const std::string& src, std::vector<Band> bands, ReducerRows rows, int srcw,
                  int srch, int dstw, int dsth, long headerWarnings, CResizer& firstResizer)
        : m_src(src),
          m_bands(std::move(bands)),
          m_rows(std::move(rows)),
          m_srcw(srcw),
          m_srch(srch),
          m_dstw(dstw),
          m_dsth(dsth),
          m_headerWarnings(headerWarnings),
          m_resizer0(firstResizer) {}
    BandedDecoder(const BandedDecoder&) = delete;
    BandedDecoder& operator=(const BandedDecoder&) = delete;

    // Decodes every band, writing the lines in order. The first band is decoded by `reader`,
    // which has started; `held` are processors to hand one each to the band threads. False when
    // a decoder or the encoder faulted (the fault is not logged yet).
    bool Pump(JpegReader& reader, JpegWriter& writer, HeldProcessors& held) {
        reader.SetQuiet(true);
        writer.SetQuiet(true);
        const bool ok = PumpQuietly(reader, writer, held);
        reader.SetQuiet(false);
        writer.SetQuiet(false);
        return ok;
    }

    // The decoder that has read every line, to be finished; the one whose warnings count.
    JpegReader& Last(JpegReader& reader) { return m_work.empty() ? reader : m_work.back()->reader; }

  private:
    bool PumpQuietly(JpegReader& reader, JpegWriter& writer, HeldProcessors& held) {
        for (size_t k = 1; k < m_bands.size(); ++k) {
            m_work.push_back(std::make_unique<BandWork>());
            BandWork& work = *m_work.back();
            work.band = m_bands[k];
            work.last = k + 1 == m_bands.size();
            work.rows.reset(new CPixel[static_cast<size_t>(work.band.endRow - work.band.firstRow) *
                                       static_cast<size_t>(m_dstw)]);
        }
        for (auto& work : m_work) {
            const int own = held.Split(1);
            if (!m_threads.Start([this, &work, own] { Run(*work, own); })) {
                Processors().Give(own);
                m_stop = true;
                m_threads.Join();
                m_work.clear();
                return Serial(reader, writer);
            }
        }
        reader.SilenceMessages();
        const std::vector<CPixel> black(static_cast<size_t>(m_dstw));
        bool ok =
            ScaleBand(reader, m_resizer0, m_rows, m_bands[0], false, m_srcw, m_srch, black.data(),
                      m_stop, [&writer](const CPixel* row) { return writer.WriteLine(row); });
        for (size_t k = 0; ok && k < m_work.size(); ++k) ok = Encode(*m_work[k], writer);
        if (!ok) m_stop = true;
        m_threads.Join();
        for (auto& work : m_work) {
            work->reader.SetQuiet(false);
            if (work->failure) std::rethrow_exception(work->failure);
            ok = ok && work->state.load() == BandWork::DONE;
        }
        return ok;
    }

    // The conversion's own decoder reads everything when no band thread can be had.
    bool Serial(JpegReader& reader, JpegWriter& writer) {
        const std::vector<CPixel> black(static_cast<size_t>(m_dstw));
        return PumpSerial(reader, writer, m_resizer0, m_srcw, m_srch, m_dsth, black.data());
    }

    // A band thread: opens its own decoder on the source and decodes and scales its band.
    void Run(BandWork& work, int processors) {
        const HeldProcessors held(processors);
        bool ok = false;
        try {
            std::unique_ptr<CResizer> resizer =
                CreateResizer(RESIZER_REDUCES, m_srcw, m_srch, m_dstw, m_dsth);
            CPixel* out = work.rows.get();
            const std::vector<CPixel> black(static_cast<size_t>(m_dstw));
            ok = OpenBand(work) &&
                 ScaleBand(work.reader, *resizer, m_rows, work.band, work.last, m_srcw, m_srch,
                           black.data(), m_stop, [&](const CPixel* row) {
                               std::copy(row, row + m_dstw, out);
                               out += m_dstw;
                               work.ready.fetch_add(1, std::memory_order_release);
                               return true;
                           });
        } catch (...) {
            work.failure = std::current_exception();  // allocation failure, rethrown by Pump
        }
        if (!ok) m_stop = true;
        work.state.store(ok ? BandWork::DONE : BandWork::FAILED, std::memory_order_release);
    }

    bool OpenBand(BandWork& work) {
        JpegReader& reader = work.reader;
        reader.SetQuiet(true);
        reader.SilenceMessages();
        int header = 0;
        bool started = false;
        if (!reader.Open(m_src) || !reader.Create(JCOPYOPT_NONE) || !reader.ReadHeader(header) ||
            header != JPEG_HEADER_OK) {
            return false;
        }
        reader.DecodeToRgb();
        if (!reader.Start(started) || !started || reader.MultiScan() ||
            static_cast<int>(reader.Info().output_width) != m_srcw ||
            static_cast<int>(reader.Info().output_height) != m_srch) {
            return false;
        }
        if (work.last) reader.CarryOn(m_headerWarnings);
        return true;
    }

    // Writes a band's lines as its thread makes them; false when the band or the encoder failed.
    bool Encode(BandWork& work, JpegWriter& writer) {
        const int count = work.band.endRow - work.band.firstRow;
        const CPixel* row = work.rows.get();
        for (int i = 0; i < count; ++i, row += m_dstw) {
            while (work.ready.load(std::memory_order_acquire) <= i) {
                // The state is read before the count, so an end seen here covers every line.
                if (work.state.load(std::memory_order_acquire) != BandWork::RUNNING &&
                    work.ready.load(std::memory_order_acquire) <= i) {
                    return false;
                }
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
            if (!writer.WriteLine(row)) return false;
        }
        return true;
    }

    const std::string m_src;
    const std::vector<Band> m_bands;
    const ReducerRows m_rows;
    const int m_srcw, m_srch, m_dstw, m_dsth;
    const long m_headerWarnings;
    CResizer& m_resizer0;  // the first band's, the conversion's own
    std::atomic<bool> m_stop{false};
    std::vector<std::unique_ptr<BandWork>> m_work;
    HelperThreads m_threads;  // last: joined before the work it uses goes
};

// The bytes of scaled lines the bands after the first keep.
size_t BufferedBytes(const std::vector<Band>& plan, int dstw) {
    const int rows = plan.size() > 1 ? plan.back().endRow - plan[1].firstRow : 0;
    return static_cast<size_t>(rows) * static_cast<size_t>(dstw) * sizeof(CPixel);
}

// How the conversion about to scale the lines of `reader` runs: in bands where they apply,
// else with overlap, while processors are idle (taken into `helpers`); bandCount is the number
// of bands to plan.
ConvertThreads ChooseThreads(JpegReader& reader, TypeOfResizer type, int& bandCount,
                             HeldProcessors& helpers) {
    const bool bandable = type == RESIZER_REDUCES && !reader.MultiScan();
    switch (g_mode.load()) {
        case CONVERT_THREADS_ONE:
            return CONVERT_THREADS_ONE;
        case CONVERT_THREADS_OVERLAP:
            return CONVERT_THREADS_OVERLAP;
        case CONVERT_THREADS_BANDS:
            bandCount = g_bands.load();
            return bandable ? CONVERT_THREADS_BANDS : CONVERT_THREADS_ONE;
        default:
            break;
    }
    helpers.Add(Processors().TakeIdle(UsableProcessors() - 1));
    if (helpers.Count() == 0) return CONVERT_THREADS_ONE;
    if (bandable) {
        bandCount = 1 + helpers.Count();
        return CONVERT_THREADS_BANDS;
    }
    helpers.Keep(1);
    return CONVERT_THREADS_OVERLAP;
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
    const JpegErrorManager* err = reinterpret_cast<JpegErrorManager*>(cinfo->err);
    if (!err->quiet) LogHookLine(cinfo->err->output_message != nullptr);
    std::jmp_buf* jump = err->jump;
    if (jump == nullptr) std::abort();  // a library call made outside Guarded
    std::longjmp(*jump, 1);
}

void SetConvertThreads(ConvertThreads mode, int bands) {
    g_mode.store(mode);
    g_bands.store(std::max(bands, 2));
}

int ConvertFile(const std::string& src, const std::string& dst, int size, int quality,
                int& srcWidth, int& srcHeight, std::string& hash, HashType hashType,
                TypeOfResizer resizerType, bool omitEXIF) {
    if (src.empty() || dst.empty() || src == dst) return CR_RESAMPLING_ERROR;
    // An unknown resizer is refused before any file is opened.
    const char* resizerName = ResizerName(resizerType);
    if (resizerName == nullptr) return CR_RESAMPLING_ERROR;
    // The processor this conversion runs on.
    const bool pooled = g_mode.load() == CONVERT_THREADS_AUTO;
    if (pooled) Processors().TakeOne();
    const HeldProcessors own(pooled ? 1 : 0);
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
    std::unique_ptr<BandedDecoder> bands;
    bool pumped = false;
    HeldProcessors helpers;  // the idle processors the helper threads run on
    int bandCount = 1;
    ConvertThreads threads = ChooseThreads(reader, resizerType, bandCount, helpers);
    if (threads == CONVERT_THREADS_BANDS) {
        ReducerRows rows = ScheduleReduction(srch, out.height);
        const bool forced = g_mode.load() == CONVERT_THREADS_BANDS;
        std::vector<Band> plan = PlanBands(rows, srch, SkipCost(reader.FileBytes(), srcw, srch),
                                           bandCount, forced ? 1 : kMinBandLines);
        if (BufferedBytes(plan, out.width) > kBandBufferBytes) plan.clear();
        if (plan.size() > 1) {
            helpers.Keep(static_cast<int>(plan.size()) - 1);
            bands =
                std::make_unique<BandedDecoder>(src, std::move(plan), std::move(rows), srcw, srch,
                                                out.width, out.height, reader.Warnings(), *resizer);
        } else {
            // Too small or too large for bands: an idle processor still serves for overlap.
            threads = helpers.Count() > 0 ? CONVERT_THREADS_OVERLAP : CONVERT_THREADS_ONE;
            helpers.Keep(1);
        }
    }
    if (bands != nullptr) {
        // Every decoder faults quietly in bands; the conversion logs the hook's line once.
        pumped = bands->Pump(reader, writer, helpers);
        if (!pumped) LogHookLine(true);
    } else if (threads == CONVERT_THREADS_OVERLAP) {
        pumped = PumpOverlapped(reader, writer, *resizer, srcw, srch, out.height, blackRow.data());
    } else {
        pumped = PumpSerial(reader, writer, *resizer, srcw, srch, out.height, blackRow.data());
    }
    helpers.Keep(0);
    if (!pumped) return ConversionFault(reader, writer);
    Trace("Delete resizer");
    resizer.reset();
    std::vector<CPixel>().swap(blackRow);

    Trace("Close output file");
    if (!writer.Finish()) return ConversionFault(reader, writer);
    writer.Close();
    Trace("Close input file");
    JpegReader& source = bands != nullptr ? bands->Last(reader) : reader;
    if (!source.Finish()) return ConversionFault(reader, writer);
    const long warnings = source.Warnings() + writer.Warnings();
    reader.Close();
    bands.reset();

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
