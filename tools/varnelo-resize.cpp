// varnelo-resize METHOD WIDTH HEIGHT IN.ppm OUT.ppm
//
// Scales a binary PPM (P6, maxval 255) with one of the service's resamplers, streaming it line
// by line through the same caller protocol as the JPEG conversion, and writes a binary PPM.
// For checking the resamplers in isolation and measuring them on real photos.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "resizer.h"

namespace {

using Varnelo::CPixel;

// Sizes a PPM or a request may have; far beyond any photograph, small enough for int maths.
const long kMaxSize = 1000000;

struct FileCloser {
    void operator()(FILE* f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

void Usage() {
    std::fprintf(stderr,
                 "usage: varnelo-resize METHOD WIDTH HEIGHT IN.ppm OUT.ppm\n"
                 "  METHOD: dirty, tidy or reduces; WIDTH, HEIGHT: destination size in pixels\n");
}

bool ParseSize(const char* text, int& size) {
    if (*text == '\0') return false;
    long value = 0;
    for (const char* p = text; *p != '\0'; ++p) {
        if (*p < '0' || *p > '9') return false;
        value = value * 10 + (*p - '0');
        if (value > kMaxSize) return false;
    }
    if (value < 1) return false;
    size = static_cast<int>(value);
    return true;
}

bool IsSpace(int c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

// Skips whitespace and "#" comments (to the end of the line) between header fields.
int SkipToField(FILE* in) {
    int c = std::fgetc(in);
    for (;;) {
        if (c == '#') {
            while (c != EOF && c != '\n' && c != '\r') c = std::fgetc(in);
        } else if (IsSpace(c)) {
            c = std::fgetc(in);
        } else {
            return c;
        }
    }
}

// A decimal header field. Width and height may be followed by a comment; maxval is followed by
// exactly one whitespace character, after which the pixels start.
long ReadHeaderNumber(FILE* in, const char* what, bool last) {
    int c = SkipToField(in);
    if (c < '0' || c > '9') throw std::runtime_error(std::string("bad PPM header: no ") + what);
    long value = 0;
    while (c >= '0' && c <= '9') {
        value = value * 10 + (c - '0');
        if (value > kMaxSize) throw std::runtime_error(std::string("PPM ") + what + " too large");
        c = std::fgetc(in);
    }
    if (c == '#' && !last) {
        std::ungetc(c, in);
    } else if (!IsSpace(c)) {
        throw std::runtime_error(std::string("bad PPM header after ") + what);
    }
    return value;
}

void ReadHeader(FILE* in, int& width, int& height) {
    if (std::fgetc(in) != 'P' || std::fgetc(in) != '6')
        throw std::runtime_error("not a binary PPM (P6)");
    const long w = ReadHeaderNumber(in, "width", false);
    const long h = ReadHeaderNumber(in, "height", false);
    const long maxval = ReadHeaderNumber(in, "maxval", true);
    if (w < 1 || h < 1) throw std::runtime_error("PPM has no pixels");
    if (maxval != 255) throw std::runtime_error("PPM maxval must be 255");
    width = static_cast<int>(w);
    height = static_cast<int>(h);
}

int Run(int argc, char** argv) {
    if (argc != 6) {
        Usage();
        return 2;
    }
    const std::string method = argv[1];
    int type;
    if (method == "dirty") {
        type = Varnelo::RESIZER_DIRTY;
    } else if (method == "tidy") {
        type = Varnelo::RESIZER_TIDY;
    } else if (method == "reduces") {
        type = Varnelo::RESIZER_REDUCES;
    } else {
        std::fprintf(stderr, "varnelo-resize: unknown method \"%s\" (dirty, tidy or reduces)\n",
                     argv[1]);
        return 2;
    }
    int dstWidth, dstHeight;
    if (!ParseSize(argv[2], dstWidth) || !ParseSize(argv[3], dstHeight)) {
        std::fprintf(stderr, "varnelo-resize: bad size %s x %s (whole numbers 1 to %ld)\n", argv[2],
                     argv[3], kMaxSize);
        return 2;
    }
    const char* inPath = argv[4];
    const char* outPath = argv[5];

    FilePtr in(std::fopen(inPath, "rb"));
    if (!in) {
        std::fprintf(stderr, "varnelo-resize: cannot open %s: %s\n", inPath, std::strerror(errno));
        return 1;
    }
    int srcWidth, srcHeight;
    try {
        ReadHeader(in.get(), srcWidth, srcHeight);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "varnelo-resize: %s: %s\n", inPath, e.what());
        return 1;
    }

    FilePtr out(std::fopen(outPath, "wb"));
    if (!out) {
        std::fprintf(stderr, "varnelo-resize: cannot create %s: %s\n", outPath,
                     std::strerror(errno));
        return 1;
    }
    try {
        std::unique_ptr<Varnelo::CResizer> resizer =
            Varnelo::CreateResizer(type, srcWidth, srcHeight, dstWidth, dstHeight);
        std::vector<CPixel> srcRow(static_cast<size_t>(srcWidth) + 2);
        std::vector<CPixel> blackRow(static_cast<size_t>(dstWidth));
        if (std::fprintf(out.get(), "P6\n%d %d\n255\n", dstWidth, dstHeight) < 0)
            throw std::runtime_error(std::string("cannot write ") + outPath);
        FILE* inFile = in.get();
        FILE* outFile = out.get();
        std::string failure;
        const bool pumped = Varnelo::PumpLines(
            *resizer, srcWidth, srcHeight, dstHeight, srcRow.data(), blackRow.data(),
            [&](CPixel* row) {
                if (std::fread(row, sizeof(CPixel), srcWidth, inFile) ==
                    static_cast<size_t>(srcWidth))
                    return true;
                failure = std::string(inPath) + ": PPM data is truncated";
                return false;
            },
            [&](const CPixel* row) {
                if (std::fwrite(row, sizeof(CPixel), dstWidth, outFile) ==
                    static_cast<size_t>(dstWidth))
                    return true;
                failure = std::string("cannot write ") + outPath;
                return false;
            },
            [] {});
        if (!pumped) throw std::runtime_error(failure);
        if (std::fflush(outFile) != 0 || std::ferror(outFile))
            throw std::runtime_error(std::string("cannot write ") + outPath);
        if (std::fclose(out.release()) != 0)
            throw std::runtime_error(std::string("cannot write ") + outPath);
    } catch (const std::exception& e) {
        out.reset();
        std::remove(outPath);
        std::fprintf(stderr, "varnelo-resize: %s\n", e.what());
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "varnelo-resize: %s\n", e.what());
        return 1;
    }
}
