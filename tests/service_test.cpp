// Starts the built service with pipes and speaks the protocol, as the client does.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tinyxml.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "fsutils.h"
#include "support/jpeg_fixtures.h"
#include "support/service_process.h"
#include "support/temp_dir.h"
#include "thread.h"
#include "utils.h"
#include "xmlrpc.h"

namespace Varnelo {
namespace {

std::string Call(const std::string& method, const std::string& params = "") {
    return "<?xml version=\"1.0\"?>\n<methodCall>\n<methodName>" + method + "</methodName>\n" +
           params + "</methodCall>\n";
}

const std::string kClose = Call("upload.close") + "*\n";
const std::string kDone =
    "<methodResponse>\n <params>\n  <param>\n   <value>\n    <string>done</string>\n"
    "   </value>\n  </param>\n </params>\n</methodResponse>\n";
const std::string kInfo = Call("upload.installInfoRequest") + "*\n";
const std::string kConnect = Call("upload.connect", "<params><param/></params>") + "*\n";
const std::string kErase =
    Call("service.erase", "<params><param><value><array><data/></array></value></param></params>") +
    "*\n";

// The response the message layer gives for a framed request.
std::string Expected(const std::string& framed) {
    XMLRPC rpc;
    rpc.Parse(framed.substr(0, framed.size() - 2));
    rpc.Execute();
    return rpc.GetResponse();
}

// A copy of the service in a private folder, so that its log file lands there.
class PrivateCopy {
  public:
    PrivateCopy() : m_binary(m_dir.Path("varnelo")) {
        std::filesystem::copy_file(VARNELO_BIN, m_binary);
        chmod(m_binary.c_str(), 0755);
    }
    const std::string& binary() const { return m_binary; }
    std::string LogPath() const { return m_dir.Path("log"); }
    std::vector<std::string> LogLines() const { return Lines(ReadFileBytes(LogPath())); }

  private:
    TempDir m_dir;
    std::string m_binary;
};

TEST(ServiceTest, CloseEndsTheServiceOnlyOnceInputEnds) {
    ServiceProcess service(VARNELO_BIN);
    service.Send(kClose);
    EXPECT_EQ(service.ReadResponses(1), std::vector<std::string>{Expected(kClose)});
    Sleep_ms(200);
    service.Send(kInfo + kConnect);
    EXPECT_EQ(service.ReadResponses(2).size(), 2u) << "the other workers still serve";
    EXPECT_EQ(service.Wait(100), -1);
    service.CloseInput();
    EXPECT_EQ(service.Wait(3000), 0);
    EXPECT_EQ(service.ReadRest(1000), "") << "nothing but responses on standard output";
}

TEST(ServiceTest, FramingDropsEmptyLinesAndSplitsOnlyAtABareStar) {
    ServiceProcess service(VARNELO_BIN);
    service.Send(
        "\n\n*\n<methodCall>\n\n<methodName>upload.installInfoRequest</methodName>\n\n"
        "</methodCall>\n\n*\n");
    EXPECT_EQ(service.ReadResponses(1), std::vector<std::string>{Expected(kInfo)});
    // A "*" followed by a carriage return is an ordinary line.
    service.Send(kConnect.substr(0, kConnect.size() - 2) + "*\r\n");
    EXPECT_TRUE(service.ReadResponses(1, 400).empty());
    service.Send("*\n");
    EXPECT_EQ(service.ReadResponses(1), std::vector<std::string>{Expected(kConnect)});
    // Input ending without "*" is still a request; with no worker ended the service waits.
    service.Send(Call("upload.installInfoRequest"));
    service.CloseInput();
    EXPECT_EQ(service.ReadResponses(1), std::vector<std::string>{Expected(kInfo)});
    EXPECT_EQ(service.Wait(400), -1);
}

TEST(ServiceTest, ExitMidRequestDropsItButQueuedWorkIsAnswered) {
    ServiceProcess service(VARNELO_BIN);
    std::string burst;
    for (int i = 0; i < 40; ++i) burst += kInfo;
    service.Send(burst + "<methodCall>\n<methodName>upload.close</methodName>\nexit\n");
    EXPECT_EQ(service.ReadResponses(41, 10000), std::vector<std::string>(40, Expected(kInfo)));
    EXPECT_EQ(service.Wait(5000), 0);
}

TEST(ServiceTest, BurstOfRequestsIsAnsweredOnceEachNeverInterleaved) {
    ServiceProcess service(VARNELO_BIN);
    std::string burst;
    for (int i = 0; i < 100; ++i) burst += kConnect + kInfo + kErase;
    service.Send(burst);
    const std::vector<std::string> responses = service.ReadResponses(300, 30000);
    ASSERT_EQ(responses.size(), 300u);
    for (const std::string& request : {kConnect, kInfo, kErase}) {
        EXPECT_EQ(std::count(responses.begin(), responses.end(), Expected(request)), 100);
    }
    service.Send("exit\n");
    EXPECT_EQ(service.Wait(5000), 0);
    EXPECT_EQ(service.ReadRest(1000), "");
}

TEST(ServiceTest, OversizedRequestIsDroppedAndTheNextOneAnswered) {
    PrivateCopy copy;
    ServiceProcess service(copy.binary(), {"-l", "9"});
    // Lines far beyond 1023 characters are fine...
    const std::string longPath = "/" + std::string(200000, 'p');
    service.Send(Call("service.erase", "<params><param><value><array><data><value><string>" +
                                           longPath +
                                           "</string></value></data></array></value>"
                                           "</param></params>") +
                 "*\n");
    ASSERT_EQ(service.ReadResponses(1).size(), 1u);
    // ...but a line past 1 MiB, or a request past 16 MiB, drops its whole request.
    std::string huge = "<methodCall>\n<methodName>upload.close</methodName>\n";
    for (int i = 0; i < 17; ++i) huge += "<!--" + std::string(1000000, 'y') + "-->\n";
    service.Send("<methodCall>\n<methodName>upload.close</methodName>\n" +
                 std::string((1u << 20) + 10, 'x') + "\n</methodCall>\n*\n" + huge +
                 "</methodCall>\n*\n" + kInfo);
    EXPECT_EQ(service.ReadResponses(1), std::vector<std::string>{Expected(kInfo)});
    service.Send("exit\n");
    EXPECT_EQ(service.Wait(5000), 0);
    const std::vector<std::string> lines = copy.LogLines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "StdioThread request too long, dropped"), 2);
}

TEST(ServiceTest, HelpPrintsUsageOnStandardErrorAndExitsWithOne) {
    ServiceProcess service(VARNELO_BIN, {"-h"});
    EXPECT_EQ(service.Wait(3000), 1);
    EXPECT_EQ(service.ReadRest(1000), "");
    EXPECT_EQ(service.Stderr(), std::string("usage: ") + VARNELO_BIN +
                                    " [switches]\nSwitches:\n  -l    set debug level\n"
                                    "  -h    print this help\n");
}

TEST(ServiceTest, LogFileLiesBesideTheExecutableAndFollowsTheLevel) {
    PrivateCopy copy;
    {
        ServiceProcess service(copy.binary(), {"-l", "9"});
        service.Send(kClose);
        ASSERT_EQ(service.ReadResponses(1).size(), 1u);
        service.CloseInput();
        ASSERT_EQ(service.Wait(3000), 0);
    }
    const std::vector<std::string> lines = copy.LogLines();
    ASSERT_GT(lines.size(), 10u);
    EXPECT_EQ(lines[0], "Debug level=9");
    EXPECT_EQ(lines[1], "Num of physical cores=" + ToString(GetNumOfCores()));
    const auto at = [&](const std::string& line) {
        return std::find(lines.begin(), lines.end(), line) - lines.begin();
    };
    EXPECT_LT(at("StdioTask::XML_SHUTDOWN"), at("Detect terminating"));
    EXPECT_LT(at("Detect terminating"), at("-disconnect stdio"));
    EXPECT_LT(at("-disconnect stdio"), at("CServer::Stop"));
    EXPECT_EQ(std::vector<std::string>(lines.end() - 4, lines.end()),
              (std::vector<std::string>{"CServer::Delete", "", "Bye.", ""}));
    EXPECT_EQ(at("methodName: upload.close"), static_cast<long>(lines.size()))
        << "level 12 is above threshold 9";
}

TEST(ServiceTest, UnknownSwitchesAreLoggedWithTheLiteralCutByPosition) {
    PrivateCopy copy;
    ServiceProcess quiet(copy.binary(), {"-x"});
    quiet.Send("exit\n");
    ASSERT_EQ(quiet.Wait(3000), 0);
    EXPECT_FALSE(FileExists(copy.LogPath())) << "level 0 creates no log file";

    ServiceProcess service(copy.binary(), {"-l", "20", "-x", "--", "-long"});
    service.Send("exit\n");
    ASSERT_EQ(service.Wait(3000), 0);
    const std::vector<std::string> lines = copy.LogLines();
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 3),
              (std::vector<std::string>{"Debug level=20", "or in switches ", "r in switches "}));
}

TEST(ServiceTest, NamedSemaphoreExistsOnlyWhileServing) {
    ServiceProcess service(VARNELO_BIN);
    const std::string semaphore = "/dev/shm/sem.jprocsem_" + ToString(service.pid());
    service.Send(kInfo);
    ASSERT_EQ(service.ReadResponses(1).size(), 1u);
    EXPECT_TRUE(FileExists(semaphore));
    service.Send("exit\n");
    ASSERT_EQ(service.Wait(3000), 0);
    EXPECT_FALSE(FileExists(semaphore));
}

TEST(ServiceTest, GarbageNeverTakesTheServiceDown) {
    ServiceProcess service(VARNELO_BIN);
    std::string garbage;
    for (int i = 0; i < 4096; ++i) garbage += static_cast<char>((i * 7919) % 256);
    service.Send(garbage + "\n*\n" + kInfo);
    EXPECT_EQ(service.ReadResponses(2, 1000), std::vector<std::string>{Expected(kInfo)});
    service.Send("exit\n");
    EXPECT_EQ(service.Wait(3000), 0);
}

// The members of an image answer by name, or empty when the text is not a whole response.
std::map<std::string, std::string> ImageAnswerOf(const std::string& response, int& params) {
    std::map<std::string, std::string> members;
    TiXmlDocument doc;
    doc.Parse(response.c_str());
    params = 0;
    if (doc.Error()) return members;
    TiXmlElement* param = TiXmlHandle(&doc)
                              .FirstChildElement("methodResponse")
                              .FirstChildElement("params")
                              .FirstChildElement("param")
                              .Element();
    for (; param != nullptr; param = param->NextSiblingElement("param")) ++params;
    TiXmlElement* fields = TiXmlHandle(&doc)
                               .FirstChildElement("methodResponse")
                               .FirstChildElement("params")
                               .FirstChildElement("param")
                               .FirstChildElement("value")
                               .FirstChildElement("struct")
                               .Element();
    for (TiXmlElement* m = fields != nullptr ? fields->FirstChildElement("member") : nullptr;
         m != nullptr; m = m->NextSiblingElement("member")) {
        TiXmlElement* typed = m->FirstChildElement("value")->FirstChildElement();
        members[m->FirstChildElement("name")->GetText()] =
            typed->GetText() != nullptr ? typed->GetText() : "";
    }
    return members;
}

std::string ImageRequest(const std::string& method, int id, const std::string& src,
                         const std::string& dst) {
    std::string fields =
        "<member><name>imageId</name><value><i4>" + ToString(id) + "</i4></value></member>";
    if (!src.empty()) {
        fields += "<member><name>sourcePath</name><value><string>" + src +
                  "</string></value></member><member><name>destPath</name><value><string>" + dst +
                  "</string></value></member><member><name>resolution</name><value><i4>64</i4>"
                  "</value></member>";
    }
    return Call(method,
                "<params><param><value><struct>" + fields + "</struct></value></param></params>") +
           "*\n";
}

// 2,000 requests back to back, one in four hostile, with large conversions keeping every worker
// busy: each request due an answer gets exactly one, whole, and the service then stops in order.
TEST(ServiceTest, TwoThousandRequestsAQuarterHostileAreEachAnsweredOnce) {
    TempDir tmp;
    mkdir(tmp.Path("out").c_str(), 0777);
    const std::string big = tmp.Write("big.jpg", EncodeJpeg({1600, 1200}));
    const std::string small = tmp.Write("small.jpg", EncodeJpeg({160, 120}));
    const std::string text = tmp.Write("text.jpg", std::string(3000, 't'));
    const std::string cut = tmp.Write("cut.jpg", TruncateInScan(EncodeJpeg({320, 240})));
    ExifBlock past = BuildExif({320, 240, EncodeJpeg({40, 30})});
    past.Put(past.thumbOffsetEntry + 8, 0xFFFFFF00);  // the thumbnail lies far past the block
    const std::string exif = tmp.Write("exif.jpg", EncodeJpeg({320, 240}, {{0xE1, past.payload}}));
    std::string nested;
    for (int i = 0; i < 300; ++i) nested += "<a>";
    const std::string deep = Call("upload.close", "<?pi >" + nested + "?>");

    std::map<int, std::string> due;  // imageId -> failure reason, "" for success
    int housekeeping = 0;
    int empty = 0;
    std::string input;
    for (int i = 0; i < 2000; ++i) {
        const std::string dst = tmp.Path("out/" + ToString(i) + ".jpg");
        const int kind = i % 4 == 3 ? 10 + (i / 4) % 9 : i < 12 ? 0 : i % 5;
        switch (kind) {
            case 0:  // a large conversion
                input += ImageRequest("upload.downsampleRequest", i, big, dst);
                due[i] = "";
                break;
            case 1:
            case 2:
                input += ImageRequest("upload.downsampleRequest", i, small, dst);
                due[i] = "";
                break;
            case 3:
                input += ImageRequest("upload.thumbnailRequest", i, small, dst);
                due[i] = "";
                break;
            case 4:
                input += i % 2 == 0 ? kConnect : kInfo;
                ++housekeeping;
                break;
            case 10:
                input += "not xml < at > all &\n*\n";
                break;
            case 11:
                input += deep + "*\n";
                break;
            case 12:
                input +=
                    std::string("<methodCall>\0", 13) + kInfo.substr(kInfo.find("<methodName>"));
                break;
            case 13:  // a 5 MiB line drops its request
                input += i < 150 ? kInfo.substr(0, kInfo.size() - 2) + std::string(5 << 20, ' ') +
                                       "\n*\n"
                                 : "<methodCall/>\n*\n";
                break;
            case 14:
                input += ImageRequest("upload.downsampleRequest", i, "", "");
                due[i] = "internal error";
                break;
            case 15:
                input += ImageRequest("upload.downsampleRequest", i, text, dst);
                due[i] = "jpeg resampling error";
                break;
            case 16:
                input += ImageRequest("upload.downsampleRequest", i, cut, dst);
                due[i] = "jpeg library warning(s)";
                break;
            case 17:
                input += ImageRequest("upload.thumbnailRequest", i, exif, dst);
                due[i] = "";
                break;
            default:  // answered with no image at all
                input += Call("upload.downsampleRequest", "<params><param/></params>") + "*\n";
                ++empty;
                break;
        }
    }
    ServiceProcess service(VARNELO_BIN);
    service.Send(input);
    const std::size_t expected = due.size() + housekeeping + empty;
    const std::vector<std::string> responses = service.ReadResponses(expected, 120000);
    service.Send(kClose);
    EXPECT_EQ(service.ReadResponses(1), std::vector<std::string>{kDone});
    service.CloseInput();
    EXPECT_EQ(service.Wait(10000), 0);
    EXPECT_EQ(service.ReadRest(1000), "");

    ASSERT_EQ(responses.size(), expected);
    std::map<int, int> answered;
    int answeredHousekeeping = 0;
    int answeredEmpty = 0;
    for (const std::string& response : responses) {
        int params = 0;
        std::map<std::string, std::string> answer = ImageAnswerOf(response, params);
        if (params == 0 && response == "<methodResponse>\n <params />\n</methodResponse>\n") {
            ++answeredEmpty;
            continue;
        }
        ASSERT_EQ(params, 1) << response;
        if (answer.count("imageId") == 0) {
            ++answeredHousekeeping;
            continue;
        }
        const int id = std::stoi(answer["imageId"]);
        ++answered[id];
        ASSERT_EQ(due.count(id), 1u) << id;
        EXPECT_EQ(answer["success"], due[id].empty() ? "1" : "0") << id;
        EXPECT_EQ(answer["failureReason"], due[id]) << id;
    }
    EXPECT_EQ(answeredHousekeeping, housekeeping);
    EXPECT_EQ(answeredEmpty, empty);
    EXPECT_EQ(answered.size(), due.size());
    for (const auto& [id, times] : answered) EXPECT_EQ(times, 1) << id;
}

// Faults of the file system fail their one image; the service goes on answering.
TEST(ServiceTest, DiskAndFileFaultsFailOnlyTheirImage) {
    TempDir tmp;
    const std::string photo = tmp.Write("photo.jpg", EncodeJpeg({800, 600}));
    const bool full =
        symlink("/dev/full", tmp.Path("full.jpg").c_str()) == 0 && access("/dev/full", W_OK) == 0;
    ServiceProcess service(VARNELO_BIN);
    const auto reason = [&](const std::string& request) {
        service.Send(request);
        const std::vector<std::string> responses = service.ReadResponses(1);
        int params = 0;
        return responses.empty() ? std::string("no answer")
                                 : ImageAnswerOf(responses[0], params)["failureReason"];
    };
    if (full) {
        EXPECT_EQ(reason(ImageRequest("upload.downsampleRequest", 1, photo, tmp.Path("full.jpg"))),
                  "jpeg resampling error");
    }
    EXPECT_EQ(reason(ImageRequest("upload.downsampleRequest", 2, photo, "/proc/varnelo/x.jpg")),
              "create destination file error");

    // Four conversions of one source at once.
    for (int i = 0; i < 4; ++i) {
        service.Send(ImageRequest("upload.downsampleRequest", 10 + i, photo,
                                  tmp.Path("copy" + ToString(i) + ".jpg")));
    }
    const std::vector<std::string> copies = service.ReadResponses(4);
    ASSERT_EQ(copies.size(), 4u);
    for (const std::string& response : copies) {
        int params = 0;
        EXPECT_EQ(ImageAnswerOf(response, params)["success"], "1");
    }
    for (int i = 1; i < 4; ++i) {
        EXPECT_EQ(ReadFileBytes(tmp.Path("copy" + ToString(i) + ".jpg")),
                  ReadFileBytes(tmp.Path("copy0.jpg")));
    }

    // The source is removed between two requests.
    service.Send(Call("service.erase", "<params><param><value><array><data><value><string>" +
                                           photo +
                                           "</string></value></data></array></value>"
                                           "</param></params>") +
                 "*\n");
    EXPECT_EQ(service.ReadResponses(1).size(), 1u);
    EXPECT_EQ(reason(ImageRequest("upload.downsampleRequest", 20, photo, tmp.Path("gone.jpg"))),
              "internal error");
    service.Send("exit\n");
    EXPECT_EQ(service.Wait(5000), 0);
}

}  // namespace
}  // namespace Varnelo
