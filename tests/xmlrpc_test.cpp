// The message layer and the six methods, in-process: the exact answers, traces and request
// shapes. (The service answers image requests through its pipes in the server and batch tests.)

#include "xmlrpc.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fsutils.h"
#include "support/jpeg_fixtures.h"
#include "support/service_process.h"
#include "support/temp_dir.h"

namespace Varnelo {
namespace {

struct Exchanged {
    int result;
    std::string response;
};

Exchanged Exchange(const std::string& request) {
    XMLRPC rpc;
    rpc.Parse(request);
    const int result = rpc.Execute();
    return {result, rpc.GetResponse()};
}

std::string EraseCall(const std::vector<std::vector<std::string>>& lists) {
    std::string params;
    for (const auto& paths : lists) {
        params += "<param><value><array><data>";
        for (const std::string& path : paths)
            params += "<value><string>" + path + "</string></value>";
        params += "</data></array></value></param>";
    }
    return Request("service.erase", params);
}

std::string Repeat(const std::string& text, int times) {
    std::string out;
    for (int i = 0; i < times; ++i) out += text;
    return out;
}

const std::string kCause =
    "<methodResponse>\n <fault>\n  <value>\n   <string>cause</string>\n  </value>\n"
    " </fault>\n</methodResponse>\n";

TEST(XmlRpcTest, ConnectDeletesOnlyPathsDirectlyUnderTheMembers) {
    TempDir tmp;
    const std::string a = tmp.Write("a.jpg", "a"), b = tmp.Write("b.jpg", "b");
    const std::string kept = tmp.Write("kept.jpg", "c");
    LogCapture capture(13);
    EXPECT_EQ(
        Exchange(Request("upload.connect", "<param><value><struct><member><name>x</name><string>" +
                                               a + "</string></member>" +
                                               Member("y", "string", kept) + "<other><string>" + b +
                                               "</string></other></struct></value></param>"))
            .response,
        kConnected);
    EXPECT_FALSE(FileExists(a));
    EXPECT_FALSE(FileExists(b)) << "every sibling after the first member is visited";
    EXPECT_TRUE(FileExists(kept)) << "value/string is not a path to delete";
    EXPECT_EQ(capture.Count("Connect:"), 2);
    EXPECT_EQ(capture.Count(a), 1);
}

TEST(XmlRpcTest, EraseTriesEveryPathAndAnswersForTheLastList) {
    TempDir tmp;
    const std::string first = tmp.Write("1.jpg", "1"), third = tmp.Write("3.jpg", "3");
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
    const std::string image = "<param><value><struct>" + Member("sourcePath", "string", "/no/x") +
                              Member("resolution", "i4", "5") +
                              Member("hashMethod", "string", "MD5") + "</struct></value></param>";
    Exchange(Request("upload.downsampleRequest", image));
    Exchange(Request("upload.thumbnailRequest", image));
    EXPECT_EQ(capture.Text(),
              "methodName: upload.downsampleRequest\nDownsample\n  src:      /no/x\n  dst:      \n"
              "  Id:       0\n  Size:     5\n  Quality:  75\n  omitEXIF: no\n  hash:     MD5\n"
              "Path: /no/x\nmethodName: upload.thumbnailRequest\nThumbnail\n  src:     /no/x\n"
              "  dst:     \n  Id:      0\n  Size:    5\n  Quality: 75\nPath: /no/x\n");
}

TEST(XmlRpcTest, RequestsNotUnderstoodGetNoResponse) {
    for (const std::string& request :
         {std::string(), std::string("not xml at all"), std::string("<methodCall></methodCall>"),
          std::string("<methodCall><methodName/></methodCall>"), Request("Upload.Close"),
          Request("upload.unknown"), Request("upload.connect"),
          Request("upload.connect", "<value/>"),
          std::string("<call><methodName>upload.close</methodName></call>"),
          std::string("<methodCall>") + '\0' + "<methodName>upload.close</methodName>"}) {
        const Exchanged answer = Exchange(request);
        EXPECT_EQ(answer.response, "") << request;
        EXPECT_NE(answer.result, XML_SHUTDOWN) << request;
    }
    EXPECT_EQ(Exchange(Request("upload.connect")).result, XML_NO_PARAMS);
    // An image method given no image answers with no answers.
    EXPECT_EQ(Exchange(Request("upload.downsampleRequest", "<param/>\n")).response,
              "<methodResponse>\n <params />\n</methodResponse>\n");
}

std::string Nest(int depth, const std::string& inner = "") {
    return Repeat("<a>", depth) + inner + Repeat("</a>", depth);
}

// The decision follows the depth of the tree the parser builds, on the listener's stack and on
// a parse thread alike, and whatever the text around the elements.
TEST(XmlRpcTest, RequestsDeeperThanTheLimitAreRefusedAndNoOthers) {
    const int limit = XMLRPC::kMaxDepth;
    const std::string flat = Repeat("<b/>", 2000);  // takes the text past the inline bound
    const std::string toClose = "<methodCall><methodName>upload.close</methodName><params>";
    const std::string open = Repeat("<a>", 200), close = Repeat("</a>", 200);
    struct Case {
        std::string text;
        bool refused;
    };
    const std::vector<Case> cases = {
        {Nest(limit), false},
        {Nest(limit - 1, "<b/>"), false},
        {Nest(limit, "<b/>"), true},  // an empty element at the deepest level
        {Nest(limit + 1), true},
        {Nest(limit, "text<!--<b>-->&lt;<![CDATA[<b>]]>"), false},
        {flat + Nest(limit), false},
        {Nest(limit, flat), true},
        {flat + Nest(limit + 1), true},
        {Repeat("<a>&#</a>#1;", limit + 1), true},
        // End tags hidden from the parser, 2,000 levels deep: the tree is what counts.
        {Repeat(open + "<!--" + close + "-->", 10), true},
        {Repeat(open + "<![CDATA[" + close + "]]>", 10), true},
        {"<?xml version=\"1.0\"?>" + Repeat(open + "<b x=\"\xF0\">" + close + "</a>\">", 10), true},
        {"<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><r x=\"\xE9<\">" + Nest(limit - 1) +
             "</r>",
         false},
        {"\xEF\xBB\xBF<!DOCTYPE r>" + Nest(limit + 1), true},
        {"<!DOCTYPE r [<!ENTITY e 'x'>]>" + Nest(limit + 1), false},  // the parser stops at "]>"
        {Repeat("<b/>", XMLRPC::kMaxOpenings), false},
        {Repeat("<b/>", XMLRPC::kMaxOpenings + 1), true},  // too large to parse at all
    };
    for (const Case& c : cases) {
        XMLRPC rpc;
        LogCapture capture(9);
        rpc.Parse(c.text);
        EXPECT_EQ(rpc.Refused(), c.refused) << c.text.substr(0, 80);
        EXPECT_EQ(capture.Count("XMLRPC::Parse request nested too deeply, refused"),
                  c.refused ? 1 : 0);
    }
    // The methods see an admitted request whole.
    EXPECT_EQ(Exchange(toClose + Nest(limit - 2) + "</params></methodCall>").response, kDone);
    EXPECT_EQ(Exchange(toClose + Nest(limit - 1) + "</params></methodCall>").response, "");
}

// A request shape: what the call is written with, and a photo's file name as the file system
// has it and as the request writes it.
struct Shape {
    const char* name;
    std::string head;  // before methodCall
    std::string fileName;
    std::string wireName;
};

std::string Call(const Shape& shape, const std::string& params) {
    return shape.head +
           "<methodCall><methodName>upload.downsampleRequest</methodName>\n<params>\n" + params +
           "</params></methodCall>\n";
}

// An image's param with its paths written as they stand, unescaped.
std::string WireImage(int id, const std::string& src, const std::string& dst) {
    return "<param><value><struct><member><name>imageId</name><value><i4>" + ToString(id) +
           "</i4></value></member>\n<member><name>sourcePath</name><value><string>" + src +
           "</string></value></member>\n<member><name>destPath</name><value><string>" + dst +
           "</string></value></member>\n<member><name>resolution</name><value><i4>32</i4>"
           "</value></member></struct></value></param>\n";
}

// Requests shaped as XML-RPC clients write them are answered in full, however large (parsed on
// a thread of their own): the call found past what comes before it, and the paths as the parser
// decodes them, whatever the encoding.
TEST(XmlRpcTest, EveryRequestShapeIsAnsweredInFull) {
    const std::string xml = "<?xml version=\"1.0\"?>\n";
    const std::string utf8 = "Caf\xC3\xA9 \xE5\x86\x99\xE7\x9C\x9F.jpg";
    const std::vector<Shape> shapes = {
        {"prolog", xml + "<!-- batch 7 -->\n<?client batch=\"7\"?>\n<!DOCTYPE methodCall>\n",
         "p.jpg", "p.jpg"},
        {"cdata", xml, "a&b <c>.jpg", "a&b <c>.jpg]]>"},
        {"latin1", "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n", "Caf\xE9.jpg",
         "Caf\xE9.jpg"},
        {"utf8", xml, utf8, utf8},
        {"references", xml, "a  b&'\"<>.jpg", "a&#32;&#x20;b&amp;&apos;&quot;&lt;&gt;.jpg"},
    };
    TempDir tmp;
    const std::string photo = EncodeJpeg({64, 48});
    for (const Shape& shape : shapes) {
        tmp.Write(shape.fileName, photo);
        const bool cdata = std::string(shape.name) == "cdata";
        const std::string src = (cdata ? "<![CDATA[" : "") + tmp.path() + "/" + shape.wireName;
        const std::string out = tmp.Path(std::string("out-") + shape.name + ".jpg");
        std::string params;
        for (int i = 0; i < 200; ++i) params += WireImage(i, src, out);
        const std::vector<ImageAnswer> answers =
            ImageAnswers(Exchange(Call(shape, params)).response);
        ASSERT_EQ(answers.size(), 200u) << shape.name;
        for (const ImageAnswer& answer : answers) EXPECT_EQ(answer.values.at("success"), "1");
        EXPECT_EQ(DecodeJpeg(ReadFileBytes(out)).width, 32) << shape.name;
    }
}

std::vector<ImageAnswer> Ask(const std::string& request) {
    return ImageAnswers(Exchange(request).response);
}

// Converted images report their source and keep its segments unless told; the others fail with
// their own reason; all in request order.
TEST(ImageMethodTest, DownsampleAnswersEachImageInRequestOrder) {
    TempDir tmp;
    // A camera's photo: EXIF with an embedded thumbnail, then a comment.
    const std::string src = tmp.Write(
        "photo.jpg",
        EncodeJpeg({1000, 750}, {{0xE1, BuildExif({0, 0, "\xFF\xD8t"}).payload}, {0xFE, "c"}}));
    const std::string to100 = Member("resolution", "i4", "100");
    const std::vector<ImageAnswer> answers = Ask(Request(
        "upload.downsampleRequest",
        ImageParam(7, src, tmp.Path("a.JPG")) +  // defaults: 640, MD5, EXIF kept
            ImageParam(8, src, tmp.Path("b.jpg"),
                       to100 + Member("hashMethod", "string", "MD5") +
                           Member("omitEXIF", "boolean", "1")) +
            ImageParam(9, src, tmp.Path("c.jpg"),
                       to100 + Member("hashMethod", "string", "md5") +
                           Member("omitEXIF", "boolean", "true")) +
            ImageParam(1, tmp.Path("missing.jpg"), tmp.Path("o1.jpg")) +
            ImageParam(2, tmp.Write("tiny.jpg", EncodeJpeg({40, 30})), tmp.Path("o2.jpg")) +
            ImageParam(3, tmp.Write("text.jpg", std::string(5000, 'x')), tmp.Path("o3.jpg")) +
            ImageParam(4, tmp.Write("cut.jpg", TruncateInScan(EncodeJpeg({400, 300}))),
                       tmp.Path("o4.jpg"), to100) +
            ImageParam(5, src, tmp.Path("no/such/o5.jpg"), to100) +
            ImageParam(6, tmp.Write("small.jpg", EncodeJpeg({200, 150})), tmp.Path("o6.jpg"),
                       Member("resolution", "string", "100")) +
            "<param><value><struct>" + Member("imageId", "i4", "7") + "</struct></value></param>" +
            "<param><value><i4>9</i4></value></param>\n"));
    ASSERT_EQ(answers.size(), 10u) << "a param without a struct is not answered";
    EXPECT_EQ(answers[0].members,
              (std::vector<std::string>{"imageId", "success", "originalImage"}));
    EXPECT_EQ(answers[0].values.at("imageId"), "7");
    EXPECT_EQ(answers[0].values.at("originalImage/resolution/width"), "1000");
    EXPECT_EQ(answers[0].values.at("originalImage/resolution/height"), "750");
    // The wire's "MD5" selects the CRC-32; anything else the MD5.
    EXPECT_EQ(answers[0].values.at("originalImage/hash"), TailMd5(src));
    EXPECT_EQ(answers[1].values.at("originalImage/hash"), TailCrc32(src));
    EXPECT_EQ(answers[2].values.at("originalImage/hash"), TailMd5(src));
    const std::string kept = ReadFileBytes(tmp.Path("a.JPG"));
    EXPECT_EQ(DecodeJpeg(kept).width, 640);
    EXPECT_EQ(DecodeJpeg(kept).height, 480);
    EXPECT_EQ(ReadSegments(kept), ReadSegments(ReadFileBytes(src)));
    EXPECT_TRUE(ReadSegments(ReadFileBytes(tmp.Path("b.jpg"))).empty());
    EXPECT_EQ(ReadSegments(ReadFileBytes(tmp.Path("c.jpg"))).size(), 3u) << "only \"1\" omits";

    const char* reasons[] = {"internal error",
                             "actual resolution less than requested",
                             "jpeg resampling error",
                             "jpeg library warning(s)",
                             "create destination file error",
                             "actual resolution less than requested",  // not "100" but 640
                             "internal error"};                        // no paths at all
    for (int i = 0; i < 7; ++i) {
        const ImageAnswer& answer = answers[3 + i];
        EXPECT_EQ(answer.members,
                  (std::vector<std::string>{"imageId", "success", "failureReason"}));
        EXPECT_EQ(answer.values.at("imageId"), ToString(i + 1));
        EXPECT_EQ(answer.values.at("success"), "0");
        EXPECT_EQ(answer.values.at("failureReason"), reasons[i]);
    }
    EXPECT_FALSE(FileExists(tmp.Path("o2.jpg")));
    EXPECT_TRUE(FileExists(tmp.Path("o4.jpg"))) << "a cut-off source still converts";
}

// The embedded thumbnail is the first one in an EXIF block, whichever segments come before it.
TEST(ImageMethodTest, ThumbnailPrefersTheEmbeddedBytesElseConvertsWithoutSegments) {
    TempDir tmp;
    const std::string thumbnail = EncodeJpeg({160, 120});
    const std::string camera =
        EncodeJpeg({800, 600}, {{0xE1, std::string("http://ns.adobe.com/xap/1.0/\0<x/>", 33)},
                                {0xE1, std::string("Exif\0\0", 6)},
                                {0xE1, BuildExif({800, 600}).payload},
                                {0xE1, BuildExif({800, 600, thumbnail, true}).payload},
                                {0xE1, BuildExif({800, 600, "second"}).payload}});
    const std::vector<ImageAnswer> answers = Ask(Request(
        "upload.thumbnailRequest",
        ImageParam(1, tmp.Write("camera.jpg", camera), tmp.Path("t1.jpg")) +
            ImageParam(2, tmp.Write("plain.jpg", EncodeJpeg({600, 800}, {{0xFE, "c"}})),
                       tmp.Path("t2.jpg"), Member("omitEXIF", "boolean", "0")) +
            ImageParam(3, tmp.Write("text.jpg", std::string(100, 'x')), tmp.Path("t3.jpg")) +
            ImageParam(4, tmp.Path("gone.jpg"), tmp.Path("t4.jpg"))));
    ASSERT_EQ(answers.size(), 4u);
    EXPECT_EQ(answers[0].members, (std::vector<std::string>{"imageId", "success"}));
    EXPECT_EQ(ReadFileBytes(tmp.Path("t1.jpg")), thumbnail);
    const std::string fallback = ReadFileBytes(tmp.Path("t2.jpg"));
    EXPECT_EQ(DecodeJpeg(fallback).width, 54);
    EXPECT_EQ(DecodeJpeg(fallback).height, 72);
    EXPECT_TRUE(ReadSegments(fallback).empty()) << "a converted thumbnail carries no segments";
    EXPECT_EQ(answers[2].values.at("failureReason"), "error");
    EXPECT_EQ(answers[3].values.at("failureReason"), "internal error");
}

}  // namespace
}  // namespace Varnelo
