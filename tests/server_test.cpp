// The server as the client sees it through the pipes: framing, shutdown, load and faults.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "fsutils.h"
#include "support/jpeg_fixtures.h"
#include "support/service_process.h"
#include "utils.h"

namespace Varnelo {
namespace {

const std::string kClose = Request("upload.close");
const std::string kInfo = Request("upload.installInfoRequest");
const std::string kConnect = Request("upload.connect", "<param/>\n");

// The file of the queue's semaphore: "jprocsem_" and the pid, cut to 15 characters.
std::string SemaphoreFile(pid_t pid) {
    return "/dev/shm/sem." + ("jprocsem_" + ToString(pid)).substr(0, 15);
}

TEST(ServerTest, CloseEndsTheServiceOnlyOnceInputEnds) {
    ServiceProcess service(VARNELO_BIN);
    service.Send(kClose);
    EXPECT_EQ(service.ReadResponses(1), std::vector<std::string>{kDone});
    Sleep_ms(200);
    service.Send(kInfo + kConnect);
    EXPECT_EQ(service.ReadResponses(2).size(), 2u) << "the other workers still serve";
    EXPECT_EQ(service.Wait(100), -1);
    service.CloseInput();
    EXPECT_EQ(service.Wait(3000), 0);
    EXPECT_EQ(service.ReadRest(1000), "") << "nothing but responses on standard output";
}

TEST(ServerTest, FramingDropsEmptyLinesAndSplitsOnlyAtABareStar) {
    ServiceProcess service(VARNELO_BIN);
    const std::string semaphore = SemaphoreFile(service.pid());
    service.Send(
        "\n\n*\n<methodCall>\n\n<methodName>upload.installInfoRequest</methodName>\n\n"
        "</methodCall>\n\n*\n");
    EXPECT_EQ(service.ReadResponses(1), std::vector<std::string>{kNoPicasa});
    EXPECT_TRUE(FileExists(semaphore)) << "the queue's semaphore exists while serving";
    // A "*" followed by a carriage return is an ordinary line.
    service.Send(kConnect.substr(0, kConnect.size() - 2) + "*\r\n");
    EXPECT_TRUE(service.ReadResponses(1, 400).empty());
    service.Send("*\n");
    EXPECT_EQ(service.ReadResponses(1), std::vector<std::string>{kConnected});
    // Input ending without "*" is still a request; with no worker ended the service waits.
    service.Send(kInfo.substr(0, kInfo.size() - 2));
    service.CloseInput();
    EXPECT_EQ(service.ReadResponses(1), std::vector<std::string>{kNoPicasa});
    EXPECT_EQ(service.Wait(400), -1);
}

TEST(ServerTest, ExitMidRequestDropsItButQueuedWorkIsAnswered) {
    ServiceProcess service(VARNELO_BIN);
    const std::string semaphore = SemaphoreFile(service.pid());
    std::string burst;
    for (int i = 0; i < 40; ++i) burst += kInfo;
    service.Send(burst + "<methodCall>\n<methodName>upload.close</methodName>\nexit\n");
    EXPECT_EQ(service.ReadResponses(41, 10000), std::vector<std::string>(40, kNoPicasa));
    EXPECT_EQ(service.Wait(5000), 0);
    EXPECT_FALSE(FileExists(semaphore)) << "the semaphore goes with the service";
}

// Whatever comes while a request of many photos runs side by side (an "exit" line, a close
// request then the end of input, or the end of input alone, which stops nothing), the request
// runs to its end: every photo answered, every copy whole; the service then stops in order.
class StopDuringManyPhotosTest : public ::testing::TestWithParam<const char*> {};

TEST_P(StopDuringManyPhotosTest, AnswersTheRequestWholeAndStopsInOrder) {
    TempDir tmp;
    JpegShape shape{1600, 1200};
    shape.photographic = true;
    const std::string src = tmp.Write("p.jpg", EncodeJpeg(shape));
    std::string params;
    for (int i = 0; i < 12; ++i) params += ImageParam(i, src, tmp.Path(ToString(i) + ".jpg"));
    ServiceProcess service(VARNELO_BIN);
    service.Send(Request("upload.downsampleRequest", params));
    const std::string how = GetParam();
    if (how == "exit") service.Send("exit\n");
    if (how == "close") service.Send(kClose);
    service.CloseInput();
    std::vector<std::string> responses = service.ReadResponses(how == "close" ? 2 : 1);
    responses.erase(std::remove(responses.begin(), responses.end(), kDone), responses.end());
    ASSERT_EQ(responses.size(), 1u);
    const std::vector<ImageAnswer> answers = ImageAnswers(responses[0]);
    ASSERT_EQ(answers.size(), 12u);
    for (int i = 0; i < 12; ++i) {
        EXPECT_EQ(answers[i].values.at("success"), "1") << i;
        EXPECT_EQ(DecodeJpeg(ReadFileBytes(tmp.Path(ToString(i) + ".jpg"))).width, 640) << i;
    }
    EXPECT_EQ(service.Wait(how == "end" ? 300 : 10000), how == "end" ? -1 : 0);
}

INSTANTIATE_TEST_SUITE_P(Ways, StopDuringManyPhotosTest, ::testing::Values("exit", "end", "close"),
                         [](const auto& p) { return std::string(p.param); });

TEST(ServerTest, OversizedRequestIsDroppedAndTheNextOneAnswered) {
    PrivateService copy;
    ServiceProcess service(copy.Binary(), {"-l", "9"});
    // Lines far beyond 1023 characters are fine...
    service.Send(Request("service.erase", "<param><value><array><data/></array></value></param>" +
                                              std::string(200000, ' ') + "\n"));
    ASSERT_EQ(service.ReadResponses(1), std::vector<std::string>{kDone});
    // ...but a line past 1 MiB, or a request past 16 MiB, drops its whole request.
    std::string huge = "<methodCall>\n<methodName>upload.close</methodName>\n";
    for (int i = 0; i < 17; ++i) huge += "<!--" + std::string(1000000, 'y') + "-->\n";
    service.Send("<methodCall>\n<methodName>upload.close</methodName>\n" +
                 std::string((1u << 20) + 10, 'x') + "\n</methodCall>\n*\n" + huge +
                 "</methodCall>\n*\n" + kInfo);
    EXPECT_EQ(service.ReadResponses(1), std::vector<std::string>{kNoPicasa});
    service.Send("exit\n");
    EXPECT_EQ(service.Wait(5000), 0);
    const std::vector<std::string> lines = copy.LogLines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "StdioThread request too long, dropped"), 2);
}

// An image request at size 64; with an empty source, one without paths.
std::string Image(const std::string& method, int id, const std::string& src,
                  const std::string& dst) {
    const std::string size = Member("resolution", "i4", "64");
    return Request(method, src.empty()
                               ? "<param><value><struct>" + Member("imageId", "i4", ToString(id)) +
                                     "</struct></value></param>\n"
                               : ImageParam(id, src, dst, size));
}

// 2,000 requests back to back, one in four hostile, with large conversions keeping every worker
// busy: each request due an answer gets exactly one, whole, and the service then stops in order.
// (How each kind of bad request is answered alone is tested in-process.)
TEST(ServerTest, TwoThousandRequestsAQuarterHostileAreEachAnsweredOnce) {
    TempDir tmp;
    mkdir(tmp.Path("out").c_str(), 0777);
    const std::string big = tmp.Write("big.jpg", EncodeJpeg({1600, 1200}));
    const std::string small = tmp.Write("small.jpg", EncodeJpeg({160, 120}));
    const std::string cut = tmp.Write("cut.jpg", TruncateInScan(EncodeJpeg({320, 240})));
    std::string nested;
    for (int i = 0; i < 300; ++i) nested += "<a>";
    const std::string down = "upload.downsampleRequest", thumb = "upload.thumbnailRequest";

    // An image request (method, source, failure reason or "" for success), or a text to send
    // and the whole answer it gets ("" for none).
    struct Kind {
        std::string method, src, reason, text = "", answer = "";
    };
    const std::vector<Kind> good = {{down, small, ""},
                                    {thumb, small, ""},
                                    {down, small, ""},
                                    {"", "", "", kConnect, kConnected},
                                    {"", "", "", kInfo, kNoPicasa}};
    const std::vector<Kind> hostile = {
        {"", "", "", "not xml < at > all &\n*\n", ""},
        {"", "", "", Request("upload.close", "<?pi >" + nested + "?>"), ""},  // refused: too deep
        {"", "", "", std::string("<methodCall>\0", 13) + kInfo.substr(kInfo.find("<methodN")), ""},
        {down, "", "internal error"},  // no paths at all
        {down, cut, "jpeg library warning(s)"},
        {"", "", "", Request(down, "<param/>\n"),
         "<methodResponse>\n <params />\n</methodResponse>\n"}};

    std::map<int, std::string> due;    // imageId -> failure reason
    std::multiset<std::string> other;  // whole answers due
    std::string input;
    for (int i = 0; i < 2000; ++i) {
        const Kind& kind = i % 4 == 3 ? hostile[(i / 4) % hostile.size()]
                           : i < 12   ? Kind{down, big, ""}
                                      : good[i % good.size()];
        if (kind.method.empty()) {
            input += kind.text;
            if (!kind.answer.empty()) other.insert(kind.answer);
            continue;
        }
        input += Image(kind.method, i, kind.src, tmp.Path("out/" + ToString(i) + ".jpg"));
        due[i] = kind.reason;
    }
    ServiceProcess service(VARNELO_BIN);
    service.Send(input);
    const std::size_t expected = due.size() + other.size();
    const std::vector<std::string> responses = service.ReadResponses(expected, 120000);
    service.Send(kClose);
    EXPECT_EQ(service.ReadResponses(1), std::vector<std::string>{kDone});
    service.CloseInput();
    EXPECT_EQ(service.Wait(10000), 0);
    EXPECT_EQ(service.ReadRest(1000), "");

    ASSERT_EQ(responses.size(), expected);
    for (const std::string& response : responses) {
        if (other.count(response) != 0) {
            other.erase(other.find(response));
            continue;
        }
        const std::vector<ImageAnswer> answers = ImageAnswers(response);
        ASSERT_EQ(answers.size(), 1u) << response;
        const std::map<std::string, std::string>& answer = answers[0].values;
        ASSERT_EQ(answer.count("imageId"), 1u) << response;
        const auto id = due.find(std::stoi(answer.at("imageId")));
        ASSERT_NE(id, due.end()) << response << "answered twice or never asked";
        EXPECT_EQ(answer.at("success"), id->second.empty() ? "1" : "0") << id->first;
        EXPECT_EQ(answer.count("failureReason") ? answer.at("failureReason") : "", id->second);
        due.erase(id);
    }
    EXPECT_TRUE(other.empty());
}

}  // namespace
}  // namespace Varnelo
