// The request path as the listener sees it: the input is the byte stream on standard input,
// cut into lines and requests by the listener's own reader and framer; each request is parsed,
// dispatched and answered as a worker does. Files are touched only inside the scratch folder,
// which holds a photo with an embedded thumbnail, one without, and a file that is not a JPEG.
//
// Built with VARNELO_FUZZ_GUARD (the target request-guard), the input is one request text, and
// the parser's nesting guard is checked against the tree the parser really builds: a refused
// request no deeper than the limit, or an admitted one deeper, is a finding. Requests with more
// '<' than the parser is ever given must be refused.

#include <sys/mman.h>
#include <tinyxml.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "fuzz_support.h"
#include "samples/sample_photos.h"
#include "server.h"
#include "xmlrpc.h"

namespace {

using namespace Varnelo;

#ifdef VARNELO_FUZZ_GUARD
const bool kGuardMode = true;
#else
const bool kGuardMode = false;
#endif

// The parser is not instrumented, so the fuzzer cannot see which trees it builds; these counters
// let it: one per depth of the parsed tree and one per kind of node met at each level band,
// so that inputs reaching new depths (up to and past the limit) or new constructs at depth are
// kept. libFuzzer reads the section as coverage; elsewhere it is an ordinary array.
__attribute__((section("__libfuzzer_extra_counters"))) std::uint8_t g_parsedShapes[1024];

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

// The depth of the deepest element below `node`, by plain recursion: the reference the guard's
// own walk is checked against. Marks the kinds of node it meets for the fuzzer.
int Depth(const TiXmlNode* node, int level = 0) {
    int deepest = 0;
    for (const TiXmlNode* child = node->FirstChild(); child != nullptr;
         child = child->NextSibling()) {
        const int band = std::min(level / 32, 9);
        g_parsedShapes[512 + band * 8 + child->Type() % 8] = 1;
        if (child->ToElement() != nullptr) {
            deepest = std::max(deepest, 1 + Depth(child, level + 1));
        }
    }
    return deepest;
}

void CheckGuard(const std::string& text) {
    XMLRPC rpc;
    rpc.Parse(text);
    if (static_cast<std::size_t>(std::count(text.begin(), text.end(), '<')) >
        XMLRPC::kMaxOpenings) {
        if (!rpc.Refused()) std::abort();
        return;
    }
    int depth = 0;
    Fuzz::RunOnStack(Fuzz::kLargeStackBytes, [&text, &depth] {
        // The parser is given the text as the service gives it: followed by NUL bytes.
        const std::string padded = text + std::string(4, '\0');
        TiXmlDocument document;
        document.Parse(padded.c_str());
        depth = Depth(&document);
        g_parsedShapes[std::min(depth, 511)] = 1;
        document.Clear();
    });
    if (rpc.Refused() != (depth > XMLRPC::kMaxDepth)) std::abort();
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
    if (kGuardMode) {
        const std::string text(reinterpret_cast<const char*>(data), size);
        Fuzz::RunOnSmallStack([&text] { CheckGuard(text); });
        return 0;
    }
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
