// Writes a sample camera-like photo: a JPEG (baseline 4:2:0 at quality 92 unless asked
// otherwise) of a scene with the detail of a photograph (soft light, textures, grain), with an
// EXIF block that carries an embedded JPEG thumbnail and the pixel size, followed by a comment.
// The same options always give the same bytes, so benchmarks can rebuild their corpus anywhere.
//
// usage: varnelo-sample-photo [--seed N] [--quality Q] [--chroma 420|422|444] [--progressive]
//                             OUT.jpg [WIDTH HEIGHT]

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "samples/sample_photos.h"

namespace {

int Usage(const char* program) {
    std::fprintf(stderr,
                 "usage: %s [--seed N] [--quality Q] [--chroma 420|422|444] [--progressive] "
                 "OUT.jpg [WIDTH HEIGHT]\n",
                 program);
    return 2;
}

// A whole decimal number in [0, limit], or -1.
long Number(const char* text, unsigned long limit) {
    char* end = nullptr;
    const unsigned long value = std::strtoul(text, &end, 10);
    return *text == '\0' || *end != '\0' || value > limit ? -1 : static_cast<long>(value);
}

}  // namespace

int main(int argc, char** argv) {
    using namespace Varnelo;
    const char* program = argv[0];
    long seed = 1, quality = 92;
    JpegKind kind = JpegKind::COLOUR_420;
    bool progressive = false;
    while (argc >= 2 && std::strncmp(argv[1], "--", 2) == 0) {
        const std::string option = argv[1];
        if (option == "--progressive") {
            progressive = true;
            argc -= 1;
            argv += 1;
            continue;
        }
        if (argc < 3) return Usage(program);
        const std::string value = argv[2];
        if (option == "--seed") {
            seed = Number(argv[2], 0xFFFFFFFFul);
        } else if (option == "--quality") {
            quality = Number(argv[2], 100);
        } else if (option == "--chroma" && (value == "420" || value == "422" || value == "444")) {
            kind = value == "420"   ? JpegKind::COLOUR_420
                   : value == "422" ? JpegKind::COLOUR_422
                                    : JpegKind::COLOUR_444;
        } else {
            return Usage(program);
        }
        if (seed < 0 || quality < 0) return Usage(program);
        argc -= 2;
        argv += 2;
    }
    if (argc != 2 && argc != 4) return Usage(program);
    int width = 3000;
    int height = 2000;
    if (argc == 4) {
        width = std::atoi(argv[2]);
        height = std::atoi(argv[3]);
        if (width < 1 || height < 1 || width > 20000 || height > 20000) {
            std::fprintf(stderr, "%s: width and height must be 1..20000\n", program);
            return 2;
        }
    }

    JpegShape thumbShape;
    thumbShape.width = 160;
    thumbShape.height = 160 * height / width > 0 ? 160 * height / width : 1;
    thumbShape.photographic = true;
    thumbShape.seed = static_cast<uint32_t>(seed);
    ExifShape exif;
    exif.pixelX = width;
    exif.pixelY = height;
    exif.thumbnail = EncodeJpeg(thumbShape);

    JpegShape shape;
    shape.width = width;
    shape.height = height;
    shape.quality = static_cast<int>(quality);
    shape.kind = kind;
    shape.progressive = progressive;
    shape.photographic = true;
    shape.seed = static_cast<uint32_t>(seed);
    const std::string photo =
        EncodeJpeg(shape, {{0xE1, BuildExif(exif).payload}, {0xFE, "Varnelo sample photo"}});

    std::ofstream out(argv[1], std::ios::binary | std::ios::trunc);
    out.write(photo.data(), static_cast<std::streamsize>(photo.size()));
    out.close();
    if (!out) {
        std::fprintf(stderr, "%s: cannot write %s\n", program, argv[1]);
        return 1;
    }
    return 0;
}
