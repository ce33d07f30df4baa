// The server as the client sees it through the pipes: framing, shutdown and requests too large.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
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

// A burst answered by every worker at once: each answer whole and once, none interleaved.
TEST(ServerTest, ExitMidRequestDropsItButQueuedWorkIsAnswered) {
    ServiceProcess service(VARNELO_BIN);
    const std::string semaphore = SemaphoreFile(service.pid());
    std::string burst;
    for (int i = 0; i < 1000; ++i) burst += kInfo;
    service.Send(burst + "<methodCall>\n<methodName>upload.close</methodName>\nexit\n");
    EXPECT_EQ(service.ReadResponses(1001, 10000), std::vector<std::string>(1000, kNoPicasa));
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

}  // namespace
}  // namespace Varnelo
