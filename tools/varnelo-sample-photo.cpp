// Writes a sample camera-like photo: a baseline 4:2:0 JPEG at quality 92 of a scene with the
// detail of a photograph (soft light, textures, grain), with an EXIF block that carries an
// embedded JPEG thumbnail and the pixel size, followed by a comment. The same seed and size
// always give the same bytes, so benchmarks can rebuild their corpus anywhere.
//
// usage: varnelo-sample-photo [--seed N] OUT.jpg [WIDTH HEIGHT]

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "samples/sample_photos.h"

namespace {

int Usage(const char* program) {
    std::fprintf(stderr, "usage: %s [--seed N] OUT.jpg [WIDTH HEIGHT]\n", program);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    const char* program = argv[0];
    unsigned long seed = 1;
    if (argc >= 3 && std::strcmp(argv[1], "--seed") == 0) {
        char* end = nullptr;
        seed = std::strtoul(argv[2], &end, 10);
        if (*argv[2] == '\0' || *end != '\0' || seed > 0xFFFFFFFFul) return Usage(program);
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

    using namespace Varnelo;
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
    shape.quality = 92;
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
