// The request path as the listener sees it: the input is the byte stream on standard input,
// cut into lines and requests by the listener's own reader and framer; each request is parsed,
// dispatched and answered as a worker does. Files are touched only inside the scratch folder,
// which holds a photo with an embedded thumbnail, one without, and a file that is not a JPEG.

#include <sys/mman.h>
#include <tinyxml.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "fuzz_support.h"
#include "server.h"
#include "samples/sample_photos.h"
#include "xmlrpc.h"

namespace {

using namespace Varnelo;

// A response, when there is one, is a single whole methodResponse document.
void Answer(const std::string& request) {
    XMLRPC rpc;
    rpc.Parse(request);
    rpc.Execute();
    const std::string response = rpc.GetResponse();
    if (response.empty()) return;
    TiXmlDocument document;
    document.Parse(response.c_str());
    if (document.Error() || document.FirstChildElement("methodResponse") == nullptr) std::abort();
}

void Listen(int fd) {
    LineReader input(fd);
    RequestFramer framer;
    std::string line;
    std::string request;
    bool overlong = false;
    while (input.ReadLine(line, overlong)) {
        const RequestFramer::Event event = framer.AddLine(line, overlong, request);
        if (event == RequestFramer::EXIT) return;
        if (event == RequestFramer::REQUEST) Answer(request);
    }
    if (framer.Flush(request)) Answer(request);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string photo =
        EncodeJpeg({200, 150}, {{0xE1, BuildExif({200, 150, EncodeJpeg({40, 30})}).payload}});
    static const std::string plain = EncodeJpeg({120, 90, JpegKind::COLOUR_444});
    Fuzz::Scratch::Get().Reset({{"photo.jpg", photo}, {"plain.jpg", plain}, {"text.jpg", "text"}});

    const int fd = memfd_create("stdin", 0);
    if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size) ||
        lseek(fd, 0, SEEK_SET) != 0) {
        std::abort();
    }
    Fuzz::RunOnSmallStack([fd] {
        Fuzz::Confinement confinement;
        Listen(fd);
    });
    close(fd);
    return 0;
}
