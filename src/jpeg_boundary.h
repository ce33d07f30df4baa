#pragma once

// The boundary between the conversions and the JPEG library: the error manager every library
// object gets, the guarded call through which every call into the library goes, the source
// manager that reads a conversion's file, and the decoding and encoding sides that own a library
// object with its file.
//
// How a fault crosses the boundary. The library reports a fatal fault by calling its error
// manager's error_exit, custom_error_exit, which logs "custom_error_exit (1)" (unless the
// manager is quiet) and jumps back to the guarded call that was running; that call returns
// false. Nothing but the library's own frames and a lambda that owns nothing lies between the
// jump point and the fault, so no destructor is ever skipped. After a fault the object is only
// good for destroying.
//
// Ownership: a JpegSide owns its library object, its error manager and its file (or borrows a
// descriptor); Close and the destructor release them on every path.
// Threads: a side is used by one thread at a time; sides share nothing.

#include <csetjmp>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>

// jpeglib.h needs size_t and FILE declared before it.
#include <jpeglib.h>

#include "exif.h"
#include "pixel.h"

namespace Varnelo {

// A FILE closed when the holder goes.
struct FileCloser {
    void operator()(FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<FILE, FileCloser>;

// Logs the line custom_error_exit logs for a fault: "custom_error_exit (1)" at level 10. For a
// fault met on another thread (quietly) and reported on the conversion's.
void LogHookLine();

// The library's standard error manager and what the boundary keeps beside it.
struct JpegErrorManager {
    jpeg_error_mgr pub;          // what the library object's `err` points at
    std::jmp_buf* jump = nullptr;      // the jump point of the guarded call running, if any
    bool quiet = false;          // faults log nothing (a stage on a helper thread)
    bool muted = false;          // the library's messages are not printed
    bool printed = false;        // a message was printed on standard error
    bool contractFault = false;  // the last fault broke a contract, not the data
    int frameMarker = -1;        // the start-of-frame marker the header announced
    void (*stdEmit)(j_common_ptr, int) = nullptr;
    void (*stdOutput)(j_common_ptr) = nullptr;

    static JpegErrorManager& Of(j_common_ptr cinfo) {
        return *reinterpret_cast<JpegErrorManager*>(cinfo->err);
    }
};

// Runs `call`, one call into the library on an object whose manager is `err`, with a jump point
// for its faults: true when it returned, false when the library faulted. This is the only place
// where the library leaves a frame other than by returning (see above); noinline, so that the
// jump point is a frame of its own.
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

// Faults `cinfo` quietly because a contract with the library was broken (its arrays were asked
// for or used in a way a stand-in does not serve), not because the data is bad: the owner may
// then decode the same data again another way. Never returns.
// REQUIRES: cinfo's manager is a JpegErrorManager and a guarded call is running on it.
[[noreturn]] void RaiseContractFault(j_common_ptr cinfo);

// The library's message set at run time is the one this program was built against: the same
// last message code. A library whose messages changed has changed more than them.
bool LibraryMessagesMatchBuild();

// Reads a conversion's file through a buffer of 64 KiB (jpeg_stdio_src's 4 KiB makes the
// library's Huffman decoder leave its fast path for most of each refill), like jpeg_stdio_src
// otherwise: an empty file is a fault, and a file that ends early gets the warning and the
// end-of-image marker the library's own source gives. It reads the descriptor at an offset of
// its own (pread), so that several decoders can read one open file, each from its start; a
// descriptor that cannot be read at an offset (a pipe) is read in turn.
struct BufferedFileSource : jpeg_source_mgr {
    static constexpr size_t kBytes = 64 << 10;

    explicit BufferedFileSource(int descriptor);

    int fd;
    off_t offset = 0;
    std::unique_ptr<JOCTET[]> buffer{new JOCTET[kBytes]};
    bool startOfFile = true;
};

// What the decoding and the encoding side share. Close (and the destructor) destroys the object
// and closes the file; after a fault the object is only good for that.
template <typename Object, void (*Destroy)(Object*)>
class JpegSide {
  public:
    JpegSide();
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
    JpegErrorManager& Errors() { return m_err; }

  protected:
    // False when the file cannot be opened in `mode`.
    bool OpenFile(const std::string& path, const char* mode);
    // Runs `call`, one call into the library, with a jump point for its faults: true when it
    // returned, false when the library faulted.
    template <typename Call>
    bool Guard(const Call& call) {
        return Guarded(m_err, call);
    }

    JpegErrorManager m_err;
    Object m_object{};
    bool m_created = false;  // destroying a half-created object is harmless
    File m_file;
};

// The decoding side: a file and its decompressor. Every member that calls into the library
// returns false when the library faulted.
class JpegReader : public JpegSide<jpeg_decompress_struct, jpeg_destroy_decompress> {
  public:
    // False when the file cannot be opened for reading.
    bool Open(const std::string& path) { return OpenFile(path, "rb"); }
    // Creates the decompressor, keeping in memory the segments `copy` names, on the file Open
    // opened, read as jpeg_stdio_src reads it.
    bool CreateStdio(JCOPY_OPTION copy);
    // Creates the decompressor on `descriptor`, a file the caller keeps open for the reader's
    // life, read through a BufferedFileSource from its start.
    bool CreateBuffered(JCOPY_OPTION copy, int descriptor);
    bool ReadHeader(int& result);
    // Asks for RGB lines, at full size and with the library's default DCT method.
    void DecodeToRgb();
    bool Start(bool& started);
    bool ReadLine(CPixel* row);
    // Entropy-decodes the whole image into its block arrays.
    bool ReadCoefficients();
    // In buffered-image mode: takes in the input to its end, then starts the output of the last
    // scan.
    bool AbsorbScans();
    bool StartOutput();
    bool Finish();

  private:
    std::unique_ptr<BufferedFileSource> m_source;  // when not read through jpeg_stdio_src
};

// The encoding side: the destination file and the compressor, with the same conventions.
// Encoder faults (a full disk among them) fail the one image like decoder faults.
class JpegWriter : public JpegSide<jpeg_compress_struct, jpeg_destroy_compress> {
  public:
    // False when the file cannot be created.
    bool Open(const std::string& path) { return OpenFile(path, "wb"); }
    bool Create();
    bool CopyCriticalParameters(jpeg_decompress_struct& source);
    // Starts a baseline image of RGB lines at `quality`. The colour space is the one
    // jpeg_set_defaults derives from the source's (greyscale stays greyscale, colour becomes
    // YCbCr); the source's quantisation tables are replaced. No JFIF header of the encoder's
    // own: the source's, if any, is copied with the other segments.
    bool Start(int width, int height, int quality);
    bool WriteMarkers(jpeg_decompress_struct& source, JCOPY_OPTION copy);
    bool WriteLine(const CPixel* row);
    bool Finish();
};

}  // namespace Varnelo
