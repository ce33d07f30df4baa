#pragma once

// Where a conversion's source lines come from: one interface with two peers, chosen once per
// conversion after the header is read, so that the conversion reads as one path whichever
// runs.
// - OneThreadDecoder: the conversion's own decoder decodes every line on the calling thread.
// - StagedDecoder (staged_decoder.h): a second decoder entropy-decodes the photo on a helper
//   thread while the conversion's decoder reconstructs the lines.
// Both give the same lines, the same warnings (counted, and printed by the library on standard
// error) and the same faults, each logged once as custom_error_exit logs it.
//
// Ownership: a line source owns its decoders; the conversion keeps the source file open for the
// line source's life.
// Threads: used by the conversion's thread only.

#include <cstddef>
#include <cstdint>
#include <memory>

#include "jpeg_boundary.h"
#include "pixel.h"

namespace Varnelo {

class LineSource {
  public:
    virtual ~LineSource() = default;

    // The decompressor whose header, output size and saved segments the conversion uses.
    virtual jpeg_decompress_struct& Info() = 0;
    // jpeg_start_decompress: false when the library faulted; `started` false when the decoder
    // declined to start.
    virtual bool Start(bool& started) = 0;
    // Decodes the next line into `row` (output_width pixels); false when the library faulted.
    virtual bool ReadLine(CPixel* row) = 0;
    // jpeg_finish_decompress once every line is read; false when the library faulted.
    virtual bool Finish() = 0;
    // The library's warnings over the whole decoding.
    virtual long Warnings() const = 0;
};

// The plain peer: the conversion's decoder, read line by line on the calling thread.
class OneThreadDecoder : public LineSource {
  public:
    explicit OneThreadDecoder(std::unique_ptr<JpegReader> reader) : m_reader(std::move(reader)) {}

    jpeg_decompress_struct& Info() override { return m_reader->Info(); }
    bool Start(bool& started) override { return m_reader->Start(started); }
    bool ReadLine(CPixel* row) override { return m_reader->ReadLine(row); }
    bool Finish() override { return m_reader->Finish(); }
    long Warnings() const override { return m_reader->Warnings(); }

  private:
    std::unique_ptr<JpegReader> m_reader;
};

// A row for a line source to fill: `width` + 2 pixels (PumpRows pads the row). The library
// writes a row that starts on a 32-byte boundary with non-temporal stores, which go around the
// cache, and the scaler reads every row right after it is written, from memory then: so the row
// starts 16 bytes past such a boundary, and is written through the cache. The bytes are left
// uninitialised: the decoder writes every pixel before any is read.
class DecoderRow {
  public:
    explicit DecoderRow(int width)
        : m_bytes(new unsigned char[3 * (static_cast<size_t>(width) + 2) + 2 * kAlign]) {}
    DecoderRow(const DecoderRow&) = delete;
    DecoderRow& operator=(const DecoderRow&) = delete;

    CPixel* Get() {
        unsigned char* start = m_bytes.get();
        return reinterpret_cast<CPixel*>(
            start + (kAlign - reinterpret_cast<uintptr_t>(start) % kAlign) + kAlign / 2);
    }

  private:
    static constexpr size_t kAlign = 32;
    std::unique_ptr<unsigned char[]> m_bytes;
};

// The line source for a conversion whose decoder `reader` has read the header of the file open
// on `descriptor` (read with `copy`): staged when the photo is to be reduced (`reduces`) and
// StagingChosen allows it, else one thread.
std::unique_ptr<LineSource> ChooseLineSource(std::unique_ptr<JpegReader> reader, int descriptor,
                                             JCOPY_OPTION copy, bool reduces);

}  // namespace Varnelo
