#include "xmlrpc.h"

#include <gtest/gtest.h>

#include <string>

#include "fsutils.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace Varnelo {
namespace {

struct Answer {
    int result;
    std::string response;
};

Answer Exchange(const std::string& request) {
    XMLRPC rpc;
    rpc.Parse(request);
    Answer answer;
    answer.result = rpc.Execute();
    answer.response = rpc.GetResponse();
    return answer;
}

std::string Call(const std::string& method, const std::string& params = "") {
    return "<?xml version=\"1.0\"?>\n<methodCall>\n<methodName>" + method + "</methodName>\n" +
           params + "</methodCall>\n";
}

std::string StringArray(const std::vector<std::string>& paths) {
    std::string data;
    for (const std::string& path : paths) data += "<value><string>" + path + "</string></value>";
    return "<param><value><array><data>" + data + "</data></array></value></param>";
}

const char kConnectAnswer[] =
    "<methodResponse>\n"
    " <params>\n"
    "  <param>\n"
    "   <value>\n"
    "    <struct>\n"
    "     <member>\n"
    "      <name>minVersion</name>\n"
    "      <value>\n"
    "       <i4>1</i4>\n"
    "      </value>\n"
    "     </member>\n"
    "     <member>\n"
    "      <name>currentVersion</name>\n"
    "      <value>\n"
    "       <i4>4</i4>\n"
    "      </value>\n"
    "     </member>\n"
    "     <member>\n"
    "      <name>accepted</name>\n"
    "      <value>\n"
    "       <boolean>1</boolean>\n"
    "      </value>\n"
    "     </member>\n"
    "    </struct>\n"
    "   </value>\n"
    "  </param>\n"
    " </params>\n"
    "</methodResponse>\n";

const char kDoneAnswer[] =
    "<methodResponse>\n"
    " <params>\n"
    "  <param>\n"
    "   <value>\n"
    "    <string>done</string>\n"
    "   </value>\n"
    "  </param>\n"
    " </params>\n"
    "</methodResponse>\n";

const char kCauseFault[] =
    "<methodResponse>\n"
    " <fault>\n"
    "  <value>\n"
    "   <string>cause</string>\n"
    "  </value>\n"
    " </fault>\n"
    "</methodResponse>\n";

const char kInstallInfoAnswer[] =
    "<methodResponse>\n"
    " <params>\n"
    "  <param>\n"
    "   <value>\n"
    "    <struct>\n"
    "     <member>\n"
    "      <name>picasaInstalled</name>\n"
    "      <value>\n"
    "       <boolean>0</boolean>\n"
    "      </value>\n"
    "     </member>\n"
    "    </struct>\n"
    "   </value>\n"
    "  </param>\n"
    " </params>\n"
    "</methodResponse>\n";

TEST(XmlRpcTest, CloseAnswersDoneAndAsksForShutdown) {
    const Answer answer = Exchange(Call("upload.close"));
    EXPECT_EQ(answer.result, XML_SHUTDOWN);
    EXPECT_EQ(answer.response, kDoneAnswer);
}

TEST(XmlRpcTest, InstallInfoReportsNotInstalled) {
    const Answer answer = Exchange(Call("upload.installInfoRequest", "<params/>"));
    EXPECT_EQ(answer.result, XML_CONTINUE);
    EXPECT_EQ(answer.response, kInstallInfoAnswer);
}

TEST(XmlRpcTest, ConnectAnswersVersionsAndDeletesFilesNamedDirectlyUnderMembers) {
    TempDir tmp;
    const std::string a = tmp.Write("a.jpg", "a");
    const std::string b = tmp.Write("b.jpg", "b");
    const std::string kept = tmp.Write("kept.jpg", "c");
    LogCapture capture(13);
    const Answer answer =
        Exchange(Call("upload.connect",
                      "<params><param><value><struct>"
                      "<member><name>x</name><string>" +
                          a +
                          "</string></member>"
                          "<member><name>y</name><value><string>" +
                          kept +
                          "</string></value></member>"
                          "<other><string>" +
                          b +
                          "</string></other>"
                          "<member><name>z</name><string>/no/such/file</string></member>"
                          "</struct></value></param></params>"));
    EXPECT_EQ(answer.result, XML_CONNECTED);
    EXPECT_EQ(answer.response, kConnectAnswer);
    EXPECT_FALSE(FileExists(a));
    EXPECT_FALSE(FileExists(b)) << "every sibling after the first member is visited";
    EXPECT_TRUE(FileExists(kept)) << "value/string is not a path to delete";
    EXPECT_EQ(capture.Count("Connect:"), 3);
    EXPECT_EQ(capture.Count(a), 1);
    EXPECT_EQ(capture.Count("methodName: upload.connect"), 1);
    EXPECT_EQ(capture.Count("upload.connect"), 1);
}

TEST(XmlRpcTest, ConnectWithoutParamIsSilent) {
    for (const std::string& params :
         {std::string(""), std::string("<params/>"), std::string("<params><value/></params>")}) {
        const Answer answer = Exchange(Call("upload.connect", params));
        EXPECT_EQ(answer.result, XML_NO_PARAMS) << params;
        EXPECT_EQ(answer.response, "") << params;
    }
    const Answer bare = Exchange(Call("upload.connect", "<params><param/></params>"));
    EXPECT_EQ(bare.result, XML_CONNECTED);
    EXPECT_EQ(bare.response, kConnectAnswer);
}

TEST(XmlRpcTest, EraseDeletesEveryPathAndFaultsWhenOneFails) {
    TempDir tmp;
    const std::string first = tmp.Write("1.jpg", "1");
    const std::string third = tmp.Write("3.jpg", "3");
    LogCapture capture(13);
    const Answer answer =
        Exchange(Call("service.erase",
                      "<params>" + StringArray({first, tmp.Path("2.jpg"), third}) + "</params>"));
    EXPECT_EQ(answer.result, XML_CONTINUE);
    EXPECT_EQ(answer.response, kCauseFault);
    EXPECT_FALSE(FileExists(first));
    EXPECT_FALSE(FileExists(third));
    EXPECT_EQ(capture.Count("Delete:"), 3);
}

TEST(XmlRpcTest, EraseAnswersDoneForAnEmptyListOrAllDeleted) {
    EXPECT_EQ(Exchange(Call("service.erase", "<params>" + StringArray({}) + "</params>")).response,
              kDoneAnswer);
    TempDir tmp;
    const std::string file = tmp.Write("f.jpg", "f");
    EXPECT_EQ(
        Exchange(Call("service.erase", "<params>" + StringArray({file}) + "</params>")).response,
        kDoneAnswer);
    EXPECT_FALSE(FileExists(file));
    EXPECT_EQ(
        Exchange(Call("service.erase", "<params>" + StringArray({""}) + "</params>")).response,
        kCauseFault)
        << "an empty path cannot be erased";
}

TEST(XmlRpcTest, EraseAnswersForTheLastParamOnly) {
    TempDir tmp;
    const std::string file = tmp.Write("f.jpg", "f");
    EXPECT_EQ(Exchange(Call("service.erase", "<params>" + StringArray({"/no/such"}) +
                                                 StringArray({file}) + "</params>"))
                  .response,
              kDoneAnswer);
    EXPECT_FALSE(FileExists(file));
    EXPECT_EQ(Exchange(Call("service.erase",
                            "<params>" + StringArray({}) + StringArray({"/no/such"}) + "</params>"))
                  .response,
              kCauseFault);
}

TEST(XmlRpcTest, RequestsThatAreNotUnderstoodGetNoResponse) {
    const std::string silent[] = {
        "",
        "not xml at all",
        "<methodCall></methodCall>",
        "<methodCall><methodName></methodName></methodCall>",
        "<methodCall><methodName/></methodCall>",
        Call("Upload.Close"),
        Call("upload.unknown"),
        "<call><methodName>upload.close</methodName></call>",
    };
    for (const std::string& request : silent) {
        const Answer answer = Exchange(request);
        EXPECT_EQ(answer.result, XML_CONTINUE) << request;
        EXPECT_EQ(answer.response, "") << request;
    }
}

TEST(XmlRpcTest, DeeplyNestedRequestsAreRefusedUnparsed) {
    LogCapture capture(9);
    std::string deep = "<methodCall><methodName>upload.close</methodName>";
    for (int i = 0; i < 300; ++i) deep += "<a>";
    const Answer refused = Exchange(deep);
    EXPECT_EQ(refused.response, "");
    EXPECT_EQ(capture.Count("XMLRPC::Parse request nested too deeply, refused"), 1);

    // Self-closing elements, comments and CDATA do not count as nesting.
    std::string flat = Call("upload.close");
    for (int i = 0; i < 1000; ++i) flat += "<a/><!-- <b> --><![CDATA[<c>]]>";
    EXPECT_EQ(Exchange(flat).response, kDoneAnswer);
}

TEST(XmlRpcTest, ResponseIsEmptiedOnceTaken) {
    XMLRPC rpc;
    rpc.Parse(Call("upload.close"));
    rpc.Execute();
    EXPECT_EQ(rpc.GetResponse(), kDoneAnswer);
    EXPECT_EQ(rpc.GetResponse(), "");
}

TEST(XmlRpcTest, BuildersTypeValuesAndEscapeText) {
    XMLRPC rpc;
    TiXmlElement* params = rpc.CreateResponseHeader();
    TiXmlElement* fields = XMLRPC::AddStruct(XMLRPC::AddValue(XMLRPC::AddParam(params)));
    XMLRPC::AddIntValue(XMLRPC::AddMember(fields), -12, "n");
    XMLRPC::AddBooleanValue(XMLRPC::AddMember(fields), false, "b");
    XMLRPC::AddStringValue(XMLRPC::AddMember(fields), "a<b & \"c\"", "s");
    const std::string text = rpc.GetResponse();
    EXPECT_NE(text.find("<i4>-12</i4>"), std::string::npos);
    EXPECT_NE(text.find("<boolean>0</boolean>"), std::string::npos);
    EXPECT_NE(text.find("<string>a&lt;b &amp; &quot;c&quot;</string>"), std::string::npos);
    EXPECT_EQ(text.find("<?xml"), std::string::npos);
}

}  // namespace
}  // namespace Varnelo
