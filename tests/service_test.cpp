// Starts the built service with pipes and speaks the protocol, as the client does.

#include <gtest/gtest.h>
#include <sys/stat.h>

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

}  // namespace
}  // namespace Varnelo
