// Starts the built service with pipes and speaks the protocol, as the client does.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "fsutils.h"
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
const std::string kInstallInfo = Call("upload.installInfoRequest") + "*\n";
const std::string kConnect =
    Call("upload.connect", "<params><param><value><struct/></value></param></params>") + "*\n";
const std::string kEraseNothing =
    Call("service.erase", "<params><param><value><array><data/></array></value></param></params>") +
    "*\n";

const char kDone[] =
    "<methodResponse>\n <params>\n  <param>\n   <value>\n    <string>done</string>\n   </value>\n"
    "  </param>\n </params>\n</methodResponse>\n";

bool IsInstallInfoAnswer(const std::string& response) {
    return response.find("<name>picasaInstalled</name>") != std::string::npos;
}

bool IsConnectAnswer(const std::string& response) {
    return response.find("<name>currentVersion</name>") != std::string::npos;
}

// The response the message layer gives for `request` (framed with its "*" line).
std::string AnswerInProcess(const std::string& request) {
    XMLRPC rpc;
    rpc.Parse(request.substr(0, request.size() - 2));
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
    std::string Log() const { return ReadFileBytes(LogPath()); }

  private:
    TempDir m_dir;
    std::string m_binary;
};

TEST(ServiceTest, AnswersHousekeepingAndEndsAfterCloseAndEndOfInput) {
    ServiceProcess service(VARNELO_BIN);
    service.Send(kConnect + kInstallInfo);
    std::vector<std::string> responses = service.ReadResponses(2);
    ASSERT_EQ(responses.size(), 2u);
    service.Send(kClose);
    responses = service.ReadResponses(1);
    ASSERT_EQ(responses.size(), 1u);
    EXPECT_EQ(responses[0], kDone);
    service.CloseInput();
    EXPECT_EQ(service.Wait(3000), 0);
    EXPECT_EQ(service.ReadRest(1000), "") << "nothing but responses on standard output";
}

TEST(ServiceTest, FramingDropsEmptyLinesAndSplitsOnlyAtABareStar) {
    ServiceProcess service(VARNELO_BIN);
    // Empty lines anywhere, and a "*" with nothing collected, produce no request.
    service.Send(
        "\n\n*\n<methodCall>\n\n<methodName>upload.installInfoRequest</methodName>\n\n"
        "</methodCall>\n\n*\n");
    std::vector<std::string> responses = service.ReadResponses(1);
    ASSERT_EQ(responses.size(), 1u);
    EXPECT_TRUE(IsInstallInfoAnswer(responses[0]));

    // A "*" followed by a carriage return is an ordinary line.
    service.Send(
        "<methodCall><methodName>upload.connect</methodName><params><param/></params>"
        "</methodCall>\n*\r\n");
    EXPECT_TRUE(service.ReadResponses(1, 400).empty());
    service.Send("*\n");
    responses = service.ReadResponses(1);
    ASSERT_EQ(responses.size(), 1u);
    EXPECT_TRUE(IsConnectAnswer(responses[0]));

    service.Send(kClose);
    ASSERT_EQ(service.ReadResponses(1).size(), 1u);
    service.CloseInput();
    EXPECT_EQ(service.Wait(3000), 0);
}

TEST(ServiceTest, InputEndingWithoutStarIsStillAnsweredAndServiceWaits) {
    ServiceProcess service(VARNELO_BIN);
    service.Send(Call("upload.installInfoRequest"));
    service.CloseInput();
    const std::vector<std::string> responses = service.ReadResponses(1);
    ASSERT_EQ(responses.size(), 1u);
    EXPECT_TRUE(IsInstallInfoAnswer(responses[0]));
    // No worker has ended, so the service keeps polling rather than exiting.
    EXPECT_EQ(service.Wait(400), -1);
}

TEST(ServiceTest, ExitMidRequestDropsItButQueuedWorkIsAnswered) {
    ServiceProcess service(VARNELO_BIN);
    std::string burst;
    for (int i = 0; i < 40; ++i) burst += kInstallInfo;
    service.Send(burst + "<methodCall>\n<methodName>upload.close</methodName>\nexit\n");
    const std::vector<std::string> responses = service.ReadResponses(41, 10000);
    EXPECT_EQ(responses.size(), 40u);
    for (const std::string& response : responses) EXPECT_TRUE(IsInstallInfoAnswer(response));
    EXPECT_EQ(service.Wait(5000), 0);
}

TEST(ServiceTest, CloseWithInputStillOpenKeepsServing) {
    ServiceProcess service(VARNELO_BIN);
    service.Send(kClose);
    ASSERT_EQ(service.ReadResponses(1).size(), 1u);
    Sleep_ms(200);
    service.Send(kInstallInfo + kConnect);
    const std::vector<std::string> responses = service.ReadResponses(2);
    ASSERT_EQ(responses.size(), 2u);
    EXPECT_EQ(service.Wait(100), -1) << "still running while its input is open";
    service.CloseInput();
    EXPECT_EQ(service.Wait(3000), 0);
}

TEST(ServiceTest, BurstOfRequestsIsAnsweredOnceEachNeverInterleaved) {
    PrivateCopy copy;
    ServiceProcess service(copy.binary(), {"-l", "9"});
    std::string burst;
    for (int i = 0; i < 100; ++i) burst += kConnect + kInstallInfo + kEraseNothing;
    service.Send(burst);
    const std::vector<std::string> responses = service.ReadResponses(300, 30000);
    ASSERT_EQ(responses.size(), 300u);
    const std::string connectAnswer = AnswerInProcess(kConnect);
    const std::string infoAnswer = AnswerInProcess(kInstallInfo);
    int connects = 0;
    int infos = 0;
    int dones = 0;
    for (const std::string& response : responses) {
        connects += response == connectAnswer;
        infos += response == infoAnswer;
        dones += response == kDone;
    }
    EXPECT_EQ(connects, 100);
    EXPECT_EQ(infos, 100);
    EXPECT_EQ(dones, 100);
    service.Send(kClose);
    ASSERT_EQ(service.ReadResponses(1).size(), 1u);
    service.CloseInput();
    EXPECT_EQ(service.Wait(5000), 0);
    EXPECT_EQ(service.ReadRest(1000), "");
}

TEST(ServiceTest, OversizedRequestIsDroppedAndTheNextOneAnswered) {
    PrivateCopy copy;
    ServiceProcess service(copy.binary(), {"-l", "9"});
    // Lines far beyond 1023 characters are fine...
    const std::string longPath(200000, 'p');
    service.Send(Call("service.erase", "<params><param><value><array><data><value><string>/" +
                                           longPath +
                                           "</string></value></data></array></value></param>"
                                           "</params>") +
                 "*\n");
    std::vector<std::string> responses = service.ReadResponses(1);
    ASSERT_EQ(responses.size(), 1u);
    EXPECT_NE(responses[0].find("<string>cause</string>"), std::string::npos);

    // ...but a line past 1 MiB drops its whole request.
    service.Send("<methodCall>\n<methodName>upload.close</methodName>\n" +
                 std::string((1u << 20) + 10, 'x') + "\n</methodCall>\n*\n" + kInstallInfo);
    responses = service.ReadResponses(1);
    ASSERT_EQ(responses.size(), 1u);
    EXPECT_TRUE(IsInstallInfoAnswer(responses[0]));

    // So does a request past 16 MiB made of acceptable lines.
    std::string huge = "<methodCall>\n<methodName>upload.close</methodName>\n";
    const std::string line(1000000, 'y');
    for (int i = 0; i < 17; ++i) huge += "<!--" + line + "-->\n";
    service.Send(huge + "</methodCall>\n*\n" + kConnect);
    responses = service.ReadResponses(1);
    ASSERT_EQ(responses.size(), 1u);
    EXPECT_TRUE(IsConnectAnswer(responses[0]));

    service.Send("exit\n");
    EXPECT_EQ(service.Wait(5000), 0);
    const std::vector<std::string> lines = Lines(copy.Log());
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
    const std::vector<std::string> lines = Lines(copy.Log());
    ASSERT_GT(lines.size(), 10u);
    EXPECT_EQ(lines[0], "Debug level=9");
    EXPECT_EQ(lines[1], "Num of physical cores=" + ToString(GetNumOfCores()));
    EXPECT_EQ(lines[2], "Starting client application...");
    const std::string text = copy.Log();
    EXPECT_EQ(text.find("Log filepath: "), std::string::npos);
    EXPECT_EQ(text.find("methodName:"), std::string::npos) << "level 12 is above threshold 9";
    EXPECT_NE(text.find("StdioTask::XML_SHUTDOWN\n"), std::string::npos);
    const std::string::size_type detect = text.find("Detect terminating\n");
    ASSERT_NE(detect, std::string::npos);
    EXPECT_LT(detect, text.find("-disconnect stdio\n"));
    EXPECT_LT(text.find("-disconnect stdio\n"), text.find("CServer::Stop\n"));
    const std::string ending = "CServer::Delete\n\nBye.\n\n";
    EXPECT_EQ(text.substr(text.size() - ending.size()), ending);
}

TEST(ServiceTest, WithoutSwitchesNoLogFileIsCreated) {
    PrivateCopy copy;
    ServiceProcess service(copy.binary(), {"-x"});
    service.Send(kClose);
    ASSERT_EQ(service.ReadResponses(1).size(), 1u);
    service.CloseInput();
    ASSERT_EQ(service.Wait(3000), 0);
    EXPECT_FALSE(FileExists(copy.LogPath()));
}

TEST(ServiceTest, UnknownSwitchIsLoggedWithTheLiteralCutByItsPosition) {
    PrivateCopy copy;
    ServiceProcess service(copy.binary(), {"-l", "20", "-x", "--", "-long"});
    service.Send("exit\n");
    ASSERT_EQ(service.Wait(3000), 0);
    const std::vector<std::string> lines = Lines(copy.Log());
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[0], "Debug level=20");
    EXPECT_EQ(lines[1], "or in switches ");
    EXPECT_EQ(lines[2], "r in switches ");
    EXPECT_EQ(lines[3], "Num of physical cores=" + ToString(GetNumOfCores()));
}

TEST(ServiceTest, NamedSemaphoreExistsOnlyWhileServing) {
    ServiceProcess service(VARNELO_BIN);
    const std::string semaphore = "/dev/shm/sem.jprocsem_" + ToString(service.pid());
    service.Send(kInstallInfo);
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
    service.Send(garbage +
                 "\n*\n<methodCall><methodName>upload.connect</methodName><params>"
                 "<param><value><struct><member><name><i4>x\n*\n" +
                 kInstallInfo);
    // The cut-off connect request is still understood as far as it goes; the garbage is not.
    const std::vector<std::string> responses = service.ReadResponses(3, 2000);
    ASSERT_EQ(responses.size(), 2u);
    EXPECT_EQ(IsInstallInfoAnswer(responses[0]) + IsInstallInfoAnswer(responses[1]), 1);
    EXPECT_EQ(IsConnectAnswer(responses[0]) + IsConnectAnswer(responses[1]), 1);
    service.Send("exit\n");
    EXPECT_EQ(service.Wait(3000), 0);
}

}  // namespace
}  // namespace Varnelo
