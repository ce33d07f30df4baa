#include "metadata.h"

#include <cstdint>
#include <exception>
#include <exiv2/exiv2.hpp>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <sstream>

#include "jpeg_layout.h"
#include "md5.h"

namespace Varnelo {

namespace {

struct GroupName {
    const char* name;
    unsigned groups;
};

const GroupName kGroups[] = {
    {"exif", KEEP_EXIF},       {"xmp", KEEP_XMP},     {"iptc", KEEP_IPTC}, {"icc", KEEP_ICC},
    {"comment", KEEP_COMMENT}, {"other", KEEP_OTHER}, {"all", KEEP_ALL},   {"none", KEEP_NONE},
};

// ---------------------------------------------------------------------------------------------
// The library.

const char kXmpNoteNs[] = "http://ns.adobe.com/xmp/note/";
const char kGainMapNs[] = "http://ns.adobe.com/hdr-gain-map/1.0/";
const char kContainerNs[] = "http://ns.google.com/photos/1.0/container/";
const char kCameraNs[] = "http://ns.google.com/photos/1.0/camera/";

std::mutex g_xmpLock;

void LockXmp(void* mutex, bool lock) {
    if (lock) {
        static_cast<std::mutex*>(mutex)->lock();
    } else {
        static_cast<std::mutex*>(mutex)->unlock();
    }
}

// exiv2 0.27 writes its warnings and errors to stderr through one global handler; the tool's
// output is its own, so they are muted: what matters comes back as exceptions and results. Its
// XMP toolkit keeps one table of namespaces, which parsing a packet with a namespace it does
// not know adds to: the toolkit is started once, before any parse, with a lock that serialises
// those additions.
void StartLibrary() {
    static std::once_flag once;
    std::call_once(once, [] {
        Exiv2::LogMsg::setLevel(Exiv2::LogMsg::mute);
        Exiv2::LogMsg::setHandler(nullptr);
        Exiv2::XmpParser::initialize(LockXmp, &g_xmpLock);
    });
}

// Held from the parse of a packet to the writing of what is left of it.
std::mutex g_xmpWork;

// Forgets the namespaces that earlier packets added. A packet may bind a prefix the library
// knows (photoshop, say) to a namespace of its own, and the library keeps that binding for
// every later packet, whose place names would then no longer be known by their namespace. The
// namespaces looked for here get fixed prefixes again. REQUIRES: g_xmpWork held.
void ResetNamespaces() {
    Exiv2::XmpProperties::unregisterNs();
    Exiv2::XmpProperties::registerNs(kXmpNoteNs, "xmpNote");
    Exiv2::XmpProperties::registerNs(kGainMapNs, "hdrgm");
    Exiv2::XmpProperties::registerNs(kContainerNs, "Container");
    Exiv2::XmpProperties::registerNs(kCameraNs, "GCamera");
}

const Exiv2::byte* Bytes(const std::string& s) {
    return reinterpret_cast<const Exiv2::byte*>(s.data());
}

std::string Md5Of(const std::string& s, bool hex) {
    MD5 md5;
    md5.Update(reinterpret_cast<const unsigned char*>(s.data()), s.size());
    md5.Final();
    if (hex) return md5.GetResultString();
    return std::string(reinterpret_cast<const char*>(md5.GetResultCode()), 16);
}

// ---------------------------------------------------------------------------------------------
// Segments.

const std::string kExifId("Exif\0\0", 6);
const std::string kXmpId("http://ns.adobe.com/xap/1.0/\0", 29);
const std::string kExtensionId("http://ns.adobe.com/xmp/extension/\0", 35);
const std::string kPhotoshopId("Photoshop 3.0\0", 14);
const std::size_t kMaxPayload = 65533;

// What a metadata segment holds, told by its marker and the signature its payload starts with.
enum class Holds {
    EXIF,
    XMP,
    XMP_EXTENSION,  // a part of a packet too large for one segment
    ICC,
    PHOTOSHOP,  // image resources: IPTC, thumbnails and the like
    COMMENT,
    OTHER,
    JFIF,            // part of how the image is coded: always kept
    ADOBE,           // the colour transform of the image data: always kept
    IMAGE_ELSEWHERE  // JFXX thumbnails, MPF and gain-map descriptions: never in a copy
};

Holds Classify(const std::string& jpeg, const JpegPiece& piece) {
    const auto startsWith = [&](const char* id, std::size_t size) {
        return piece.end - piece.payload >= size &&
               jpeg.compare(piece.payload, size, id, size) == 0;
    };
    switch (piece.marker) {
        case 0xE0:
            if (startsWith("JFIF\0", 5)) return Holds::JFIF;
            if (startsWith("JFXX\0", 5)) return Holds::IMAGE_ELSEWHERE;
            break;
        case 0xE1:
            if (startsWith(kExifId.data(), kExifId.size())) return Holds::EXIF;
            if (startsWith(kXmpId.data(), kXmpId.size())) return Holds::XMP;
            if (startsWith(kExtensionId.data(), kExtensionId.size())) return Holds::XMP_EXTENSION;
            break;
        case 0xE2:
            if (startsWith("ICC_PROFILE\0", 12)) return Holds::ICC;
            if (startsWith("MPF\0", 4)) return Holds::IMAGE_ELSEWHERE;
            if (startsWith("urn:iso:std:iso:ts:21496:-1\0", 28)) return Holds::IMAGE_ELSEWHERE;
            break;
        case 0xED:
            if (startsWith(kPhotoshopId.data(), kPhotoshopId.size())) return Holds::PHOTOSHOP;
            break;
        case 0xEE:
            if (startsWith("Adobe", 5)) return Holds::ADOBE;
            break;
        case 0xFE:
            return Holds::COMMENT;
    }
    return Holds::OTHER;
}

// The pieces of a JPEG and what becomes of each: kept, dropped or replaced. New segments go
// after the start of image and a JFIF segment that follows it, where readers look first.
class Editor {
  public:
    Editor(const std::string& jpeg, const JpegLayout& layout)
        : m_jpeg(jpeg), m_layout(layout), m_edits(layout.pieces.size()) {}

    void Drop(std::size_t piece) { m_edits[piece].changed = true; }
    void Replace(std::size_t piece, std::string bytes) {
        m_edits[piece].changed = true;
        m_edits[piece].bytes = std::move(bytes);
    }
    void Insert(const std::string& bytes) { m_insert += bytes; }

    std::string Result() const {
        const auto& pieces = m_layout.pieces;
        std::size_t insertAt = 1;
        if (pieces.size() > 1 && pieces[1].kind == JpegPiece::SEGMENT &&
            Classify(m_jpeg, pieces[1]) == Holds::JFIF) {
            insertAt = 2;
        }
        std::string out;
        out.reserve(m_jpeg.size() + m_insert.size());
        for (std::size_t i = 0; i < pieces.size(); ++i) {
            if (i == insertAt) out += m_insert;
            if (m_edits[i].changed) {
                out += m_edits[i].bytes;
            } else {
                out.append(m_jpeg, pieces[i].begin, pieces[i].end - pieces[i].begin);
            }
        }
        if (insertAt >= pieces.size()) out += m_insert;
        // A layout of the head alone leaves the rest of the file as it is.
        if (!pieces.empty()) out.append(m_jpeg, pieces.back().end, std::string::npos);
        return out;
    }

  private:
    struct Edit {
        bool changed = false;
        std::string bytes;
    };
    const std::string& m_jpeg;
    const JpegLayout& m_layout;
    std::vector<Edit> m_edits;
    std::string m_insert;
};

// A JFIF segment without the uncompressed thumbnail it may carry: the 14 bytes of its header,
// with the thumbnail's width and height set to 0.
std::string WithoutJfifThumbnail(const std::string& payload) {
    std::string header = payload.substr(0, 14);
    if (header.size() == 14) header[12] = header[13] = 0;
    return MakeSegment(0xE0, header);
}

// ---------------------------------------------------------------------------------------------
// EXIF.

// Tags that do not describe the copy: the thumbnail in IFD1 and the previews kept in maker
// notes (either can show the uncropped original); copies of the XMP, IPTC, Photoshop and ICC
// blocks, which a JPEG carries in their own segments, where the choice decides on them; and
// what locates strips or sub-images of a TIFF file, which the library leaves out of a JPEG's
// EXIF block anyway (dropping them first keeps them out of what `lost` reports); and a Nikon
// maker note's offset of a scanner's directory, which the library keeps as a number, so that
// it would point at other bytes once the block is laid out anew.
bool DoesNotDescribeCopy(const Exiv2::Exifdatum& datum) {
    static const std::set<std::string> kOtherImages = {
        "Thumbnail", "NikonPreview", "SamsungPreview", "SubImage1",   "SubImage2", "SubImage3",
        "SubImage4", "SubImage5",    "SubImage6",      "SubImage7",   "SubImage8", "SubImage9",
        "SubThumb1", "Image2",       "Image3",         "PanasonicRaw"};
    static const std::set<std::string> kKeys = {"Exif.Image.IPTCNAA",
                                                "Exif.Image.XMLPacket",
                                                "Exif.Image.ImageResources",
                                                "Exif.Image.InterColorProfile",
                                                "Exif.Image.StripOffsets",
                                                "Exif.Image.RowsPerStrip",
                                                "Exif.Image.StripByteCounts",
                                                "Exif.Image.JPEGInterchangeFormat",
                                                "Exif.Image.JPEGInterchangeFormatLength",
                                                "Exif.Image.SubIFDs",
                                                "Exif.Image.PhotometricInterpretation",
                                                "Exif.Nikon3.ScanIFD"};
    const std::string group = datum.groupName();
    if (kOtherImages.count(group) != 0 || kKeys.count(datum.key()) != 0) return true;
    if (!Exiv2::ExifTags::isMakerGroup(group)) return false;
    const std::string tag = datum.tagName();
    return tag.find("Thumbnail") != std::string::npos || tag.find("Preview") != std::string::npos;
}

// The fields that place the photo: the GPS directory but for its version and the time it
// holds (a time places nothing), and the places some maker notes name (a city, a landmark, a
// time-zone city). Also the serial numbers of the camera and its lens. These are not a place,
// but they tie every photo one person took to every other of theirs that anyone has published,
// with whatever place those show: the reason people strip the location at all. The camera's
// make, model and settings, which the option promises to keep, stay.
bool PlacesPhoto(const Exiv2::Exifdatum& datum) {
    static const std::set<std::string> kTimes = {"GPSVersionID", "GPSTimeStamp", "GPSDateStamp"};
    static const std::set<std::string> kMakerPlaces = {
        "Exif.Panasonic.City",        "Exif.Panasonic.City2",
        "Exif.Panasonic.Country",     "Exif.Panasonic.State",
        "Exif.Panasonic.Landmark",    "Exif.Panasonic.Location",
        "Exif.Samsung2.LocationName", "Exif.Samsung2.LocalLocationName",
        "Exif.CanonTi.TimeZoneCity",  "Exif.Casio2.HometownCity"};
    const std::string tag = datum.tagName();
    if (datum.groupName() == "GPSInfo") return kTimes.count(tag) == 0;
    return kMakerPlaces.count(datum.key()) != 0 || tag.find("Serial") != std::string::npos;
}

// Sets an existing pixel dimension to `value`, in the type it had when the value fits.
void SetDimension(Exiv2::ExifData& exif, const char* key, int value) {
    const auto it = exif.findKey(Exiv2::ExifKey(key));
    if (it == exif.end() || value <= 0) return;
    if (it->typeId() == Exiv2::unsignedShort && value <= 0xFFFF) {
        it->setValue(std::to_string(value));
    } else {
        *it = static_cast<std::uint32_t>(value);
    }
}

// The EXIF block `tiff` (a TIFF structure, after "Exif\0\0") rewritten for a copy of
// `width` x `height` into `block`; the failure, or empty.
std::string RewriteExif(const std::string& tiff, int width, int height, bool stripLocation,
                        std::string& block, std::vector<std::string>& lost) {
    Exiv2::ExifData exif;
    Exiv2::ByteOrder order = Exiv2::invalidByteOrder;
    try {
        order = Exiv2::ExifParser::decode(exif, Bytes(tiff), static_cast<uint32_t>(tiff.size()));
    } catch (const std::exception& e) {
        return std::string("its EXIF block cannot be read: ") + e.what();
    }
    if (order == Exiv2::invalidByteOrder) return "its EXIF block cannot be read";
    for (auto it = exif.begin(); it != exif.end();) {
        if (DoesNotDescribeCopy(*it) || (stripLocation && PlacesPhoto(*it))) {
            it = exif.erase(it);
        } else {
            ++it;
        }
    }
    SetDimension(exif, "Exif.Photo.PixelXDimension", width);
    SetDimension(exif, "Exif.Photo.PixelYDimension", height);
    SetDimension(exif, "Exif.Image.ImageWidth", width);
    SetDimension(exif, "Exif.Image.ImageLength", height);

    // Given the block it came from, the library rewrites it in place when it can (and then
    // leaves `blob` empty); otherwise it builds a new one. When that does not fit a segment it
    // leaves out large tags (a maker note over 40 kB, for one), and if it still does not fit,
    // there is no block to write.
    std::string original = tiff;
    Exiv2::Blob blob;
    if (Exiv2::ExifParser::encode(blob, Bytes(original), static_cast<uint32_t>(original.size()),
                                  order, exif) == Exiv2::wmNonIntrusive) {
        block = original;
    } else {
        block.assign(blob.begin(), blob.end());
    }
    if (block.size() + kExifId.size() > kMaxPayload) {
        return "its EXIF block is too large to write (" + std::to_string(block.size()) + " bytes)";
    }
    // What the library left out. A maker note counts as one: the library may write it in a
    // form it then cannot parse itself (0.27 writes an Olympus note under the newer OM System
    // header, which other readers take), and then it reads the whole note as one tag.
    Exiv2::ExifData written;
    Exiv2::ExifParser::decode(written, Bytes(block), static_cast<uint32_t>(block.size()));
    const auto isMakerNote = [](const Exiv2::Exifdatum& datum) {
        return Exiv2::ExifTags::isMakerGroup(datum.groupName()) ||
               datum.groupName() == "MakerNote" || datum.key() == "Exif.Photo.MakerNote";
    };
    std::set<std::string> kept;
    bool makerNoteKept = false;
    for (const auto& datum : written) {
        kept.insert(datum.key());
        makerNoteKept = makerNoteKept || isMakerNote(datum);
    }
    bool makerNote = false;
    for (const auto& datum : exif) {
        if (isMakerNote(datum)) {
            makerNote = !makerNoteKept;
        } else if (kept.insert(datum.key()).second) {
            lost.push_back("EXIF " + datum.key());
        }
    }
    if (makerNote) lost.insert(lost.begin(), "the EXIF MakerNote");
    return "";
}

// The Orientation in the EXIF block `tiff`, or 0.
int OrientationOf(const std::string& tiff) {
    try {
        Exiv2::ExifData exif;
        Exiv2::ExifParser::decode(exif, Bytes(tiff), static_cast<uint32_t>(tiff.size()));
        const auto it = exif.findKey(Exiv2::ExifKey("Exif.Image.Orientation"));
        if (it == exif.end() || it->count() != 1) return 0;
        if (it->typeId() != Exiv2::unsignedShort && it->typeId() != Exiv2::unsignedLong) return 0;
        const long value = it->toLong();
        return value >= 1 && value <= 8 ? static_cast<int>(value) : 0;
    } catch (const std::exception&) {
        return 0;
    }
}

// An EXIF segment that holds the Orientation and nothing else.
std::string OrientationSegment(int orientation) {
    Exiv2::ExifData exif;
    exif["Exif.Image.Orientation"] = static_cast<uint16_t>(orientation);
    Exiv2::Blob blob;
    Exiv2::ExifParser::encode(blob, Exiv2::bigEndian, exif);
    return MakeSegment(0xE1, kExifId + std::string(blob.begin(), blob.end()));
}

// ---------------------------------------------------------------------------------------------
// XMP.

// An XMP property: the prefix of its key, the namespace that prefix stands for, and its
// top-level name ("LocationShown" in "Xmp.iptcExt.LocationShown[1]/Iptc4xmpExt:City"). A
// property counts as in a namespace when either its prefix is the one the library gives that
// namespace or its namespace is that one: a packet may bind a known prefix to another
// namespace, and then only the two together leave nothing out.
struct XmpName {
    std::string prefix, ns, property;

    explicit XmpName(const Exiv2::Xmpdatum& datum) : prefix(datum.groupName()) {
        try {
            ns = Exiv2::XmpProperties::ns(prefix);
        } catch (const std::exception&) {
        }
        property = datum.tagName();
        property = property.substr(0, property.find_first_of("[/?"));
    }
    bool In(const char* knownPrefix, const char* uri) const {
        return prefix == knownPrefix || ns == uri;
    }
};

bool XmpPlacesPhoto(const XmpName& name) {
    static const struct {
        const char *prefix, *uri, *property;
    } kPlaces[] = {{"photoshop", "http://ns.adobe.com/photoshop/1.0/", "City"},
                   {"photoshop", "http://ns.adobe.com/photoshop/1.0/", "State"},
                   {"photoshop", "http://ns.adobe.com/photoshop/1.0/", "Country"},
                   {"iptc", "http://iptc.org/std/Iptc4xmpCore/1.0/xmlns/", "Location"},
                   {"iptc", "http://iptc.org/std/Iptc4xmpCore/1.0/xmlns/", "CountryCode"},
                   {"iptcExt", "http://iptc.org/std/Iptc4xmpExt/2008-02-29/", "LocationShown"},
                   {"iptcExt", "http://iptc.org/std/Iptc4xmpExt/2008-02-29/", "LocationCreated"},
                   {"xmpDM", "http://ns.adobe.com/xmp/1.0/DynamicMedia/", "shotLocation"}};
    if (name.In("exif", "http://ns.adobe.com/exif/1.0/") ||
        name.In("exifEX", "http://cipa.jp/exif/1.0/")) {
        if (name.property.compare(0, 3, "GPS") == 0) {
            return name.property != "GPSTimeStamp" && name.property != "GPSVersionID";
        }
    }
    for (const auto& place : kPlaces) {
        if (name.property == place.property && name.In(place.prefix, place.uri)) return true;
    }
    // Serial numbers, for the reason given with the EXIF fields.
    return name.property.find("SerialNumber") != std::string::npos;
}

// What describes images that are not in a copy: a gain map and the container directory that
// locates it and other images after the end of the image, or a motion photo's video there.
bool XmpDescribesAppended(const XmpName& name) {
    if (name.In("hdrgm", kGainMapNs) || name.In("Container", kContainerNs)) return true;
    return name.In("GCamera", kCameraNs) && (name.property.compare(0, 10, "MicroVideo") == 0 ||
                                             name.property.compare(0, 11, "MotionPhoto") == 0);
}

bool MentionsAppended(const std::string& packet) {
    for (const char* ns : {kGainMapNs, kContainerNs, kCameraNs}) {
        if (packet.find(ns) != std::string::npos) return true;
    }
    return false;
}

// Removes what a copy must not carry from `xmp`; whether anything went.
bool Prune(Exiv2::XmpData& xmp, bool stripLocation) {
    bool removed = false;
    for (auto it = xmp.begin(); it != xmp.end();) {
        const XmpName name(*it);
        if (XmpDescribesAppended(name) || (stripLocation && XmpPlacesPhoto(name))) {
            it = xmp.erase(it);
            removed = true;
        } else {
            ++it;
        }
    }
    return removed;
}

// An extended XMP packet as its segments carry it: a GUID (the MD5 of the whole serialisation
// in hex), the whole length and this part's offset, then the part.
struct ExtensionPart {
    std::string guid;
    std::uint32_t length = 0, offset = 0;
    std::string data;
};

bool ReadExtensionPart(const std::string& payload, ExtensionPart& part) {
    const std::size_t head = kExtensionId.size() + 32 + 8;
    if (payload.size() < head) return false;
    part.guid = payload.substr(kExtensionId.size(), 32);
    const auto word = [&payload](std::size_t at) {
        std::uint32_t v = 0;
        for (std::size_t i = 0; i < 4; ++i)
            v = v << 8 | static_cast<unsigned char>(payload[at + i]);
        return v;
    };
    part.length = word(kExtensionId.size() + 32);
    part.offset = word(kExtensionId.size() + 36);
    part.data = payload.substr(head);
    return true;
}

// `serial` cut into extended XMP segments under `guid`.
std::string ExtensionSegments(const std::string& guid, const std::string& serial) {
    const std::size_t room = kMaxPayload - kExtensionId.size() - 32 - 8;
    std::string out;
    for (std::size_t at = 0; at < serial.size(); at += room) {
        std::string payload = kExtensionId + guid;
        for (std::uint32_t v :
             {static_cast<std::uint32_t>(serial.size()), static_cast<std::uint32_t>(at)}) {
            for (int shift = 24; shift >= 0; shift -= 8) payload += static_cast<char>(v >> shift);
        }
        out += MakeSegment(0xE1, payload + serial.substr(at, room));
    }
    return out;
}

// Puts `xmp` in place of the main packet, segment `piece`, or drops it when nothing is left.
std::string FinishXmp(const Exiv2::XmpData& xmp, std::size_t piece, Editor& edit) {
    if (xmp.empty()) {
        edit.Drop(piece);
        return "";
    }
    std::string packet;
    if (Exiv2::XmpParser::encode(packet, xmp, Exiv2::XmpParser::useCompactFormat) != 0) {
        return "its XMP packet cannot be written";
    }
    if (kXmpId.size() + packet.size() > kMaxPayload) return "its XMP packet is too large to write";
    edit.Replace(piece, MakeSegment(0xE1, kXmpId + packet));
    return "";
}

// Rewrites the XMP segments `main` and `extension` of `jpeg` for a copy; the failure, or empty.
// Left as they are unless something must go: location on request, descriptions of what the
// copy does not have. Only the extension the main packet names belongs to the photo's XMP; when
// the location goes, any other goes too, since readers may still show it.
std::string RewriteXmp(const std::string& jpeg, const JpegLayout& layout,
                       const std::vector<std::size_t>& main,
                       const std::vector<std::size_t>& extension, bool stripLocation, Editor& edit,
                       std::vector<std::string>& lost) {
    for (std::size_t k = 1; k < main.size(); ++k) edit.Drop(main[k]);
    if (main.size() > 1) lost.push_back("a second XMP packet");
    std::lock_guard<std::mutex> lock(g_xmpWork);
    ResetNamespaces();
    Exiv2::XmpData xmp;
    bool changed = false;
    std::string named;
    if (!main.empty()) {
        const std::string packet = Payload(jpeg, layout.pieces[main[0]]).substr(kXmpId.size());
        if (stripLocation || MentionsAppended(packet)) {
            if (Exiv2::XmpParser::decode(xmp, packet) != 0) return "its XMP packet cannot be read";
            changed = Prune(xmp, stripLocation);
            const auto it = xmp.findKey(Exiv2::XmpKey("Xmp.xmpNote.HasExtendedXMP"));
            if (it != xmp.end()) named = it->toString();
        }
    }
    if (stripLocation && !extension.empty()) {
        std::map<std::uint32_t, std::string> parts;
        std::uint32_t length = 0;
        std::vector<std::size_t> ours;
        for (std::size_t i : extension) {
            ExtensionPart part;
            if (ReadExtensionPart(Payload(jpeg, layout.pieces[i]), part) && part.guid == named) {
                parts[part.offset] = part.data;
                length = part.length;
                ours.push_back(i);
            } else {
                edit.Drop(i);
            }
        }
        if (!ours.empty()) {
            std::string whole;
            for (const auto& part : parts) {
                if (part.first != whole.size()) return "its extended XMP cannot be read";
                whole += part.second;
            }
            Exiv2::XmpData more;
            if (whole.size() != length || Exiv2::XmpParser::decode(more, whole) != 0) {
                return "its extended XMP cannot be read";
            }
            if (Prune(more, true)) {
                for (std::size_t i : ours) edit.Drop(i);
                changed = true;
                if (more.empty()) {
                    xmp.erase(xmp.findKey(Exiv2::XmpKey("Xmp.xmpNote.HasExtendedXMP")));
                    return FinishXmp(xmp, main[0], edit);
                }
                std::string serial;
                if (Exiv2::XmpParser::encode(serial, more,
                                             Exiv2::XmpParser::omitPacketWrapper |
                                                 Exiv2::XmpParser::useCompactFormat) != 0) {
                    return "its extended XMP cannot be written";
                }
                const std::string guid = Md5Of(serial, true);
                edit.Replace(ours[0], ExtensionSegments(guid, serial));
                xmp["Xmp.xmpNote.HasExtendedXMP"] = guid;
            }
        }
    }
    return changed ? FinishXmp(xmp, main[0], edit) : "";
}

// ---------------------------------------------------------------------------------------------
// Photoshop image resources and the IPTC block among them.

const std::uint16_t kIptcResource = 0x0404, kIptcDigest = 0x0425;

struct Resource {
    std::uint16_t id = 0;
    std::size_t begin = 0, end = 0;    // the whole resource, padding included
    std::size_t data = 0, length = 0;  // its data
};

// Splits the resources; false when they do not fit together. Zero padding at the end is
// allowed.
bool ReadResources(const std::string& blocks, std::vector<Resource>& resources) {
    const auto u = [&blocks](std::size_t at) { return static_cast<unsigned char>(blocks[at]); };
    std::size_t at = 0;
    while (at < blocks.size()) {
        if (blocks.find_first_not_of('\0', at) == std::string::npos) break;
        const std::string signature = blocks.substr(at, 4);
        if (blocks.size() - at < 12 ||
            (signature != "8BIM" && signature != "PHUT" && signature != "DCSR" &&
             signature != "AgHg" && signature != "MeSa")) {
            return false;
        }
        Resource r;
        r.begin = at;
        r.id = static_cast<std::uint16_t>(u(at + 4) << 8 | u(at + 5));
        const std::size_t name = 1 + u(at + 6);
        const std::size_t size = at + 6 + name + (name & 1);
        if (size + 4 > blocks.size()) return false;
        r.length = static_cast<std::size_t>(u(size)) << 24 | u(size + 1) << 16 | u(size + 2) << 8 |
                   u(size + 3);
        r.data = size + 4;
        if (r.length > blocks.size() - r.data) return false;
        r.end = std::min(blocks.size(), r.data + r.length + (r.length & 1));
        resources.push_back(r);
        at = r.end;
    }
    return true;
}

// The IPTC block `iptc` without the fields that place the photo; whether any went.
bool StripIptcLocation(std::string& iptc, std::string& failure) {
    static const char* const kPlaces[] = {
        "Iptc.Application2.City",          "Iptc.Application2.SubLocation",
        "Iptc.Application2.ProvinceState", "Iptc.Application2.CountryCode",
        "Iptc.Application2.CountryName",   "Iptc.Application2.LocationCode",
        "Iptc.Application2.LocationName"};
    Exiv2::IptcData data;
    if (Exiv2::IptcParser::decode(data, Bytes(iptc), static_cast<uint32_t>(iptc.size())) != 0) {
        failure = "its IPTC block cannot be read";
        return false;
    }
    const long before = data.count();
    for (const char* key : kPlaces) {
        for (auto it = data.findKey(Exiv2::IptcKey(key)); it != data.end();
             it = data.findKey(Exiv2::IptcKey(key))) {
            data.erase(it);
        }
    }
    if (data.count() == before) return false;
    const Exiv2::DataBuf encoded = Exiv2::IptcParser::encode(data);
    iptc.assign(reinterpret_cast<const char*>(encoded.pData_), encoded.size_);
    return true;
}

// A resource with `id` and `data`, without a name.
std::string MakeResource(std::uint16_t id, const std::string& data) {
    std::string r = "8BIM";
    r += static_cast<char>(id >> 8);
    r += static_cast<char>(id & 0xFF);
    r += std::string(2, '\0');  // an empty name, padded to an even length
    for (int shift = 24; shift >= 0; shift -= 8) r += static_cast<char>(data.size() >> shift);
    r += data;
    if (data.size() & 1) r += '\0';
    return r;
}

// Rewrites the Photoshop segments `segments` of `jpeg` for a copy: no thumbnails, no copies
// of the EXIF and XMP blocks, and on request no location in the IPTC block (whose digest then
// follows it). The failure, or empty.
std::string RewritePhotoshop(const std::string& jpeg, const JpegLayout& layout,
                             const std::vector<std::size_t>& segments, bool stripLocation,
                             Editor& edit) {
    if (segments.empty()) return "";
    std::string blocks;
    for (std::size_t i : segments) {
        blocks += Payload(jpeg, layout.pieces[i]).substr(kPhotoshopId.size());
    }
    std::vector<Resource> resources;
    if (!ReadResources(blocks, resources)) return "its Photoshop resources cannot be read";
    static const std::set<std::uint16_t> kNeverKept = {0x0409, 0x040C, 0x0422, 0x0423, 0x0424};
    bool changed = false;
    std::string iptc;
    bool iptcChanged = false, iptcGone = false;
    for (const Resource& r : resources) {
        if (kNeverKept.count(r.id) != 0) changed = true;
        if (r.id == kIptcResource && stripLocation) {
            iptc = blocks.substr(r.data, r.length);
            std::string failure;
            iptcChanged = StripIptcLocation(iptc, failure);
            if (!failure.empty()) return failure;
            iptcGone = iptc.empty();
            changed = changed || iptcChanged;
        }
    }
    if (!changed) return "";
    std::string kept;
    for (const Resource& r : resources) {
        if (kNeverKept.count(r.id) != 0) continue;
        if (iptcChanged && (r.id == kIptcResource || r.id == kIptcDigest)) {
            if (iptcGone) continue;
            kept += MakeResource(r.id, r.id == kIptcResource ? iptc : Md5Of(iptc, false));
        } else {
            kept += blocks.substr(r.begin, r.end - r.begin);
        }
    }
    for (std::size_t i : segments) edit.Drop(i);
    std::string replacement;
    const std::size_t room = kMaxPayload - kPhotoshopId.size();
    for (std::size_t at = 0; at < kept.size(); at += room) {
        replacement += MakeSegment(0xED, kPhotoshopId + kept.substr(at, room));
    }
    edit.Replace(segments[0], replacement);
    return "";
}

// ---------------------------------------------------------------------------------------------

// Rewrites `jpeg` for a copy; the failure, or empty. `jpeg` changes only on success.
std::string Rewrite(std::string& jpeg, const MetadataChoice& choice,
                    std::vector<std::string>& lost) {
    const JpegLayout layout = SplitJpeg(jpeg);
    if (!layout.problem.empty()) return "its segments cannot be read: " + layout.problem;
    const auto keeps = [&choice](unsigned group) { return (choice.keep & group) != 0; };
    Editor edit(jpeg, layout);
    std::vector<std::size_t> exif, xmp, extension, photoshop;
    for (std::size_t i = 0; i < layout.pieces.size(); ++i) {
        const JpegPiece& piece = layout.pieces[i];
        if (piece.kind == JpegPiece::TRAILER) edit.Drop(i);
        if (!piece.IsMetadata()) continue;
        switch (Classify(jpeg, piece)) {
            case Holds::EXIF:
                exif.push_back(i);
                break;
            case Holds::XMP:
                xmp.push_back(i);
                break;
            case Holds::XMP_EXTENSION:
                extension.push_back(i);
                break;
            case Holds::PHOTOSHOP:
                photoshop.push_back(i);
                break;
            case Holds::ICC:
                if (!keeps(KEEP_ICC)) edit.Drop(i);
                break;
            case Holds::COMMENT:
                if (!keeps(KEEP_COMMENT)) edit.Drop(i);
                break;
            case Holds::OTHER:
                if (!keeps(KEEP_OTHER)) edit.Drop(i);
                break;
            case Holds::JFIF:
                if (piece.end - piece.payload > 14) {
                    edit.Replace(i, WithoutJfifThumbnail(Payload(jpeg, piece)));
                }
                break;
            case Holds::ADOBE:
                break;
            case Holds::IMAGE_ELSEWHERE:
                edit.Drop(i);
                break;
        }
    }

    for (std::size_t i : exif) edit.Drop(i);
    if (keeps(KEEP_EXIF) && !exif.empty()) {
        std::string block;
        const std::string failure =
            RewriteExif(Payload(jpeg, layout.pieces[exif[0]]).substr(kExifId.size()), layout.width,
                        layout.height, choice.stripLocation, block, lost);
        if (!failure.empty()) return failure;
        edit.Replace(exif[0], MakeSegment(0xE1, kExifId + block));
        if (exif.size() > 1) lost.push_back("a second EXIF block");
    } else if (!exif.empty()) {
        const int orientation =
            OrientationOf(Payload(jpeg, layout.pieces[exif[0]]).substr(kExifId.size()));
        if (orientation >= 2) edit.Insert(OrientationSegment(orientation));
    }

    if (keeps(KEEP_XMP)) {
        const std::string failure =
            RewriteXmp(jpeg, layout, xmp, extension, choice.stripLocation, edit, lost);
        if (!failure.empty()) return failure;
    } else {
        for (std::size_t i : xmp) edit.Drop(i);
        for (std::size_t i : extension) edit.Drop(i);
    }

    if (keeps(KEEP_IPTC)) {
        const std::string failure =
            RewritePhotoshop(jpeg, layout, photoshop, choice.stripLocation, edit);
        if (!failure.empty()) return failure;
    } else {
        for (std::size_t i : photoshop) edit.Drop(i);
    }
    jpeg = edit.Result();
    return "";
}

// Runs `body`, turning whatever the library throws into a failure.
template <typename Body>
MetadataOutcome Guarded(Body body) {
    StartLibrary();
    MetadataOutcome outcome;
    try {
        outcome.failure = body(outcome.lost);
    } catch (const std::exception& e) {
        outcome.failure = std::string("its metadata cannot be rewritten: ") + e.what();
    } catch (...) {
        outcome.failure = "its metadata cannot be rewritten";
    }
    if (!outcome.failure.empty()) outcome.lost.clear();
    return outcome;
}

}  // namespace

bool ParseKeepList(const std::string& list, unsigned& keep, std::string& problem) {
    unsigned groups = KEEP_NONE;
    std::istringstream words(list);
    std::string word;
    bool any = false;
    while (std::getline(words, word, ',')) {
        bool known = false;
        for (const GroupName& g : kGroups) {
            if (word == g.name) {
                groups |= g.groups;
                known = true;
            }
        }
        if (!known) {
            problem = "--keep: '" + word +
                      "' is not one of exif, xmp, iptc, icc, comment, other, all, none";
            return false;
        }
        any = true;
    }
    if (!any) {
        problem = "--keep needs a list such as exif,icc";
        return false;
    }
    keep = groups;
    return true;
}

std::string ChoiceText(const MetadataChoice& choice) {
    std::string text;
    for (const GroupName& g : kGroups) {
        if (g.groups == KEEP_ALL || g.groups == KEEP_NONE) continue;
        if ((choice.keep & g.groups) == 0) continue;
        text += (text.empty() ? "" : ",") + std::string(g.name);
    }
    if (choice.keep == KEEP_ALL) text = "all";
    if (text.empty()) text = "none";
    return text + (choice.stripLocation ? " location=stripped" : "");
}

MetadataOutcome RewriteMetadata(std::string& jpeg, const MetadataChoice& choice) {
    return Guarded([&](std::vector<std::string>& lost) { return Rewrite(jpeg, choice, lost); });
}

MetadataOutcome DressThumbnail(std::string& thumb, const std::string& photo,
                               const MetadataChoice& choice) {
    return Guarded([&](std::vector<std::string>&) -> std::string {
        const JpegLayout layout = SplitJpeg(thumb);
        if (!layout.problem.empty()) return "the thumbnail cannot be read: " + layout.problem;
        Editor edit(thumb, layout);
        for (std::size_t i = 0; i < layout.pieces.size(); ++i) {
            const JpegPiece& piece = layout.pieces[i];
            if (piece.kind == JpegPiece::TRAILER) edit.Drop(i);
            if (!piece.IsMetadata()) continue;
            const Holds holds = Classify(thumb, piece);
            if (holds == Holds::JFIF && piece.end - piece.payload > 14) {
                edit.Replace(i, WithoutJfifThumbnail(Payload(thumb, piece)));
            } else if (holds != Holds::JFIF && holds != Holds::ADOBE) {
                edit.Drop(i);
            }
        }
        // The photo's own segments before any fault still count.
        const JpegLayout source = SplitJpeg(photo, true);
        bool exifSeen = false;
        std::string icc;
        for (const JpegPiece& piece : source.pieces) {
            if (!piece.IsMetadata()) continue;
            const Holds holds = Classify(photo, piece);
            if (holds == Holds::EXIF && !exifSeen) {
                exifSeen = true;
                const int orientation = OrientationOf(Payload(photo, piece).substr(kExifId.size()));
                if (orientation >= 2) edit.Insert(OrientationSegment(orientation));
            } else if (holds == Holds::ICC) {
                icc += MakeSegment(piece.marker, Payload(photo, piece));
            }
        }
        if ((choice.keep & KEEP_ICC) != 0) edit.Insert(icc);
        thumb = edit.Result();
        return "";
    });
}

int ReadOrientation(const std::string& path) {
    StartLibrary();
    const std::string head = ReadJpegHead(path);
    const JpegLayout layout = SplitJpeg(head, true);
    for (const JpegPiece& piece : layout.pieces) {
        if (piece.IsMetadata() && Classify(head, piece) == Holds::EXIF) {
            return OrientationOf(Payload(head, piece).substr(kExifId.size()));
        }
    }
    return 0;
}

std::string ReadJpegHead(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::string head;
    std::size_t block = 64 * 1024;
    // Metadata segments are at most 64 KiB each, and even a photo edited many times carries a
    // few dozen: this bounds what a file that is not a JPEG can make us read.
    const std::size_t kLimit = 64u << 20;
    while (in && head.size() < kLimit) {
        const std::size_t had = head.size();
        head.resize(had + block);
        in.read(&head[had], static_cast<std::streamsize>(block));
        head.resize(had + static_cast<std::size_t>(in.gcount()));
        if (!SplitJpeg(head, true).truncated) break;
        block *= 2;
    }
    return head;
}

}  // namespace Varnelo
