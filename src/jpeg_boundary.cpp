#include "jpeg_boundary.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csetjmp>
#include <cstdlib>

// The library's fault and warning codes, and its macros that raise them.
#include <jerror.h>

#include "converter.h"
#include "log.h"

namespace Varnelo {

namespace {

// The library buffers a whole image's coefficients for progressive and multi-scan files, and a
// file of a few kilobytes can declare an image of gigapixels. A real photo's coefficients stay
// within a multiple of its compressed size, so the library may use a base that any ordinary
// photo fits in plus that multiple of the source file's size; past it the library faults at
// once instead of exhausting the machine. The encoder never buffers a whole image.
const long kMemoryBase = 256L << 20;
const long kMemoryPerSourceByte = 64;

long MemoryCap(int descriptor) {
    struct stat info;
    const long size = fstat(descriptor, &info) == 0 && info.st_size > 0 ? info.st_size : 0;
    if (size > (LONG_MAX - kMemoryBase) / kMemoryPerSourceByte) return LONG_MAX;
    return kMemoryBase + size * kMemoryPerSourceByte;
}

// The manager's hooks around the library's own: messages are printed unless muted, and noted
// when printed; the start-of-frame trace message, whose numbers must be the header's for it to be
// the message this program knows, tells which frame marker the header had.
void EmitMessage(j_common_ptr cinfo, int level) {
    JpegErrorManager& err = JpegErrorManager::Of(cinfo);
    const jpeg_error_mgr& pub = err.pub;
    if (pub.msg_code == JTRC_SOF && cinfo->is_decompressor) {
        const jpeg_decompress_struct& info = *reinterpret_cast<j_decompress_ptr>(cinfo);
        const int* p = pub.msg_parm.i;
        if (p[1] == static_cast<int>(info.image_width) &&
            p[2] == static_cast<int>(info.image_height) && p[3] == info.num_components) {
            err.frameMarker = p[0];
        }
    }
    err.stdEmit(cinfo, level);
}

void OutputMessage(j_common_ptr cinfo) {
    JpegErrorManager& err = JpegErrorManager::Of(cinfo);
    if (err.muted) return;
    err.printed = true;
    err.stdOutput(cinfo);
}

void InitErrorManager(JpegErrorManager& err) {
    jpeg_std_error(&err.pub);
    err.stdEmit = err.pub.emit_message;
    err.stdOutput = err.pub.output_message;
    err.pub.error_exit = custom_error_exit;
    err.pub.emit_message = EmitMessage;
    err.pub.output_message = OutputMessage;
}

[[noreturn]] void JumpBack(JpegErrorManager& err) {
    std::jmp_buf* jump = err.jump;
    if (jump == nullptr) std::abort();  // a library call made outside a guarded call
    std::longjmp(*jump, 1);
}

BufferedFileSource& SourceOf(j_decompress_ptr cinfo) {
    return *static_cast<BufferedFileSource*>(cinfo->src);
}

// The source's functions fault or warn only through the library's macros, with no object alive
// that needs destroying.
boolean FillBuffer(j_decompress_ptr cinfo) {
    BufferedFileSource& self = SourceOf(cinfo);
    ssize_t count;
    do {
        count = pread(self.fd, self.buffer.get(), BufferedFileSource::kBytes, self.offset);
        if (count < 0 && errno == ESPIPE) {
            count = read(self.fd, self.buffer.get(), BufferedFileSource::kBytes);
        }
    } while (count < 0 && errno == EINTR);
    if (count <= 0) {
        if (self.startOfFile) ERREXIT(cinfo, JERR_INPUT_EMPTY);
        WARNMS(cinfo, JWRN_JPEG_EOF);
        self.buffer[0] = 0xFF;
        self.buffer[1] = JPEG_EOI;
        count = 2;
    } else {
        self.offset += count;
    }
    self.next_input_byte = self.buffer.get();
    self.bytes_in_buffer = static_cast<size_t>(count);
    self.startOfFile = false;
    return TRUE;
}

void SkipInput(j_decompress_ptr cinfo, long count) {
    if (count <= 0) return;
    jpeg_source_mgr& src = *cinfo->src;
    while (count > static_cast<long>(src.bytes_in_buffer)) {
        count -= static_cast<long>(src.bytes_in_buffer);
        FillBuffer(cinfo);
    }
    src.next_input_byte += count;
    src.bytes_in_buffer -= static_cast<size_t>(count);
}

}  // namespace

void LogHookLine() {
    // Whether the manager's message hook is set; jpeg_std_error always sets it. The library's
    // own text is deliberately not fetched: the log shows this line for every fault.
    log.Put("custom_error_exit (1)", 10);
}

void custom_error_exit(jpeg_common_struct* cinfo) {
    JpegErrorManager& err = JpegErrorManager::Of(cinfo);
    err.contractFault = false;
    if (!err.quiet) LogHookLine();
    JumpBack(err);
}

void RaiseContractFault(j_common_ptr cinfo) {
    JpegErrorManager& err = JpegErrorManager::Of(cinfo);
    err.contractFault = true;
    JumpBack(err);
}

bool LibraryMessagesMatchBuild() {
    jpeg_error_mgr err;
    jpeg_std_error(&err);
    return err.last_jpeg_message == static_cast<int>(JMSG_LASTMSGCODE) - 1;
}

BufferedFileSource::BufferedFileSource(int descriptor) : jpeg_source_mgr(), fd(descriptor) {
    init_source = [](j_decompress_ptr cinfo) { SourceOf(cinfo).startOfFile = true; };
    fill_input_buffer = FillBuffer;
    skip_input_data = SkipInput;
    resync_to_restart = jpeg_resync_to_restart;
    term_source = [](j_decompress_ptr) {};
}

template <typename Object, void (*Destroy)(Object*)>
JpegSide<Object, Destroy>::JpegSide() {
    InitErrorManager(m_err);
    m_object.err = &m_err.pub;
}

template <typename Object, void (*Destroy)(Object*)>
bool JpegSide<Object, Destroy>::OpenFile(const std::string& path, const char* mode) {
    m_file.reset(std::fopen(path.c_str(), mode));
    return m_file != nullptr;
}

template class JpegSide<jpeg_decompress_struct, jpeg_destroy_decompress>;
template class JpegSide<jpeg_compress_struct, jpeg_destroy_compress>;

bool JpegReader::CreateStdio(JCOPY_OPTION copy) {
    m_created = true;
    return Guard([&] {
        jpeg_create_decompress(&m_object);
        m_object.mem->max_memory_to_use = MemoryCap(fileno(m_file.get()));
        jpeg_stdio_src(&m_object, m_file.get());
        jcopy_markers_setup(&m_object, copy);
    });
}

bool JpegReader::CreateBuffered(JCOPY_OPTION copy, int descriptor) {
    m_created = true;
    m_source = std::make_unique<BufferedFileSource>(descriptor);
    return Guard([&] {
        jpeg_create_decompress(&m_object);
        m_object.mem->max_memory_to_use = MemoryCap(descriptor);
        m_object.src = m_source.get();
        jcopy_markers_setup(&m_object, copy);
    });
}

bool JpegReader::ReadHeader(int& result) {
    return Guard([&] { result = jpeg_read_header(&m_object, TRUE); });
}

void JpegReader::DecodeToRgb() {
    m_object.out_color_space = JCS_RGB;
    m_object.output_components = 3;
}

bool JpegReader::Start(bool& started) {
    return Guard([&] { started = jpeg_start_decompress(&m_object) != FALSE; });
}

bool JpegReader::ReadLine(CPixel* row) {
    JSAMPROW rows[1] = {reinterpret_cast<JSAMPROW>(row)};
    return Guard([&] { jpeg_read_scanlines(&m_object, rows, 1); });
}

bool JpegReader::ReadCoefficients() {
    return Guard([&] { jpeg_read_coefficients(&m_object); });
}

bool JpegReader::AbsorbScans() {
    return Guard([&] {
        while (jpeg_consume_input(&m_object) != JPEG_REACHED_EOI) {
        }
    });
}

bool JpegReader::StartOutput() {
    return Guard([&] { jpeg_start_output(&m_object, m_object.input_scan_number); });
}

bool JpegReader::Finish() {
    return Guard([&] { jpeg_finish_decompress(&m_object); });
}

bool JpegWriter::Create() {
    m_created = true;
    return Guard([&] {
        jpeg_create_compress(&m_object);
        m_object.mem->max_memory_to_use = kMemoryBase;
        jpeg_stdio_dest(&m_object, m_file.get());
    });
}

bool JpegWriter::CopyCriticalParameters(jpeg_decompress_struct& source) {
    return Guard([&] { jpeg_copy_critical_parameters(&source, &m_object); });
}

bool JpegWriter::Start(int width, int height, int quality) {
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

bool JpegWriter::WriteMarkers(jpeg_decompress_struct& source, JCOPY_OPTION copy) {
    return Guard([&] { jcopy_markers_execute(&source, &m_object, copy); });
}

bool JpegWriter::WriteLine(const CPixel* row) {
    // The library only reads the row.
    JSAMPROW rows[1] = {reinterpret_cast<JSAMPROW>(const_cast<CPixel*>(row))};
    return Guard([&] { jpeg_write_scanlines(&m_object, rows, 1); });
}

bool JpegWriter::Finish() {
    return Guard([&] { jpeg_finish_compress(&m_object); });
}

}  // namespace Varnelo
