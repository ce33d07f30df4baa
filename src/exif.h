#pragma once

// The non-image segments of a JPEG file: which markers the decoder keeps, copying the kept
// markers into the encoder's output, finding the JPEG thumbnail embedded in an EXIF APP1
// segment, and rewriting an EXIF block for a new image size.
//
// Offsets inside an EXIF block are counted from the first byte of its TIFF block (the data
// after the 6-byte "Exif\0\0" prefix). Every read is bounds-checked against the block length:
// a malformed block yields no thumbnail or no adjustment, never a read outside the segment.
// Nothing here logs or reports errors.
//
// Threads: stateless functions; a RAW_worker belongs to one call.

#include <cstddef>
#include <cstdio>

// jpeglib.h needs size_t and FILE declared before it.
#include <jpeglib.h>

namespace Varnelo {

// Which markers the decoder saves and the encoder then receives.
enum JCOPY_OPTION {
    JCOPYOPT_NONE = 0,      // none
    JCOPYOPT_COMMENTS = 1,  // COM only
    JCOPYOPT_ALL = 2,       // COM and APP0..APP15
};

// Reads and writes the 16- and 32-bit fields of a TIFF block in its byte order.
// REQUIRES: every pointer passed addresses at least 2 (word) or 4 (dword) valid bytes.
class RAW_worker {
  public:
    RAW_worker() : m_isMotorolla(false) {}
    virtual ~RAW_worker() = default;

    // true: big-endian ("MM"); false: little-endian ("II"), the state after construction.
    void SetIsMotorollaFlag(bool isMotorolla) { m_isMotorolla = isMotorolla; }

    unsigned short ReadWord(const unsigned char* p) const;
    unsigned long ReadDword(const unsigned char* p) const;
    void WriteWord(unsigned char* p, unsigned short value) const;
    // Stores the low 32 bits of value.
    void WriteDword(unsigned char* p, unsigned long value) const;

  private:
    bool m_isMotorolla;
};

// Tells the decoder which markers to keep in memory, whole (up to 65535 bytes each).
// REQUIRES: srcinfo has its data source and jpeg_read_header has not run yet.
void jcopy_markers_setup(jpeg_decompress_struct* srcinfo, JCOPY_OPTION option);

// Writes every saved marker of srcinfo, in file order, to dstinfo; skips a JFIF APP0 or an
// Adobe APP14 only when the encoder writes that marker itself. The option is not consulted:
// whatever was saved is copied.
// REQUIRES: jpeg_start_compress has run and no scanline has been written yet.
void jcopy_markers_execute(jpeg_decompress_struct* srcinfo, jpeg_compress_struct* dstinfo,
                           JCOPY_OPTION option);

// Looks through the saved APP1 "Exif" segments, in file order, for an embedded JPEG
// thumbnail. Returns 1 and sets both outputs on the first one found, else 0.
// The pointer addresses the decoder's saved-marker memory: it is not a copy, must not be
// freed, and is valid only until the decompression object is destroyed.
// REQUIRES: jpeg_read_header has run with the markers saved (jcopy_markers_setup).
int jthumbnail(jpeg_decompress_struct* cinfo, char** thumbnail, unsigned int* length);

// Finds the thumbnail of one TIFF block of `length` bytes through IFD1's
// JPEGInterchangeFormat (0x0201) and JPEGInterchangeFormatLength (0x0202) LONG entries.
// True only when both were found, the length is non-zero and the thumbnail lies wholly
// inside the block; the outputs are cleared once IFD1 has been located.
bool extract_thumbnail(unsigned char* data, unsigned int length, char** thumbnail,
                       unsigned int* thumbnailLength);

// For each saved EXIF APP1: turns the encoder's JFIF header off and, when the destination
// size differs from the source's, rewrites the block for the new size with
// adjust_exif_parameters and cuts the segment before the old thumbnail directory.
// REQUIRES: dstinfo->image_width/image_height are set and jpeg_start_compress has not run.
void jtransform_adjust_parameters(jpeg_decompress_struct* srcinfo, jpeg_compress_struct* dstinfo);

// Rewrites one TIFF block in place: unhooks IFD1 (the thumbnail directory) from IFD0 and
// sets the Exif IFD's PixelXDimension/PixelYDimension to LONG newWidth/newHeight. Returns
// IFD1's former offset, or 0 when there was none or the block could not be adjusted (IFD1
// may be unhooked even then). `flag` is accepted and ignored.
unsigned int adjust_exif_parameters(unsigned char* data, unsigned int length, unsigned int newWidth,
                                    unsigned int newHeight, bool flag);

}  // namespace Varnelo
