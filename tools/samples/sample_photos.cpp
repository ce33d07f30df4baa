#include "samples/sample_photos.h"

#include <cstdio>
#include <cstdlib>

// jpeglib.h needs size_t and FILE declared before it.
#include <jpeglib.h>

namespace Varnelo {
namespace {

// A well-mixed 32-bit hash of a lattice point: the source of every random value of the
// photographic scene, so that the same seed gives the same bytes on every machine.
uint32_t Mix(uint32_t x, uint32_t y, uint32_t salt) {
    uint32_t h = x * 0x8da6b343u ^ y * 0xd8163841u ^ salt * 0xcb1ab31fu;
    h ^= h >> 15;
    h *= 0x2c1b3c6du;
    h ^= h >> 12;
    h *= 0x297a2d39u;
    h ^= h >> 15;
    return h;
}

// Value noise in 0..255: random values on a lattice `cell` pixels apart, blended with a
// smoothstep in 1/256 steps.
int ValueNoise(int x, int y, int cell, uint32_t salt) {
    const uint32_t ix = x / cell, iy = y / cell;
    auto ease = [](int f) { return f * f * (768 - 2 * f) >> 16; };  // 0..256 -> 0..256
    const int sx = ease((x % cell) * 256 / cell), sy = ease((y % cell) * 256 / cell);
    const int a = Mix(ix, iy, salt) & 0xFF, b = Mix(ix + 1, iy, salt) & 0xFF;
    const int c = Mix(ix, iy + 1, salt) & 0xFF, d = Mix(ix + 1, iy + 1, salt) & 0xFF;
    const int top = a * 256 + (b - a) * sx, bottom = c * 256 + (d - c) * sx;
    return (top * 256 + (bottom - top) * sy) >> 16;
}

// One line of the photographic scene as RGB: light falling off from a bright upper part,
// soft shapes, textures at three scales and per-pixel grain on the brightness, and slowly
// drifting colour. Its detail makes a quality-92 JPEG of a few bits per pixel.
void PhotographicLine(int y, int width, int height, uint32_t seed, unsigned char* rgb) {
    const uint32_t s = seed * 16;
    const int scale = std::max(width, height);
    const int big = std::max(scale / 5, 8), mid = std::max(scale / 60, 4);
    for (int x = 0; x < width; ++x) {
        const int light = 150 - 70 * y / height;
        const int shapes = ValueNoise(x, y, big, s + 1) - 128;
        const int texture = ValueNoise(x, y, mid, s + 2) - 128;
        const int fine = ValueNoise(x, y, 6, s + 3) - 128;
        const int grain = static_cast<int>(Mix(x, y, s + 4) % 25) - 12;
        const int luma = light + shapes * 5 / 8 + texture / 3 + fine / 6 + grain;
        const int warm = (ValueNoise(x, y, big, s + 5) - 128) / 2;
        const int green = (ValueNoise(x, y, mid * 3, s + 6) - 128) / 3;
        const int channel[3] = {luma + warm, luma + green, luma - warm - green / 2};
        for (int c = 0; c < 3; ++c) rgb[3 * x + c] = std::min(std::max(channel[c], 0), 255);
    }
}

}  // namespace

std::string EncodeJpeg(const JpegShape& shape, const std::vector<Segment>& segments) {
    jpeg_compress_struct cinfo;
    jpeg_error_mgr err;
    cinfo.err = jpeg_std_error(&err);
    jpeg_create_compress(&cinfo);
    unsigned char* buffer = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&cinfo, &buffer, &size);
    const int n = shape.kind == JpegKind::GREY ? 1 : shape.kind == JpegKind::CMYK ? 4 : 3;
    cinfo.image_width = shape.width;
    cinfo.image_height = shape.height;
    cinfo.input_components = n;
    cinfo.in_color_space = n == 1 ? JCS_GRAYSCALE : n == 4 ? JCS_CMYK : JCS_RGB;
    jpeg_set_defaults(&cinfo);
    jpeg_set_quality(&cinfo, shape.quality, TRUE);
    if (shape.kind == JpegKind::COLOUR_444) {
        cinfo.comp_info[0].h_samp_factor = cinfo.comp_info[0].v_samp_factor = 1;
    }
    if (shape.kind == JpegKind::COLOUR_422) cinfo.comp_info[0].v_samp_factor = 1;
    if (shape.progressive) jpeg_simple_progression(&cinfo);
    cinfo.restart_in_rows = shape.restartRows;
    jpeg_start_compress(&cinfo, TRUE);
    for (const Segment& s : segments) {
        jpeg_write_marker(&cinfo, s.marker, reinterpret_cast<const JOCTET*>(s.data.data()),
                          s.data.size());
    }
    // Smooth gradients with sharp edges, different in each channel; grey is their mean.
    std::vector<JSAMPLE> line(static_cast<size_t>(shape.width) * n);
    std::vector<JSAMPLE> scene(shape.photographic ? static_cast<size_t>(shape.width) * 3 : 0);
    for (int y = 0; y < shape.height; ++y) {
        if (shape.photographic) {
            PhotographicLine(y, shape.width, shape.height, shape.seed, scene.data());
        }
        for (int x = 0; x < shape.width; ++x) {
            int rgb[3] = {(x * 7 + y * 3) & 0xFF, ((x ^ y) * 5) & 0xFF,
                          (x / 8 + y / 8) % 2 != 0 ? 220 : 30};
            if (shape.photographic) {
                for (int c = 0; c < 3; ++c) rgb[c] = scene[3 * x + c];
            }
            for (int c = 0; c < n; ++c) {
                line[x * n + c] = n == 1 ? (rgb[0] + rgb[1] + rgb[2]) / 3 : rgb[c % 3];
            }
        }
        JSAMPROW row = line.data();
        jpeg_write_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
    std::string bytes(reinterpret_cast<char*>(buffer), size);
    std::free(buffer);
    return bytes;
}

void ExifBlock::Put(uint32_t at, uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) {
        payload[6 + at + (bigEndian ? bytes - 1 - i : i)] = static_cast<char>(value >> (8 * i));
    }
}

void ExifBlock::PutEntry(uint32_t at, uint16_t tag, uint16_t type, uint32_t value) {
    Put(at, tag, 2);
    Put(at + 2, type, 2);
    Put(at + 4, 1);
    Put(at + 8, 0);
    Put(at + 8, value, type == 3 ? 2 : 4);
}

ExifBlock BuildExif(const ExifShape& shape) {
    ExifBlock b;
    b.bigEndian = shape.bigEndian;
    const bool withThumbnail = !shape.thumbnail.empty();
    b.payload = std::string("Exif\0\0", 6) + (shape.bigEndian ? "MM" : "II") +
                std::string((withThumbnail ? b.thumbnail : b.ifd1) - 2, '\0') + shape.thumbnail;
    b.Put(2, 42, 2);
    b.Put(4, b.ifd0);
    b.Put(b.ifd0, 1, 2);
    b.PutEntry(b.ifd0 + 2, 0x8769, 4, b.exifIfd);
    b.Put(b.ifd0Link, withThumbnail ? b.ifd1 : 0);
    b.Put(b.exifIfd, 2, 2);
    b.PutEntry(b.pixelXEntry, 0xA002, 3, shape.pixelX);
    b.PutEntry(b.pixelYEntry, 0xA003, 3, shape.pixelY);
    if (withThumbnail) {
        b.Put(b.ifd1, 2, 2);
        b.PutEntry(b.thumbOffsetEntry, 0x0201, 4, b.thumbnail);
        b.PutEntry(b.thumbLengthEntry, 0x0202, 4, shape.thumbnail.size());
    }
    return b;
}

}  // namespace Varnelo
