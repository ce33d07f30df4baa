#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "resizer.h"
#include "support/temp_dir.h"

namespace Varnelo {
namespace {

const std::string kTool = VARNELO_BUILD_DIR "/varnelo-resize";

struct ToolRun {
    int status;
    std::string err;
};

ToolRun RunTool(const TempDir& dir, const std::string& args) {
    const std::string errPath = dir.Path("stderr.txt");
    const int raw = std::system((kTool + " " + args + " 2>" + errPath).c_str());
    return ToolRun{WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, ReadFileBytes(errPath)};
}

std::vector<CPixel> RandomPixels(size_t n) {
    std::mt19937 rng(17);
    std::vector<CPixel> pixels(n);
    for (CPixel& p : pixels) p = CPixel(rng(), rng(), rng());
    return pixels;
}

std::string Bytes(const std::vector<CPixel>& pixels) {
    const char* p = reinterpret_cast<const char*>(pixels.data());
    return std::string(p, p + pixels.size() * sizeof(CPixel));
}

// The same scaling done in this process, as the tool should stream it.
std::string ExpectedPpm(int type, const std::vector<CPixel>& src, int sw, int sh, int dw, int dh) {
    std::unique_ptr<CResizer> resizer = CreateResizer(type, sw, sh, dw, dh);
    std::vector<CPixel> row(sw + 2), black(dw), out;
    int y = 0;
    PumpLines(
        *resizer, sw, sh, dh, row.data(), black.data(),
        [&](CPixel* r) {
            std::copy(src.begin() + y * sw, src.begin() + (y + 1) * sw, r);
            ++y;
        },
        [&](CPixel* r) { out.insert(out.end(), r, r + dw); }, [] {});
    return "P6\n" + std::to_string(dw) + " " + std::to_string(dh) + "\n255\n" + Bytes(out);
}

TEST(ResizeToolTest, StreamsAPpmThroughEachResizer) {
    TempDir dir;
    const int sw = 37, sh = 23;
    const std::vector<CPixel> src = RandomPixels(sw * sh);
    const std::string in =
        dir.Write("in.ppm", "P6\n# made by the test\n37 23\n# another comment\n255\n" + Bytes(src));
    const struct {
        const char* name;
        int type;
    } methods[] = {{"dirty", RESIZER_DIRTY}, {"tidy", RESIZER_TIDY}, {"reduces", RESIZER_REDUCES}};
    for (const auto& m : methods) {
        const std::string out = dir.Path(std::string(m.name) + ".ppm");
        const ToolRun run = RunTool(dir, std::string(m.name) + " 10 7 " + in + " " + out);
        ASSERT_EQ(run.status, 0) << m.name << ": " << run.err;
        EXPECT_EQ(ReadFileBytes(out), ExpectedPpm(m.type, src, sw, sh, 10, 7)) << m.name;
    }
}

TEST(ResizeToolTest, RejectsBadArgumentsAndFilesWithAMessage) {
    TempDir dir;
    const std::string good = dir.Write("good.ppm", "P6 2 2 255\n" + std::string(12, 'x'));
    const std::string cut = dir.Write("cut.ppm", "P6 2 2 255\n" + std::string(11, 'x'));
    const std::string deep = dir.Write("deep.ppm", "P6 2 2 65535\n" + std::string(24, 'x'));
    const std::string gray = dir.Write("gray.ppm", "P5 2 2 255\n" + std::string(4, 'x'));
    const std::string out = dir.Path("out.ppm");
    const std::string cases[] = {
        "",
        "smooth 1 1 " + good + " " + out,
        "dirty 0 1 " + good + " " + out,
        "dirty 4 x " + good + " " + out,
        "dirty -3 2 " + good + " " + out,
        "dirty 2 2 " + dir.Path("missing.ppm") + " " + out,
        "dirty 2 2 " + cut + " " + out,
        "dirty 2 2 " + deep + " " + out,
        "dirty 2 2 " + gray + " " + out,
        "dirty 2 2 " + good + " " + dir.Path("no/such/dir.ppm"),
    };
    for (const std::string& args : cases) {
        const ToolRun run = RunTool(dir, args);
        EXPECT_NE(run.status, 0) << args;
        EXPECT_NE(run.err, "") << args;
        EXPECT_EQ(ReadFileBytes(out), "") << args << ": no partial output is left";
    }
    EXPECT_EQ(RunTool(dir, "dirty 2 2 " + good + " " + out).status, 0);
}

}  // namespace
}  // namespace Varnelo
