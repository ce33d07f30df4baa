#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "resizer.h"
#include "support/resize_formulas.h"
#include "support/temp_dir.h"

namespace Varnelo {
namespace {

int RunTool(const std::string& args) {
    const int raw =
        std::system((VARNELO_BUILD_DIR "/varnelo-resize " + args + " 2>/dev/null").c_str());
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
}

TEST(ResizeToolTest, WritesWhatTheFormulasGiveAndRejectsBadArguments) {
    TempDir dir;
    std::string pixels;
    for (int i = 0; i < 37 * 23 * 3; ++i) pixels += static_cast<char>(i * 7919 % 256);
    const std::string in = dir.Write("in.ppm", "P6\n# a comment\n37 23\n255\n" + pixels);
    const std::string out = dir.Path("out.ppm"), methods[] = {"dirty", "tidy", "reduces"};
    const Image src = Rows(std::vector<unsigned char>(pixels.begin(), pixels.end()), 37, 23);
    for (int type = RESIZER_DIRTY; type <= RESIZER_REDUCES; ++type) {
        ASSERT_EQ(RunTool(methods[type] + " 10 7 " + in + " " + out), 0);
        std::string expected = "P6\n10 7\n255\n";
        for (const Row& row : ExpectedRows(type, src, {37, 23, 10, 7})) {
            expected.append(reinterpret_cast<const char*>(row.data()), row.size() * 3);
        }
        EXPECT_EQ(ReadFileBytes(out), expected) << methods[type];
    }
    // Bad arguments or input fail and leave no output behind.
    const std::string cut = dir.Write("cut.ppm", "P6 2 2 255\n" + std::string(11, 'x'));
    const std::string bad = " " + dir.Path("bad.ppm");
    for (const std::string& args :
         {std::string(), "smooth 1 1 " + in, "dirty 0 1 " + in, "dirty 4 x " + in,
          "dirty 2 2 " + dir.Path("missing.ppm"), "dirty 2 2 " + cut}) {
        EXPECT_NE(RunTool(args + bad), 0) << args;
        EXPECT_EQ(ReadFileBytes(dir.Path("bad.ppm")), "") << args;
    }
}

}  // namespace
}  // namespace Varnelo
