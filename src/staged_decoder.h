#pragma once

// The staged peer of the line source. A decoder's work is a serial entropy decoding and, per
// line, the inverse DCT, upsampling and colour conversion. A staged conversion runs the two on
// two threads: a second decoder (the entropy decoder) reads the same open file and
// entropy-decodes it (jpeg_read_coefficients) into a CoefficientRing, while the conversion's own
// decoder, in buffered-image mode, reconstructs its lines from the ring. The conversion's decoder
// reads no entropy-coded data itself: its source ends where the scan begins.
//
// Same lines, warnings and faults as a one-thread conversion:
// - The entropy decoder meets every warning and fault of the data. Its warnings are the ones
//   counted, carrying on from those of the header the conversion's decoder read, and it prints
//   the first one only when the header printed none, as one decoder would.
// - It faults quietly. The conversion's decoder then faults at its next row, logging the hook's
//   line where a one-thread conversion would; a fault it meets after the last row (in what
//   follows the scan) is logged by Finish, where a one-thread decoder would meet it.
// - When the library breaks the ring's contract (see coefficient_ring.h) or the entropy decoder
//   cannot start, the staged decoder falls back, unseen: a third decoder decodes the file from
//   its start on the calling thread, passes over the lines already given, and gives the rest.
//   It prints only what has not been printed. So the answer never depends on whether a
//   conversion was staged.
//
// Which photos are staged: StagingProven says whether this library and this photo are ones the
// ring's contract was proven on; ChooseLineSource (line_source.h) adds whether staging pays.
//
// Ownership: owns the conversion's decoder, the entropy decoder, its thread, the ring and any
// fallback decoder; borrows the file descriptor, which the conversion keeps open.
// Threads: made and used by the conversion's thread; the entropy decoder belongs to the helper
// thread until that is joined.

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>

#include "coefficient_ring.h"
#include "helper_thread.h"
#include "jpeg_boundary.h"
#include "line_source.h"

namespace Varnelo {

// Whether the ring's contract was proven on the JPEG library in use and on the photo whose
// header `header` has read: libjpeg-turbo 2.1 at build time and at run time (its message set is
// the one built against), a baseline or extended sequential frame (SOF0 or SOF1), Huffman-coded,
// 8-bit, in one scan, read from a regular file (`descriptor`).
bool StagingProven(JpegReader& header, int descriptor);

// Forces what StagingProven says of the library (nullopt: what the library is), for tests.
void OverrideLibraryProvenForTesting(std::optional<bool> proven);

class StagedDecoder : public LineSource {
  public:
    // Takes `reader`, which has read the header of the file on `descriptor` with `copy`, and
    // starts the entropy decoder; `reader` is to be started next. Null, with `reader` untouched,
    // when the ring or the thread cannot be had.
    static std::unique_ptr<StagedDecoder> Make(std::unique_ptr<JpegReader>& reader, int descriptor,
                                               JCOPY_OPTION copy);
    ~StagedDecoder() override;
    StagedDecoder(const StagedDecoder&) = delete;
    StagedDecoder& operator=(const StagedDecoder&) = delete;

    jpeg_decompress_struct& Info() override;
    bool Start(bool& started) override;
    bool ReadLine(CPixel* row) override;
    bool Finish() override;
    long Warnings() const override;

    // Conversions staged, and of them those that fell back, since the process started.
    static std::uint64_t Staged();
    static std::uint64_t FellBack();

  private:
    StagedDecoder(JpegReader& reader, int descriptor, JCOPY_OPTION copy);

    // The entropy decoder's thread: reads the header again and decodes the scan into the ring.
    void DecodeEntropy();
    // Turns the conversion's decoder, started, to reading the ring. False when it faulted.
    bool StartReading();
    // Stops the entropy decoder and decodes from the start on this thread, passing over the
    // lines already given; `started` as Start gives it. False when the library faulted.
    bool FallBack(bool& started);

    const int m_descriptor;
    const JCOPY_OPTION m_copy;
    const long m_headerWarnings;
    const JDIMENSION m_width, m_height;
    CoefficientRing m_ring;
    std::unique_ptr<JpegReader> m_reader;    // the conversion's decoder
    std::unique_ptr<JpegReader> m_entropy;   // the helper thread's until joined
    std::unique_ptr<JpegReader> m_fallback;  // set once fallen back
    long m_readerWarnings = 0;               // the conversion's decoder's, after the header
    long m_lines = 0;                        // lines given
    bool m_reading = false;
    bool m_decoded = false;  // the entropy decoder's, read after the join
    HelperThread m_thread;   // last: joined before the rest goes
};

}  // namespace Varnelo
