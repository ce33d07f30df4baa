#pragma once

// Reading JPEGs back in tests: their segments, their pixels, and a copy cut inside the scan.
// Making them is in samples/sample_photos.h, included here for the tests' convenience.

#include <string>
#include <vector>

#include "samples/sample_photos.h"

namespace Varnelo {

// The APPn and COM segments of a JPEG, in file order, up to the first SOS.
std::vector<Segment> ReadSegments(const std::string& jpeg);
// The JPEG cut halfway through what follows its first SOS.
std::string TruncateInScan(const std::string& jpeg);

struct DecodedJpeg {
    bool ok = false;  // false when the library faulted
    int width = 0, height = 0;
    std::vector<unsigned char> rgb;  // width * height * 3
};

// Decodes to RGB with the library's defaults.
DecodedJpeg DecodeJpeg(const std::string& jpeg);

}  // namespace Varnelo
