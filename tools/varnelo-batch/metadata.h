#pragma once

// The metadata a copy or a thumbnail carries. By default a copy keeps its photo's segments byte
// for byte, as the service writes them; on request the tool rewrites them by group (EXIF, XMP,
// IPTC, ICC, comments, other application segments) and by meaning (the fields that place the
// photo), leaving the image data alone. The Orientation always survives, because the pixels
// are not turned. EXIF, XMP and IPTC are read and written with exiv2; the segments around them
// are the tool's own walk (jpeg_layout.h). Stateless functions; any thread may call them.

#include <string>
#include <vector>

namespace Varnelo {

// Groups of metadata, as --keep names them.
enum KeepGroup : unsigned {
    KEEP_NONE = 0,
    KEEP_EXIF = 1u << 0,
    KEEP_XMP = 1u << 1,
    KEEP_IPTC = 1u << 2,
    KEEP_ICC = 1u << 3,
    KEEP_COMMENT = 1u << 4,  // COM segments
    KEEP_OTHER = 1u << 5,    // every other application segment
    KEEP_ALL = (1u << 6) - 1,
};

// What the copies of a run carry.
struct MetadataChoice {
    unsigned keep = KEEP_ALL;
    bool stripLocation = false;

    // Whether the copies are rewritten at all; if not, they keep the photo's segments byte for
    // byte and no metadata failure can fail a photo.
    bool Rewrites() const { return keep != KEEP_ALL || stripLocation; }
};

// Reads --keep's comma-separated list of exif, xmp, iptc, icc, comment, other, all and none
// into `keep`. False with `problem` set to one line when a word is not one of those.
bool ParseKeepList(const std::string& list, unsigned& keep, std::string& problem);

// `choice` as one text that names every group kept and whether the location is stripped, for
// the settings recorded with each file made and for messages.
std::string ChoiceText(const MetadataChoice& choice);

// What a rewrite did.
struct MetadataOutcome {
    // Set when the metadata cannot be parsed or rewritten: the file must not be written.
    std::string failure;
    // What the choice keeps but could not be carried over (say, a MakerNote over the size the
    // EXIF library writes); the photo's status says so.
    std::vector<std::string> lost;
};

// Rewrites `jpeg`, a whole JPEG file that carries its photo's segments (the service copies
// them), to carry what `choice` keeps of them: EXIF pixel dimensions describe the image in
// `jpeg`; ColorSpace, InteroperabilityIndex and the Orientation stay (the Orientation in a
// minimal EXIF block when EXIF is not kept and the photo is turned); embedded EXIF, maker-note
// and Photoshop thumbnails, MPF and gain-map segments and any bytes after the end of the image
// go. The frame, tables and scans stay byte for byte. On failure `jpeg` is left as it was.
// REQUIRES: choice.Rewrites().
MetadataOutcome RewriteMetadata(std::string& jpeg, const MetadataChoice& choice);

// The metadata a thumbnail made by the tool carries: the ICC profile of `photo` when `choice`
// keeps ICC, and its Orientation when it is turned; no other segment, of the photo's or of its
// own. `thumb` is a whole JPEG file; `photo` is the photo's JPEG file or its head (see
// ReadJpegHead). On failure `thumb` is left as it was.
MetadataOutcome DressThumbnail(std::string& thumb, const std::string& photo,
                               const MetadataChoice& choice);

// The Orientation (1..8) in the first EXIF block of the JPEG file at `path`; 0 when it has
// none or the file cannot be read. Reads only the file's head.
int ReadOrientation(const std::string& path);

// The bytes of the JPEG file at `path` up to its first scan, enough for DressThumbnail and the
// Orientation; empty when the file cannot be read.
std::string ReadJpegHead(const std::string& path);

}  // namespace Varnelo
