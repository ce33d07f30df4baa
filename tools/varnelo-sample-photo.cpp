// Writes a sample camera-like photo: a colourful test pattern with an EXIF block that
// carries an embedded JPEG thumbnail and the pixel size, followed by a comment.
//
// usage: varnelo-sample-photo OUT.jpg [WIDTH HEIGHT]

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "support/jpeg_fixtures.h"

int main(int argc, char** argv) {
    if (argc != 2 && argc != 4) {
        std::fprintf(stderr, "usage: %s OUT.jpg [WIDTH HEIGHT]\n", argv[0]);
        return 2;
    }
    int width = 3000;
    int height = 2000;
    if (argc == 4) {
        width = std::atoi(argv[2]);
        height = std::atoi(argv[3]);
        if (width < 1 || height < 1 || width > 20000 || height > 20000) {
            std::fprintf(stderr, "%s: width and height must be 1..20000\n", argv[0]);
            return 2;
        }
    }

    using namespace Varnelo;
    JpegShape thumbShape;
    thumbShape.width = 160;
    thumbShape.height = 160 * height / width > 0 ? 160 * height / width : 1;
    ExifShape exif;
    exif.pixelX = width;
    exif.pixelY = height;
    exif.thumbnail = EncodeJpeg(thumbShape);

    JpegShape shape;
    shape.width = width;
    shape.height = height;
    shape.quality = 92;
    const std::string photo =
        EncodeJpeg(shape, {{0xE1, BuildExif(exif).payload}, {0xFE, "Varnelo sample photo"}});

    std::ofstream out(argv[1], std::ios::binary | std::ios::trunc);
    out.write(photo.data(), static_cast<std::streamsize>(photo.size()));
    out.close();
    if (!out) {
        std::fprintf(stderr, "%s: cannot write %s\n", argv[0], argv[1]);
        return 1;
    }
    return 0;
}
