#pragma once

#include <tinyxml.h>

#include <cstddef>
#include <string>

namespace Varnelo {

// What the transport does after XMLRPC::Execute.
enum XmlResult {
    XML_CONTINUE = 0,   // nothing more (also: request not understood)
    XML_NO_PARAMS = 1,  // upload.connect without a param: no response
    XML_SHUTDOWN = 2,   // upload.close: answer, then end the worker that ran it
    XML_CONNECTED = 3,  // upload.connect answered
};

// Turns one request text into one response text: parses the request, dispatches on its
// method name and builds the response document with the element builders below. Only the
// subset of XML-RPC the service's methods use is spoken; each handler walks the elements it
// expects by name. Requests that are not understood get no response at all.
//
// One object per request, used by one thread at a time: Parse (on the listener), then
// Execute and GetResponse (on a worker).
class XMLRPC {
  public:
    XMLRPC();
    virtual ~XMLRPC();
    XMLRPC(const XMLRPC&) = delete;
    XMLRPC& operator=(const XMLRPC&) = delete;

    // Always 0. A parse error is not reported: the request simply yields no response.
    int Parse(const std::string& text);
    // An XmlResult.
    int Execute();
    // The printed response, or "" when no handler built one; empties the response document.
    std::string GetResponse();

    // Empty the response document and start a success answer (returns `params`)
    // or a fault (returns `fault`).
    TiXmlElement* CreateResponseHeader();
    TiXmlElement* CreateResponseFaultHeader();

    // Element builders: each appends to `parent`; a null name adds no `name` element.
    static void AddName(TiXmlElement* parent, const char* name);
    static TiXmlElement* AddValue(TiXmlElement* parent);
    static void AddStringValue(TiXmlElement* parent, const std::string& text,
                               const char* name = nullptr);
    static void AddIntValue(TiXmlElement* parent, int number, const char* name = nullptr);
    static void AddBooleanValue(TiXmlElement* parent, bool flag, const char* name = nullptr);
    static TiXmlElement* AddMember(TiXmlElement* parent);
    static TiXmlElement* AddStruct(TiXmlElement* parent);
    static TiXmlElement* AddParam(TiXmlElement* parent);
    static TiXmlElement* AddParams(TiXmlElement* parent);
    static TiXmlElement* AddFault(TiXmlElement* parent);

    // Method handlers; Execute ignores their results.
    int Connect(TiXmlElement* param);
    int Close();
    int GetInstallInfo();
    int Erase(TiXmlElement* param);
    int Downsample(TiXmlElement* params);
    int Thumbnail(TiXmlElement* params);

    // Requests whose elements nest deeper than this are refused: the methods never need more
    // than a few levels, and the recursive parser and tree must stay far from a stack's end.
    static constexpr int kMaxDepth = 256;

    // How a request is parsed depends only on how many '<' characters it holds, a bound of the
    // depth the parser can reach whatever the text is:
    // - up to kInlineOpenings, on the calling thread (the listener), whose stack holds that
    //   many levels many times over;
    // - up to kMaxOpenings, on a thread of its own whose stack holds that many levels;
    // - more are refused unparsed. The parser walks from each new element up to the document,
    //   so a text nested that deep takes time growing with the square of its depth: 16,000
    //   levels take about 1.6 s on a 2-core EPYC, and 16,000 '<' still carry 257 images with
    //   all their members.
    // Either way the tree is refused when it is deeper than kMaxDepth.
    static constexpr std::size_t kInlineOpenings = 1024;
    static constexpr std::size_t kMaxOpenings = 16000;

    // The parser's stack per level of nesting, rounded up from the 225 bytes measured for
    // Debian's TinyXML 2.6.2 in every shape that nests (bench/parser_bench.cpp measures it); the
    // stack of a parse thread holds twice that per level, and a reserve for the frames below
    // the recursion.
    static constexpr std::size_t kParserStackBytesPerLevel = 256;
    static constexpr std::size_t kParserStackMargin = 2;
    static constexpr std::size_t kParserStackReserve = 256 * 1024;

    // True when the last Parse refused the request (it then yields no response).
    bool Refused() const { return m_refused; }

  private:
    // One conversion job and one answer per image request of a downsample or thumbnail call.
    int AnswerImages(TiXmlElement* params, bool thumbnail);

    TiXmlDocument m_request;
    TiXmlDocument m_response;
    bool m_refused = false;
};

}  // namespace Varnelo
