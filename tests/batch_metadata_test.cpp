// varnelo-batch's metadata: what a copy keeps by choice, what goes with the location, what a
// thumbnail carries, and the Orientation. Fixtures are built byte by byte; the JPEG library
// reads the segments back, and exiftool, when installed, reads the metadata.

#include <gtest/gtest.h>
#include <stdio.h>

#include <filesystem>
#include <map>
#include <regex>

#include "support/jpeg_fixtures.h"
#include "support/temp_dir.h"
#include "varnelo-batch/metadata.h"

namespace Varnelo {
namespace {

using namespace std::string_literals;

std::string Le16(unsigned v) { return {char(v & 255), char(v >> 8)}; }
std::string Le32(uint32_t v) { return Le16(v & 0xFFFF) + Le16(v >> 16); }
std::string Be16(unsigned v) { return {char(v >> 8), char(v & 255)}; }
std::string Be32(uint32_t v) { return Be16(v >> 16) + Be16(v & 0xFFFF); }

// A TIFF entry: its value, or with `ifd` set a LONG pointing at that directory or at the blob.
struct Tag {
    unsigned id, type;
    uint32_t count;
    std::string value;
    int ifd = -1;
};
const int kBlob = 99;
Tag Text(unsigned id, const std::string& s) { return {id, 2, uint32_t(s.size() + 1), s + '\0'}; }
Tag Short(unsigned id, unsigned v) { return {id, 3, 1, Le16(v)}; }
Tag Pointer(unsigned id, int ifd) { return {id, 4, 1, "", ifd}; }
const std::string kDegrees = Le32(41) + Le32(1) + Le32(0) + Le32(1) + Le32(0) + Le32(1);
Tag Degrees(unsigned id) { return {id, 5, 3, kDegrees}; }

// A little-endian TIFF block: the directories, directory 0 linked to directory `next` (none
// when 0), the values longer than 4 bytes, then `blob`.
std::string Tiff(const std::vector<std::vector<Tag>>& ifds, size_t next, const std::string& blob) {
    std::vector<uint32_t> at = {8};
    size_t longValues = 0;
    for (const auto& ifd : ifds) {
        at.push_back(at.back() + 6 + 12 * ifd.size());
        for (const Tag& t : ifd) longValues += t.value.size() > 4 ? t.value.size() : 0;
    }
    std::string out = "II*\0"s + Le32(8), data;
    for (size_t i = 0; i < ifds.size(); ++i) {
        out += Le16(ifds[i].size());
        for (const Tag& t : ifds[i]) {
            const std::string v =
                t.ifd < 0 ? t.value : Le32(t.ifd == kBlob ? at.back() + longValues : at[t.ifd]);
            out += Le16(t.id) + Le16(t.type) + Le32(t.count);
            out += v.size() > 4 ? Le32(at.back() + data.size()) : v + std::string(4 - v.size(), 0);
            if (v.size() > 4) data += v;
        }
        out += Le32(i == 0 && next ? at[next] : 0);
    }
    return out + data + blob;
}

// A camera's EXIF block: IFD0, the Exif IFD with a serial number, Interop, GPS and a thumbnail.
std::string CameraExif(int orientation) {
    const std::string thumb = EncodeJpeg({16, 16});
    const Tag version = {0, 1, 4, "\2\3\0\0"s}, thumbLength = {0x0202, 4, 1, Le32(thumb.size())};
    return "Exif\0\0"s +
           Tiff({{Text(0x010F, "Cam"), Text(0x0110, "X100"), Short(0x0112, orientation),
                  Pointer(0x8769, 1), Pointer(0x8825, 3)},
                 {Text(0x9003, "2024:05:01 10:00:00"), Short(0xA001, 0xFFFF), Short(0xA002, 640),
                  Short(0xA003, 480), Pointer(0xA005, 2), Text(0xA431, "SN1234567")},
                 {Text(0x0001, "R03")},
                 {version, Text(1, "N"), Degrees(2), Text(3, "E"), Degrees(4), Degrees(7),
                  Text(0x1D, "2024:05:01")},
                 {Short(0x0103, 6), Pointer(0x0201, kBlob), thumbLength}},
                4, thumb);
}

std::string Rdf(const std::string& description) {
    return "<x:xmpmeta xmlns:x='adobe:ns:meta/'><rdf:RDF "
           "xmlns:rdf='http://www.w3.org/1999/02/22-rdf-syntax-ns#'><rdf:Description rdf:about='' "
           "xmlns:xmpNote='http://ns.adobe.com/xmp/note/' "
           "xmlns:photoshop='http://ns.adobe.com/photoshop/1.0/' "
           "xmlns:exif='http://ns.adobe.com/exif/1.0/' "
           "xmlns:Iptc4xmpExt='http://iptc.org/std/Iptc4xmpExt/2008-02-29/' " +
           description + "</rdf:RDF></x:xmpmeta>";
}

// The main packet, with place names and the name of its extension; the extension, with a
// headline to keep and a country to strip, in two segments.
std::vector<Segment> XmpSegments() {
    const std::string guid = "0123456789ABCDEF0123456789ABCDEF", ext = "photoshop:Country='Italy'";
    const std::string extension = Rdf("photoshop:Headline='Long story' " + ext + "/>");
    std::vector<Segment> segments = {
        {0xE1, "http://ns.adobe.com/xap/1.0/\0"s +
                   Rdf("photoshop:City='Rome' exif:GPSLatitude='41,53.0N' "
                       "exif:GPSTimeStamp='2024-05-01T10:00:00Z' xmpNote:HasExtendedXMP='" +
                       guid +
                       "'><Iptc4xmpExt:LocationShown><rdf:Bag><rdf:li "
                       "rdf:parseType='Resource'><Iptc4xmpExt:City>Rome</Iptc4xmpExt:City>"
                       "</rdf:li></rdf:Bag></Iptc4xmpExt:LocationShown></rdf:Description>")}};
    const size_t half = extension.size() / 2;
    for (size_t at : {size_t(0), half}) {
        segments.push_back({0xE1, "http://ns.adobe.com/xmp/extension/\0"s + guid +
                                      Be32(extension.size()) + Be32(at) +
                                      extension.substr(at, at ? std::string::npos : half)});
    }
    return segments;
}

std::string Resource(unsigned id, const std::string& data) {
    return "8BIM" + Be16(id) + "\0\0"s + Be32(data.size()) + data + (data.size() % 2 ? "\0"s : "");
}
std::string Dataset(int tag, const std::string& v) {
    return "\x1C\2"s + char(tag) + Be16(v.size()) + v;
}

// A profile of a header and one tag, in one segment.
const std::string kIcc = "ICC_PROFILE\0\1\1"s + Be32(156) + "none" + Be32(0x02100000) +
                         "mntrRGB XYZ " + std::string(12, '\0') + "acsp" + std::string(88, '\0') +
                         Be32(1) + "cprt" + Be32(144) + Be32(12) + "text\0\0\0\0ok\0\0"s;

// A photo with every kind of segment, and after its end another image with GPS.
const JpegShape kShape = {48, 32};
const std::string kTrailer = EncodeJpeg({16, 16}, {{0xE1, CameraExif(1)}});
std::string Photo(int orientation = 6) {
    const std::string iptc = Dataset(90, "Rome") + Dataset(101, "Italy") + Dataset(120, "Holiday");
    std::vector<Segment> all = {{0xE1, CameraExif(orientation)}, {0xE5, "Vendor"}, {0xFE, "a"}};
    for (const Segment& s : XmpSegments()) all.push_back(s);
    for (const std::string& s : {kIcc, "MPF\0II*\0\10\0\0\0"s, "urn:iso:std:iso:ts:21496:-1\0"s}) {
        all.push_back({0xE2, s});
    }
    all.push_back({0xED, "Photoshop 3.0\0"s + Resource(0x03ED, std::string(16, 1)) +
                             Resource(0x0404, iptc) + Resource(0x0425, std::string(16, 0)) +
                             Resource(0x040C, EncodeJpeg({8, 8}))});
    return EncodeJpeg(kShape, all) + kTrailer;
}
// What follows the library's JFIF segment: the image data, which must stay byte for byte.
const std::string kImageData = EncodeJpeg(kShape).substr(20);

// The kinds of the segments of `jpeg`, after checking that they and the image data are all
// of it.
std::string Labels(const std::string& jpeg) {
    static const char* const kKinds[][2] = {
        {"JFIF", "jfif"}, {"Exif", "exif"},     {"http://ns.adobe.com/xap", "xmp"},
        {"ICC_", "icc"},  {"MPF", "mpf"},       {"http://ns.adobe.com/xmp/ext", "ext"},
        {"urn:", "gain"}, {"Photoshop", "iptc"}};
    std::string labels;
    size_t size = 2 + kImageData.size();
    for (const Segment& s : ReadSegments(jpeg)) {
        std::string label = s.marker == 0xFE ? "com" : "other";
        for (const auto& k : kKinds) label = s.data.rfind(k[0], 0) == 0 ? k[1] : label;
        labels += (labels.empty() ? "" : " ") + label;
        size += 4 + s.data.size();
    }
    EXPECT_EQ(jpeg.size(), size);
    EXPECT_EQ(jpeg.substr(jpeg.size() - std::min(jpeg.size(), kImageData.size())), kImageData);
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
    const struct {
        const char *keep, *labels;
        bool strip = false;
        int orientation = 6;
    } cases[] = {
        // The extension is cut anew into one segment when its location goes.
        {"all", "jfif exif other com xmp ext icc iptc", true},
        {"none", "jfif exif"},  // the Orientation alone, in 26 bytes of EXIF
        {"exif", "jfif exif"},
        {"xmp,iptc", "jfif exif xmp ext ext iptc"},
        {"icc", "jfif exif icc", true},
        {"icc", "jfif icc", false, 1},  // not turned: no EXIF at all
        {"comment,other", "jfif exif other com"},
    };
    for (const auto& c : cases) {
        std::string jpeg = Photo(c.orientation);
        const MetadataOutcome outcome = RewriteMetadata(jpeg, Choice(c.keep, c.strip));
        EXPECT_TRUE(outcome.failure.empty() && outcome.lost.empty()) << c.keep;
        EXPECT_EQ(Labels(jpeg), c.labels) << c.keep;
        const std::vector<Segment> segments = ReadSegments(jpeg);
        EXPECT_TRUE(c.keep != "icc"s || segments.back().data == kIcc);
        EXPECT_TRUE((Choice(c.keep).keep & KEEP_EXIF) || segments[1].data.size() == 32 ||
                    c.orientation == 1)
            << c.keep;
    }
}

// exiftool's reading of `jpeg`, as "Group:Tag" to the JSON text of its value (numbers plain);
// empty when exiftool is not installed.
std::map<std::string, std::string> ExifTool(const std::string& jpeg) {
    TempDir tmp;
    FILE* pipe =
        popen(("exiftool -a -G1 -j -n " + tmp.Write("a.jpg", jpeg) + " 2>&-").c_str(), "r");
    std::string json(1 << 20, '\0');
    json.resize(fread(&json[0], 1, json.size(), pipe));
    pclose(pipe);
    std::map<std::string, std::string> tags;
    const std::regex line("\"([^\"]+)\": (.*?),?\n");
    for (std::sregex_iterator it(json.begin(), json.end(), line), end; it != end; ++it) {
        tags[(*it)[1]] = (*it)[2];
    }
    return tags;
}

// Whether exiftool's "Group:Tag" = `value` places the photo. A GPS time does not, nor a place
// field in a maker note's array that is now 0.
bool IsPlace(const std::string& key, const std::string& value = "") {
    static const std::regex kPlace(
        "GPS(?!TimeStamp|DateStamp|VersionID|DateTime)|City|Country|^Sub-?location|State|"
        "Province|^Location|Location(Shown|Created|Name)|Serial",
        std::regex::icase);
    return value != "0" && std::regex_search(key.substr(key.find(':') + 1), kPlace);
}

TEST(BatchMetadataTest, StripsTheLocationAndKeepsTheRestAsExiftoolReadsIt) {
    std::string jpeg = Photo();
    const auto before = ExifTool(jpeg);
    if (before.empty()) GTEST_SKIP() << "exiftool is not installed";
    ASSERT_EQ(RewriteMetadata(jpeg, Choice("all", true)).failure, "");
    const auto after = ExifTool(jpeg);
    for (const char* key :
         {"IFD0:Make", "IFD0:Orientation", "ExifIFD:DateTimeOriginal", "ExifIFD:ColorSpace",
          "InteropIFD:InteropIndex", "GPS:GPSTimeStamp", "XMP-photoshop:Headline",
          "IPTC:Caption-Abstract", "Photoshop:XResolution", "ICC-header:ProfileVersion"}) {
        EXPECT_EQ(after.count(key) ? after.at(key) : "none", before.at(key)) << key;
    }
    EXPECT_EQ(after.at("ExifIFD:ExifImageWidth") + after.at("ExifIFD:ExifImageHeight"), "4832");
    EXPECT_EQ(after.at("File:CurrentIPTCDigest"), after.at("Photoshop:IPTCDigest"));
    size_t places = 0;
    for (const auto& tag : before) places += IsPlace(tag.first);
    EXPECT_GE(places, 12u);  // the fixture has them, and exiftool sees them
    for (const auto& tag : after) {
        EXPECT_FALSE(IsPlace(tag.first)) << tag.first;
        const std::string group = tag.first.substr(0, tag.first.find(':'));
        EXPECT_TRUE(group != "IFD1" && group != "MPF0" && tag.first != "ExifTool:Warning" &&
                    tag.first != "Photoshop:PhotoshopThumbnail")
            << tag.first;
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
            EXPECT_TRUE(a.ok == b.ok && a.rgb == b.rgb) << entry.path();
            // gps_DSCN0010.jpg has a GPS position; the others a serial number or none.
            for (const auto& tag :
                 choice.stripLocation ? ExifTool(jpeg) : decltype(ExifTool(""))()) {
                EXPECT_FALSE(IsPlace(tag.first, tag.second)) << entry.path() << ": " << tag.first;
            }
        }
    }
}

TEST(BatchMetadataTest, FailsOnMetadataItCannotReadAndSaysWhatWasLost) {
    const std::string badExif = "Exif\0\0MM\0*\0\0\0\xF0"s;
    const struct {
        Segment segment;
        const char *keep, *failure;  // a part of the failure; empty: none
    } cases[] = {
        {{0xE1, badExif}, "exif", "EXIF"},
        {{0xE1, badExif}, "xmp", ""},  // not kept, not read
        {{0xE1, "http://ns.adobe.com/xap/1.0/\0<x:xmpmeta"s}, "xmp", "XMP"},
        {{0xED, "Photoshop 3.0\0"s + Resource(0x0404, "") + "\1"}, "iptc", "Photoshop"},
    };
    for (const auto& c : cases) {
        const std::string photo = EncodeJpeg(kShape, {c.segment});
        std::string jpeg = photo;
        const std::string failure = RewriteMetadata(jpeg, Choice(c.keep, true)).failure;
        EXPECT_TRUE(failure.find(c.failure) != std::string::npos && failure.empty() == !*c.failure)
            << c.keep << ": " << failure;
        EXPECT_TRUE(failure.empty() || jpeg == photo) << c.keep;
    }

    // Two tags that share one long text are written twice once the thumbnail directory goes,
    // and the block no longer fits with its 45 kB maker note.
    const Tag description = {0x010E, 2, 15000, "", kBlob},
              copyright = {0x8298, 2, 15000, "", kBlob};
    const Tag makerNote = {0x927C, 7, 45000, std::string(45000, 'm')};
    std::string big = EncodeJpeg(
        kShape, {{0xE1, "Exif\0\0"s + Tiff({{description, copyright, Pointer(0x8769, 1)},
                                            {Text(0x9003, "2024:05:01 10:00:00"), makerNote},
                                            {Short(0x0103, 6)}},
                                           2, std::string(15000, 'a'))}});
    const MetadataOutcome outcome = RewriteMetadata(big, Choice("exif"));
    EXPECT_EQ(outcome.lost, std::vector<std::string>{"the EXIF MakerNote"}) << outcome.failure;
}

TEST(BatchMetadataTest, DressesThumbnailsWithTheProfileAndTheOrientationOnly) {
    TempDir tmp;
    const std::string head = ReadJpegHead(tmp.Write("photo.jpg", Photo()));
    for (const char* keep : {"all", "exif,xmp"}) {
        std::string thumb = EncodeJpeg(kShape, {{0xE1, CameraExif(3)}, {0xFE, "own"}}) + kTrailer;
        ASSERT_EQ(DressThumbnail(thumb, head, Choice(keep)).failure, "");
        EXPECT_EQ(Labels(thumb), keep == "all"s ? "jfif exif icc" : "jfif exif") << keep;
        EXPECT_EQ(ReadOrientation(tmp.Write("thumb.jpg", thumb)), 6);
        EXPECT_TRUE(keep != "all"s || ReadSegments(thumb)[2].data == kIcc);
    }
}

// A JPEG whose EXIF holds IFD0 with one entry `tag` = `value` (SHORT).
std::string WithExif(unsigned tag, unsigned value) {
    return EncodeJpeg({}, {{0xE1, "Exif\0\0"s + Tiff({{Short(tag, value)}}, 0, "")}});
}

// ReadOrientation is what the tests read a turned copy with: it finds the tag, and only it.
TEST(BatchOrientationTest, ReadsTheTagOnly) {
    TempDir tmp;
    const std::pair<std::string, int> cases[] = {{WithExif(0x0112, 6), 6},
                                                 {WithExif(0x0110, 6), 0},
                                                 {WithExif(0x0112, 9), 0},
                                                 {EncodeJpeg({}), 0}};
    for (const auto& c : cases) EXPECT_EQ(ReadOrientation(tmp.Write("a.jpg", c.first)), c.second);
}

}  // namespace
}  // namespace Varnelo
