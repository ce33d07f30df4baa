// The message layer and the six methods: in-process for the exact answers and traces, through
// the running service for the image methods and hostile requests.

#include "xmlrpc.h"

#include <gtest/gtest.h>

#include <algorithm>
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
          std::string("<call><methodName>upload.close</methodName></call>")}) {
        const Exchanged answer = Exchange(request);
        EXPECT_EQ(answer.response, "") << request;
        EXPECT_NE(answer.result, XML_SHUTDOWN) << request;
    }
    EXPECT_EQ(Exchange(Request("upload.connect")).result, XML_NO_PARAMS);
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
        images += "<param><value><struct>" + Member("imageId", "i4", ToString(i)) +
                  Member("sourcePath", "string", "/no/such/\xC3\xA9t\xC3\xA9 &amp; co.jpg") +
                  "</struct></value></param>\n";
    }
    PrivateService copy;
    ServiceProcess service(copy.Binary(), {"-l", "9"});
    for (const std::string& request : deep) service.Send(request + "\n*\n");
    service.Send(Request("upload.thumbnailRequest", images) + Request("upload.close"));
    std::vector<std::string> responses = service.ReadResponses(2, 60000);
    service.CloseInput();
    EXPECT_EQ(service.Wait(10000), 0);
    EXPECT_EQ(service.ReadRest(), "") << "nothing else is answered";
    ASSERT_EQ(responses.size(), 2u);
    if (responses[0] == kDone) std::swap(responses[0], responses[1]);
    EXPECT_EQ(responses[1], kDone);
    const std::vector<ImageAnswer> answers = ImageAnswers(responses[0]);
    ASSERT_EQ(answers.size(), 400u);
    EXPECT_EQ(answers[399].values.at("failureReason"), "internal error");
    const std::vector<std::string> log = copy.LogLines();
    EXPECT_EQ(
        std::count(log.begin(), log.end(), "XMLRPC::Parse request nested too deeply, refused"),
        static_cast<long>(deep.size()));
}

// Asks a fresh service one request and returns the answered images.
std::vector<ImageAnswer> Ask(const std::string& request) {
    ServiceProcess service(VARNELO_BIN);
    service.Send(request + "exit\n");
    const std::vector<std::string> responses = service.ReadResponses(1, 60000);
    EXPECT_EQ(service.Wait(10000), 0);
    return responses.empty() ? std::vector<ImageAnswer>() : ImageAnswers(responses[0]);
}

const std::vector<std::string> kSuccess = {"imageId", "success", "originalImage"};
const std::vector<std::string> kFailure = {"imageId", "success", "failureReason"};

// A camera-like photo: EXIF with an embedded thumbnail, then a comment.
std::string CameraPhoto(int width, int height, const std::string& thumbnail) {
    return EncodeJpeg({width, height}, {{0xE1, BuildExif({0, 0, thumbnail}).payload}, {0xFE, "c"}});
}

TEST(ImageMethodTest, DownsampleKeepsSegmentsAndReportsTheSource) {
    TempDir tmp;
    const std::string src = tmp.Write("photo.jpg", CameraPhoto(1000, 750, "\xFF\xD8t"));
    const std::string to100 = Member("resolution", "i4", "100");
    const std::vector<ImageAnswer> answers =
        Ask(Request("upload.downsampleRequest",
                    ImageParam(7, src, tmp.Path("a.JPG")) +  // defaults: 640, MD5, EXIF kept
                        ImageParam(8, src, tmp.Path("b.jpg"),
                                   to100 + Member("hashMethod", "string", "MD5") +
                                       Member("omitEXIF", "boolean", "1")) +
                        ImageParam(9, src, tmp.Path("c.jpg"),
                                   to100 + Member("hashMethod", "string", "md5") +
                                       Member("omitEXIF", "boolean", "true"))));
    ASSERT_EQ(answers.size(), 3u);
    EXPECT_EQ(answers[0].members, kSuccess);
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
}

TEST(ImageMethodTest, EachImageFailsWithItsOwnReasonInRequestOrder) {
    TempDir tmp;
    const std::string photo = tmp.Write("photo.jpg", EncodeJpeg({200, 150}));
    const std::string to100 = Member("resolution", "i4", "100");
    const std::vector<ImageAnswer> answers = Ask(Request(
        "upload.downsampleRequest",
        ImageParam(1, tmp.Path("missing.jpg"), tmp.Path("o1.jpg")) +
            ImageParam(2, tmp.Write("tiny.jpg", EncodeJpeg({40, 30})), tmp.Path("o2.jpg")) +
            ImageParam(3, tmp.Write("text.jpg", std::string(5000, 'x')), tmp.Path("o3.jpg")) +
            ImageParam(4, tmp.Write("cut.jpg", TruncateInScan(EncodeJpeg({400, 300}))),
                       tmp.Path("o4.jpg"), to100) +
            ImageParam(5, photo, tmp.Path("no/such/o5.jpg"), to100) +
            ImageParam(6, photo, tmp.Path("o6.jpg"), Member("resolution", "string", "100")) +
            "<param><value><i4>9</i4></value></param>\n"));
    ASSERT_EQ(answers.size(), 6u) << "a param without a struct is not answered";
    const char* reasons[] = {"internal error",
                             "actual resolution less than requested",
                             "jpeg resampling error",
                             "jpeg library warning(s)",
                             "create destination file error",
                             "actual resolution less than requested"};
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(answers[i].members, kFailure) << i;
        EXPECT_EQ(answers[i].values.at("imageId"), ToString(i + 1));
        EXPECT_EQ(answers[i].values.at("success"), "0");
        EXPECT_EQ(answers[i].values.at("failureReason"), reasons[i]);
    }
    EXPECT_FALSE(FileExists(tmp.Path("o2.jpg")));
    EXPECT_TRUE(FileExists(tmp.Path("o4.jpg"))) << "a cut-off source still converts";
}

TEST(ImageMethodTest, ThumbnailPrefersTheEmbeddedBytesElseConvertsWithoutSegments) {
    TempDir tmp;
    const std::string thumbnail = EncodeJpeg({160, 120});
    const std::vector<ImageAnswer> answers = Ask(Request(
        "upload.thumbnailRequest",
        ImageParam(1, tmp.Write("camera.jpg", CameraPhoto(800, 600, thumbnail)),
                   tmp.Path("t1.jpg")) +
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

// The real camera photos, when their folder is there.
TEST(ImageMethodTest, EveryCameraPhotoConvertsAndThumbnailsComeFromItsExif) {
    const std::string folder = VARNELO_PHOTOS_DIR;
    struct Photo {
        const char* name;
        bool embedded;  // carries a thumbnail in its EXIF block
    };
    const std::vector<Photo> photos = {
        {"Canon_40D.jpg", true},
        {"Nikon_D70.jpg", true},
        {"Fujifilm_FinePix_E500.jpg", false},
        {"Panasonic_DMC-FZ30.jpg", true},
        {"exif-org_kodak-dc240.jpg", true},
        {"exif-org_sony-d700.jpg", false},
        {"gps_DSCN0010.jpg", true},
        {"hdr_canon_hdr_NO.jpg", true},
        {"orientation_portrait_1.jpg", false},
        {"invalid_image01713.jpg", false},
        {"xmp_no_exif.jpg", false},
        {"corrupted.jpg", true},
    };
    if (!FileExists(DirPlusFile(folder, "Canon_40D.jpg"))) GTEST_SKIP() << "no " << folder;
    TempDir tmp;
    std::string downsample, thumbnails;
    for (std::size_t i = 0; i < photos.size(); ++i) {
        const std::string src = DirPlusFile(folder, photos[i].name);
        downsample += ImageParam(i, src, tmp.Path("d" + ToString(i) + ".jpg"),
                                 Member("resolution", "i4", "64"));
        thumbnails += ImageParam(i, src, tmp.Path("t" + ToString(i) + ".jpg"));
    }
    const std::vector<ImageAnswer> converted = Ask(Request("upload.downsampleRequest", downsample));
    const std::vector<ImageAnswer> thumbs = Ask(Request("upload.thumbnailRequest", thumbnails));
    ASSERT_EQ(converted.size(), photos.size());
    ASSERT_EQ(thumbs.size(), photos.size());

    for (std::size_t i = 0; i < photos.size(); ++i) {
        const Photo& photo = photos[i];
        SCOPED_TRACE(photo.name);
        const std::string source = ReadFileBytes(DirPlusFile(folder, photo.name));
        const std::string small = ReadFileBytes(tmp.Path("d" + ToString(i) + ".jpg"));
        const DecodedJpeg decoded = DecodeJpeg(small);
        EXPECT_EQ(std::max(decoded.width, decoded.height), 64);
        EXPECT_EQ(ReadSegments(small), ReadSegments(source));
        if (std::string(photo.name) == "corrupted.jpg") {
            // Its entropy data ends early: converted, but reported as library warnings.
            EXPECT_EQ(converted[i].values.at("failureReason"), "jpeg library warning(s)");
        } else {
            const DecodedJpeg original = DecodeJpeg(source);
            EXPECT_EQ(converted[i].values.at("originalImage/resolution/width") + "x" +
                          converted[i].values.at("originalImage/resolution/height"),
                      ToString(original.width) + "x" + ToString(original.height));
        }

        EXPECT_EQ(thumbs[i].values.at("success"), "1");
        const std::string thumb = ReadFileBytes(tmp.Path("t" + ToString(i) + ".jpg"));
        if (photo.embedded) {
            bool inExif = false;
            for (const Segment& s : ReadSegments(source)) {
                inExif |= s.marker == 0xE1 && s.data.compare(0, 4, "Exif") == 0 &&
                          s.data.find(thumb) != std::string::npos;
            }
            EXPECT_TRUE(inExif) << "the embedded bytes, verbatim";
            EXPECT_EQ(thumb.substr(0, 2), "\xFF\xD8");
        } else {
            const DecodedJpeg made = DecodeJpeg(thumb);
            EXPECT_EQ(std::max(made.width, made.height), 72);
            EXPECT_TRUE(ReadSegments(thumb).empty());
        }
    }
}

}  // namespace
}  // namespace Varnelo
