// varnelo-batch's metadata: what a copy keeps by choice, what goes with the location, what a
// thumbnail carries, and the Orientation. Fixtures are built byte by byte; the JPEG library
// reads the segments back, and exiftool, when installed, reads the metadata.

#include <gtest/gtest.h>
#include <stdio.h>

#include <filesystem>
#include <map>
#include <regex>

#include "md5.h"
#include "support/jpeg_fixtures.h"
#include "support/temp_dir.h"
#include "varnelo-batch/metadata.h"

namespace Varnelo {
namespace {

using namespace std::string_literals;

std::string U16(unsigned v, bool big = false) {
    return big ? std::string{char(v >> 8), char(v & 255)}
               : std::string{char(v & 255), char(v >> 8)};
}
std::string U32(uint32_t v, bool big = false) {
    return big ? U16(v >> 16, true) + U16(v & 0xFFFF, true) : U16(v & 0xFFFF) + U16(v >> 16);
}

// A TIFF entry; with `ifd` set, a LONG pointing at that directory, or at the blob (kBlob).
struct Tag {
    unsigned id, type;
    uint32_t count;
    std::string value;
    int ifd = -1;
};
const int kBlob = 99;
Tag Text(unsigned id, const std::string& s) { return {id, 2, uint32_t(s.size() + 1), s + '\0'}; }
Tag Short(unsigned id, unsigned v) { return {id, 3, 1, U16(v)}; }
Tag Rational(unsigned id, uint32_t n) {
    return {id, 5, 3, U32(n) + U32(1) + U32(0) + U32(1) + U32(0) + U32(1)};
}
Tag Pointer(unsigned id, int ifd) { return {id, 4, 1, "", ifd}; }

// A little-endian TIFF block: the directories in order, directory 0 linked to directory `next`
// (none when 0), then `blob`.
std::string Tiff(const std::vector<std::vector<Tag>>& ifds, size_t next, const std::string& blob) {
    std::vector<uint32_t> at(ifds.size() + 1, 8);
    for (size_t i = 0; i < ifds.size(); ++i) {
        at[i + 1] = at[i] + 6 + 12 * ifds[i].size();
        for (const Tag& t : ifds[i]) at[i + 1] += t.value.size() > 4 ? t.value.size() : 0;
    }
    std::string out = "II" + U16(42) + U32(8);
    for (size_t i = 0; i < ifds.size(); ++i) {
        std::string data;
        out += U16(ifds[i].size());
        for (const Tag& t : ifds[i]) {
            std::string v = t.ifd < 0 ? t.value : U32(t.ifd == kBlob ? at.back() : at[t.ifd]);
            out += U16(t.id) + U16(t.type) + U32(t.count);
            if (v.size() > 4) {
                out += U32(at[i] + 6 + 12 * ifds[i].size() + data.size());
                data += v;
            } else {
                out += v + std::string(4 - v.size(), '\0');
            }
        }
        out += U32(i == 0 && next ? at[next] : 0) + data;
    }
    return out + blob;
}

// A camera's EXIF block: IFD0, the Exif IFD with a serial number, Interop, GPS and a thumbnail.
std::string CameraExif(int orientation) {
    const std::string thumb = EncodeJpeg({16, 16});
    return "Exif\0\0"s +
           Tiff({{Text(0x010F, "Cam"), Text(0x0110, "X100"), Short(0x0112, orientation),
                  Pointer(0x8769, 1), Pointer(0x8825, 3)},
                 {Text(0x9003, "2024:05:01 10:00:00"), Short(0xA001, 0xFFFF), Short(0xA002, 640),
                  Short(0xA003, 480), Pointer(0xA005, 2), Text(0xA431, "SN1234567")},
                 {Text(0x0001, "R03")},
                 {{0x0000, 1, 4, "\2\3\0\0"s},
                  Text(0x0001, "N"),
                  Rational(0x0002, 41),
                  Text(0x0003, "E"),
                  Rational(0x0004, 12),
                  Rational(0x0007, 10),
                  Text(0x001D, "2024:05:01")},
                 {Short(0x0103, 6), Pointer(0x0201, kBlob), {0x0202, 4, 1, U32(thumb.size())}}},
                4, thumb);
}

const char kRdf[] =
    "<x:xmpmeta xmlns:x='adobe:ns:meta/'><rdf:RDF "
    "xmlns:rdf='http://www.w3.org/1999/02/22-rdf-syntax-ns#'><rdf:Description rdf:about='' "
    "xmlns:dc='http://purl.org/dc/elements/1.1/' "
    "xmlns:photoshop='http://ns.adobe.com/photoshop/1.0/' "
    "xmlns:exif='http://ns.adobe.com/exif/1.0/' xmlns:xmpNote='http://ns.adobe.com/xmp/note/' "
    "xmlns:Iptc4xmpExt='http://iptc.org/std/Iptc4xmpExt/2008-02-29/' ";

// The extended part: a headline to keep, a country to strip.
const std::string kExtension = kRdf +
                               "photoshop:Headline='Long story' photoshop:Country='Italy'/>"s +
                               "</rdf:RDF></x:xmpmeta>";

std::string Md5Hex(const std::string& s) {
    MD5 md5;
    md5.Update(reinterpret_cast<const unsigned char*>(s.data()), s.size());
    md5.Final();
    return md5.GetResultString();
}

// The main XMP packet, which names the extension, and the extension in two segments.
std::vector<Segment> XmpSegments() {
    const std::string guid = Md5Hex(kExtension);
    std::vector<Segment> segments = {
        {0xE1,
         "http://ns.adobe.com/xap/1.0/\0"s + "<?xpacket begin='' id='W5M0MpCehiHzreSzNTczkc9d'?>" +
             kRdf +
             "photoshop:City='Rome' exif:GPSLatitude='41,53.0N' "
             "exif:GPSTimeStamp='2024-05-01T10:00:00Z' xmpNote:HasExtendedXMP='" +
             guid +
             "'><dc:title><rdf:Alt><rdf:li xml:lang='x-default'>Holiday</rdf:li></rdf:Alt>"
             "</dc:title><Iptc4xmpExt:LocationShown><rdf:Bag><rdf:li rdf:parseType='Resource'>"
             "<Iptc4xmpExt:City>Rome</Iptc4xmpExt:City></rdf:li></rdf:Bag>"
             "</Iptc4xmpExt:LocationShown></rdf:Description></rdf:RDF></x:xmpmeta>"
             "<?xpacket end='w'?>"}};
    const size_t half = kExtension.size() / 2;
    for (size_t at : {size_t(0), half}) {
        segments.push_back({0xE1, "http://ns.adobe.com/xmp/extension/\0"s + guid +
                                      U32(kExtension.size(), true) + U32(at, true) +
                                      kExtension.substr(at, at ? std::string::npos : half)});
    }
    return segments;
}

std::string Resource(unsigned id, const std::string& data) {
    return "8BIM" + U16(id, true) + "\0\0"s + U32(data.size(), true) + data +
           (data.size() % 2 ? "\0"s : "");
}
std::string Dataset(int tag, const std::string& v) {
    return "\x1C\2"s + char(tag) + U16(v.size(), true) + v;
}

// A profile of a header and one tag, in one segment.
const std::string kIcc = "ICC_PROFILE\0\1\1"s + U32(156, true) + "none" + U32(0x02100000, true) +
                         "mntrRGB XYZ " + std::string(12, '\0') + "acsp" + std::string(88, '\0') +
                         U32(1, true) + "cprt" + U32(144, true) + U32(12, true) +
                         "text\0\0\0\0ok\0\0"s;

// A photo with every kind of segment, then bytes after its end: another image with GPS.
std::vector<Segment> AllSegments(int orientation) {
    std::vector<Segment> all = {{0xE1, CameraExif(orientation)}};
    for (const Segment& s : XmpSegments()) all.push_back(s);
    const std::string iptc = Dataset(90, "Rome") + Dataset(101, "Italy") + Dataset(120, "Holiday");
    all.push_back({0xED, "Photoshop 3.0\0"s + Resource(0x03ED, std::string(16, '\1')) +
                             Resource(0x0404, iptc) + Resource(0x0425, std::string(16, '\0')) +
                             Resource(0x040C, EncodeJpeg({8, 8}))});
    all.push_back({0xE2, kIcc});
    all.push_back({0xE2, "MPF\0II*\0\10\0\0\0"s});
    all.push_back({0xE2, "urn:iso:std:iso:ts:21496:-1\0\0\0"s});
    all.push_back({0xE5, "Vendor\0data"s});
    all.push_back({0xFE, "first"});
    all.push_back({0xFE, "second"});
    return all;
}
const JpegShape kShape = {48, 32};
const std::string kTrailer = EncodeJpeg({16, 16}, {{0xE1, CameraExif(1)}});

std::string Photo(int orientation = 6) {
    return EncodeJpeg(kShape, AllSegments(orientation)) + kTrailer;
}
// What follows the library's JFIF segment: the image data, which must stay byte for byte.
std::string ImageData() { return EncodeJpeg(kShape).substr(20); }

std::string Label(const Segment& s) {
    static const std::pair<const char*, const char*> kKinds[] = {
        {"JFIF", "jfif"},
        {"Exif", "exif"},
        {"http://ns.adobe.com/xap", "xmp"},
        {"http://ns.adobe.com/xmp/ext", "ext"},
        {"ICC_", "icc"},
        {"MPF", "mpf"},
        {"urn:iso", "gainmap"},
        {"Photoshop", "iptc"}};
    if (s.marker == 0xFE) return "com";
    for (const auto& k : kKinds) {
        if (s.data.rfind(k.first, 0) == 0) return k.second;
    }
    return "other";
}

// The segments' labels; and checks that the segments and the image data are all of `jpeg`.
std::string Labels(const std::string& jpeg) {
    std::string labels;
    size_t size = 2 + ImageData().size();
    for (const Segment& s : ReadSegments(jpeg)) {
        labels += (labels.empty() ? "" : " ") + Label(s);
        size += 4 + s.data.size();
    }
    EXPECT_EQ(jpeg.size(), size);
    EXPECT_EQ(jpeg.substr(jpeg.size() - std::min(jpeg.size(), ImageData().size())), ImageData());
    return labels;
}

MetadataChoice Choice(const std::string& keep, bool strip = false) {
    MetadataChoice choice;
    std::string problem;
    EXPECT_TRUE(ParseKeepList(keep, choice.keep, problem)) << problem;
    choice.stripLocation = strip;
    return choice;
}

TEST(BatchMetadataTest, KeepsTheGroupsChosenAndTheImageDataByteForByte) {
    const std::string photo = Photo();
    ASSERT_EQ(photo.substr(photo.size() - kTrailer.size() - ImageData().size()),
              ImageData() + kTrailer);
    const struct {
        const char* keep;
        bool strip;
        const char* labels;
    } cases[] = {
        // The extension is re-cut into one segment when its location goes.
        {"all", true, "jfif exif xmp ext iptc icc other com com"},
        {"none", false, "jfif exif"},  // the Orientation only
        {"exif", false, "jfif exif"},
        {"xmp,iptc", false, "jfif exif xmp ext ext iptc"},
        {"icc", true, "jfif exif icc"},
        {"comment,other", false, "jfif exif other com com"},
    };
    for (const auto& c : cases) {
        std::string jpeg = photo;
        const MetadataOutcome outcome = RewriteMetadata(jpeg, Choice(c.keep, c.strip));
        EXPECT_EQ(outcome.failure, "") << c.keep;
        EXPECT_TRUE(outcome.lost.empty()) << c.keep;
        EXPECT_EQ(Labels(jpeg), c.labels) << c.keep;
        const std::vector<Segment> segments = ReadSegments(jpeg);
        if (std::string(c.keep) == "icc") {
            EXPECT_EQ(segments[2].data, kIcc);
        }
        // Without EXIF kept, an EXIF block of 26 bytes: a header and one entry.
        if (!(Choice(c.keep).keep & KEEP_EXIF)) {
            EXPECT_EQ(segments[1].data.size(), 32u);
        }
    }
    // Not turned, and EXIF not kept: no EXIF block at all.
    std::string upright = Photo(1);
    EXPECT_EQ(RewriteMetadata(upright, Choice("icc")).failure, "");
    EXPECT_EQ(Labels(upright), "jfif icc");
}

// exiftool's reading of `jpeg`, as "Group:Tag" to the JSON text of its value (numbers plain).
std::map<std::string, std::string> ExifTool(const std::string& jpeg) {
    TempDir tmp;
    const std::string path = tmp.Write("photo.jpg", jpeg);
    std::map<std::string, std::string> tags;
    FILE* pipe = popen(("exiftool -a -G1 -j -n '" + path + "' 2>/dev/null").c_str(), "r");
    if (pipe == nullptr) return tags;
    std::string json;
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) json.append(buffer, n);
    pclose(pipe);
    const std::regex line("\"([^\"]+)\": (.*?),?\n");
    for (std::sregex_iterator it(json.begin(), json.end(), line), end; it != end; ++it) {
        tags[(*it)[1]] = (*it)[2];
    }
    return tags;
}

bool HaveExifTool() { return system("exiftool -ver >/dev/null 2>&1") == 0; }

const std::regex kPlace(
    "GPS(?!TimeStamp|DateStamp|VersionID|DateTime)|City|Country|Sub-?location|State|Province|"
    "Location|Serial",
    std::regex::icase);
bool IsPlace(const std::string& key) {
    return std::regex_search(key.substr(key.find(':') + 1), kPlace);
}

TEST(BatchMetadataTest, StripsTheLocationAndKeepsTheRestAsExiftoolReadsIt) {
    if (!HaveExifTool()) GTEST_SKIP() << "exiftool is not installed";
    std::string jpeg = Photo();
    const auto before = ExifTool(jpeg);
    ASSERT_EQ(RewriteMetadata(jpeg, Choice("all", true)).failure, "");
    const auto after = ExifTool(jpeg);
    for (const char* key :
         {"IFD0:Make", "IFD0:Model", "IFD0:Orientation", "ExifIFD:DateTimeOriginal",
          "ExifIFD:ColorSpace", "InteropIFD:InteropIndex", "GPS:GPSTimeStamp", "XMP-dc:Title",
          "XMP-photoshop:Headline", "IPTC:Caption-Abstract", "Photoshop:XResolution",
          "ICC-header:ProfileVersion"}) {
        EXPECT_EQ(after.count(key), 1u) << key;
        EXPECT_EQ(after.count(key) ? after.at(key) : "", before.at(key)) << key;
    }
    EXPECT_EQ(after.at("ExifIFD:ExifImageWidth"), "48");
    EXPECT_EQ(after.at("ExifIFD:ExifImageHeight"), "32");
    EXPECT_EQ(after.at("File:CurrentIPTCDigest"), after.at("Photoshop:IPTCDigest"));
    size_t places = 0;
    for (const auto& tag : before) places += IsPlace(tag.first);
    EXPECT_GE(places, 12u);  // the fixture has them, and exiftool sees them
    for (const auto& tag : after) {
        EXPECT_FALSE(IsPlace(tag.first)) << tag.first;
        EXPECT_EQ(tag.first.rfind("IFD1:", 0), std::string::npos) << tag.first;
        EXPECT_EQ(tag.first.rfind("MPF", 0), std::string::npos) << tag.first;
        EXPECT_NE(tag.first, "Photoshop:PhotoshopThumbnail");
        EXPECT_NE(tag.first, "ExifTool:Warning") << tag.second;
    }
}

TEST(BatchMetadataTest, RewritesRealPhotosWithTheirPixelsUnchanged) {
    const std::string folder = VARNELO_PHOTOS_DIR;
    if (!std::filesystem::is_directory(folder)) GTEST_SKIP() << "no photographs in " << folder;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.path().extension() != ".jpg") continue;
        const std::string original = ReadFileBytes(entry.path().string());
        for (const MetadataChoice& choice : {Choice("all", true), Choice("none")}) {
            std::string jpeg = original;
            const MetadataOutcome outcome = RewriteMetadata(jpeg, choice);
            EXPECT_EQ(outcome.failure, "") << entry.path();
            EXPECT_TRUE(outcome.lost.empty()) << entry.path() << ": " << outcome.lost[0];
            const DecodedJpeg a = DecodeJpeg(original), b = DecodeJpeg(jpeg);
            EXPECT_EQ(a.ok, b.ok) << entry.path();
            EXPECT_TRUE(a.rgb == b.rgb) << entry.path();
        }
    }
    if (!HaveExifTool()) return;
    std::string gps = ReadFileBytes(folder + "/gps_DSCN0010.jpg");
    const auto before = ExifTool(gps);
    ASSERT_EQ(before.count("GPS:GPSLatitude"), 1u);
    ASSERT_EQ(RewriteMetadata(gps, Choice("all", true)).failure, "");
    const auto after = ExifTool(gps);
    for (const auto& tag : after) EXPECT_FALSE(IsPlace(tag.first)) << tag.first;
    EXPECT_EQ(after.at("IFD0:Model"), before.at("IFD0:Model"));
    EXPECT_EQ(after.at("Nikon:ColorMode"), before.at("Nikon:ColorMode"));
}

TEST(BatchMetadataTest, FailsOnMetadataItCannotReadAndSaysWhatWasLost) {
    const struct {
        std::vector<Segment> segments;
        const char* keep;
        const char* failure;  // a part of it; empty: none
    } cases[] = {
        {{{0xE1, "Exif\0\0MM\0*\0\0\0\xF0"s}}, "exif", "EXIF"},
        {{{0xE1, "Exif\0\0MM\0*\0\0\0\xF0"s}}, "xmp", ""},  // not kept, not read
        {{{0xE1, "http://ns.adobe.com/xap/1.0/\0<x:xmpmeta"s}}, "xmp", "XMP"},
        {{{0xED,
           "Photoshop 3.0\0"
           "8BIM\4\4\0\0\0\0\1\0"s}},
         "iptc",
         "Photoshop"},
    };
    for (const auto& c : cases) {
        const std::string photo = EncodeJpeg(kShape, c.segments);
        std::string jpeg = photo;
        const MetadataOutcome outcome = RewriteMetadata(jpeg, Choice(c.keep, true));
        EXPECT_NE(outcome.failure.find(c.failure), std::string::npos) << outcome.failure;
        EXPECT_EQ(outcome.failure.empty(), *c.failure == 0) << c.keep;
        if (!outcome.failure.empty()) {
            EXPECT_EQ(jpeg, photo);
        }
    }
    std::string text = "not a photo";
    EXPECT_NE(RewriteMetadata(text, Choice("none")).failure, "");

    // Two tags that share one long text are written twice once the thumbnail directory goes,
    // and the block no longer fits with its 45 kB maker note.
    const std::string shared(15000, 'a');
    std::string big = EncodeJpeg(
        kShape, {{0xE1, "Exif\0\0"s + Tiff({{{0x010E, 2, 15000, "", kBlob},
                                             {0x8298, 2, 15000, "", kBlob},
                                             Pointer(0x8769, 1)},
                                            {Text(0x9003, "2024:05:01 10:00:00"),
                                             {0x927C, 7, 45000, std::string(45000, 'm')}},
                                            {Short(0x0103, 6)}},
                                           2, shared)}});
    const MetadataOutcome outcome = RewriteMetadata(big, Choice("exif"));
    EXPECT_EQ(outcome.failure, "");
    EXPECT_EQ(outcome.lost, std::vector<std::string>{"the EXIF MakerNote"});
}

TEST(BatchMetadataTest, DressesThumbnailsWithTheProfileAndTheOrientationOnly) {
    TempDir tmp;
    const std::string photoPath = tmp.Write("photo.jpg", Photo());
    const std::string own = EncodeJpeg(kShape, {{0xE1, CameraExif(3)}, {0xFE, "own"}}) + kTrailer;
    for (const char* keep : {"all", "exif,xmp"}) {
        std::string thumb = own;
        ASSERT_EQ(DressThumbnail(thumb, ReadJpegHead(photoPath), Choice(keep)).failure, "");
        const std::vector<Segment> segments = ReadSegments(thumb);
        EXPECT_EQ(Labels(thumb), keep == "all"s ? "jfif exif icc" : "jfif exif") << keep;
        EXPECT_EQ(ReadOrientation(tmp.Write("thumb.jpg", thumb)), 6);
        if (segments.size() == 3) {
            EXPECT_EQ(segments[2].data, kIcc);
        }
    }
}

// A JPEG whose EXIF holds IFD0 with one entry `tag` = `value` (SHORT), in either byte order.
std::string WithExif(unsigned tag, unsigned value, bool big) {
    const std::string tiff = (big ? "MM" : "II") + U16(42, big) + U32(8, big) + U16(1, big) +
                             U16(tag, big) + U16(3, big) + U32(1, big) + U16(value, big) + U16(0) +
                             U32(0);
    return EncodeJpeg({}, {{0xE1, "Exif\0\0"s + tiff}});
}

TEST(BatchOrientationTest, ReadsTheTagAndGivesItToFilesWithoutExif) {
    TempDir tmp;
    EXPECT_EQ(ReadOrientation(tmp.Write("le.jpg", WithExif(0x0112, 6, false))), 6);
    EXPECT_EQ(ReadOrientation(tmp.Write("be.jpg", WithExif(0x0112, 8, true))), 8);
    EXPECT_EQ(ReadOrientation(tmp.Write("other.jpg", WithExif(0x0110, 6, false))), 0);
    EXPECT_EQ(ReadOrientation(tmp.Write("bad.jpg", WithExif(0x0112, 9, false))), 0);
    EXPECT_EQ(ReadOrientation(tmp.Write("plain.jpg", EncodeJpeg({}))), 0);
    EXPECT_EQ(ReadOrientation(tmp.Write("cut.jpg", WithExif(0x0112, 6, false).substr(0, 30))), 0);

    // Added after the JFIF APP0, alone, and the image still decodes.
    std::string jpeg = EncodeJpeg({});
    ASSERT_TRUE(AddOrientation(jpeg, 6));
    EXPECT_EQ(ReadOrientation(tmp.Write("turned.jpg", jpeg)), 6);
    const std::vector<Segment> segments = ReadSegments(jpeg);
    ASSERT_EQ(segments.size(), 2u);
    EXPECT_EQ(segments[0].marker, 0xE0);
    EXPECT_EQ(segments[1].data.size(), 32u);
    EXPECT_TRUE(DecodeJpeg(jpeg).ok);
    // A file with EXIF of its own keeps it; what is not a JPEG is refused.
    std::string own = WithExif(0x0112, 3, true);
    const std::string before = own;
    EXPECT_TRUE(AddOrientation(own, 6));
    EXPECT_EQ(own, before);
    std::string text = "not a photo";
    EXPECT_FALSE(AddOrientation(text, 6));
}

}  // namespace
}  // namespace Varnelo
