#pragma once

#include <tinyxml.h>

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

    // Requests nested deeper than this many elements are refused unparsed, so that no
    // request can exhaust a thread's stack in the recursive parser.
    static const int kMaxDepth = 256;

  private:
    // One conversion job and one answer per image request of a downsample or thumbnail call.
    int AnswerImages(TiXmlElement* params, bool thumbnail);

    TiXmlDocument m_request;
    TiXmlDocument m_response;
};

}  // namespace Varnelo
