// The image methods end to end: requests through the running service, files on disk.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tinyxml.h>

#include <algorithm>
#include <iterator>
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

// One member of an image request: name, wire type, text.
struct Field {
    std::string name;
    std::string type;
    std::string text;
};
using ImageFields = std::vector<Field>;

std::string ImageCall(const std::string& method, const std::vector<ImageFields>& images,
                      const std::string& extraParams = "") {
    std::string params;
    for (const ImageFields& image : images) {
        params += "<param><value><struct>";
        for (const Field& f : image) {
            params += "<member><name>" + f.name + "</name><value><" + f.type + ">" + f.text + "</" +
                      f.type + "></value></member>";
        }
        params += "</struct></value></param>\n";
    }
    return "<?xml version=\"1.0\"?>\n<methodCall>\n<methodName>" + method +
           "</methodName>\n<params>\n" + params + extraParams + "</params>\n</methodCall>\n*\n";
}

ImageFields Image(int id, const std::string& src, const std::string& dst) {
    return {{"imageId", "i4", ToString(id)},
            {"sourcePath", "string", src},
            {"destPath", "string", dst}};
}

ImageFields With(ImageFields fields, const std::string& name, const std::string& type,
                 const std::string& text) {
    fields.push_back({name, type, text});
    return fields;
}

// An answered image: member names in order, and the texts of the leaf values by path
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

std::vector<ImageAnswer> ParseAnswers(const std::string& response) {
    TiXmlDocument doc;
    doc.Parse(response.c_str());
    std::vector<ImageAnswer> answers;
    TiXmlElement* params =
        TiXmlHandle(&doc).FirstChildElement("methodResponse").FirstChildElement("params").Element();
    if (params == nullptr) return answers;
    for (TiXmlElement* param = params->FirstChildElement("param"); param != nullptr;
         param = param->NextSiblingElement("param")) {
        ImageAnswer answer;
        Collect(param->FirstChildElement("value")->FirstChildElement("struct"), "", answer);
        answers.push_back(answer);
    }
    return answers;
}

// Runs one call through a fresh service and returns its answers.
std::vector<ImageAnswer> Ask(const std::string& call) {
    ServiceProcess service(VARNELO_BIN);
    service.Send(call);
    const std::vector<std::string> responses = service.ReadResponses(1, 60000);
    service.Send("exit\n");
    EXPECT_EQ(service.Wait(10000), 0);
    return responses.empty() ? std::vector<ImageAnswer>() : ParseAnswers(responses[0]);
}

const std::vector<std::string> kSuccess = {"imageId", "success", "originalImage"};
const std::vector<std::string> kFailure = {"imageId", "success", "failureReason"};

std::string TailHash(Hash& hash, const std::string& path) {
    EXPECT_TRUE(hash.File(path.c_str(), Hash::FROM_END, 2048));
    return hash.GetResultString();
}

class ImageServiceTest : public ::testing::Test {
  protected:
    // A camera-like photo: EXIF with an embedded thumbnail, then a comment.
    std::string WritePhoto(const std::string& name, int width, int height) {
        JpegSpec thumbSpec;
        thumbSpec.width = 160;
        thumbSpec.height = 120;
        thumbnail = EncodeJpeg(thumbSpec);
        ExifSpec exif;
        exif.pixelX = width;
        exif.pixelY = height;
        exif.thumbnail = thumbnail;
        JpegSpec spec;
        spec.width = width;
        spec.height = height;
        return tmp.Write(name,
                         EncodeJpeg(spec, {{0xE1, BuildExif(exif).payload}, {0xFE, "a comment"}}));
    }

    TempDir tmp;
    std::string thumbnail;
};

TEST_F(ImageServiceTest, DownsampleWithDefaultsKeepsSegmentsAndReportsTheSource) {
    const std::string src = WritePhoto("photo.jpg", 1000, 750);
    const std::string dst = tmp.Path("small.JPG");
    const std::vector<ImageAnswer> answers =
        Ask(ImageCall("upload.downsampleRequest", {Image(7, src, dst)}));
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].members, kSuccess);
    EXPECT_EQ(answers[0].values.at("imageId"), "7");
    EXPECT_EQ(answers[0].values.at("success"), "1");
    EXPECT_EQ(answers[0].values.at("originalImage/resolution/width"), "1000");
    EXPECT_EQ(answers[0].values.at("originalImage/resolution/height"), "750");
    MD5 md5;
    EXPECT_EQ(answers[0].values.at("originalImage/hash"), "S2|" + TailHash(md5, src));

    const std::string result = ReadFileBytes(dst);
    const DecodedJpeg decoded = DecodeJpeg(result);
    ASSERT_TRUE(decoded.ok);
    EXPECT_EQ(decoded.width, 640);
    EXPECT_EQ(decoded.height, 480);
    EXPECT_EQ(ReadSegments(result), ReadSegments(ReadFileBytes(src)))
        << "every APPn and COM segment is copied byte for byte, in order";
}

TEST_F(ImageServiceTest, HashNamesAreCrossedAndOmitExifNeedsExactlyOne) {
    const std::string src = WritePhoto("photo.jpg", 300, 400);
    const std::vector<ImageAnswer> answers = Ask(
        ImageCall("upload.downsampleRequest",
                  {With(With(With(Image(1, src, tmp.Path("a.jpg")), "hashMethod", "string", "MD5"),
                             "omitEXIF", "boolean", "1"),
                        "resolution", "i4", "100"),
                   With(With(With(Image(2, src, tmp.Path("b.jpg")), "hashMethod", "string", "md5"),
                             "omitEXIF", "boolean", "true"),
                        "resolution", "i4", "100")}));
    ASSERT_EQ(answers.size(), 2u);
    CRC32 crc;
    MD5 md5;
    EXPECT_EQ(answers[0].values.at("originalImage/hash"), "S1|" + TailHash(crc, src));
    EXPECT_EQ(answers[1].values.at("originalImage/hash"), "S2|" + TailHash(md5, src));

    const std::string stripped = ReadFileBytes(tmp.Path("a.jpg"));
    EXPECT_TRUE(ReadSegments(stripped).empty());
    const DecodedJpeg portrait = DecodeJpeg(stripped);
    EXPECT_EQ(portrait.width, 75);
    EXPECT_EQ(portrait.height, 100);
    EXPECT_EQ(ReadSegments(ReadFileBytes(tmp.Path("b.jpg"))).size(), 3u);
}

TEST_F(ImageServiceTest, EachImageFailsWithItsOwnReasonInRequestOrder) {
    const std::string photo = WritePhoto("photo.jpg", 200, 150);
    JpegSpec small;
    small.width = 40;
    small.height = 30;
    const std::string tiny = tmp.Write("tiny.jpg", EncodeJpeg(small));
    const std::string notJpeg = tmp.Write("text.jpg", std::string(5000, 'x'));
    JpegSpec big;
    big.width = 400;
    big.height = 300;
    const std::string cut = tmp.Write("cut.jpg", TruncateInScan(EncodeJpeg(big)));

    const std::string call =
        ImageCall("upload.downsampleRequest",
                  {Image(1, tmp.Path("missing.jpg"), tmp.Path("o1.jpg")),
                   Image(2, tiny, tmp.Path("o2.jpg")), Image(3, notJpeg, tmp.Path("o3.jpg")),
                   With(Image(4, cut, tmp.Path("o4.jpg")), "resolution", "i4", "100"),
                   With(Image(5, photo, tmp.Path("no/such/o5.jpg")), "resolution", "i4", "100"),
                   With(Image(6, photo, tmp.Path("o6.jpg")), "resolution", "string", "100")},
                  "<param><value><i4>9</i4></value></param>\n");
    const std::vector<ImageAnswer> answers = Ask(call);
    ASSERT_EQ(answers.size(), 6u) << "a param without a struct is not answered";
    const char* reasons[] = {"internal error",
                             "actual resolution less than requested",
                             "jpeg resampling error",
                             "jpeg library warning(s)",
                             "create destination file error",
                             "actual resolution less than requested"};
    for (int i = 0; i < 6; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(answers[i].members, kFailure);
        EXPECT_EQ(answers[i].values.at("imageId"), ToString(i + 1));
        EXPECT_EQ(answers[i].values.at("success"), "0");
        EXPECT_EQ(answers[i].values.at("failureReason"), reasons[i]);
    }
    EXPECT_FALSE(FileExists(tmp.Path("o2.jpg"))) << "nothing is written for a small source";
    EXPECT_TRUE(FileExists(tmp.Path("o4.jpg"))) << "a cut-off source still converts";
}

TEST_F(ImageServiceTest, DestinationFolderRules) {
    const std::string src = WritePhoto("photo.jpg", 320, 240);
    mkdir(tmp.Path("out").c_str(), 0777);
    mkdir(tmp.Path("out/x.jpeg").c_str(), 0777);
    const std::vector<ImageAnswer> answers = Ask(
        ImageCall("upload.downsampleRequest",
                  {With(Image(1, src, tmp.Path("out")), "resolution", "i4", "64"),
                   With(Image(2, src, tmp.Path("out/x.jpeg")), "resolution", "i4", "64"),
                   With(Image(3, src, tmp.Path("new/y.jpg")), "resolution", "i4", "64"),
                   With(Image(4, src, tmp.Path("two/levels/z.jpg")), "resolution", "i4", "64")}));
    ASSERT_EQ(answers.size(), 4u);
    EXPECT_EQ(DecodeJpeg(ReadFileBytes(tmp.Path("out/photo.jpg"))).width, 64)
        << "a destination without the .jpg extension is a folder";
    EXPECT_EQ(DecodeJpeg(ReadFileBytes(tmp.Path("out/x.jpeg/photo.jpg"))).height, 48)
        << "so is one ending in .jpeg";
    EXPECT_EQ(DecodeJpeg(ReadFileBytes(tmp.Path("new/y.jpg"))).width, 64)
        << "the destination's folder is created, one level";
    EXPECT_EQ(answers[3].values.at("failureReason"), "create destination file error");
}

TEST_F(ImageServiceTest, ThumbnailPrefersTheEmbeddedBytesElseConvertsWithoutSegments) {
    const std::string camera = WritePhoto("camera.jpg", 800, 600);
    JpegSpec plainSpec;
    plainSpec.width = 600;
    plainSpec.height = 800;
    const std::string plain = tmp.Write("plain.jpg", EncodeJpeg(plainSpec, {{0xFE, "c"}}));
    const std::string notJpeg = tmp.Write("text.jpg", std::string(100, 'x'));

    const std::vector<ImageAnswer> answers =
        Ask(ImageCall("upload.thumbnailRequest",
                      {Image(1, camera, tmp.Path("t1.jpg")),
                       With(Image(2, plain, tmp.Path("t2.jpg")), "omitEXIF", "boolean", "0"),
                       Image(3, notJpeg, tmp.Path("t3.jpg")),
                       Image(4, tmp.Path("gone.jpg"), tmp.Path("t4.jpg"))}));
    ASSERT_EQ(answers.size(), 4u);
    EXPECT_EQ(answers[0].members, (std::vector<std::string>{"imageId", "success"}));
    EXPECT_EQ(ReadFileBytes(tmp.Path("t1.jpg")), thumbnail);

    EXPECT_EQ(answers[1].values.at("success"), "1");
    const std::string fallback = ReadFileBytes(tmp.Path("t2.jpg"));
    const DecodedJpeg decoded = DecodeJpeg(fallback);
    EXPECT_EQ(decoded.width, 54);
    EXPECT_EQ(decoded.height, 72);
    EXPECT_TRUE(ReadSegments(fallback).empty()) << "a converted thumbnail carries no segments";

    EXPECT_EQ(answers[2].members, kFailure);
    EXPECT_EQ(answers[2].values.at("failureReason"), "error");
    EXPECT_EQ(answers[3].values.at("failureReason"), "internal error");
}

// The real camera photos, when the folder is there.
TEST(RealPhotoTest, EveryPhotoConvertsAndThumbnailsComeFromTheirExif) {
    const std::string folder = VARNELO_PHOTOS_DIR;
    struct Photo {
        const char* name;
        int width;
        int height;
        bool embedded;
    };
    const Photo photos[] = {
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
    if (!FileExists(DirPlusFile(folder, "Canon_40D.jpg"))) {
        GTEST_SKIP() << "no photo folder at " << folder;
    }
    TempDir tmp;
    std::vector<ImageFields> downsample;
    std::vector<ImageFields> thumbnails;
    int id = 0;
    for (const Photo& photo : photos) {
        const std::string src = DirPlusFile(folder, photo.name);
        downsample.push_back(With(Image(id, src, tmp.Path(std::string("d_") + photo.name)),
                                  "resolution", "i4", "64"));
        thumbnails.push_back(Image(id, src, tmp.Path(std::string("t_") + photo.name)));
        ++id;
    }
    const std::vector<ImageAnswer> converted =
        Ask(ImageCall("upload.downsampleRequest", downsample));
    const std::vector<ImageAnswer> thumbs = Ask(ImageCall("upload.thumbnailRequest", thumbnails));
    ASSERT_EQ(converted.size(), std::size(photos));
    ASSERT_EQ(thumbs.size(), std::size(photos));

    for (std::size_t i = 0; i < std::size(photos); ++i) {
        const Photo& photo = photos[i];
        SCOPED_TRACE(photo.name);
        const std::string source = ReadFileBytes(DirPlusFile(folder, photo.name));
        const std::string small = ReadFileBytes(tmp.Path(std::string("d_") + photo.name));
        const DecodedJpeg decoded = DecodeJpeg(small);
        ASSERT_TRUE(decoded.ok);
        EXPECT_EQ(std::max(decoded.width, decoded.height), 64);
        EXPECT_EQ(ReadSegments(small), ReadSegments(source));
        if (std::string(photo.name) == "corrupted.jpg") {
            // Its entropy data ends early: converted, but reported as library warnings.
            EXPECT_EQ(converted[i].values.at("failureReason"), "jpeg library warning(s)");
        } else {
            EXPECT_EQ(converted[i].members, kSuccess);
            EXPECT_EQ(converted[i].values.at("originalImage/resolution/width"),
                      ToString(photo.width));
            EXPECT_EQ(converted[i].values.at("originalImage/resolution/height"),
                      ToString(photo.height));
        }

        EXPECT_EQ(thumbs[i].values.at("success"), "1");
        const std::string thumb = ReadFileBytes(tmp.Path(std::string("t_") + photo.name));
        ASSERT_GE(thumb.size(), 4u);
        if (photo.embedded) {
            std::string exif;
            for (const Segment& segment : ReadSegments(source)) {
                if (segment.marker == 0xE1 &&
                    segment.data.compare(0, 6, std::string("Exif\0\0", 6)) == 0) {
                    exif = segment.data;
                    break;
                }
            }
            EXPECT_NE(exif.find(thumb), std::string::npos) << "the embedded bytes, verbatim";
            EXPECT_EQ(thumb.substr(0, 2), "\xFF\xD8");
        } else {
            const DecodedJpeg made = DecodeJpeg(thumb);
            ASSERT_TRUE(made.ok);
            EXPECT_EQ(std::max(made.width, made.height), 72);
            EXPECT_TRUE(ReadSegments(thumb).empty());
        }
    }
}

}  // namespace
}  // namespace Varnelo
