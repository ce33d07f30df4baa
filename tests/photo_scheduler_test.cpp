// Requests of many photos run side by side and are seen as one photo after another: the
// scheduler with stand-in conversions, then whole requests against one request per photo.

#include "photo_scheduler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "log.h"
#include "photo_order.h"
#include "processor_pool.h"
#include "support/jpeg_fixtures.h"
#include "support/service_process.h"
#include "support/temp_dir.h"
#include "xmlrpc.h"

namespace fs = std::filesystem;

namespace Varnelo {
namespace {

// Stand-in conversions that trace two lines around a pause, note how many run at once and
// when each ends, and throw for one photo if asked.
struct StandIn {
    std::atomic<int> running{0}, most{0}, ended{0};
    std::vector<int> endedAs = std::vector<int>(8, -1);  // the order in which each ended
    int throwing = -1;

    void operator()(std::size_t photo) {
        const int now = ++running;
        for (int seen = most; now > seen && !most.compare_exchange_weak(seen, now);) {
        }
        log.Put("photo " + std::to_string(photo) + " starts", 14);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        log.Put("photo " + std::to_string(photo) + " ends", 14);
        --running;
        endedAs[photo] = ended++;
        if (static_cast<int>(photo) == throwing) throw std::runtime_error("out of memory");
    }
};

std::string TraceOf(int photos) {
    std::string trace;
    for (int i = 0; i < photos; ++i) {
        trace += "photo " + std::to_string(i) + " starts\nphoto " + std::to_string(i) + " ends\n";
    }
    return trace;
}

TEST(PhotoSchedulerTest, RunsSideBySideWithinTheProcessorsTracingInOrder) {
    StandIn standIn;
    std::vector<std::vector<std::size_t>> waitFor(8);
    waitFor[5] = {2};
    LogCapture capture(15);
    RunPhotos(8, waitFor, std::ref(standIn));
    EXPECT_EQ(capture.Text(), TraceOf(8));
    EXPECT_LE(standIn.most, UsableProcessors());
    if (UsableProcessors() > 1) {
        EXPECT_GT(standIn.most, 1);
    }
    EXPECT_LT(standIn.endedAs[2], standIn.endedAs[5]);
    EXPECT_TRUE(ProcessorPool::Shared().Idle());
}

// The photo that throws is met at its turn: the trace stops after it, and the photos started
// beside it have all ended when the error comes out.
TEST(PhotoSchedulerTest, AThrowingPhotoEndsTheRequestAtItsTurn) {
    StandIn standIn;
    standIn.throwing = 3;
    LogCapture capture(15);
    EXPECT_THROW(RunPhotos(8, std::vector<std::vector<std::size_t>>(8), std::ref(standIn)),
                 std::runtime_error);
    EXPECT_EQ(capture.Text(), TraceOf(4));
    EXPECT_EQ(standIn.running, 0);
    EXPECT_TRUE(ProcessorPool::Shared().Idle());
}

struct Exchanged {
    std::vector<ImageAnswer> answers;
    std::string trace;
};

Exchanged Exchange(const std::string& method, const std::string& params) {
    LogCapture capture(15);
    XMLRPC rpc;
    rpc.Parse(Request(method, params));
    rpc.Execute();
    return {ImageAnswers(rpc.GetResponse()), capture.Text()};
}

// Every file under `root`, by its path below it, with its bytes.
std::map<std::string, std::string> Files(const std::string& root) {
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        if (entry.is_regular_file()) {
            files[fs::relative(entry.path(), root).string()] = ReadFileBytes(entry.path());
        }
    }
    return files;
}

// The photos of the conversion tests' shapes in `dir`, and the image requests for them: missing,
// damaged and too small photos, a destination used twice, a photo that reads an earlier photo's
// copy, and folders that earlier photos make.
std::vector<std::string> Params(const TempDir& dir, bool thumbnail) {
    JpegShape progressive{900, 600};
    progressive.progressive = true;
    JpegShape photo{1200, 800};
    photo.photographic = true;
    const std::string big = EncodeJpeg(photo);
    std::string damaged = big;
    for (size_t i = 0; i < 24; ++i) damaged[damaged.size() / 2 + i] ^= 0x5A;
    const struct {
        const char* source;
        std::string bytes;
        const char* destination;
    } photos[] = {
        {"big.jpg", big, "out/big.jpg"},
        // Next to the photo they depend on, so that without their order they would run beside it.
        {"twice.jpg", EncodeJpeg({800, 600, JpegKind::COLOUR_444}), "out/big.jpg"},
        {"out/big.jpg", "", "out/again.jpg"},
        {"big.jpg", "", "out/new/a.jpg"},
        {"big.jpg", "", "out/new/deeper/b.jpg"},
        {"portrait.jpg", EncodeJpeg({500, 900}), "out/portrait.jpg"},
        {"grey.jpg", EncodeJpeg({640, 480, JpegKind::GREY}), "out/grey.jpg"},
        {"cmyk.jpg", EncodeJpeg({300, 200, JpegKind::CMYK}), "out/cmyk.jpg"},
        {"progressive.jpg", EncodeJpeg(progressive), "out/progressive.jpg"},
        {"cut.jpg", TruncateInScan(big), "out/cut.jpg"},
        {"damaged.jpg", damaged, "out/damaged.jpg"},
        {"text.jpg", "not a jpeg", "out/text.jpg"},
        {"missing.jpg", "", "out/missing.jpg"},
        {"small.jpg", EncodeJpeg({60, 40}), "out/small.jpg"},
        {"portrait.jpg", "", "out/folder"},
    };
    std::vector<std::string> params;
    int id = 0;
    for (const auto& p : photos) {
        if (!p.bytes.empty()) dir.Write(p.source, p.bytes);
        const std::string size = thumbnail ? "" : Member("resolution", "i4", "320");
        params.push_back(ImageParam(++id, dir.Path(p.source), dir.Path(p.destination), size));
    }
    return params;
}

class MultiPhotoRequestTest : public ::testing::TestWithParam<const char*> {};

TEST_P(MultiPhotoRequestTest, AnswersWritesAndTracesWhatOnePerRequestDoes) {
    const bool thumbnail = std::string(GetParam()) == "upload.thumbnailRequest";
    TempDir together, apart;
    fs::create_directory(together.Path("out"));
    fs::create_directory(apart.Path("out"));
    std::string all;
    for (const std::string& param : Params(together, thumbnail)) all += param;
    const Exchanged multi = Exchange(GetParam(), all);

    std::vector<ImageAnswer> answers;
    std::string trace;
    for (const std::string& param : Params(apart, thumbnail)) {
        const Exchanged one = Exchange(GetParam(), param);
        answers.insert(answers.end(), one.answers.begin(), one.answers.end());
        // Each request's trace starts with its method's line; the request of many has it once.
        trace += trace.empty() ? one.trace : one.trace.substr(one.trace.find('\n') + 1);
    }
    ASSERT_EQ(multi.answers.size(), answers.size());
    for (size_t i = 0; i < answers.size(); ++i) {
        EXPECT_EQ(multi.answers[i].members, answers[i].members) << i;
        EXPECT_EQ(multi.answers[i].values, answers[i].values) << i;
    }
    EXPECT_EQ(Files(together.path()), Files(apart.path()));
    EXPECT_EQ(Replace(multi.trace, together.path(), "DIR"), Replace(trace, apart.path(), "DIR"));
}

INSTANTIATE_TEST_SUITE_P(Methods, MultiPhotoRequestTest,
                         ::testing::Values("upload.downsampleRequest", "upload.thumbnailRequest"),
                         [](const auto& p) { return std::string(p.param).substr(7); });

// Pairs of photos (source, destination) and whether the second waits for the first: files by
// identity where they exist, by resolved path (links followed, case ignored) where not.
TEST(PhotoOrderTest, APhotoWaitsOnlyForTheEarlierPhotosItsFilesDependOn) {
    TempDir tmp;
    const std::string in = tmp.Write("in.jpg", "x");
    fs::create_directory(tmp.Path("out"));
    fs::create_hard_link(in, tmp.Path("link.jpg"));
    fs::create_directory_symlink(tmp.Path("out"), tmp.Path("alias"));
    const std::string cwd = fs::current_path().string();
    fs::current_path(tmp.path());
    const struct {
        const char* name;
        CProcess::Paths first, second;
        bool waits;
    } cases[] = {
        {"same source, other copies", {in, "out/a.jpg", "out"}, {in, "out/b.jpg", "out"}, false},
        {"same copy", {in, "out/a.jpg", "out"}, {in, "out/A.JPG", "out"}, true},
        {"reads the copy", {in, "out/a.jpg", "out"}, {"out/a.jpg", "out/b.jpg", "out"}, true},
        {"writes what is read", {in, "out/a.jpg", "out"}, {"out/b.jpg", in, ""}, true},
        {"a hard link of the source", {in, "out/a.jpg", "out"}, {"x.jpg", "link.jpg", ""}, true},
        {"through a linked folder", {in, "alias/a.jpg", "alias"}, {"out/a.jpg", "c.jpg", ""}, true},
        {"in a folder made first", {in, "new/a.jpg", "new"}, {in, "new/b/c.jpg", "new/b"}, true},
        {"beside a folder made", {in, "new/a.jpg", "new"}, {in, "other.jpg", ""}, false},
        {"no path to resolve", {in, "out/a.jpg", "out"}, {"", "out/b.jpg", "out"}, true},
    };
    for (const auto& c : cases) {
        const auto waitFor = PhotosToWaitFor({c.first, c.second});
        EXPECT_EQ(waitFor[1] == std::vector<std::size_t>{0}, c.waits) << c.name;
    }
    fs::current_path(cwd);
}

}  // namespace
}  // namespace Varnelo
