#include "xmlrpc.h"

#include <algorithm>
#include <cstddef>
#include <vector>

#include "converter.h"
#include "fsutils.h"
#include "installinfo.h"
#include "log.h"
#include "photo_order.h"
#include "photo_scheduler.h"
#include "process.h"
#include "thread.h"

namespace Varnelo {

namespace {

// NUL bytes after a request text; a UTF-8 sequence is at most four bytes long.
const std::size_t kParserPadding = 4;

// The deepest element of `document`, counting its top-level elements as depth 1; found without
// recursion, so that it can be taken of a tree of any depth. Only elements have children, so
// the depth of a node below the document is the number of elements above it plus one.
int ElementDepth(const TiXmlDocument& document) {
    int depth = 0;
    int deepest = 0;
    const TiXmlNode* node = document.FirstChild();
    while (node != nullptr) {
        if (node->ToElement() != nullptr) deepest = std::max(deepest, depth + 1);
        if (node->FirstChild() != nullptr) {
            node = node->FirstChild();
            ++depth;
            continue;
        }
        while (node != nullptr && node->NextSibling() == nullptr) {
            node = node->Parent();
            --depth;
            if (node == &document) return deepest;
        }
        if (node != nullptr) node = node->NextSibling();
    }
    return deepest;
}

// The stack a parse of a text with `openings` '<' characters may need: the parser recurses at
// most once per element, and every element starts at a '<'.
std::size_t ParserStackBytes(std::size_t openings) {
    return XMLRPC::kParserStackReserve +
           openings * XMLRPC::kParserStackBytesPerLevel * XMLRPC::kParserStackMargin;
}

TiXmlElement* LinkElement(TiXmlElement* parent, const char* tag) {
    TiXmlElement* element = new TiXmlElement(tag);
    parent->LinkEndChild(element);
    return element;
}

void LinkTextElement(TiXmlElement* parent, const char* tag, const std::string& text) {
    TiXmlElement* element = LinkElement(parent, tag);
    element->LinkEndChild(new TiXmlText(text));
}

// The text of `element`, or "" when it has none.
std::string TextOf(const TiXmlElement* element) {
    const char* text = element->GetText();
    return text != nullptr ? text : "";
}

// Deletes the file named by the `string` child of `first` and of every following sibling
// element, logging `label` and the path for each; elements without one are skipped.
// Returns how many files could not be deleted.
int ErasePaths(TiXmlElement* first, const char* label) {
    int failures = 0;
    for (TiXmlElement* element = first; element != nullptr;
         element = element->NextSiblingElement()) {
        TiXmlElement* path = element->FirstChildElement("string");
        if (path == nullptr) continue;
        log.Put(label, 12);
        log.Put(TextOf(path), 12);
        if (!EraseFile(TextOf(path))) ++failures;
    }
    return failures;
}

// One image request of the downsample and thumbnail methods, with the client's defaults.
struct ImageRequest {
    int imageId = 0;
    std::string sourcePath;
    std::string destPath;
    int resolution = 0;
    int quality = 75;
    bool omitEXIF = false;
    // The wire's "MD5" selects 0, which is the CRC-32, and anything else 1, the MD5. The
    // client depends on these crossed names, so they are kept.
    HashType hash = HASH_MD5;
};

// The typed element `type` under the member's first `value`, or null.
TiXmlElement* TypedValue(TiXmlElement* member, const char* type) {
    return TiXmlHandle(member).FirstChildElement("value").FirstChildElement(type).Element();
}

void ReadInt(TiXmlElement* member, int& target) {
    if (TiXmlElement* number = TypedValue(member, "i4")) FromString(TextOf(number), target);
}

void ReadString(TiXmlElement* member, std::string& target) {
    if (TiXmlElement* text = TypedValue(member, "string")) target = TextOf(text);
}

// Reads the members of `fields` in document order; a later member of a name overrides an
// earlier one, and a member with an unexpected type keeps the default.
ImageRequest ReadImageRequest(TiXmlElement* fields, int defaultResolution) {
    ImageRequest request;
    request.resolution = defaultResolution;
    for (TiXmlElement* member = fields->FirstChildElement("member"); member != nullptr;
         member = member->NextSiblingElement()) {
        TiXmlElement* nameElement = member->FirstChildElement("name");
        if (nameElement == nullptr) continue;
        const std::string name = TextOf(nameElement);
        if (name == "imageId") {
            ReadInt(member, request.imageId);
        } else if (name == "sourcePath") {
            ReadString(member, request.sourcePath);
        } else if (name == "destPath") {
            ReadString(member, request.destPath);
        } else if (name == "resolution") {
            ReadInt(member, request.resolution);
        } else if (name == "quality") {
            ReadInt(member, request.quality);
        } else if (name == "omitEXIF") {
            if (TiXmlElement* flag = TypedValue(member, "boolean")) {
                request.omitEXIF = TextOf(flag) == "1";
            }
        } else if (name == "hashMethod") {
            if (TiXmlElement* method = TypedValue(member, "string")) {
                request.hash = TextOf(method) == "MD5" ? HASH_CRC32 : HASH_MD5;
            }
        }
    }
    return request;
}

// The name the trace gives a hash type: the request's own wording, crossed like the wire's, so
// that "  hash:     MD5" stands beside a request that named "MD5" (and got a CRC-32). Kept as
// it is: the trace is matched against the requests by the client's developers.
const char* HashLogName(HashType hash) {
    switch (hash) {
        case HASH_CRC32:
            return "MD5";
        case HASH_MD5:
            return "CRC32";
        default:
            return "NONE";
    }
}

// The client's text for a conversion result. The thumbnail method words the resampling
// error differently; the client matches both texts.
std::string FailureReason(int result, bool thumbnail) {
    switch (result) {
        case CR_OK:
            return "ok";
        case CR_FILE_NOT_FOUND:
            return "file not found";
        case CR_CREATE_DEST_ERROR:
            return "create destination file error";
        case CR_JPEG_WARNINGS:
            return "jpeg library warning(s)";
        case CR_RESAMPLING_ERROR:
            return thumbnail ? "error" : "jpeg resampling error";
        case CR_LESS_THAN_REQUESTED:
            return "actual resolution less than requested";
        case CR_INTERNAL_ERROR:
            return "internal error";
        default:
            return "undefined error";
    }
}

// What the answer to one image request needs of its job.
struct ImageAnswer {
    bool success = false;
    int convertResult = CR_INTERNAL_ERROR;
    int width = 0, height = 0;
    std::string hash;
};

// Traces one image request's settings and runs its job.
ImageAnswer ConvertImage(const ImageRequest& request, bool thumbnail) {
    // The thumbnail method's log labels are one blank narrower than the downsample method's.
    const std::size_t labelWidth = thumbnail ? 9 : 10;
    const auto label = [labelWidth](const std::string& name) {
        return "  " + name + std::string(labelWidth - name.size(), ' ');
    };
    log.Put(thumbnail ? "Thumbnail" : "Downsample", 13);
    log.Put(label("src:") + request.sourcePath, 13);
    log.Put(label("dst:") + request.destPath, 13);
    log.Put(label("Id:") + ToString(request.imageId), 13);
    log.Put(label("Size:") + ToString(request.resolution), 13);
    log.Put(label("Quality:") + ToString(request.quality), 13);
    if (!thumbnail) {
        log.Put(label("omitEXIF:") + (request.omitEXIF ? "yes" : "no"), 13);
        log.Put(label("hash:") + HashLogName(request.hash), 13);
    }

    CProcess job;
    job.SetDestinationSize(request.resolution);
    job.SetDestinationQuality(request.quality);
    job.SetUseResizer(RESIZER_REDUCES);
    // A thumbnail always drops EXIF and keeps the job's own hash; the request cannot change
    // either.
    if (!thumbnail) job.SetHash(request.hash);
    job.SetOmitEXIF(thumbnail || request.omitEXIF);
    ImageAnswer answer;
    answer.success = thumbnail ? job.ProcessThumbnailAuto(request.sourcePath, request.destPath)
                               : job.ProcessAuto(request.sourcePath, request.destPath);
    answer.convertResult = job.GetConvertResult();
    answer.width = job.GetOriginalWidth();
    answer.height = job.GetOriginalHeight();
    answer.hash = job.GetOriginalHash();
    return answer;
}

}  // namespace

XMLRPC::XMLRPC() = default;

XMLRPC::~XMLRPC() {
    m_request.Clear();
    m_response.Clear();
}

int XMLRPC::Parse(const std::string& text) {
    log.Put(text, 15);
    m_request.Clear();
    m_response.Clear();
    m_refused = false;
    // Every element the parser opens starts at a '<', so their number bounds the nesting from
    // above whatever else the text holds.
    const std::size_t openings =
        static_cast<std::size_t>(std::count(text.begin(), text.end(), '<'));
    bool tooDeep = false;
    const auto parse = [this, &text, &tooDeep] {
        // In UTF-8 text the parser steps over a whole multi-byte sequence at once, even one cut
        // short by the end of the text: the padding keeps it inside the buffer.
        std::string padded;
        padded.reserve(text.size() + kParserPadding);
        padded.append(text).append(kParserPadding, '\0');
        m_request.Parse(padded.c_str());
        if (ElementDepth(m_request) > kMaxDepth) {
            tooDeep = true;
            m_request.Clear();  // destroying the tree recurses as deep as parsing did
        }
    };
    if (openings > kMaxOpenings) {
        tooDeep = true;  // refused unparsed: a parse this deep would take seconds
    } else if (openings <= kInlineOpenings) {
        parse();
    } else if (!RunWithStack(ParserStackBytes(openings), parse)) {
        log.Put("XMLRPC::Parse no stack for the parser, refused", 8);
        m_refused = true;
        return 0;
    }
    if (tooDeep) {
        log.Put("XMLRPC::Parse request nested too deeply, refused", 8);
        m_refused = true;
    }
    return 0;
}

int XMLRPC::Execute() {
    TiXmlElement* call = m_request.FirstChildElement("methodCall");
    if (call == nullptr) return XML_CONTINUE;
    TiXmlElement* nameElement = call->FirstChildElement("methodName");
    if (nameElement == nullptr) return XML_CONTINUE;
    const char* nameText = nameElement->GetText();
    if (nameText == nullptr) return XML_CONTINUE;
    const std::string name = nameText;
    TiXmlElement* params = call->FirstChildElement("params");

    if (name == "upload.downsampleRequest") {
        log.Put("methodName: upload.downsampleRequest", 12);
        if (params != nullptr) Downsample(params);
    }
    if (name == "upload.thumbnailRequest") {
        log.Put("methodName: upload.thumbnailRequest", 12);
        if (params != nullptr) Thumbnail(params);
    }
    if (name == "upload.connect") {
        log.Put("methodName: upload.connect", 12);
        TiXmlElement* param = params != nullptr ? params->FirstChildElement("param") : nullptr;
        if (param == nullptr) return XML_NO_PARAMS;
        Connect(param);
        return XML_CONNECTED;
    }
    if (name == "upload.installInfoRequest") {
        log.Put("methodName: upload.installInfoRequest", 12);
        GetInstallInfo();
    }
    if (name == "upload.close") {
        log.Put("methodName: upload.close", 12);
        Close();
        return XML_SHUTDOWN;
    }
    if (name == "service.erase") {
        log.Put("methodName: service.erase", 12);
        if (params != nullptr) {
            // Every list is processed; each call rebuilds the answer, so the last one is sent.
            for (TiXmlElement* param = params->FirstChildElement("param"); param != nullptr;
                 param = param->NextSiblingElement()) {
                Erase(param);
            }
        }
    }
    return XML_CONTINUE;
}

std::string XMLRPC::GetResponse() {
    TiXmlPrinter printer;
    printer.SetIndent(" ");
    printer.SetLineBreak("\n");
    m_response.Accept(&printer);
    std::string response = printer.CStr();
    m_response.Clear();
    log.Put(response, 15);
    return response;
}

TiXmlElement* XMLRPC::CreateResponseHeader() {
    m_response.Clear();
    TiXmlElement* root = new TiXmlElement("methodResponse");
    m_response.LinkEndChild(root);
    return AddParams(root);
}

TiXmlElement* XMLRPC::CreateResponseFaultHeader() {
    m_response.Clear();
    TiXmlElement* root = new TiXmlElement("methodResponse");
    m_response.LinkEndChild(root);
    return AddFault(root);
}

void XMLRPC::AddName(TiXmlElement* parent, const char* name) {
    if (name != nullptr) LinkTextElement(parent, "name", name);
}

TiXmlElement* XMLRPC::AddValue(TiXmlElement* parent) { return LinkElement(parent, "value"); }

void XMLRPC::AddStringValue(TiXmlElement* parent, const std::string& text, const char* name) {
    AddName(parent, name);
    LinkTextElement(AddValue(parent), "string", text);
}

void XMLRPC::AddIntValue(TiXmlElement* parent, int number, const char* name) {
    AddName(parent, name);
    LinkTextElement(AddValue(parent), "i4", ToString(number));
}

void XMLRPC::AddBooleanValue(TiXmlElement* parent, bool flag, const char* name) {
    AddName(parent, name);
    LinkTextElement(AddValue(parent), "boolean", flag ? "1" : "0");
}

TiXmlElement* XMLRPC::AddMember(TiXmlElement* parent) { return LinkElement(parent, "member"); }

TiXmlElement* XMLRPC::AddStruct(TiXmlElement* parent) { return LinkElement(parent, "struct"); }

TiXmlElement* XMLRPC::AddParam(TiXmlElement* parent) { return LinkElement(parent, "param"); }

TiXmlElement* XMLRPC::AddParams(TiXmlElement* parent) { return LinkElement(parent, "params"); }

TiXmlElement* XMLRPC::AddFault(TiXmlElement* parent) { return LinkElement(parent, "fault"); }

int XMLRPC::Connect(TiXmlElement* param) {
    log.Put("upload.connect", 12);
    TiXmlElement* members =
        TiXmlHandle(param).FirstChildElement("value").FirstChildElement("struct").Element();
    // The client names files to delete as a `string` directly under each member; whether
    // they could be deleted does not change the answer.
    if (members != nullptr) ErasePaths(members->FirstChildElement("member"), "Connect:");
    TiXmlElement* answer = AddStruct(AddValue(AddParam(CreateResponseHeader())));
    AddIntValue(AddMember(answer), 1, "minVersion");
    AddIntValue(AddMember(answer), 4, "currentVersion");
    AddBooleanValue(AddMember(answer), true, "accepted");
    return 1;
}

int XMLRPC::Close() {
    log.Put("upload.close", 12);
    AddStringValue(AddParam(CreateResponseHeader()), "done");
    return 1;
}

int XMLRPC::GetInstallInfo() {
    TiXmlElement* answer = AddStruct(AddValue(AddParam(CreateResponseHeader())));
    InstallInfo info;
    std::string folder;
    const bool installed = info.GetPicasaFolderLocation(folder);
    AddBooleanValue(AddMember(answer), installed, "picasaInstalled");
    if (installed) AddStringValue(AddMember(answer), folder, "picasaFolderLocation");
    return 1;
}

int XMLRPC::Erase(TiXmlElement* param) {
    TiXmlElement* data = TiXmlHandle(param)
                             .FirstChildElement("value")
                             .FirstChildElement("array")
                             .FirstChildElement("data")
                             .Element();
    const int failures =
        data != nullptr ? ErasePaths(data->FirstChildElement("value"), "Delete:") : 0;
    if (failures > 0) {
        // The client expects exactly this bare fault: one string, no code or reason members.
        AddStringValue(CreateResponseFaultHeader(), "cause");
        return 0;
    }
    AddStringValue(AddParam(CreateResponseHeader()), "done");
    return 1;
}

int XMLRPC::Downsample(TiXmlElement* params) { return AnswerImages(params, false); }

int XMLRPC::Thumbnail(TiXmlElement* params) { return AnswerImages(params, true); }

int XMLRPC::AnswerImages(TiXmlElement* params, bool thumbnail) {
    TiXmlElement* answers = CreateResponseHeader();
    std::vector<ImageRequest> requests;
    for (TiXmlElement* param = params->FirstChildElement("param"); param != nullptr;
         param = param->NextSiblingElement()) {
        TiXmlElement* fields =
            TiXmlHandle(param).FirstChildElement("value").FirstChildElement("struct").Element();
        if (fields != nullptr) requests.push_back(ReadImageRequest(fields, thumbnail ? 72 : 640));
    }
    // The photos run side by side where they can (photo_scheduler.h), each answer in a slot of
    // its own; the answers are given in request order.
    std::vector<CProcess::Paths> paths;
    for (const ImageRequest& request : requests) {
        paths.push_back(CProcess::PathsOf(request.sourcePath, request.destPath));
    }
    std::vector<ImageAnswer> results(requests.size());
    RunPhotos(requests.size(), PhotosToWaitFor(paths),
              [&](std::size_t i) { results[i] = ConvertImage(requests[i], thumbnail); });
    for (std::size_t i = 0; i < requests.size(); ++i) {
        const ImageAnswer& result = results[i];
        TiXmlElement* answer = AddStruct(AddValue(AddParam(answers)));
        AddIntValue(AddMember(answer), requests[i].imageId, "imageId");
        AddBooleanValue(AddMember(answer), result.success, "success");
        if (!result.success) {
            AddStringValue(AddMember(answer), FailureReason(result.convertResult, thumbnail),
                           "failureReason");
        } else if (!thumbnail) {
            TiXmlElement* original = AddMember(answer);
            AddName(original, "originalImage");
            TiXmlElement* originalFields = AddStruct(AddValue(original));
            TiXmlElement* resolution = AddMember(originalFields);
            AddName(resolution, "resolution");
            TiXmlElement* size = AddStruct(AddValue(resolution));
            AddIntValue(AddMember(size), result.width, "width");
            AddIntValue(AddMember(size), result.height, "height");
            AddStringValue(AddMember(originalFields), result.hash, "hash");
        }
    }
    return 1;
}

}  // namespace Varnelo
