#pragma once

// Keeping photos upright without their metadata. A camera held sideways stores its pixels
// as the sensor saw them and says how to turn them in the EXIF Orientation tag; a copy made
// without EXIF, and a thumbnail (the service never gives one metadata), would show lying on
// its side. Such files get an EXIF block holding that one tag and nothing else: no location,
// no camera data, no embedded thumbnail. Stateless functions.

#include <string>

namespace Varnelo {

// The Orientation (1..8) in the first EXIF block of the JPEG file at `path`; 0 when it has
// none or the file cannot be read. Every read is checked against the segment's length.
int ReadOrientation(const std::string& path);

// Puts into `jpeg` an APP1 EXIF segment that holds only `orientation`, right after SOI (or
// after a leading JFIF APP0). A JPEG that carries an EXIF block of its own is left as it is.
// False when `jpeg` does not start like a JPEG.
bool AddOrientation(std::string& jpeg, int orientation);

}  // namespace Varnelo
