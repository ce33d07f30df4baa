#include "staged_decoder.h"

#include <sys/stat.h>

#include <new>
#include <utility>
#include <vector>

namespace Varnelo {

namespace {

// The start-of-frame markers of the proven processes: baseline and extended sequential.
const int kBaselineFrame = 0xC0;
const int kExtendedFrame = 0xC1;

std::atomic<int> g_libraryOverride{-1};  // -1: none; 0 or 1: what StagingProven says
std::atomic<std::uint64_t> g_staged{0};
std::atomic<std::uint64_t> g_fellBack{0};

// The ring's contract was read off and proven on libjpeg-turbo 2.1's coefficient controller. A
// build against another version stages nothing; so does a 2.1 build that finds at run time a
// library whose messages differ from its headers' (a newer one loaded under the same soname).
bool LibraryProven() {
    const int forced = g_libraryOverride.load();
    if (forced >= 0) return forced == 1;
#if defined(LIBJPEG_TURBO_VERSION_NUMBER) && LIBJPEG_TURBO_VERSION_NUMBER >= 2001000 && \
    LIBJPEG_TURBO_VERSION_NUMBER < 2002000
    static const bool proven = LibraryMessagesMatchBuild();
    return proven;
#else
    return false;
#endif
}

}  // namespace

bool StagingProven(JpegReader& header, int descriptor) {
    jpeg_decompress_struct& info = header.Info();
    const int frame = header.Errors().frameMarker;
    struct stat file;
    return LibraryProven() && (frame == kBaselineFrame || frame == kExtendedFrame) &&
           !info.progressive_mode && !info.arith_code && info.data_precision == 8 &&
           !jpeg_has_multiple_scans(&info) && fstat(descriptor, &file) == 0 &&
           S_ISREG(file.st_mode);
}

void OverrideLibraryProvenForTesting(std::optional<bool> proven) {
    g_libraryOverride.store(proven.has_value() ? (*proven ? 1 : 0) : -1);
}

std::unique_ptr<StagedDecoder> StagedDecoder::Make(std::unique_ptr<JpegReader>& reader,
                                                   int descriptor, JCOPY_OPTION copy) {
    std::unique_ptr<StagedDecoder> staged;
    try {
        staged.reset(new StagedDecoder(*reader, descriptor, copy));
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    StagedDecoder* self = staged.get();
    if (!staged->m_thread.Start([self] { self->DecodeEntropy(); })) return nullptr;
    staged->m_reader = std::move(reader);
    jpeg_decompress_struct& info = staged->m_reader->Info();
    info.buffered_image = TRUE;
    staged->m_ring.Attach(info, CoefficientRing::READER);
    ++g_staged;
    return staged;
}

StagedDecoder::StagedDecoder(JpegReader& reader, int descriptor, JCOPY_OPTION copy)
    : m_descriptor(descriptor),
      m_copy(copy),
      m_headerWarnings(reader.Warnings()),
      m_width(reader.Info().image_width),
      m_height(reader.Info().image_height),
      m_ring(reader.Info()),
      m_entropy(std::make_unique<JpegReader>()) {}

StagedDecoder::~StagedDecoder() {
    m_ring.Fail();
    m_thread.Join();
}

std::uint64_t StagedDecoder::Staged() { return g_staged.load(); }
std::uint64_t StagedDecoder::FellBack() { return g_fellBack.load(); }

jpeg_decompress_struct& StagedDecoder::Info() {
    return m_fallback != nullptr ? m_fallback->Info() : m_reader->Info();
}

bool StagedDecoder::Start(bool& started) {
    if (m_reader->Start(started)) return true;
    return m_reader->Errors().contractFault && FallBack(started);
}

bool StagedDecoder::ReadLine(CPixel* row) {
    if (m_fallback == nullptr) {
        if (StartReading() && m_reader->ReadLine(row)) {
            ++m_lines;
            return true;
        }
        bool started = false;
        if (!m_reader->Errors().contractFault || !FallBack(started) || !started) return false;
    }
    if (!m_fallback->ReadLine(row)) return false;
    ++m_lines;
    return true;
}

bool StagedDecoder::Finish() {
    if (m_fallback != nullptr) return m_fallback->Finish();
    m_thread.Join();
    if (m_ring.ContractBroken()) {
        bool started = false;
        return FallBack(started) && started && m_fallback->Finish();
    }
    if (!m_decoded) {
        // The entropy decoder's fault after the last row, met quietly on its thread, is met
        // here by a one-thread decoder finishing.
        LogHookLine();
        return false;
    }
    m_entropy->Errors().quiet = false;
    return m_entropy->Finish();
}

long StagedDecoder::Warnings() const {
    if (m_fallback != nullptr) return m_fallback->Warnings();
    return m_entropy->Warnings() + m_readerWarnings;
}

void StagedDecoder::DecodeEntropy() {
    JpegReader& entropy = *m_entropy;
    JpegErrorManager& err = entropy.Errors();
    err.quiet = true;
    err.muted = true;  // the header's messages were printed by the conversion's decoder
    int header = 0;
    const bool ready = entropy.CreateBuffered(JCOPYOPT_NONE, m_descriptor) &&
                       entropy.ReadHeader(header) && header == JPEG_HEADER_OK &&
                       entropy.Info().image_width == m_width &&
                       entropy.Info().image_height == m_height;
    if (!ready) {
        // Not the data's fault: the header was read once already. The conversion falls back.
        m_ring.BreakContract();
        return;
    }
    m_ring.Attach(entropy.Info(), CoefficientRing::WRITER);
    err.muted = false;
    err.pub.num_warnings = m_headerWarnings;
    m_decoded = entropy.ReadCoefficients();
    // A fault after the last row is met again, as in a one-thread conversion, when the decoder
    // is finished; the rows are all there for the reconstruction.
    if (m_decoded || m_ring.AllWritten(entropy.Info())) m_ring.Complete();
    if (!m_decoded) m_ring.Fail();
}

bool StagedDecoder::StartReading() {
    if (m_reading) return true;
    // The conversion's decoder takes in a scan of its own that ends at once: whatever it makes
    // of that (a warning, a fault) is not the photo's, so it is neither printed, counted nor
    // logged, and any fault is the library's and falls back.
    JpegErrorManager& err = m_reader->Errors();
    m_readerWarnings = m_reader->Warnings() - m_headerWarnings;
    err.muted = true;
    err.quiet = true;
    static constexpr JOCTET kEndOfImage[2] = {0xFF, JPEG_EOI};
    jpeg_source_mgr& src = *m_reader->Info().src;
    src.fill_input_buffer = [](j_decompress_ptr cinfo) {
        cinfo->src->next_input_byte = kEndOfImage;
        cinfo->src->bytes_in_buffer = sizeof kEndOfImage;
        return boolean(TRUE);
    };
    src.fill_input_buffer(&m_reader->Info());
    const bool absorbed = m_reader->AbsorbScans();
    if (absorbed) m_ring.StartReading();
    m_reading = absorbed && m_reader->StartOutput();
    err.quiet = false;
    if (!m_reading) err.contractFault = true;
    return m_reading;
}

bool StagedDecoder::FallBack(bool& started) {
    ++g_fellBack;
    started = false;
    m_ring.BreakContract();  // the entropy decoder stops at its next row
    m_thread.Join();
    const bool printed = m_reader->Errors().printed || m_entropy->Errors().printed;
    m_fallback = std::make_unique<JpegReader>();
    m_fallback->Errors().muted = printed;
    int header = 0;
    if (!m_fallback->CreateBuffered(m_copy, m_descriptor) || !m_fallback->ReadHeader(header) ||
        header != JPEG_HEADER_OK) {
        return false;
    }
    m_fallback->DecodeToRgb();
    if (!m_fallback->Start(started) || !started) return false;
    std::vector<CPixel> passed(m_fallback->Info().output_width);
    for (long i = 0; i < m_lines; ++i) {
        if (!m_fallback->ReadLine(passed.data())) return false;
    }
    return true;
}

}  // namespace Varnelo
