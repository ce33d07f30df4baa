// The image methods end to end: requests through the running service, files on disk.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tinyxml.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "crc32.h"
#include "fsutils.h"
#include "md5.h"
#include "support/jpeg_fixtures.h"
#include "support/service_process.h"
#include "support/temp_dir.h"

namespace Varnelo {
namespace {

// The members of one image request: name, wire type, text.
using Fields = std::vector<std::vector<std::string>>;

Fields Image(int id, const std::string& src, const std::string& dst, const Fields& more = {}) {
    Fields fields = {{"imageId", "i4", ToString(id)},
                     {"sourcePath", "string", src},
                     {"destPath", "string", dst}};
    fields.insert(fields.end(), more.begin(), more.end());
    return fields;
}

std::string ImageCall(const std::string& method, const std::vector<Fields>& images,
                      const std::string& extraParams = "") {
    std::string params;
    for (const Fields& image : images) {
        params += "<param><value><struct>";
        for (const auto& f : image) {
            params += "<member><name>" + f[0] + "</name><value><" + f[1] + ">" + f[2] + "</" +
                      f[1] + "></value></member>";
        }
        params += "</struct></value></param>\n";
    }
    return "<methodCall><methodName>" + method + "</methodName>\n<params>\n" + params +
           extraParams + "</params></methodCall>\n*\n";
}

// An answered image: top-level member names in order, and leaf texts by path
// ("imageId", "originalImage/resolution/width", ...).
struct ImageAnswer {
    std::vector<std::string> members;
    std::map<std::string, std::string> values;
};

void Collect(TiXmlElement* fields, const std::string& prefix, ImageAnswer& answer) {
    for (TiXmlElement* member = fields->FirstChildElement("member"); member != nullptr;
         member = member->NextSiblingElement("member")) {
        const std::string name = member->FirstChildElement("name")->GetText();
        if (prefix.empty()) answer.members.push_back(name);
        TiXmlElement* typed = member->FirstChildElement("value")->FirstChildElement();
        if (std::string(typed->Value()) == "struct") {
            Collect(typed, prefix + name + "/", answer);
        } else {
            answer.values[prefix + name] = typed->GetText() != nullptr ? typed->GetText() : "";
        }
    }
}

// Runs one call through a fresh service and returns its answers.
std::vector<ImageAnswer> Ask(const std::string& call) {
    ServiceProcess service(VARNELO_BIN);
    service.Send(call + "exit\n");
    const std::vector<std::string> responses = service.ReadResponses(1, 60000);
    EXPECT_EQ(service.Wait(10000), 0);
    std::vector<ImageAnswer> answers;
    if (responses.empty()) return answers;
    TiXmlDocument doc;
    doc.Parse(responses[0].c_str());
    TiXmlElement* params =
        TiXmlHandle(&doc).FirstChildElement("methodResponse").FirstChildElement("params").Element();
    for (TiXmlElement* param = params->FirstChildElement("param"); param != nullptr;
         param = param->NextSiblingElement("param")) {
        answers.emplace_back();
        Collect(param->FirstChildElement("value")->FirstChildElement("struct"), "", answers.back());
    }
    return answers;
}

const std::vector<std::string> kSuccess = {"imageId", "success", "originalImage"};
const std::vector<std::string> kFailure = {"imageId", "success", "failureReason"};

std::string TailHash(Hash&& hash, const std::string& path) {
    EXPECT_TRUE(hash.File(path.c_str(), Hash::FROM_END, 2048));
    return hash.GetResultString();
}

class ImageServiceTest : public ::testing::Test {
  protected:
    // A camera-like photo: EXIF with an embedded thumbnail, then a comment.
    std::string WritePhoto(const std::string& name, int width, int height) {
        JpegShape thumbShape;
        thumbShape.width = 160;
        thumbShape.height = 120;
        thumbnail = EncodeJpeg(thumbShape);
        ExifShape exif;
        exif.thumbnail = thumbnail;
        JpegShape shape;
        shape.width = width;
        shape.height = height;
        return tmp.Write(name, EncodeJpeg(shape, {{0xE1, BuildExif(exif).payload}, {0xFE, "c"}}));
    }

    TempDir tmp;
    std::string thumbnail;
};

TEST_F(ImageServiceTest, DownsampleKeepsSegmentsAndReportsTheSource) {
    const std::string src = WritePhoto("photo.jpg", 1000, 750);
    const std::vector<ImageAnswer> answers =
        Ask(ImageCall("upload.downsampleRequest",
                      {Image(7, src, tmp.Path("a.JPG")),  // defaults: 640, MD5, EXIF kept
                       Image(8, src, tmp.Path("b.jpg"),
                             {{"hashMethod", "string", "MD5"},
                              {"omitEXIF", "boolean", "1"},
                              {"resolution", "i4", "100"}}),
                       Image(9, src, tmp.Path("c.jpg"),
                             {{"hashMethod", "string", "md5"},
                              {"omitEXIF", "boolean", "true"},
                              {"resolution", "i4", "100"}})}));
    ASSERT_EQ(answers.size(), 3u);
    EXPECT_EQ(answers[0].members, kSuccess);
    EXPECT_EQ(answers[0].values.at("imageId"), "7");
    EXPECT_EQ(answers[0].values.at("originalImage/resolution/width"), "1000");
    EXPECT_EQ(answers[0].values.at("originalImage/resolution/height"), "750");
    // The wire's "MD5" selects the CRC-32; anything else the MD5.
    EXPECT_EQ(answers[0].values.at("originalImage/hash"), "S2|" + TailHash(MD5(), src));
    EXPECT_EQ(answers[1].values.at("originalImage/hash"), "S1|" + TailHash(CRC32(), src));
    EXPECT_EQ(answers[2].values.at("originalImage/hash"), "S2|" + TailHash(MD5(), src));

    const std::string kept = ReadFileBytes(tmp.Path("a.JPG"));
    const DecodedJpeg decoded = DecodeJpeg(kept);
    EXPECT_EQ(decoded.width, 640);
    EXPECT_EQ(decoded.height, 480);
    EXPECT_EQ(ReadSegments(kept), ReadSegments(ReadFileBytes(src)));
    EXPECT_TRUE(ReadSegments(ReadFileBytes(tmp.Path("b.jpg"))).empty());
    EXPECT_EQ(ReadSegments(ReadFileBytes(tmp.Path("c.jpg"))).size(), 3u) << "only \"1\" omits";
}

TEST_F(ImageServiceTest, EachImageFailsWithItsOwnReasonInRequestOrder) {
    const std::string photo = WritePhoto("photo.jpg", 200, 150);
    JpegShape small;
    small.width = 40;
    small.height = 30;
    JpegShape big;
    big.width = 400;
    big.height = 300;
    const Fields to100 = {{"resolution", "i4", "100"}};
    const std::vector<ImageAnswer> answers = Ask(ImageCall(
        "upload.downsampleRequest",
        {Image(1, tmp.Path("missing.jpg"), tmp.Path("o1.jpg")),
         Image(2, tmp.Write("tiny.jpg", EncodeJpeg(small)), tmp.Path("o2.jpg")),
         Image(3, tmp.Write("text.jpg", std::string(5000, 'x')), tmp.Path("o3.jpg")),
         Image(4, tmp.Write("cut.jpg", TruncateInScan(EncodeJpeg(big))), tmp.Path("o4.jpg"), to100),
         Image(5, photo, tmp.Path("no/such/o5.jpg"), to100),
         Image(6, photo, tmp.Path("o6.jpg"), {{"resolution", "string", "100"}})},
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

TEST_F(ImageServiceTest, DestinationIsAJpgFileOrElseAFolder) {
    const std::string src = WritePhoto("photo.jpg", 320, 240);
    mkdir(tmp.Path("out").c_str(), 0777);
    mkdir(tmp.Path("out/x.jpeg").c_str(), 0777);
    const Fields to64 = {{"resolution", "i4", "64"}};
    const std::vector<ImageAnswer> answers = Ask(ImageCall(
        "upload.downsampleRequest",
        {Image(1, src, tmp.Path("out"), to64), Image(2, src, tmp.Path("out/x.jpeg"), to64),
         Image(3, src, tmp.Path("new/y.jpg"), to64),
         Image(4, src, tmp.Path("two/levels/z.jpg"), to64)}));
    ASSERT_EQ(answers.size(), 4u);
    EXPECT_EQ(DecodeJpeg(ReadFileBytes(tmp.Path("out/photo.jpg"))).width, 64);
    EXPECT_EQ(DecodeJpeg(ReadFileBytes(tmp.Path("out/x.jpeg/photo.jpg"))).height, 48);
    EXPECT_EQ(DecodeJpeg(ReadFileBytes(tmp.Path("new/y.jpg"))).width, 64) << "one level made";
    EXPECT_EQ(answers[3].values.at("failureReason"), "create destination file error");
}

TEST_F(ImageServiceTest, ThumbnailPrefersTheEmbeddedBytesElseConvertsWithoutSegments) {
    const std::string camera = WritePhoto("camera.jpg", 800, 600);
    JpegShape plainShape;
    plainShape.width = 600;
    plainShape.height = 800;
    const std::vector<ImageAnswer> answers =
        Ask(ImageCall("upload.thumbnailRequest",
                      {Image(1, camera, tmp.Path("t1.jpg")),
                       Image(2, tmp.Write("plain.jpg", EncodeJpeg(plainShape, {{0xFE, "c"}})),
                             tmp.Path("t2.jpg"), {{"omitEXIF", "boolean", "0"}}),
                       Image(3, tmp.Write("text.jpg", std::string(100, 'x')), tmp.Path("t3.jpg")),
                       Image(4, tmp.Path("gone.jpg"), tmp.Path("t4.jpg"))}));
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
TEST(RealPhotoTest, EveryPhotoConvertsAndThumbnailsComeFromTheirExif) {
    const std::string folder = VARNELO_PHOTOS_DIR;
    struct Photo {
        const char* name;
        int width;
        int height;
        bool embedded;
    };
    const std::vector<Photo> photos = {
        {"Canon_40D.jpg", 100, 68, true},
        {"Nikon_D70.jpg", 100, 66, true},
        {"Fujifilm_FinePix_E500.jpg", 59, 100, false},
        {"Panasonic_DMC-FZ30.jpg", 100, 75, true},
        {"exif-org_kodak-dc240.jpg", 640, 480, true},
        {"exif-org_sony-d700.jpg", 672, 512, false},
        {"gps_DSCN0010.jpg", 640, 480, true},
        {"hdr_canon_hdr_NO.jpg", 2048, 1536, true},
        {"orientation_portrait_1.jpg", 450, 600, false},
        {"invalid_image01713.jpg", 49, 500, false},
        {"xmp_no_exif.jpg", 322, 466, false},
        {"corrupted.jpg", 3648, 2736, true},
    };
    if (!FileExists(DirPlusFile(folder, "Canon_40D.jpg"))) GTEST_SKIP() << "no " << folder;
    TempDir tmp;
    std::vector<Fields> downsample;
    std::vector<Fields> thumbnails;
    for (std::size_t i = 0; i < photos.size(); ++i) {
        const std::string src = DirPlusFile(folder, photos[i].name);
        downsample.push_back(
            Image(i, src, tmp.Path("d" + ToString(i) + ".jpg"), {{"resolution", "i4", "64"}}));
        thumbnails.push_back(Image(i, src, tmp.Path("t" + ToString(i) + ".jpg")));
    }
    const std::vector<ImageAnswer> converted =
        Ask(ImageCall("upload.downsampleRequest", downsample));
    const std::vector<ImageAnswer> thumbs = Ask(ImageCall("upload.thumbnailRequest", thumbnails));
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
            EXPECT_EQ(converted[i].values.at("originalImage/resolution/width"),
                      ToString(photo.width));
            EXPECT_EQ(converted[i].values.at("originalImage/resolution/height"),
                      ToString(photo.height));
        }

        EXPECT_EQ(thumbs[i].values.at("success"), "1");
        const std::string thumb = ReadFileBytes(tmp.Path("t" + ToString(i) + ".jpg"));
        if (photo.embedded) {
            const std::vector<Segment> segments = ReadSegments(source);
            const auto exif = std::find_if(segments.begin(), segments.end(), [](const Segment& s) {
                return s.marker == 0xE1 && s.data.compare(0, 4, "Exif") == 0;
            });
            ASSERT_NE(exif, segments.end());
            EXPECT_NE(exif->data.find(thumb), std::string::npos) << "the embedded bytes, verbatim";
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
