// Writes the seed corpus of every fuzz target: requests of every method and shape, EXIF blocks
// in both byte orders with broken offsets, conversions of JPEGs of every kind the fixtures
// make, and photos with every kind of metadata segment under several choices. Seeds are
// generated, never stored.
//
// usage: varnelo-fuzz-seeds FOLDER   (writes FOLDER/request, FOLDER/exif, FOLDER/convert,
//        FOLDER/metadata)

#include <cstdio>
#include <exiv2/exiv2.hpp>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/jpeg_fixtures.h"

namespace {

using namespace Varnelo;

std::string Member(const std::string& name, const std::string& type, const std::string& text) {
    return "<member><name>" + name + "</name><value><" + type + ">" + text + "</" + type +
           "></value></member>";
}

std::string Call(const std::string& method, const std::string& params) {
    return "<?xml version=\"1.0\"?>\n<methodCall>\n<methodName>" + method +
           "</methodName>\n<params>" + params + "</params>\n</methodCall>\n*\n";
}

std::string Image(const std::string& fields) {
    return "<param><value><struct>" + fields + "</struct></value></param>";
}

std::string Repeat(const std::string& text, int times) {
    std::string out;
    for (int i = 0; i < times; ++i) out += text;
    return out;
}

std::vector<std::string> Requests() {
    const std::string photo = Member("sourcePath", "string", "photo.jpg");
    const std::vector<std::string> sources = {"photo.jpg", "plain.jpg", "text.jpg", "none.jpg",
                                              "."};
    std::vector<std::string> seeds = {
        Call("upload.connect",
             "<param><value><struct><member><name>a</name><string>gone.jpg"
             "</string></member></struct></value></param>"),
        Call("upload.close", ""),
        Call("upload.installInfoRequest", ""),
        Call("service.erase",
             "<param><value><array><data><value><string>photo.jpg</string>"
             "</value><value><string></string></value></data></array></value>"
             "</param><param/>"),
        "\n\n*\nexit\n",
        "<methodCall>\n<methodName>upload.close</methodName>\r\n*\r\n</methodCall>\n",
        "<?pi >" + Repeat("<a>", 40) + "?>\n*\n",
        "<?xml version=\"1.0\"?><r>" + Repeat("<a>", 20) + Repeat("\xF0</a>", 20) + "\n*\n",
        "<methodCall><!-- c --><![CDATA[x]]><!DOCTYPE d><methodName a='1'>upload.close"
        "</methodName></methodCall>\n*\n",
    };
    int id = 0;
    for (const char* method : {"upload.downsampleRequest", "upload.thumbnailRequest"}) {
        for (const std::string& source : sources) {
            for (const char* destination : {"out.jpg", "out", "new/x.JPG", "d.jpeg"}) {
                ++id;
                seeds.push_back(
                    Call(method, Image(Member("imageId", "i4", std::to_string(id)) +
                                       Member("sourcePath", "string", source) +
                                       Member("destPath", "string", destination) +
                                       Member("resolution", "i4", std::to_string(16 + id * 7)) +
                                       Member("quality", "i4", std::to_string(id * 9 - 30)) +
                                       Member("omitEXIF", "boolean", id % 2 ? "1" : "true") +
                                       Member("hashMethod", "string", id % 3 ? "MD5" : "CRC32"))));
            }
        }
    }
    seeds.push_back(Call("upload.downsampleRequest",
                         Image(photo) + Image(Member("imageId", "int", "5") + photo) +
                             "<param><value><i4>1</i4></value></param>"));
    return seeds;
}

std::vector<std::string> ExifBlocks() {
    std::vector<std::string> seeds;
    const std::string thumbnail = EncodeJpeg({24, 16});
    for (bool bigEndian : {false, true}) {
        for (const std::string& embedded : {std::string(), thumbnail}) {
            ExifBlock block = BuildExif({320, 240, embedded, bigEndian});
            seeds.push_back(block.payload.substr(6));
            if (embedded.empty()) continue;
            ExifBlock past = block;
            past.Put(past.thumbLengthEntry + 8, 0xFFFFFFF0);
            seeds.push_back(past.payload.substr(6));
            ExifBlock loop = block;
            loop.Put(loop.ifd0Link, 0);
            seeds.push_back(loop.payload.substr(6));
        }
    }
    return seeds;
}

std::vector<std::string> Conversions() {
    std::vector<std::string> seeds;
    const std::string exif = BuildExif({96, 64, EncodeJpeg({32, 24})}).payload;
    const std::vector<JpegShape> shapes = {{96, 64},
                                           {64, 96, JpegKind::COLOUR_444, true},
                                           {80, 40, JpegKind::GREY},
                                           {40, 30, JpegKind::CMYK},
                                           {5, 200},
                                           {200, 1, JpegKind::COLOUR_444}};
    int n = 0;
    for (const JpegShape& shape : shapes) {
        for (bool cut : {false, true}) {
            std::string jpeg = EncodeJpeg(shape, {{0xE1, exif}, {0xFE, "comment"}});
            if (cut) jpeg = TruncateInScan(jpeg);
            const unsigned char options[6] = {
                static_cast<unsigned char>(n % 4),      0,
                static_cast<unsigned char>(20 + n * 3), static_cast<unsigned char>(50 + n * 5),
                static_cast<unsigned char>(n % 4),      static_cast<unsigned char>(n % 3)};
            seeds.push_back(std::string(reinterpret_cast<const char*>(options), 6) + jpeg);
            ++n;
        }
    }
    return seeds;
}

std::string Big16(std::size_t v) { return {static_cast<char>(v >> 8), static_cast<char>(v & 255)}; }
std::string Big32(std::size_t v) { return Big16(v >> 16) + Big16(v & 0xFFFF); }

// A camera's EXIF block with a thumbnail, a serial number and a GPS position and time.
std::string CameraExif() {
    Exiv2::ExifData exif;
    exif["Exif.Image.Make"] = "Canon";
    exif["Exif.Image.Model"] = "Canon EOS 40D";
    exif["Exif.Image.Orientation"] = uint16_t(6);
    exif["Exif.Photo.DateTimeOriginal"] = "2024:05:01 10:00:00";
    exif["Exif.Photo.PixelXDimension"] = uint32_t(640);
    exif["Exif.Photo.BodySerialNumber"] = "1234567";
    exif["Exif.Iop.InteroperabilityIndex"] = "R03";
    exif["Exif.GPSInfo.GPSLatitudeRef"] = "N";
    exif["Exif.GPSInfo.GPSLatitude"].setValue("41/1 53/1 0/1");
    exif["Exif.GPSInfo.GPSTimeStamp"].setValue("10/1 0/1 0/1");
    const std::string thumbnail = EncodeJpeg({16, 12});
    Exiv2::ExifThumb(exif).setJpegThumbnail(reinterpret_cast<const Exiv2::byte*>(thumbnail.data()),
                                            static_cast<long>(thumbnail.size()));
    Exiv2::Blob blob;
    Exiv2::ExifParser::encode(blob, Exiv2::littleEndian, exif);
    return std::string("Exif\0\0", 6) + std::string(blob.begin(), blob.end());
}

std::string Resource(unsigned id, const std::string& data) {
    return "8BIM" + Big16(id) + std::string(2, '\0') + Big32(data.size()) + data +
           (data.size() % 2 ? std::string(1, '\0') : "");
}

// Every kind of metadata segment, as the metadata target's list: marker byte, length, bytes.
std::string MetadataSegments() {
    const std::string rdf =
        "<x:xmpmeta xmlns:x='adobe:ns:meta/'><rdf:RDF "
        "xmlns:rdf='http://www.w3.org/1999/02/22-rdf-syntax-ns#'><rdf:Description rdf:about='' "
        "xmlns:photoshop='http://ns.adobe.com/photoshop/1.0/' "
        "xmlns:exif='http://ns.adobe.com/exif/1.0/' xmlns:xmpNote='http://ns.adobe.com/xmp/note/' ";
    const std::string extension = rdf + "photoshop:Country='Italy'/></rdf:RDF></x:xmpmeta>";
    const std::string guid = "0123456789ABCDEF0123456789ABCDEF";
    Exiv2::IptcData iptc;
    iptc["Iptc.Application2.City"] = "Rome";
    iptc["Iptc.Application2.Caption"] = "Holiday";
    const Exiv2::DataBuf encoded = Exiv2::IptcParser::encode(iptc);
    const std::string iptcBlock(reinterpret_cast<const char*>(encoded.pData_), encoded.size_);
    const std::vector<std::pair<int, std::string>> segments = {
        {0xE1, CameraExif()},
        {0xE1, std::string("http://ns.adobe.com/xap/1.0/\0", 29) + rdf +
                   "photoshop:City='Rome' exif:GPSLatitude='41,53.0N' xmpNote:HasExtendedXMP='" +
                   guid + "'/></rdf:RDF></x:xmpmeta>"},
        {0xE1, std::string("http://ns.adobe.com/xmp/extension/\0", 35) + guid +
                   Big32(extension.size()) + Big32(0) + extension},
        {0xED, std::string("Photoshop 3.0\0", 14) + Resource(0x0404, iptcBlock) +
                   Resource(0x040C, EncodeJpeg({8, 8}))},
        {0xE2, std::string("ICC_PROFILE\0\1\1", 14) + std::string(128, '\3')},
        {0xE2, std::string("MPF\0II*\0\10\0\0\0", 12)},
        {0xE5, "vendor"},
        {0xFE, "comment"}};
    std::string list;
    for (const auto& segment : segments) {
        list += static_cast<char>(segment.first == 0xFE ? 0x10 : segment.first & 0x0F);
        list += Big16(segment.second.size()) + segment.second;
    }
    return list;
}

std::vector<std::string> Metadata() {
    const std::string segments = MetadataSegments();
    std::vector<std::string> seeds;
    // Everything and the location, nothing, EXIF and ICC, XMP and IPTC without the location.
    for (unsigned char choice : {0x7F, 0x00, 0x09, 0x46}) {
        seeds.push_back(std::string(1, static_cast<char>(choice)) + segments);
    }
    // The same photo as a whole file.
    std::string file = EncodeJpeg({16, 16}).substr(0, 20);
    for (std::size_t at = 0; at < segments.size();) {
        const std::size_t length = static_cast<unsigned char>(segments[at + 1]) << 8 |
                                   static_cast<unsigned char>(segments[at + 2]);
        const int code = static_cast<unsigned char>(segments[at]);
        file += "\xFF" + std::string(1, static_cast<char>(code & 0x10 ? 0xFE : 0xE0 | code)) +
                Big16(length + 2) + segments.substr(at + 3, length);
        at += 3 + length;
    }
    file += EncodeJpeg({16, 16}, {}).substr(20) + EncodeJpeg({8, 8});
    seeds.push_back("\xFF" + file);
    seeds.push_back(std::string(1, '\x80') + EncodeJpeg({24, 16, JpegKind::COLOUR_444, true}));
    return seeds;
}

bool WriteAll(const std::string& folder, const std::vector<std::string>& seeds) {
    std::filesystem::create_directories(folder);
    for (std::size_t i = 0; i < seeds.size(); ++i) {
        std::ofstream out(folder + "/seed-" + std::to_string(i), std::ios::binary);
        out << seeds[i];
        if (!out) return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
        return 2;
    }
    const std::string folder = argv[1];
    const bool ok =
        WriteAll(folder + "/request", Requests()) && WriteAll(folder + "/exif", ExifBlocks()) &&
        WriteAll(folder + "/convert", Conversions()) && WriteAll(folder + "/metadata", Metadata());
    if (!ok) std::fprintf(stderr, "%s: cannot write into %s\n", argv[0], argv[1]);
    return ok ? 0 : 1;
}
