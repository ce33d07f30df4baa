// The server as the client sees it through the pipes: framing, shutdown, load and faults.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
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
    const std::string semaphore = "/dev/shm/sem.jprocsem_" + ToString(service.pid());
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
    const std::string semaphore = "/dev/shm/sem.jprocsem_" + ToString(service.pid());
    std::string burst;
    for (int i = 0; i < 40; ++i) burst += kInfo;
    service.Send(burst + "<methodCall>\n<methodName>upload.close</methodName>\nexit\n");
    EXPECT_EQ(service.ReadResponses(41, 10000), std::vector<std::string>(40, kNoPicasa));
    EXPECT_EQ(service.Wait(5000), 0);
    EXPECT_FALSE(FileExists(semaphore)) << "the semaphore goes with the service";
}

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
TEST(ServerTest, TwoThousandRequestsAQuarterHostileAreEachAnsweredOnce) {
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

    std::map<int, std::string> due;  // imageId -> failure reason, "" for success
    int housekeeping = 0, empty = 0;
    std::string input;
    for (int i = 0; i < 2000; ++i) {
        const std::string dst = tmp.Path("out/" + ToString(i) + ".jpg");
        const std::string downsample = "upload.downsampleRequest";
        switch (i % 4 == 3 ? 10 + (i / 4) % 9 : i < 12 ? 0 : i % 5) {
            case 0:  // a large conversion
                input += Image(downsample, i, big, dst);
                due[i] = "";
                break;
            case 1:
            case 2:
                input += Image(downsample, i, small, dst);
                due[i] = "";
                break;
            case 3:
                input += Image("upload.thumbnailRequest", i, small, dst);
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
                input += Request("upload.close", "<?pi >" + nested + "?>");
                break;
            case 12:
                input += std::string("<methodCall>\0", 13) + kInfo.substr(kInfo.find("<methodN"));
                break;
            case 13:  // a 5 MiB line drops its request
                input += i < 150 ? kInfo.substr(0, kInfo.size() - 2) + std::string(5 << 20, ' ') +
                                       "\n*\n"
                                 : "<methodCall/>\n*\n";
                break;
            case 14:
                input += Image(downsample, i, "", "");
                due[i] = "internal error";
                break;
            case 15:
                input += Image(downsample, i, text, dst);
                due[i] = "jpeg resampling error";
                break;
            case 16:
                input += Image(downsample, i, cut, dst);
                due[i] = "jpeg library warning(s)";
                break;
            case 17:
                input += Image("upload.thumbnailRequest", i, exif, dst);
                due[i] = "";
                break;
            default:  // answered with no image at all
                input += Request(downsample, "<param/>\n");
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
    int answeredHousekeeping = 0, answeredEmpty = 0;
    for (const std::string& response : responses) {
        if (response == kConnected || response == kNoPicasa) {
            ++answeredHousekeeping;
            continue;
        }
        if (response == "<methodResponse>\n <params />\n</methodResponse>\n") {
            ++answeredEmpty;
            continue;
        }
        const std::vector<ImageAnswer> answers = ImageAnswers(response);
        ASSERT_EQ(answers.size(), 1u) << response;
        std::map<std::string, std::string> answer = answers[0].values;
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
TEST(ServerTest, DiskAndFileFaultsFailOnlyTheirImage) {
    TempDir tmp;
    const std::string photo = tmp.Write("photo.jpg", EncodeJpeg({800, 600}));
    const bool full =
        symlink("/dev/full", tmp.Path("full.jpg").c_str()) == 0 && access("/dev/full", W_OK) == 0;
    ServiceProcess service(VARNELO_BIN);
    const auto answer = [&service](const std::string& request) {
        service.Send(request);
        const std::vector<std::string> responses = service.ReadResponses(1);
        const std::vector<ImageAnswer> answers =
            responses.empty() ? std::vector<ImageAnswer>() : ImageAnswers(responses[0]);
        return answers.empty() ? std::string("no answer") : answers[0].values.at("failureReason");
    };
    const std::string downsample = "upload.downsampleRequest";
    if (full) {
        EXPECT_EQ(answer(Image(downsample, 1, photo, tmp.Path("full.jpg"))),
                  "jpeg resampling error");
    }
    EXPECT_EQ(answer(Image(downsample, 2, photo, "/proc/varnelo/x.jpg")),
              "create destination file error");

    // Four conversions of one source at once.
    for (int i = 0; i < 4; ++i) {
        service.Send(Image(downsample, 10 + i, photo, tmp.Path("copy" + ToString(i) + ".jpg")));
    }
    const std::vector<std::string> copies = service.ReadResponses(4);
    ASSERT_EQ(copies.size(), 4u);
    for (const std::string& response : copies) {
        EXPECT_EQ(ImageAnswers(response).at(0).values.at("success"), "1");
    }
    for (int i = 1; i < 4; ++i) {
        EXPECT_EQ(ReadFileBytes(tmp.Path("copy" + ToString(i) + ".jpg")),
                  ReadFileBytes(tmp.Path("copy0.jpg")));
    }

    // The source is removed between two requests.
    service.Send(Request("service.erase", "<param><value><array><data><value><string>" + photo +
                                              "</string></value></data></array></value></param>"));
    EXPECT_EQ(service.ReadResponses(1), std::vector<std::string>{kDone});
    EXPECT_EQ(answer(Image(downsample, 20, photo, tmp.Path("gone.jpg"))), "internal error");
    service.Send("exit\n");
    EXPECT_EQ(service.Wait(5000), 0);
}

}  // namespace
}  // namespace Varnelo
