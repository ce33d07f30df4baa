#include "exif.h"

#include <cstdint>
#include <cstring>

namespace Varnelo {

namespace {

const unsigned int kMaxMarkerLength = 65535;
const unsigned short kTiffMagic = 42;
const unsigned short kTypeLong = 4;
const unsigned short kTagExifIfd = 0x8769;
const unsigned short kTagPixelXDimension = 0xA002;
const unsigned short kTagPixelYDimension = 0xA003;
const unsigned short kTagThumbnailOffset = 0x0201;
const unsigned short kTagThumbnailLength = 0x0202;
const uint64_t kEntrySize = 12;
// adjust_exif_parameters only follows directories in the first 64 KiB, the most a
// single marker segment can hold.
const uint64_t kMaxAdjustOffset = 0x10000;

bool IsExifApp1(const jpeg_saved_marker_ptr marker) {
    static const unsigned char kPrefix[6] = {'E', 'x', 'i', 'f', 0, 0};
    return marker->marker == JPEG_APP0 + 1 && marker->data_length > 5 &&
           std::memcmp(marker->data, kPrefix, sizeof kPrefix) == 0;
}

bool StartsWith(const jpeg_saved_marker_ptr marker, const char* text, unsigned int count) {
    return marker->data_length >= count && std::memcmp(marker->data, text, count) == 0;
}

// Reads the byte-order mark and the magic number of a TIFF block of at least 8 bytes.
bool ReadTiffHeader(const unsigned char* data, RAW_worker& raw) {
    if (data[0] == 'I' && data[1] == 'I') {
        raw.SetIsMotorollaFlag(false);
    } else if (data[0] == 'M' && data[1] == 'M') {
        raw.SetIsMotorollaFlag(true);
    } else {
        return false;
    }
    return raw.ReadWord(data + 2) == kTiffMagic;
}

// Offsets are widened to 64 bits so that no 32-bit value read from the block can wrap
// around a bounds check.
bool Fits(uint64_t offset, uint64_t size, uint64_t length) {
    return offset <= length && size <= length - offset;
}

}  // namespace

unsigned short RAW_worker::ReadWord(const unsigned char* p) const {
    if (m_isMotorolla) return static_cast<unsigned short>((p[0] << 8) | p[1]);
    return static_cast<unsigned short>((p[1] << 8) | p[0]);
}

unsigned long RAW_worker::ReadDword(const unsigned char* p) const {
    const unsigned long b0 = p[0], b1 = p[1], b2 = p[2], b3 = p[3];
    if (m_isMotorolla) return (b0 << 24) | (b1 << 16) | (b2 << 8) | b3;
    return (b3 << 24) | (b2 << 16) | (b1 << 8) | b0;
}

void RAW_worker::WriteWord(unsigned char* p, unsigned short value) const {
    const unsigned char hi = static_cast<unsigned char>(value >> 8);
    const unsigned char lo = static_cast<unsigned char>(value & 0xFF);
    if (m_isMotorolla) {
        p[0] = hi;
        p[1] = lo;
    } else {
        p[0] = lo;
        p[1] = hi;
    }
}

void RAW_worker::WriteDword(unsigned char* p, unsigned long value) const {
    for (int i = 0; i < 4; ++i) {
        const unsigned char byte = static_cast<unsigned char>((value >> (8 * i)) & 0xFF);
        p[m_isMotorolla ? 3 - i : i] = byte;
    }
}

void jcopy_markers_setup(jpeg_decompress_struct* srcinfo, JCOPY_OPTION option) {
    if (option != JCOPYOPT_NONE) jpeg_save_markers(srcinfo, JPEG_COM, kMaxMarkerLength);
    if (option == JCOPYOPT_ALL) {
        for (int i = 0; i < 16; ++i) jpeg_save_markers(srcinfo, JPEG_APP0 + i, kMaxMarkerLength);
    }
}

void jcopy_markers_execute(jpeg_decompress_struct* srcinfo, jpeg_compress_struct* dstinfo,
                           JCOPY_OPTION /*option*/) {
    for (jpeg_saved_marker_ptr marker = srcinfo->marker_list; marker != nullptr;
         marker = marker->next) {
        if (dstinfo->write_JFIF_header && marker->marker == JPEG_APP0 &&
            StartsWith(marker, "JFIF", 5)) {
            continue;
        }
        if (dstinfo->write_Adobe_marker && marker->marker == JPEG_APP0 + 14 &&
            StartsWith(marker, "Adobe", 5)) {
            continue;
        }
        jpeg_write_marker(dstinfo, marker->marker, marker->data, marker->data_length);
    }
}

int jthumbnail(jpeg_decompress_struct* cinfo, char** thumbnail, unsigned int* length) {
    for (jpeg_saved_marker_ptr marker = cinfo->marker_list; marker != nullptr;
         marker = marker->next) {
        if (!IsExifApp1(marker)) continue;
        if (extract_thumbnail(marker->data + 6, marker->data_length - 6, thumbnail, length)) {
            return 1;
        }
    }
    return 0;
}

bool extract_thumbnail(unsigned char* data, unsigned int length, char** thumbnail,
                       unsigned int* thumbnailLength) {
    if (data == nullptr || length <= 11) return false;
    RAW_worker raw;
    if (!ReadTiffHeader(data, raw)) return false;

    const uint64_t ifd0 = raw.ReadDword(data + 4);
    if (!Fits(ifd0, 2, length)) return false;
    const uint64_t count0 = raw.ReadWord(data + ifd0);
    if (count0 == 0) return false;

    const uint64_t link = ifd0 + 2 + kEntrySize * count0;
    if (!Fits(link, 4, length)) return false;
    const uint64_t ifd1 = raw.ReadDword(data + link);
    if (!Fits(ifd1, kEntrySize, length)) return false;
    const uint64_t count1 = raw.ReadWord(data + ifd1);
    if (count1 == 0) return false;

    *thumbnail = nullptr;
    *thumbnailLength = 0;
    bool haveOffset = false;
    uint64_t offset = 0;
    uint64_t size = 0;
    for (uint64_t i = 0; i < count1; ++i) {
        const uint64_t entry = ifd1 + 2 + kEntrySize * i;
        if (!Fits(entry, kEntrySize, length)) break;
        const unsigned short tag = raw.ReadWord(data + entry);
        const unsigned short type = raw.ReadWord(data + entry + 2);
        const unsigned long count = raw.ReadDword(data + entry + 4);
        if (type != kTypeLong || count != 1) continue;
        if (tag == kTagThumbnailOffset) {
            offset = raw.ReadDword(data + entry + 8);
            haveOffset = true;
        } else if (tag == kTagThumbnailLength) {
            size = raw.ReadDword(data + entry + 8);
        }
    }
    // A thumbnail that does not lie wholly inside the block counts as absent, so the caller
    // falls back to converting the image.
    if (!haveOffset || size == 0 || !Fits(offset, size, length)) return false;
    *thumbnail = reinterpret_cast<char*>(data + offset);
    *thumbnailLength = static_cast<unsigned int>(size);
    return true;
}

unsigned int adjust_exif_parameters(unsigned char* data, unsigned int length, unsigned int newWidth,
                                    unsigned int newHeight, bool /*flag*/) {
    if (data == nullptr || length < 12) return 0;
    RAW_worker raw;
    if (!ReadTiffHeader(data, raw)) return 0;

    const uint64_t ifd0 = raw.ReadDword(data + 4);
    if (ifd0 >= kMaxAdjustOffset || !Fits(ifd0, 2, length)) return 0;
    const uint64_t count0 = raw.ReadWord(data + ifd0);
    if (count0 == 0) return 0;

    const uint64_t link = ifd0 + 2 + kEntrySize * count0;
    if (!Fits(link, 4, length)) return 0;
    const unsigned long ifd1 = raw.ReadDword(data + link);
    if (!Fits(ifd1, kEntrySize, length)) return 0;
    // Unhooked before the Exif IFD is looked at: it stays unhooked even when no dimension
    // can be rewritten.
    raw.WriteDword(data + link, 0);

    uint64_t exifIfd = 0;
    bool found = false;
    for (uint64_t i = 0; i < count0; ++i) {
        const uint64_t entry = ifd0 + 2 + kEntrySize * i;
        if (!Fits(entry, kEntrySize, length)) return 0;
        if (raw.ReadWord(data + entry) == kTagExifIfd) {
            exifIfd = raw.ReadDword(data + entry + 8);
            found = true;
            break;
        }
    }
    if (!found) return 0;
    if (exifIfd >= kMaxAdjustOffset || !Fits(exifIfd, 2, length)) return 0;
    const uint64_t countE = raw.ReadWord(data + exifIfd);
    // A single-entry Exif IFD is left alone on purpose.
    if (countE <= 1) return 0;

    for (uint64_t i = 0; i < countE; ++i) {
        const uint64_t entry = exifIfd + 2 + kEntrySize * i;
        if (!Fits(entry, kEntrySize, length)) break;
        const unsigned short tag = raw.ReadWord(data + entry);
        if (tag != kTagPixelXDimension && tag != kTagPixelYDimension) continue;
        raw.WriteWord(data + entry + 2, kTypeLong);
        raw.WriteDword(data + entry + 4, 1);
        raw.WriteDword(data + entry + 8, tag == kTagPixelXDimension ? newWidth : newHeight);
    }
    return static_cast<unsigned int>(ifd1);
}

void jtransform_adjust_parameters(jpeg_decompress_struct* srcinfo, jpeg_compress_struct* dstinfo) {
    for (jpeg_saved_marker_ptr marker = srcinfo->marker_list; marker != nullptr;
         marker = marker->next) {
        if (!IsExifApp1(marker)) continue;
        dstinfo->write_JFIF_header = FALSE;
        if (dstinfo->image_width == srcinfo->image_width &&
            dstinfo->image_height == srcinfo->image_height) {
            continue;
        }
        const unsigned int ifd1 =
            adjust_exif_parameters(marker->data + 6, marker->data_length - 6, dstinfo->image_width,
                                   dstinfo->image_height, false);
        if (ifd1 != 0 && static_cast<uint64_t>(marker->data_length) >= uint64_t{ifd1} + 6) {
            marker->data_length = ifd1 + 6;
        }
    }
}

}  // namespace Varnelo
