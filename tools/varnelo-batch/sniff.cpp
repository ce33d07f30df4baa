#include "sniff.h"

#include <cctype>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace Varnelo {

namespace {

bool StartsWith(const std::string& head, std::size_t at, const char* bytes, std::size_t n) {
    return head.size() >= at + n && std::memcmp(head.data() + at, bytes, n) == 0;
}

std::string Extension(const std::string& name) {
    std::string ext = std::filesystem::path(name).extension().string();
    if (!ext.empty()) ext.erase(0, 1);
    for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return ext;
}

bool IsTiffRawExtension(const std::string& ext) {
    static const char* const kRaw[] = {"dng", "nef", "nrw", "cr2", "arw", "srf", "sr2",
                                       "pef", "srw", "3fr", "erf", "kdc", "dcr", "mef",
                                       "mos", "iiq", "k25", "rwl", "raw"};
    for (const char* raw : kRaw) {
        if (ext == raw) return true;
    }
    return false;
}

// An ISO base media file (HEIF, AVIF, CR3, but also MP4 and QuickTime videos): its brands.
FileKind FromBrands(const std::string& head) {
    const std::string major = head.substr(8, 4);
    if (major == "crx ") return FileKind::RAW;
    for (const char* brand : {"heic", "heix", "heim", "heis", "hevc", "hevx", "hevm", "hevs"}) {
        if (major == brand) return FileKind::HEIC;
    }
    if (major == "avif" || major == "avis") return FileKind::AVIF;
    if (major != "mif1" && major != "msf1") return FileKind::OTHER;
    // A generic HEIF brand first: the compatible brands that follow say what it holds.
    const std::string rest = head.substr(16);
    if (rest.find("heic") != std::string::npos || rest.find("heix") != std::string::npos) {
        return FileKind::HEIC;
    }
    if (rest.find("avif") != std::string::npos) return FileKind::AVIF;
    return FileKind::HEIF;
}

}  // namespace

FileKind Sniff(const std::string& head, const std::string& name) {
    if (StartsWith(head, 0, "\xFF\xD8\xFF", 3)) return FileKind::JPEG;
    if (StartsWith(head, 0, "\x89PNG\r\n\x1A\n", 8)) return FileKind::PNG;
    if (StartsWith(head, 0, "GIF87a", 6) || StartsWith(head, 0, "GIF89a", 6)) return FileKind::GIF;
    if (StartsWith(head, 0, "RIFF", 4) && StartsWith(head, 8, "WEBP", 4)) return FileKind::WEBP;
    if (StartsWith(head, 4, "ftyp", 4) && head.size() >= 12) return FromBrands(head);
    if (StartsWith(head, 0, "II*\0", 4) || StartsWith(head, 0, "MM\0*", 4)) {
        return IsTiffRawExtension(Extension(name)) ? FileKind::TIFF_RAW : FileKind::TIFF;
    }
    // Camera raw formats with signatures of their own: Fujifilm, Olympus, Panasonic, Minolta,
    // Sigma, and the older Canon CRW.
    if (StartsWith(head, 0, "FUJIFILMCCD-RAW", 15) || StartsWith(head, 0, "IIRO", 4) ||
        StartsWith(head, 0, "IIRS", 4) || StartsWith(head, 0, "MMOR", 4) ||
        StartsWith(head, 0, "IIU\0", 4) || StartsWith(head, 0, "\0MRM", 4) ||
        StartsWith(head, 0, "FOVb", 4) || StartsWith(head, 6, "HEAPCCDR", 8)) {
        return FileKind::RAW;
    }
    return FileKind::OTHER;
}

FileKind SniffFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::string head(kSniffBytes, '\0');
    in.read(head.data(), static_cast<std::streamsize>(head.size()));
    head.resize(static_cast<std::size_t>(in.gcount()));
    return Sniff(head, path);
}

std::string KindName(FileKind kind, const std::string& name) {
    switch (kind) {
        case FileKind::JPEG:
            return "JPEG";
        case FileKind::HEIC:
            return "HEIC";
        case FileKind::HEIF:
            return "HEIF";
        case FileKind::AVIF:
            return "AVIF";
        case FileKind::PNG:
            return "PNG";
        case FileKind::WEBP:
            return "WebP";
        case FileKind::GIF:
            return "GIF";
        case FileKind::TIFF:
            return "TIFF";
        case FileKind::TIFF_RAW:
        case FileKind::RAW: {
            std::string ext = Extension(name);
            for (char& c : ext) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
            return ext.empty() ? "camera raw" : ext;
        }
        case FileKind::OTHER:
            break;
    }
    return "other";
}

std::string KindText(FileKind kind, const std::string& name) {
    switch (kind) {
        case FileKind::OTHER:
            return "not an image";
        case FileKind::TIFF_RAW:
        case FileKind::RAW:
            return "a camera raw file (" + KindName(kind, name) + ")";
        default:
            break;
    }
    const std::string kindName = KindName(kind, name);
    return (kindName[0] == 'A' ? "an " : "a ") + kindName + " image";
}

bool ReadJpegSize(const std::string& path, int& width, int& height) {
    std::ifstream in(path, std::ios::binary);
    if (in.get() != 0xFF || in.get() != 0xD8) return false;
    for (;;) {
        int marker = in.get();
        if (marker != 0xFF) return false;
        while (marker == 0xFF) marker = in.get();  // fill bytes
        if (marker == EOF || marker == 0xDA || marker == 0xD9) return false;
        const int high = in.get(), low = in.get();
        if (low == EOF) return false;
        const int length = high << 8 | low;
        if (length < 2) return false;
        // The frame headers: every SOFn but DHT (C4), JPG (C8) and DAC (CC).
        const bool frame =
            marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
        if (!frame) {
            in.seekg(length - 2, std::ios::cur);
            continue;
        }
        unsigned char sof[5];
        if (length < 7 || !in.read(reinterpret_cast<char*>(sof), sizeof(sof))) return false;
        height = sof[1] << 8 | sof[2];
        width = sof[3] << 8 | sof[4];
        return height > 0 && width > 0;
    }
}

}  // namespace Varnelo
