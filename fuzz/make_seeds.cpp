// Writes the seed corpus of every fuzz target: requests of every method and shape, EXIF blocks
// in both byte orders with broken offsets, and conversions of JPEGs of every kind the fixtures
// make. Seeds are generated, never stored.
//
// usage: varnelo-fuzz-seeds FOLDER   (writes FOLDER/request, FOLDER/exif, FOLDER/convert)

#include <cstdio>
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
    const bool ok = WriteAll(folder + "/request", Requests()) &&
                    WriteAll(folder + "/exif", ExifBlocks()) &&
                    WriteAll(folder + "/convert", Conversions());
    if (!ok) std::fprintf(stderr, "%s: cannot write into %s\n", argv[0], argv[1]);
    return ok ? 0 : 1;
}
