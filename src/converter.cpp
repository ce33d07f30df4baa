#include "converter.h"

#include <sched.h>
#include <sys/stat.h>

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
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

// jpeglib.h needs size_t and FILE declared before it.
#include <jpeglib.h>
// The library's fault and warning codes, and its macros that raise them.
#include <jerror.h>

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

std::atomic<int> g_mode{CONVERT_THREADS_AUTO};

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
// makes two conversions share a processor. A conversion may start a helper thread while a
// processor is idle and no conversion waits; the helper holds none (see StagedDecoder).
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
    void GiveOne() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            ++m_idle;
        }
        m_released.notify_all();
    }
    // Whether a processor is idle and no conversion waits for one.
    bool Idle() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_waiting == 0 && m_idle > 0;
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

// A processor taken from the pool for a conversion, given back when the holder goes.
class HeldProcessor {
  public:
    HeldProcessor() { Processors().TakeOne(); }
    ~HeldProcessor() { Processors().GiveOne(); }
    HeldProcessor(const HeldProcessor&) = delete;
    HeldProcessor& operator=(const HeldProcessor&) = delete;
};

// A conversion's helper thread, joined when the owner goes (or at Join), whatever path the
// conversion leaves by. Declared after everything the thread uses, so that it goes first.
class HelperThread {
  public:
    HelperThread() = default;
    ~HelperThread() { Join(); }
    HelperThread(const HelperThread&) = delete;
    HelperThread& operator=(const HelperThread&) = delete;

    // False when the system has no thread to give.
    template <typename Body>
    bool Start(Body&& body) {
        try {
            m_thread = std::thread(std::forward<Body>(body));
            return true;
        } catch (const std::system_error&) {
            return false;
        }
    }
    void Join() {
        if (m_thread.joinable()) m_thread.join();
    }

  private:
    std::thread m_thread;
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
    // Faults are not logged by the hook: a staged conversion logs its one fault itself.
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

// A conversion's decoders read the source through a buffer this large: the library's Huffman
// decoder takes its fast path only while a few kilobytes of data are buffered, and through
// jpeg_stdio_src's 4 KiB it falls back to the slow one for most of each refill (decoding takes
// about 4% longer).
const size_t kSourceBufferBytes = 64 << 10;

// A source manager that reads like jpeg_stdio_src, through a larger buffer: an empty file is a
// fault, and a file that ends early gets the warning and the end-of-image marker the library's
// own source gives. Its functions fault or warn only through the library's macros, with no
// object alive that needs destroying.
struct BufferedFileSource : jpeg_source_mgr {
    FILE* file = nullptr;
    std::unique_ptr<JOCTET[]> buffer{new JOCTET[kSourceBufferBytes]};
    bool startOfFile = true;

    explicit BufferedFileSource(FILE* source) : jpeg_source_mgr(), file(source) {
        init_source = [](j_decompress_ptr cinfo) { From(cinfo).startOfFile = true; };
        fill_input_buffer = Fill;
        skip_input_data = [](j_decompress_ptr cinfo, long count) {
            if (count <= 0) return;
            jpeg_source_mgr& src = *cinfo->src;
            while (count > static_cast<long>(src.bytes_in_buffer)) {
                count -= static_cast<long>(src.bytes_in_buffer);
                Fill(cinfo);
            }
            src.next_input_byte += count;
            src.bytes_in_buffer -= static_cast<size_t>(count);
        };
        resync_to_restart = jpeg_resync_to_restart;
        term_source = [](j_decompress_ptr) {};
    }

    static BufferedFileSource& From(j_decompress_ptr cinfo) {
        return *static_cast<BufferedFileSource*>(cinfo->src);
    }
    static boolean Fill(j_decompress_ptr cinfo) {
        BufferedFileSource& self = From(cinfo);
        size_t count = std::fread(self.buffer.get(), 1, kSourceBufferBytes, self.file);
        if (count == 0) {
            if (self.startOfFile) ERREXIT(cinfo, JERR_INPUT_EMPTY);
            WARNMS(cinfo, JWRN_JPEG_EOF);
            self.buffer[0] = 0xFF;
            self.buffer[1] = JPEG_EOI;
            count = 2;
        }
        self.next_input_byte = self.buffer.get();
        self.bytes_in_buffer = count;
        self.startOfFile = false;
        return TRUE;
    }
};

// The decoding side: the source file and the decompressor. Every member that calls into the
// library returns false when the library faulted.
class JpegReader : public JpegSide<jpeg_decompress_struct, jpeg_destroy_decompress> {
  public:
    JpegReader() : m_printMessage(m_err.pub.output_message) {}

    // False when the file cannot be opened for reading.
    bool Open(const std::string& path) { return OpenFile(path, "rb"); }
    // Creates the decompressor on the open file, keeping in memory the segments `copy` names.
    // The file is read as jpeg_stdio_src reads it, or through a buffer of `bufferBytes` when
    // those are given.
    bool Create(JCOPY_OPTION copy, size_t bufferBytes = 0) {
        m_created = true;
        if (bufferBytes > 0) m_source = std::make_unique<BufferedFileSource>(m_file.get());
        return Guard([&] {
            jpeg_create_decompress(&m_object);
            m_object.mem->max_memory_to_use = MemoryCap(m_file.get());
            if (m_source != nullptr) {
                m_object.src = m_source.get();
            } else {
                jpeg_stdio_src(&m_object, m_file.get());
            }
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
    // Progressive and other multi-scan files; valid once the header is read.
    bool MultiScan() { return jpeg_has_multiple_scans(&m_object) != FALSE; }
    // The library prints the first warning of each decoder on the standard error stream. Of the
    // two decoders of a staged conversion, the conversion's own prints nothing once it reads
    // the ring, and the entropy decoder, whose warnings count, carries on the count of the
    // header the other read, as if it had met those warnings itself.
    void SilenceMessages() {
        m_err.pub.output_message = [](j_common_ptr) {};
    }
    void CarryOn(long warnings) {
        m_err.pub.output_message = m_printMessage;
        m_err.pub.num_warnings = warnings;
    }
    // Entropy-decodes the whole image into its block arrays.
    bool ReadCoefficients() {
        return Guard([&] { jpeg_read_coefficients(&m_object); });
    }
    // In buffered-image mode: takes in the input to its end, then starts the output of the
    // last scan.
    bool AbsorbScans() {
        return Guard([&] {
            while (jpeg_consume_input(&m_object) != JPEG_REACHED_EOI) {
            }
        });
    }
    bool StartOutput() {
        return Guard([&] { jpeg_start_output(&m_object, m_object.input_scan_number); });
    }
    bool Finish() {
        return Guard([&] { jpeg_finish_decompress(&m_object); });
    }

  private:
    void (*m_printMessage)(j_common_ptr);
    std::unique_ptr<BufferedFileSource> m_source;  // when not read through jpeg_stdio_src
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

  private:
    static constexpr size_t kAlign = 32;
    const size_t m_stride;
    const size_t m_size;
    std::unique_ptr<unsigned char[]> m_bytes;
    unsigned char* const m_first;
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

// ---------------------------------------------------------------------------------------------
// Two stages
//
// The decoder's work is a serial entropy decoding and, per line, the inverse DCT, upsampling and
// colour conversion. A staged conversion runs the two on two threads: a second decoder on the
// source entropy-decodes it (jpeg_read_coefficients) into a ring of coefficient rows a few iMCU
// rows deep, while the conversion's own decoder, in buffered-image mode, reconstructs its lines
// from that ring, and the conversion scales and encodes them as it always does. The ring stands
// in for the whole-image block arrays of both decoders' memory managers, so neither keeps more
// than a few rows of coefficients. The conversion's decoder reads no entropy-coded data itself:
// its source ends where the scan begins. The entropy decoder meets every warning and fault of
// the data, so its warnings are the ones counted (carrying on from those of the header the
// conversion's decoder read) and it is the one finished. Both fault quietly while they run, and
// the conversion logs a fault once, where a one-thread conversion would log it.

// Coefficient rows deep enough that the entropy decoder never waits for the reconstruction,
// which takes less than half its time.
const int kRingRows = 4;

// The coefficient rows handed from the entropy decoder (the writer) to the conversion's decoder
// (the reader). Each decoder's memory manager asks it for its whole-image block arrays, one per
// component, and gets the ring instead: access to iMCU row r of the writer waits until the
// reader has left row r - kRingRows, and of the reader until the writer has moved past row r.
// The reader zeroes the rows it leaves, since the entropy decoder writes only the coefficients
// that are not zero. The arrays must be asked for and used exactly as the coefficient controller
// of a single-scan image does; anything else, or the other side giving up, faults the decoder.
// Threads: one writer and one reader, each inside its own decoder's calls.
class CoefficientRing {
  public:
    enum Role { WRITER, READER };

    // Shaped after the header `info` has read; throws std::bad_alloc.
    explicit CoefficientRing(const jpeg_decompress_struct& info)
        : m_imcuRows(static_cast<int>(info.total_iMCU_rows)) {
        size_t blocks = 0;
        for (int ci = 0; ci < info.num_components; ++ci) {
            const jpeg_component_info& comp = info.comp_info[ci];
            Component c;
            c.blocksPerRow = RoundUp(comp.width_in_blocks, comp.h_samp_factor);
            c.rows = RoundUp(comp.height_in_blocks, comp.v_samp_factor);
            c.rowsPerImcu = static_cast<JDIMENSION>(comp.v_samp_factor);
            blocks += static_cast<size_t>(c.blocksPerRow) * c.rowsPerImcu * (kRingRows + 1);
            m_components.push_back(c);
        }
        m_blocks.reset(new JBLOCK[blocks]());
        JBLOCKROW next = m_blocks.get();
        for (Component& c : m_components) {
            c.ring.resize(static_cast<size_t>(c.rowsPerImcu) * kRingRows);
            c.scratch.resize(c.rowsPerImcu);
            for (JBLOCKROW& row : c.ring) row = std::exchange(next, next + c.blocksPerRow);
            for (JBLOCKROW& row : c.scratch) row = std::exchange(next, next + c.blocksPerRow);
        }
    }
    CoefficientRing(const CoefficientRing&) = delete;
    CoefficientRing& operator=(const CoefficientRing&) = delete;

    // Makes the ring the block store of `info`'s memory manager, in `role`. The reader starts
    // out absorbing: it takes in its (empty) scan into rows that are thrown away.
    void Attach(jpeg_decompress_struct& info, Role role) {
        Side& side = m_sides[role];
        side = Side{this, role, 0, role == READER};
        info.client_data = &side;
        jpeg_memory_mgr& mem = *info.mem;
        mem.request_virt_barray = Request;
        mem.realize_virt_arrays = [](j_common_ptr) {};
        mem.access_virt_barray = Access;
    }
    // The reader has taken in its scan and now reads the writer's rows.
    void StartReading() { m_sides[READER].absorbing = false; }
    // The writer has written every row.
    void Complete() { m_written.store(m_imcuRows, std::memory_order_release); }
    // Whether the decoder `info`, the writer, has decoded every row: a fault it meets after
    // them, in what follows the scan, leaves the rows good.
    bool AllWritten(const jpeg_decompress_struct& info) const {
        return m_sides[WRITER].ring == this && info.total_iMCU_rows > 0 &&
               static_cast<int>(info.total_iMCU_rows) == m_imcuRows &&
               info.input_iMCU_row >= info.total_iMCU_rows;
    }
    // Either side gives up: the other one faults at its next wait.
    void Fail() { m_failed.store(true, std::memory_order_release); }

  private:
    struct Component {
        JDIMENSION blocksPerRow = 0, rows = 0, rowsPerImcu = 0;
        std::vector<JBLOCKROW> ring;     // kRingRows iMCU rows of rowsPerImcu block rows
        std::vector<JBLOCKROW> scratch;  // one iMCU row, for the reader's own scan
    };
    struct Side {
        CoefficientRing* ring;
        Role role;
        size_t requested;  // arrays asked for so far, one per component in order
        bool absorbing;
    };

    static JDIMENSION RoundUp(JDIMENSION value, int multiple) {
        const JDIMENSION m = static_cast<JDIMENSION>(multiple);
        return (value + m - 1) / m * m;
    }
    static Side& SideOf(j_common_ptr cinfo) { return *static_cast<Side*>(cinfo->client_data); }
    [[noreturn]] static void Fault(j_common_ptr cinfo) {
        ERREXIT(cinfo, JERR_BAD_VIRTUAL_ACCESS);
        std::abort();  // error_exit does not return
    }

    static jvirt_barray_ptr Request(j_common_ptr cinfo, int, boolean, JDIMENSION blocksPerRow,
                                    JDIMENSION rows, JDIMENSION rowsPerAccess) {
        Side& side = SideOf(cinfo);
        std::vector<Component>& components = side.ring->m_components;
        if (side.requested >= components.size()) Fault(cinfo);
        Component& c = components[side.requested++];
        if (blocksPerRow != c.blocksPerRow || rows != c.rows || rowsPerAccess != c.rowsPerImcu) {
            Fault(cinfo);
        }
        return reinterpret_cast<jvirt_barray_ptr>(&c);
    }

    static JBLOCKARRAY Access(j_common_ptr cinfo, jvirt_barray_ptr array, JDIMENSION startRow,
                              JDIMENSION rows, boolean writable) {
        Side& side = SideOf(cinfo);
        CoefficientRing& ring = *side.ring;
        Component& c = *reinterpret_cast<Component*>(array);
        const bool writer = side.role == WRITER;
        if (rows != c.rowsPerImcu || startRow % rows != 0 || startRow >= c.rows ||
            (writable != FALSE) != (writer || side.absorbing)) {
            Fault(cinfo);
        }
        if (side.absorbing) return c.scratch.data();
        const int row = static_cast<int>(startRow / rows);
        if (writer ? !ring.WriterAt(row) : !ring.ReaderAt(row)) Fault(cinfo);
        return &c.ring[static_cast<size_t>(row % kRingRows) * rows];
    }

    // The writer is at `row`, so every row before it is written; waits until the row is free.
    bool WriterAt(int row) {
        if (row > m_written.load(std::memory_order_relaxed)) {
            m_written.store(row, std::memory_order_release);
        }
        while (row - m_released.load(std::memory_order_acquire) >= kRingRows) {
            if (!Wait()) return false;
        }
        return !m_failed.load(std::memory_order_acquire);
    }
    // The reader is at `row`, so it is done with every row before it: those are zeroed for the
    // writer's next use of them. Waits until `row` is written.
    bool ReaderAt(int row) {
        int released = m_released.load(std::memory_order_relaxed);
        if (row > released) {
            for (; released < row; ++released) {
                for (Component& c : m_components) {
                    for (JDIMENSION k = 0; k < c.rowsPerImcu; ++k) {
                        JBLOCKROW blocks =
                            c.ring[static_cast<size_t>(released % kRingRows) * c.rowsPerImcu + k];
                        std::fill_n(&blocks[0][0], static_cast<size_t>(c.blocksPerRow) * DCTSIZE2,
                                    JCOEF(0));
                    }
                }
            }
            m_released.store(row, std::memory_order_release);
        }
        // A row once written stays good even if the writer faults after it.
        while (m_written.load(std::memory_order_acquire) <= row) {
            if (!Wait()) return false;
        }
        return true;
    }
    // The waiting side polls rather than be woken, which on virtual machines costs the waking
    // side about as much as decoding a few lines; the period is short beside a row of a large
    // photo and still keeps the stages of a small one in step. False once the other side has
    // given up.
    bool Wait() {
        if (m_failed.load(std::memory_order_acquire)) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(50));
        return true;
    }

    const int m_imcuRows;
    std::vector<Component> m_components;
    std::unique_ptr<JBLOCK[]> m_blocks;
    Side m_sides[2] = {};
    std::atomic<int> m_written{0};   // iMCU rows the writer has finished
    std::atomic<int> m_released{0};  // iMCU rows the reader has finished, zeroed again
    std::atomic<bool> m_failed{false};
};

// The second stage of a staged conversion: the entropy decoder and its thread. Made before the
// conversion's decoder starts, which it turns to reading the ring. The thread holds no processor
// of the pool's: it starts only while one is idle, and a conversion that starts on that
// processor meanwhile shares it with this conversion's own thread, which idles about half the
// time the entropy decoding takes; holding it would leave that half idle in a busy service.
// Threads: created and used by the conversion's thread; the entropy decoder belongs to its own
// thread until Finish joins it.
class StagedDecoder {
  public:
    // Null when the ring or the thread cannot be had; `reader` has read the header and is
    // untouched then. Otherwise `reader` is to be started next, in buffered-image mode.
    static std::unique_ptr<StagedDecoder> Make(const std::string& src, JpegReader& reader) {
        std::unique_ptr<StagedDecoder> staged;
        try {
            staged.reset(new StagedDecoder(reader));
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
        StagedDecoder* self = staged.get();
        if (!staged->m_thread.Start([self, src] { self->Run(src); })) return nullptr;
        reader.Info().buffered_image = TRUE;
        staged->m_ring.Attach(reader.Info(), CoefficientRing::READER);
        return staged;
    }
    ~StagedDecoder() {
        m_ring.Fail();
        m_thread.Join();
    }
    StagedDecoder(const StagedDecoder&) = delete;
    StagedDecoder& operator=(const StagedDecoder&) = delete;

    // Turns the conversion's decoder, started, to reading the ring: it takes in its own scan,
    // which ends at once, and starts its output from the ring's rows. False when it faulted.
    bool StartReading(JpegReader& reader) {
        reader.SilenceMessages();
        m_readerWarnings = reader.Warnings() - m_headerWarnings;
        jpeg_source_mgr& src = *reader.Info().src;
        src.fill_input_buffer = [](j_decompress_ptr cinfo) {
            cinfo->src->next_input_byte = kEndOfImage;
            cinfo->src->bytes_in_buffer = sizeof kEndOfImage;
            return boolean(TRUE);
        };
        src.fill_input_buffer(&reader.Info());
        if (!reader.AbsorbScans()) return false;
        m_ring.StartReading();
        return reader.StartOutput();
    }
    // Gives up: the entropy decoder stops at its next row.
    void Stop() { m_ring.Fail(); }
    // Waits for the entropy decoder and finishes it; false when it faulted, now or before.
    bool Finish() {
        m_thread.Join();
        if (!m_decoded) return false;
        m_entropy.SetQuiet(false);
        return m_entropy.Finish();
    }
    // The warnings of the whole decoding.
    long Warnings() const { return m_entropy.Warnings() + m_readerWarnings; }

  private:
    explicit StagedDecoder(JpegReader& reader)
        : m_ring(reader.Info()),
          m_headerWarnings(reader.Warnings()),
          m_width(reader.Info().image_width),
          m_height(reader.Info().image_height) {}

    // The entropy decoder's thread: opens its own decoder on the source and decodes it whole
    // into the ring, then leaves the decoder for Finish.
    void Run(const std::string& src) {
        JpegReader& reader = m_entropy;
        reader.SetQuiet(true);
        reader.SilenceMessages();
        int header = 0;
        m_decoded = reader.Open(src) && reader.Create(JCOPYOPT_NONE, kSourceBufferBytes) &&
                    reader.ReadHeader(header) && header == JPEG_HEADER_OK &&
                    reader.Info().image_width == m_width && reader.Info().image_height == m_height;
        if (m_decoded) {
            m_ring.Attach(reader.Info(), CoefficientRing::WRITER);
            reader.CarryOn(m_headerWarnings);
            m_decoded = reader.ReadCoefficients();
        }
        // A fault after the last row is met again, as in a one-thread conversion, when the
        // decoder is finished; the rows are all there for the reconstruction.
        if (m_decoded || m_ring.AllWritten(reader.Info())) m_ring.Complete();
        if (!m_decoded) m_ring.Fail();
    }

    static constexpr JOCTET kEndOfImage[2] = {0xFF, JPEG_EOI};

    CoefficientRing m_ring;
    const long m_headerWarnings;
    const JDIMENSION m_width, m_height;
    long m_readerWarnings = 0;
    JpegReader m_entropy;
    bool m_decoded = false;  // the entropy decoder's, read after the join
    HelperThread m_thread;   // last: joined before the rest goes
};

// Whether the conversion whose decoder `reader` has read the header is staged: a single-scan,
// Huffman-coded photo is, while a processor is idle and no conversion waits. A multi-scan photo
// spends most of its time taking in its scans before its first line, and an arithmetic-coded
// one would have the conversion's decoder take in its empty scan about as slowly as a real one:
// neither gains from a second thread, so both keep to one.
bool ShouldStage(JpegReader& reader) {
    const bool stageable = !reader.MultiScan() && !reader.Info().arith_code;
    switch (g_mode.load()) {
        case CONVERT_THREADS_ONE:
            return false;
        case CONVERT_THREADS_STAGED:
            return stageable;
        default:
            break;
    }
    return stageable && Processors().Idle();
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

void SetConvertThreads(ConvertThreads mode) { g_mode.store(mode); }

int ConvertFile(const std::string& src, const std::string& dst, int size, int quality,
                int& srcWidth, int& srcHeight, std::string& hash, HashType hashType,
                TypeOfResizer resizerType, bool omitEXIF) {
    if (src.empty() || dst.empty() || src == dst) return CR_RESAMPLING_ERROR;
    // An unknown resizer is refused before any file is opened.
    const char* resizerName = ResizerName(resizerType);
    if (resizerName == nullptr) return CR_RESAMPLING_ERROR;
    // The processor this conversion runs on.
    std::optional<HeldProcessor> own;
    if (g_mode.load() == CONVERT_THREADS_AUTO) own.emplace();
    size = std::min(std::max(size, kMinSize), kMaxSize);
    quality = std::min(std::max(quality, 0), 100);
    const JCOPY_OPTION copy = omitEXIF ? JCOPYOPT_NONE : JCOPYOPT_ALL;

    JpegReader reader;
    if (!reader.Open(src)) {
        log.Put("Open input file error: " + src, 5);
        return CR_FILE_NOT_FOUND;
    }
    Trace("Open input file ok");
    if (!reader.Create(copy, kSourceBufferBytes)) return SourceFault(reader, kLibraryFault);
    Trace("jpeg_read_header");
    int header = 0;
    if (!reader.ReadHeader(header)) return SourceFault(reader, kLibraryFault);
    if (header != JPEG_HEADER_OK) return SourceFault(reader, kHeaderFault);

    JpegWriter writer;
    reader.DecodeToRgb();
    // A staged conversion's entropy decoder starts now, beside the rest of the set-up.
    std::unique_ptr<StagedDecoder> staged;
    if (ShouldStage(reader)) staged = StagedDecoder::Make(src, reader);
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
    bool pumped = false;
    if (staged != nullptr) {
        // Both stages fault quietly; the conversion logs the hook's line once.
        reader.SetQuiet(true);
        writer.SetQuiet(true);
        pumped = staged->StartReading(reader) &&
                 PumpSerial(reader, writer, *resizer, srcw, srch, out.height, blackRow.data());
        reader.SetQuiet(false);
        writer.SetQuiet(false);
        if (!pumped) {
            staged->Stop();
            LogHookLine(true);
        }
    } else {
        pumped = PumpSerial(reader, writer, *resizer, srcw, srch, out.height, blackRow.data());
    }
    if (!pumped) return ConversionFault(reader, writer);
    Trace("Delete resizer");
    resizer.reset();
    std::vector<CPixel>().swap(blackRow);

    Trace("Close output file");
    if (!writer.Finish()) return ConversionFault(reader, writer);
    writer.Close();
    Trace("Close input file");
    if (staged != nullptr) {
        // The entropy decoder's own fault was quiet; it is logged here, where the one
        // decoder of a one-thread conversion would meet it on finishing.
        if (!staged->Finish()) {
            LogHookLine(true);
            return ConversionFault(reader, writer);
        }
    } else if (!reader.Finish()) {
        return ConversionFault(reader, writer);
    }
    const long warnings =
        (staged != nullptr ? staged->Warnings() : reader.Warnings()) + writer.Warnings();
    reader.Close();
    staged.reset();

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
