// varnelo-batch's metadata rewrite on hostile EXIF, XMP and IPTC blocks and segment layouts.
// The first input byte is the choice: the groups kept (its low six bits), whether the location
// goes (bit 6) and the layout (bit 7). In the segment layout the rest is a list of segments,
// each a byte choosing the marker (COM, or APPn by its low bits), a 16-bit length and that many
// bytes, put between a small photo's JFIF
// segment and its image data, and followed by another image as trailing bytes; in the file
// layout the rest is the whole file. The photo is rewritten, and a thumbnail dressed with it.
//
// What must hold besides never crashing: a rewrite either fails, leaving the bytes as they
// were, or gives a JPEG whose image data is the photo's own, byte for byte, with nothing after
// it; the location is gone as the library reads the result back; a choice of nothing leaves
// no metadata but the Orientation. And no photo changes how the next is handled: a fixed
// photo with place names in XMP loses them after every input.
//
// Debian's exiv2 is not built with coverage instrumentation, so the fuzzer steers by the tool's
// own code alone (the segment walk, the segment and resource rewriting, the choices around the
// library), while the library's parsing is exercised only as far as that reaches it. The
// sanitizers likewise see the library's faults only where they surface in the tool's memory.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exiv2/exiv2.hpp>
#include <memory>
#include <set>
#include <string>

#include "fuzz_support.h"
#include "samples/sample_photos.h"
#include "varnelo-batch/jpeg_layout.h"
#include "varnelo-batch/metadata.h"

namespace {

using namespace Varnelo;

bool EndsWith(const std::string& s, const std::string& end) {
    return s.size() >= end.size() && s.compare(s.size() - end.size(), end.size(), end) == 0;
}

void Check(bool condition) {
    if (!condition) std::abort();
}

// Reads `jpeg` back with the library and checks what a choice promises.
void CheckMetadata(const std::string& jpeg, const MetadataChoice& choice) {
    std::unique_ptr<Exiv2::Image> image;
    try {
        image = Exiv2::ImageFactory::open(reinterpret_cast<const Exiv2::byte*>(jpeg.data()),
                                          static_cast<long>(jpeg.size()));
        image->readMetadata();
    } catch (const std::exception&) {
        return;  // nothing the library can read, nothing that places the photo for it
    }
    static const std::set<std::string> kTimes = {
        "Exif.GPSInfo.GPSVersionID", "Exif.GPSInfo.GPSTimeStamp", "Exif.GPSInfo.GPSDateStamp"};
    if (choice.stripLocation) {
        for (const auto& datum : image->exifData()) {
            Check(datum.groupName() != "GPSInfo" || kTimes.count(datum.key()) != 0);
        }
        for (const auto& datum : image->xmpData()) {
            const std::string key = datum.key();
            for (const char* place : {"Xmp.photoshop.City", "Xmp.photoshop.Country",
                                      "Xmp.exif.GPSLatitude", "Xmp.iptcExt.LocationShown"}) {
                Check(key.compare(0, std::strlen(place), place) != 0);
            }
        }
        for (const auto& datum : image->iptcData()) {
            Check(datum.key() != "Iptc.Application2.City" &&
                  datum.key() != "Iptc.Application2.CountryName");
        }
    }
    if (choice.keep == KEEP_NONE) {
        for (const auto& datum : image->exifData()) {
            Check(datum.key() == "Exif.Image.Orientation");
        }
        Check(image->xmpData().empty() && image->iptcData().empty());
        Check(image->comment().empty() && !image->iccProfileDefined());
    }
}

const MetadataChoice kStrip = {KEEP_ALL, true};
const std::string kNextPhoto = EncodeJpeg(
    {16, 16},
    {{0xE1, std::string("http://ns.adobe.com/xap/1.0/\0", 29) +
                "<x:xmpmeta xmlns:x='adobe:ns:meta/'><rdf:RDF "
                "xmlns:rdf='http://www.w3.org/1999/02/22-rdf-syntax-ns#'><rdf:Description "
                "rdf:about='' xmlns:photoshop='http://ns.adobe.com/photoshop/1.0/' "
                "photoshop:City='Rome'/></rdf:RDF></x:xmpmeta>"}});

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string base = EncodeJpeg({16, 16});
    static const std::string imageData = base.substr(20);  // after SOI and the JFIF segment
    static const std::string trailer = EncodeJpeg({8, 8}, {{0xE1, std::string("Exif\0\0", 6)}});
    if (size < 1) return 0;
    MetadataChoice choice;
    choice.keep = data[0] & KEEP_ALL;
    choice.stripLocation = (data[0] & 0x40) != 0;
    const bool wholeFile = (data[0] & 0x80) != 0;
    const std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);

    std::string photo;
    if (wholeFile) {
        photo = rest;
    } else {
        photo = base.substr(0, 20);
        for (std::size_t at = 0; at + 3 <= rest.size();) {
            const unsigned code = static_cast<unsigned char>(rest[at]);
            const std::size_t length = static_cast<unsigned char>(rest[at + 1]) << 8 |
                                       static_cast<unsigned char>(rest[at + 2]);
            const std::string payload = rest.substr(at + 3, std::min<std::size_t>(length, 65533));
            photo += MakeSegment(code & 0x10 ? 0xFE : 0xE0 | (code & 0x0F), payload);
            at += 3 + length;
        }
        photo += imageData + trailer;
    }

    Fuzz::RunOnSmallStack([&] {
        std::string copy = photo;
        const MetadataOutcome outcome = RewriteMetadata(copy, choice);
        if (!outcome.failure.empty()) {
            Check(copy == photo);
        } else {
            Check(copy.compare(0, 2, "\xFF\xD8") == 0);
            if (!wholeFile) Check(EndsWith(copy, imageData));
            CheckMetadata(copy, choice);
        }

        std::string thumb = base;
        if (DressThumbnail(thumb, photo, choice).failure.empty()) Check(EndsWith(thumb, imageData));

        std::string next = kNextPhoto;
        Check(RewriteMetadata(next, kStrip).failure.empty());
        Check(next.find("Rome") == std::string::npos);
    });
    return 0;
}
