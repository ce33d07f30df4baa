// A whole conversion of arbitrary bytes: the first bytes of the input choose the conversion
// (full or thumbnail), the requested size, quality, resizer, hash and whether segments are
// dropped; the rest is written as the source file. A conversion that reports a written image
// must have written a JPEG that decodes at the size the request implies, and the conversion
// staged on two threads must answer and write exactly what the one-thread conversion does.

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

// jpeglib.h needs size_t and FILE declared before it.
#include <jpeglib.h>

#include "coefficient_ring.h"
#include "converter.h"
#include "fsutils.h"
#include "fuzz_support.h"
#include "support/jpeg_fixtures.h"

namespace {

using namespace Varnelo;

const std::size_t kOptionBytes = 6;
// Sources that declare more pixels than this are skipped: decoding gigapixels of garbage is
// slow, not wrong, and would only stall the fuzzer.
const double kMaxPixels = 4e6;

struct Header {
    jpeg_error_mgr err;
    std::jmp_buf jump;
    double pixels = 0;
};

// The pixel count the source declares, or 0 when the library cannot read its header. The
// library object lives in the caller's frame; nothing with a destructor lies between the jump
// point and a fault.
void ReadDeclaredSize(const std::string& jpeg, jpeg_decompress_struct& cinfo, Header& header) {
    cinfo.err = jpeg_std_error(&header.err);
    header.err.error_exit = [](j_common_ptr c) {
        std::longjmp(static_cast<Header*>(c->client_data)->jump, 1);
    };
    header.err.output_message = [](j_common_ptr) {};
    cinfo.client_data = &header;
    jpeg_create_decompress(&cinfo);
    if (setjmp(header.jump) == 0) {
        jpeg_mem_src(&cinfo, reinterpret_cast<const unsigned char*>(jpeg.data()), jpeg.size());
        jpeg_read_header(&cinfo, TRUE);
        header.pixels = static_cast<double>(cinfo.image_width) * cinfo.image_height;
    }
    jpeg_destroy_decompress(&cinfo);
}

// The longer side becomes `size`, the other in proportion, neither below 8 pixels.
void ExpectedSize(int srcw, int srch, int size, int& w, int& h) {
    w = srcw;
    h = srch;
    if (srcw < srch && srch > size) {
        h = size;
        w = static_cast<int>(static_cast<long long>(srcw) * size / srch);
    } else if (srcw > size) {
        w = size;
        h = static_cast<int>(static_cast<long long>(srch) * size / srcw);
    }
    w = std::max(w, 8);
    h = std::max(h, 8);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < kOptionBytes) return 0;
    const std::string source(reinterpret_cast<const char*>(data) + kOptionBytes,
                             size - kOptionBytes);
    {
        jpeg_decompress_struct cinfo;
        Header header;
        ReadDeclaredSize(source, cinfo, header);
        if (header.pixels > kMaxPixels) return 0;
    }
    const bool thumbnail = (data[0] & 1) != 0;
    const bool omitEXIF = (data[0] & 2) != 0;
    const int requested = static_cast<int16_t>(data[1] << 8 | data[2]);
    const int quality = static_cast<int8_t>(data[3]);
    const TypeOfResizer resizer = static_cast<TypeOfResizer>(data[4] % 4);
    const HashType hashType = static_cast<HashType>(data[5] % 3);

    Fuzz::Scratch& scratch = Fuzz::Scratch::Get();
    struct Outcome {
        int result = -1, width = -1, height = -1;
        std::string hash, bytes;
        bool operator!=(const Outcome& o) const {
            return result != o.result || width != o.width || height != o.height || hash != o.hash ||
                   bytes != o.bytes;
        }
    };
    // One thread, staged, and staged on a library that breaks the ring's contract at a point the
    // input chooses (its first request, or an iMCU row), which must fall back unseen.
    Outcome outcomes[3];
    const ConvertThreads modes[3] = {CONVERT_THREADS_ONE, CONVERT_THREADS_STAGED,
                                     CONVERT_THREADS_STAGED};
    for (int m = 0; m < 3; ++m) {
        SetConvertThreads(modes[m]);
        if (m == 2) {
            CoefficientRing::InjectContractBreakForTesting(
                (data[0] & 4) != 0 ? CoefficientRing::READER : CoefficientRing::WRITER,
                (data[4] >> 2) - 1);
        }
        scratch.Reset({{"src.jpg", source}});
        Outcome& out = outcomes[m];
        Fuzz::RunOnSmallStack([&] {
            Fuzz::Confinement confinement;
            out.result =
                thumbnail ? ConvertFileThumbnail("src.jpg", "dst.jpg", requested, quality,
                                                 out.width, out.height, out.hash, hashType, resizer)
                          : ConvertFile("src.jpg", "dst.jpg", requested, quality, out.width,
                                        out.height, out.hash, hashType, resizer, omitEXIF);
            if (out.result < CR_OK || out.result > CR_LESS_THAN_REQUESTED) std::abort();
            const bool written = out.result == CR_OK || out.result == CR_JPEG_WARNINGS;
            if (written != FileExists("dst.jpg") && out.result != CR_RESAMPLING_ERROR) {
                std::abort();
            }
            std::ifstream in("dst.jpg", std::ios::binary);
            out.bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
            // A full conversion writes a decodable image of the size the request implies.
            if (written && out.width > 0) {
                const DecodedJpeg decoded = DecodeJpeg(out.bytes);
                int w = 0, h = 0;
                ExpectedSize(out.width, out.height, std::min(std::max(requested, 32), 65536), w, h);
                if (!decoded.ok || decoded.width != w || decoded.height != h) std::abort();
            }
        });
    }
    SetConvertThreads(CONVERT_THREADS_AUTO);
    CoefficientRing::ClearContractBreakForTesting();
    if (outcomes[0] != outcomes[1] || outcomes[0] != outcomes[2]) std::abort();
    return 0;
}
