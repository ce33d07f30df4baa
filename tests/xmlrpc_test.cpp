#include "xmlrpc.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "fsutils.h"
#include "support/log_capture.h"
#include "support/service_process.h"
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
    const int result = rpc.Execute();
    return {result, rpc.GetResponse()};
}

std::string Call(const std::string& method, const std::string& params = "") {
    return "<?xml version=\"1.0\"?>\n<methodCall>\n<methodName>" + method + "</methodName>\n" +
           params + "</methodCall>\n";
}

std::string EraseCall(const std::vector<std::vector<std::string>>& lists) {
    std::string params;
    for (const auto& paths : lists) {
        params += "<param><value><array><data>";
        for (const std::string& path : paths) {
            params += "<value><string>" + path + "</string></value>";
        }
        params += "</data></array></value></param>";
    }
    return Call("service.erase", "<params>" + params + "</params>");
}

// A member of a response struct as the printer lays it out at the connect answer's depth.
std::string Member(const std::string& name, const std::string& type, const std::string& text) {
    return "     <member>\n      <name>" + name + "</name>\n      <value>\n       <" + type + ">" +
           text + "</" + type + ">\n      </value>\n     </member>\n";
}

std::string StructAnswer(const std::string& members) {
    return "<methodResponse>\n <params>\n  <param>\n   <value>\n    <struct>\n" + members +
           "    </struct>\n   </value>\n  </param>\n </params>\n</methodResponse>\n";
}

const std::string kDone =
    "<methodResponse>\n <params>\n  <param>\n   <value>\n    <string>done</string>\n"
    "   </value>\n  </param>\n </params>\n</methodResponse>\n";
const std::string kCause =
    "<methodResponse>\n <fault>\n  <value>\n   <string>cause</string>\n  </value>\n"
    " </fault>\n</methodResponse>\n";
const std::string kConnected =
    StructAnswer(Member("minVersion", "i4", "1") + Member("currentVersion", "i4", "4") +
                 Member("accepted", "boolean", "1"));

TEST(XmlRpcTest, HousekeepingAnswersToTheLetter) {
    const Answer close = Exchange(Call("upload.close"));
    EXPECT_EQ(close.result, XML_SHUTDOWN);
    EXPECT_EQ(close.response, kDone);

    const Answer info = Exchange(Call("upload.installInfoRequest", "<params/>"));
    EXPECT_EQ(info.result, XML_CONTINUE);
    EXPECT_EQ(info.response, StructAnswer(Member("picasaInstalled", "boolean", "0")));

    const Answer bare = Exchange(Call("upload.connect", "<params><param/></params>"));
    EXPECT_EQ(bare.result, XML_CONNECTED);
    EXPECT_EQ(bare.response, kConnected);
}

TEST(XmlRpcTest, ConnectDeletesOnlyPathsDirectlyUnderTheMembers) {
    TempDir tmp;
    const std::string a = tmp.Write("a.jpg", "a");
    const std::string b = tmp.Write("b.jpg", "b");
    const std::string kept = tmp.Write("kept.jpg", "c");
    LogCapture capture(13);
    const Answer answer = Exchange(Call("upload.connect",
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
                                            "</struct></value></param></params>"));
    EXPECT_EQ(answer.response, kConnected);
    EXPECT_FALSE(FileExists(a));
    EXPECT_FALSE(FileExists(b)) << "every sibling after the first member is visited";
    EXPECT_TRUE(FileExists(kept)) << "value/string is not a path to delete";
    EXPECT_EQ(capture.Count("Connect:"), 2);
    EXPECT_EQ(capture.Count(a), 1);
}

TEST(XmlRpcTest, EraseTriesEveryPathAndAnswersForTheLastList) {
    TempDir tmp;
    const std::string first = tmp.Write("1.jpg", "1");
    const std::string third = tmp.Write("3.jpg", "3");
    LogCapture capture(13);
    EXPECT_EQ(Exchange(EraseCall({{first, tmp.Path("2.jpg"), third}})).response, kCause);
    EXPECT_FALSE(FileExists(first));
    EXPECT_FALSE(FileExists(third));
    EXPECT_EQ(capture.Count("Delete:"), 3);

    EXPECT_EQ(Exchange(EraseCall({{}})).response, kDone);
    EXPECT_EQ(Exchange(EraseCall({{""}})).response, kCause) << "an empty path cannot be erased";
    EXPECT_EQ(Exchange(EraseCall({{"/no/such"}, {}})).response, kDone);
    EXPECT_EQ(Exchange(EraseCall({{}, {"/no/such"}})).response, kCause);
}

TEST(XmlRpcTest, ImageRequestsAreTracedWithTheirOwnLabels) {
    LogCapture capture(14);
    const std::string image =
        "<param><value><struct><member><name>sourcePath</name><value><string>/no/such.jpg"
        "</string></value></member><member><name>resolution</name><value><i4>5</i4></value>"
        "</member><member><name>hashMethod</name><value><string>MD5</string></value>"
        "</member></struct></value></param>";
    Exchange(Call("upload.downsampleRequest", "<params>" + image + "</params>"));
    Exchange(Call("upload.thumbnailRequest", "<params>" + image + "</params>"));
    const std::vector<std::string> expected = {"methodName: upload.downsampleRequest",
                                               "Downsample",
                                               "  src:      /no/such.jpg",
                                               "  dst:      ",
                                               "  Id:       0",
                                               "  Size:     5",
                                               "  Quality:  75",
                                               "  omitEXIF: no",
                                               "  hash:     MD5",
                                               "Path: /no/such.jpg",
                                               "methodName: upload.thumbnailRequest",
                                               "Thumbnail",
                                               "  src:     /no/such.jpg",
                                               "  dst:     ",
                                               "  Id:      0",
                                               "  Size:    5",
                                               "  Quality: 75",
                                               "Path: /no/such.jpg"};
    EXPECT_EQ(capture.Lines(), expected);
}

TEST(XmlRpcTest, RequestsNotUnderstoodGetNoResponse) {
    const std::string silent[] = {
        "",
        "not xml at all",
        "<methodCall></methodCall>",
        "<methodCall><methodName/></methodCall>",
        Call("Upload.Close"),
        Call("upload.unknown"),
        Call("upload.connect"),
        Call("upload.connect", "<params><value/></params>"),
        "<call><methodName>upload.close</methodName></call>",
    };
    for (const std::string& request : silent) {
        const Answer answer = Exchange(request);
        EXPECT_EQ(answer.response, "") << request;
        EXPECT_NE(answer.result, XML_SHUTDOWN) << request;
    }
    EXPECT_EQ(Exchange(Call("upload.connect")).result, XML_NO_PARAMS);
}

std::string Repeat(const std::string& text, int times) {
    std::string out;
    for (int i = 0; i < times; ++i) out += text;
    return out;
}

// Each request makes the parser nest elements 50,000 deep, in 250 runs of 200 levels, while a
// count that trusted the markup around one construct would see each run closed again, or not
// see it at all.
TEST(XmlRpcTest, NestingHiddenInAnyConstructIsRefusedAndTheServiceGoesOn) {
    const std::string open = Repeat("<a>", 200), close = Repeat("</a>", 200);
    const std::string utf8 = "<?xml version=\"1.0\"?>";
    const std::vector<std::string> deep = {
        Repeat("<?pi >" + open + "?>", 250),              // processing instruction, ends at '>'
        Repeat("<?xml >" + open + "?>", 250),             // declaration, likewise
        Repeat(open + "<!--" + close + "-->", 250),       // comment
        Repeat(open + "<![CDATA[" + close + "]]>", 250),  // CDATA
        Repeat(open + "<!DOCTYPE d [<!ENTITY e '", 250),  // DOCTYPE, ended by the first '>'
        utf8 + Repeat(open + "<b x=\"\xF0\">" + close + "</a>\">", 250),  // attribute value
        Repeat(open, 250),                                                // tags never closed
        Repeat(close, 250) + Repeat(open, 251),              // end tags outside the root
        "text" + Repeat(open, 250),                          // text outside the root
        utf8 + Repeat(open + Repeat("\xF0</a>", 200), 250),  // a lead byte swallows each '<'
    };
    // A large plain request: many elements, shallow, with a declaration and UTF-8 text.
    std::string images;
    for (int i = 0; i < 400; ++i) {
        images += "<param><value><struct><member><name>imageId</name><value><i4>" + ToString(i) +
                  "</i4></value></member><member><name>sourcePath</name><value><string>"
                  "/no/such/\xC3\xA9t\xC3\xA9 &amp; co.jpg</string></value></member>"
                  "</struct></value></param>\n";
    }
    const std::string plain =
        Call("upload.thumbnailRequest", "<params>\n" + images + "</params>\n") + "*\n";

    TempDir dir;
    const std::string binary = dir.Path("varnelo");
    std::filesystem::copy_file(VARNELO_BIN, binary);
    ServiceProcess service(binary, {"-l", "9"});
    for (const std::string& request : deep) service.Send(request + "\n*\n");
    service.Send(plain + Call("upload.close") + "*\n");
    std::vector<std::string> responses = service.ReadResponses(2, 60000);
    service.CloseInput();
    EXPECT_EQ(service.Wait(10000), 0);
    EXPECT_EQ(service.ReadRest(), "") << "nothing else is answered";
    ASSERT_EQ(responses.size(), 2u);
    if (responses[0] == kDone) std::swap(responses[0], responses[1]);
    EXPECT_EQ(responses[1], kDone);
    const std::vector<std::string> answer = Lines(responses[0]);
    EXPECT_EQ(std::count(answer.begin(), answer.end(), "       <string>internal error</string>"),
              400);
    const std::vector<std::string> log = Lines(ReadFileBytes(dir.Path("log")));
    EXPECT_EQ(
        std::count(log.begin(), log.end(), "XMLRPC::Parse request nested too deeply, refused"),
        static_cast<long>(deep.size()));
}

TEST(XmlRpcTest, ResponseIsPrintedOnceWithTextEscaped) {
    XMLRPC rpc;
    TiXmlElement* fields =
        XMLRPC::AddStruct(XMLRPC::AddValue(XMLRPC::AddParam(rpc.CreateResponseHeader())));
    XMLRPC::AddIntValue(XMLRPC::AddMember(fields), -12, "n");
    XMLRPC::AddStringValue(XMLRPC::AddMember(fields), "a<b & c", "s");
    const std::string text = rpc.GetResponse();
    EXPECT_NE(text.find("<i4>-12</i4>"), std::string::npos);
    EXPECT_NE(text.find("<string>a&lt;b &amp; c</string>"), std::string::npos);
    EXPECT_EQ(rpc.GetResponse(), "");
}

}  // namespace
}  // namespace Varnelo
