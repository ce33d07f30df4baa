// varnelo-batch's reading of what a file is from its first bytes.

#include <gtest/gtest.h>

#include "varnelo-batch/sniff.h"

namespace Varnelo {
namespace {

TEST(BatchSniffTest, NamesEveryKindFromItsFirstBytes) {
    const std::string ftyp = std::string("\0\0\0\x18", 4) + "ftyp";
    const struct {
        std::string head, name, text;
    } cases[] = {
        {"\xFF\xD8\xFF\xE1", "x.png", "a JPEG image"},  // the bytes win over the name
        {"\x89PNG\r\n\x1A\n", "a.jpg", "a PNG image"},
        {"GIF89a", "a.gif", "a GIF image"},
        {std::string("RIFF\x10\0\0\0WEBPVP8 ", 16), "a.webp", "a WebP image"},
        {ftyp + "heic", "a.HEIC", "a HEIC image"},
        {ftyp + "mif1" + std::string(4, '\0') + "mif1heic", "a.heif", "a HEIC image"},
        {ftyp + "mif1" + std::string(4, '\0') + "mif1", "a.heif", "a HEIF image"},
        {ftyp + "avif", "a.avif", "an AVIF image"},
        {ftyp + "crx ", "a.CR3", "a camera raw file (CR3)"},
        {ftyp + "isom", "a.mp4", "not an image"},  // a video
        {std::string("II*\0", 4), "a.tif", "a TIFF image"},
        {std::string("II*\0", 4), "a.NEF", "a camera raw file (NEF)"},
        {std::string("MM\0*", 4), "a.dng", "a camera raw file (DNG)"},
        {"FUJIFILMCCD-RAW 0201", "a.RAF", "a camera raw file (RAF)"},
        {std::string("IIU\0", 4), "a.rw2", "a camera raw file (RW2)"},
        {"<x:xmpmeta", "a.xmp", "not an image"},
        {"", "empty.jpg", "not an image"},
        {"\xFF\xD8", "cut.jpg", "not an image"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(KindText(Sniff(c.head, c.name), c.name), c.text) << c.name;
    }
}

}  // namespace
}  // namespace Varnelo
