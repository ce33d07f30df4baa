#pragma once

// The JPEG conversion pipeline: a full conversion that decodes a source JPEG line by line,
// scales it with one of the resizers and re-encodes it, copying the source's COM/APPn
// segments; a thumbnail conversion that writes the JPEG embedded in the source's EXIF block
// when there is one; and the JPEG library's fatal-error hook that both rely on.
//
// Threads: every call owns all of its state (library objects, error managers, files,
// resizer, buffers, hash) for its own length, and may run part of its work on a helper thread
// of its own, joined before it returns (see ConvertThreads); calls on different threads share
// only the logger and the processor pool (processor_pool.h): each holds one of its processors
// while it runs. Nothing throws out of a conversion except allocation failure.

#include <string>

#include "hash.h"
#include "resizer.h"

// The JPEG library's common object header, declared by jpeglib.h.
struct jpeg_common_struct;

namespace Varnelo {

// Outcome of a conversion, carried to the client as a number.
enum ConvertResult {
    CR_OK = 0,                   // converted, no library warnings
    CR_FILE_NOT_FOUND = 1,       // the source could not be opened
    CR_CREATE_DEST_ERROR = 2,    // the destination could not be created
    CR_JPEG_WARNINGS = 3,        // converted, but the library reported warnings
    CR_RESAMPLING_ERROR = 4,     // bad arguments, unreadable JPEG or a fatal library fault
    CR_LESS_THAN_REQUESTED = 5,  // the source is not larger than asked; nothing written
    CR_INTERNAL_ERROR = 6,       // reserved for callers; never returned by the conversions
};

// How a conversion spreads over processors (line_source.h). ONE decodes, scales and encodes on
// the calling thread. STAGED splits the decoding of a photo that staged_decoder.h says may be
// staged: a second thread entropy-decodes it while the calling thread reconstructs, scales and
// encodes its lines. AUTO stages such a photo while another processor is idle and no conversion
// waits for one. The output, the result, the warnings and the trace are the same in every mode.
enum ConvertThreads { CONVERT_THREADS_AUTO, CONVERT_THREADS_ONE, CONVERT_THREADS_STAGED };

// Sets the mode of every conversion that starts from now on (AUTO at start-up), for tests and
// measurements.
void SetConvertThreads(ConvertThreads mode);

// The error_exit hook of every library object the conversions create: logs
// "custom_error_exit (1)" at level 10 and returns to the conversion, which cleans up and reports
// CR_RESAMPLING_ERROR. Never returns.
// REQUIRES: cinfo belongs to a conversion and faulted inside one of its guarded library calls.
[[noreturn]] void custom_error_exit(jpeg_common_struct* cinfo);

// Converts `src` into `dst` so that its longer side is at most `size` (clamped to 32..65536)
// at JPEG `quality` (clamped to 0..100), using the resizer `resizerType`. Comments and all
// application segments are copied unless `omitEXIF`. Sets srcWidth/srcHeight once decoding
// has started, and `hash` to "S1|"+CRC-32 or "S2|"+MD5 of the source's last 2048 bytes (empty
// for any other `hashType`) once the image is written. Returns a ConvertResult.
int ConvertFile(const std::string& src, const std::string& dst, int size, int quality,
                int& srcWidth, int& srcHeight, std::string& hash, HashType hashType,
                TypeOfResizer resizerType, bool omitEXIF);

// Writes the thumbnail embedded in the source's EXIF block to `dst` byte for byte, leaving the
// out-arguments untouched; without one (or when `dst` cannot be opened for it) returns
// ConvertFile(src, dst, ..., omitEXIF = true). Returns a ConvertResult.
int ConvertFileThumbnail(const std::string& src, const std::string& dst, int size, int quality,
                         int& srcWidth, int& srcHeight, std::string& hash, HashType hashType,
                         TypeOfResizer resizerType);

}  // namespace Varnelo
