// The entry point as a parent process sees it: switches, usage, the log file and exit statuses.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "fsutils.h"
#include "support/service_process.h"
#include "thread.h"

namespace Varnelo {
namespace {

TEST(MainTest, HelpPrintsUsageOnStandardErrorAndExitsWithOne) {
    ServiceProcess service(VARNELO_BIN, {"-l", "9", "-h"});
    EXPECT_EQ(service.Wait(3000), 1);
    EXPECT_EQ(service.ReadRest(1000), "");
    EXPECT_EQ(service.Stderr(), std::string("usage: ") + VARNELO_BIN +
                                    " [switches]\nSwitches:\n  -l    set debug level\n"
                                    "  -h    print this help\n");
}

TEST(MainTest, LogFileLiesBesideTheExecutableAndFollowsTheLevel) {
    PrivateService copy;
    {
        ServiceProcess service(copy.Binary(), {"-l", "9"});
        service.Send(Request("upload.close"));
        ASSERT_EQ(service.ReadResponses(1), std::vector<std::string>{kDone});
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

TEST(MainTest, UnknownSwitchesAreLoggedWithTheLiteralCutByPosition) {
    PrivateService copy;
    ServiceProcess quiet(copy.Binary(), {"-x"});
    quiet.Send("exit\n");
    ASSERT_EQ(quiet.Wait(3000), 0);
    EXPECT_FALSE(FileExists(copy.LogPath())) << "level 0 creates no log file";

    ServiceProcess service(copy.Binary(), {"-l", "20", "-x", "--", "-long"});
    service.Send("exit\n");
    ASSERT_EQ(service.Wait(3000), 0);
    const std::vector<std::string> lines = copy.LogLines();
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 3),
              (std::vector<std::string>{"Debug level=20", "or in switches ", "r in switches "}));
}

}  // namespace
}  // namespace Varnelo
