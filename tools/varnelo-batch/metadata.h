#pragma once

// The metadata a copy or a thumbnail carries. By default a copy keeps its photo's segments byte
// for byte, as the service writes them; on request the tool rewrites them by group (EXIF, XMP,
// IPTC, ICC, comments, other application segments) and by meaning (the fields that place the
// photo), leaving the image data alone. The Orientation always survives, because the pixels
// are not turned. Stateless functions.

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
    // What the choice keeps but the library could not carry over (say, a MakerNote over its
    // size limit); the photo's status says so.
    std::vector<std::string> lost;
};

// Rewrites `jpeg`, a whole JPEG file, to carry what `choice` keeps of its own metadata: EXIF
// pixel dimensions describe the image in `jpeg`; ColorSpace, InteroperabilityIndex and the
// Orientation stay (the Orientation in a minimal EXIF block when EXIF is not kept); embedded
// EXIF and Photoshop thumbnails, MPF and gain-map segments and any bytes after the end of the
// image go. The frame, tables and scans stay byte for byte.
// REQUIRES: choice.Rewrites().
MetadataOutcome RewriteMetadata(std::string& jpeg, const MetadataChoice& choice);

// The metadata a thumbnail made by the tool carries: the ICC profile of `photo` (a whole JPEG
// file) when `choice` keeps ICC, and its Orientation when it is turned. `thumb` (a whole JPEG
// file) gets no other segment of the photo's.
MetadataOutcome DressThumbnail(std::string& thumb, const std::string& photo,
                               const MetadataChoice& choice);

// The Orientation (1..8) in the first EXIF block of the JPEG file at `path`; 0 when it has
// none or the file cannot be read.
int ReadOrientation(const std::string& path);

}  // namespace Varnelo
