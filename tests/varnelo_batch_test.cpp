// varnelo-batch end to end: the built client driving the built service over photo trees made
// in code, checked through its report, its output tree and its exit status.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/jpeg_fixtures.h"
#include "support/service_process.h"
#include "support/temp_dir.h"

namespace fs = std::filesystem;

namespace Varnelo {
namespace {

const std::string kBatch = VARNELO_BUILD_DIR "/varnelo-batch";

using Row = std::map<std::string, std::string>;

std::string Jpeg(int width, int height) { return EncodeJpeg({width, height}); }

std::vector<std::string> Split(const std::string& line) {
    std::vector<std::string> fields;
    std::istringstream in(line + ",");
    for (std::string field; std::getline(in, field, ',');) fields.push_back(field);
    return fields;
}

// Reads the raw text of one field of a JSON Lines row, without the quotes of a string.
std::string JsonField(const std::string& line, const std::string& name) {
    const std::string key = "\"" + name + "\":";
    const std::size_t at = line.find(key) + key.size();
    std::string value = line.substr(at, line.find_first_of(",}", at) - at);
    if (value.size() >= 2 && value.front() == '"') value = value.substr(1, value.size() - 2);
    return value;
}

class BatchTest : public ::testing::Test {
  protected:
    // Writes `bytes` under in/, making the folders; returns the file's real path.
    std::string Put(const std::string& name, const std::string& bytes) {
        const fs::path path = fs::path(in) / name;
        fs::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << bytes;
        return fs::canonical(path).string();
    }

    // Runs the client to its end with the service under test: exit status and standard error.
    std::pair<int, std::string> Run(std::vector<std::string> args) {
        args.insert(args.begin(), {"--service", VARNELO_BIN});
        ServiceProcess batch(kBatch, args);
        const int status = batch.Wait(60000);
        return {status, batch.Stderr()};
    }

    // The CSV report's rows by source; each source must come once.
    std::map<std::string, Row> ReadCsv(const std::string& path) {
        const std::vector<std::string> lines = Lines(ReadFileBytes(path));
        std::map<std::string, Row> rows;
        for (std::size_t i = 1; i < lines.size(); ++i) {
            const std::vector<std::string> names = Split(lines[0]), values = Split(lines[i]);
            EXPECT_EQ(values.size(), names.size()) << lines[i];
            Row row;
            for (std::size_t c = 0; c < names.size() && c < values.size(); ++c) {
                row[names[c]] = values[c];
            }
            EXPECT_TRUE(rows.emplace(row["source"], row).second) << "twice: " << row["source"];
        }
        return rows;
    }

    // The files under `folder`, relative to it.
    static std::set<std::string> Files(const std::string& folder) {
        std::set<std::string> files;
        std::error_code ec;
        for (fs::recursive_directory_iterator it(folder, ec), end; !ec && it != end; ++it) {
            if (it->is_regular_file()) files.insert(it->path().lexically_relative(folder));
        }
        return files;
    }

    // Starts the client on 60 copies of one photo and waits until it has converted one.
    std::unique_ptr<ServiceProcess> StartLongBatch(const std::vector<std::string>& more) {
        const std::string photo = Jpeg(1000, 750);
        for (int i = 0; i < 60; ++i) Put("p" + std::to_string(i) + ".jpg", photo);
        std::vector<std::string> args = {"--service", VARNELO_BIN, "--size", "300", "--report",
                                         report,      in,          "-o",     out};
        args.insert(args.end(), more.begin(), more.end());
        auto batch = std::make_unique<ServiceProcess>(kBatch, args);
        for (int i = 0; i < 6000 && batch->Stderr().find("] converted") == std::string::npos; ++i) {
            usleep(5000);
        }
        return batch;
    }

    // The service the client runs now, or -1.
    static pid_t ServiceOf(pid_t client) {
        const std::string task = std::to_string(client);
        std::ifstream children("/proc/" + task + "/task/" + task + "/children");
        pid_t pid = -1;
        children >> pid;
        return pid;
    }

    TempDir tmp;
    const std::string in = tmp.Path("in"), out = tmp.Path("out");
    const std::string report = tmp.Path("report.csv");
};

TEST_F(BatchTest, ConvertsATreeAndReportsEveryPhotoOnce) {
    struct Converted {
        std::string source, output;
        int width, height;
    };
    // b.jpg keeps its name; b.JPEG, which would also become b.jpg, gets another.
    const std::vector<Converted> converted = {
        {Put("a.jpg", Jpeg(800, 600)), "a.jpg", 800, 600},
        {Put("sub/b.JPEG", Jpeg(300, 400)), "sub/b-2.jpg", 300, 400},
        {Put("sub/b.jpg", Jpeg(500, 250)), "sub/b.jpg", 500, 250},
        {Put("sub/deep/c.jpeg", Jpeg(640, 480)), "sub/deep/c.jpg", 640, 480}};
    const std::map<std::string, std::string> failed = {
        {Put("small.jpg", Jpeg(150, 100)), "actual resolution less than requested"},
        {Put("corrupt.jpg", TruncateInScan(Jpeg(800, 600))), "jpeg library warning(s)"},
        {Put("fake.jpg", "not a photo"), "jpeg resampling error"}};
    Put("notes.txt", "not a .jpg: left alone");

    const auto [status, err] = Run({"-r", "--size", "200", "--hash", "crc32", "--thumbnails",
                                    "--report", report, in, "-o", out});
    EXPECT_EQ(status, 1) << err;
    EXPECT_NE(err.find("too small to reduce"), std::string::npos) << err;
    std::map<std::string, Row> rows = ReadCsv(report);
    EXPECT_EQ(rows.size(), converted.size() + failed.size());

    std::set<std::string> expected = {"small_thumb.jpg"};  // thumbnails need only 72 pixels
    for (const Converted& c : converted) {
        Row& row = rows[c.source];
        const std::string copy = out + "/" + c.output;
        EXPECT_EQ(row["success"], "true") << c.source;
        EXPECT_EQ(row["output"], copy);
        EXPECT_EQ(row["width"] + "x" + row["height"],
                  std::to_string(c.width) + "x" + std::to_string(c.height));
        // --hash crc32 must come back as a CRC-32 of the source's tail.
        EXPECT_EQ(row["hash"], TailCrc32(c.source));
        EXPECT_EQ(row["output_bytes"], std::to_string(ReadFileBytes(copy).size()));
        const DecodedJpeg decoded = DecodeJpeg(ReadFileBytes(copy));
        EXPECT_EQ(std::max(decoded.width, decoded.height), 200) << c.output;
        EXPECT_EQ(row["thumbnail_success"], "true");
        expected.insert(c.output);
        expected.insert(c.output.substr(0, c.output.size() - 4) + "_thumb.jpg");
    }
    for (const auto& [source, reason] : failed) {
        EXPECT_EQ(rows[source]["success"], "false") << source;
        EXPECT_EQ(rows[source]["failure_reason"], reason) << source;
        EXPECT_EQ(rows[source]["output"], "") << source;
    }
    // No copy for a photo too small or broken; nothing for files that are not .jpg.
    EXPECT_EQ(Files(out), expected);

    // Without -r only the top folder is searched.
    const std::string flat = tmp.Path("flat.csv");
    EXPECT_EQ(Run({"--report", flat, in, "-o", tmp.Path("flat")}).first, 1);
    EXPECT_EQ(ReadCsv(flat).size(), 4u);
}

TEST_F(BatchTest, MatchesAnswersToPhotosWhateverOrderTheyArriveIn) {
    // Big photos first: the requests behind them, holding small ones, finish earlier.
    std::map<std::string, std::string> sizes;
    for (int i = 0; i < 24; ++i) {
        const int width = i < 6 ? 1600 - 8 * i : 120 + 8 * i, height = width * 3 / 4 + i % 3;
        const std::string name = (i < 10 ? "p0" : "p") + std::to_string(i) + ".jpg";
        sizes[Put(name, Jpeg(width, height))] =
            std::to_string(width) + "x" + std::to_string(height);
    }
    const std::string jsonl = tmp.Path("report.jsonl");
    const auto [status, err] = Run({"--size", "100", "--report", jsonl, in, "-o", out});
    EXPECT_EQ(status, 0) << err;
    const std::vector<std::string> lines = Lines(ReadFileBytes(jsonl));
    ASSERT_EQ(lines.size(), sizes.size());
    for (const std::string& line : lines) {
        const std::string source = JsonField(line, "source");
        EXPECT_EQ(JsonField(line, "width") + "x" + JsonField(line, "height"), sizes[source]);
        EXPECT_EQ(JsonField(line, "hash"), TailMd5(source));  // the default
        const DecodedJpeg copy = DecodeJpeg(ReadFileBytes(JsonField(line, "output")));
        EXPECT_EQ(std::max(copy.width, copy.height), 100) << line;
    }
}

TEST_F(BatchTest, RestartsAKilledServiceAndLosesNothing) {
    std::unique_ptr<ServiceProcess> batch = StartLongBatch({});
    const pid_t service = ServiceOf(batch->pid());
    ASSERT_GT(service, 0) << batch->Stderr();
    kill(service, SIGKILL);
    EXPECT_EQ(batch->Wait(60000), 0) << batch->Stderr();

    const std::string err = batch->Stderr();
    EXPECT_NE(err.find("restarting it"), std::string::npos) << err;
    std::size_t lines = 0;
    for (std::size_t at = 0; (at = err.find("] converted", at)) != std::string::npos; ++at) {
        ++lines;
    }
    EXPECT_EQ(lines, 60u) << err;
    const std::map<std::string, Row> rows = ReadCsv(report);
    EXPECT_EQ(rows.size(), 60u);
    for (const auto& [source, row] : rows) EXPECT_EQ(row.at("success"), "true") << source;
    EXPECT_EQ(Files(out).size(), 60u);
}

TEST_F(BatchTest, CtrlCClosesTheServiceAndReportsWhatWasDone) {
    std::unique_ptr<ServiceProcess> batch = StartLongBatch({"-v"});
    const pid_t service = ServiceOf(batch->pid());
    ASSERT_GT(service, 0) << batch->Stderr();
    kill(batch->pid(), SIGINT);
    EXPECT_EQ(batch->Wait(60000), 130) << batch->Stderr();

    // The service answered the close and ended by itself, and the client reaped it.
    EXPECT_NE(batch->Stderr().find("the service exited with status 0"), std::string::npos)
        << batch->Stderr();
    EXPECT_NE(kill(service, 0), 0);
    // Every copy written is in the report, and every reported copy was written.
    std::set<std::string> reported;
    for (const auto& [source, row] : ReadCsv(report)) {
        EXPECT_EQ(row.at("success"), "true") << source;
        reported.insert(fs::path(row.at("output")).lexically_relative(out));
    }
    EXPECT_FALSE(reported.empty());
    EXPECT_EQ(Files(out), reported);
}

TEST_F(BatchTest, RefusesBadUsageAndUnusablePaths) {
    Put("a.jpg", Jpeg(64, 48));
    const std::vector<std::vector<std::string>> badUsage = {
        {},
        {in},
        {"-o", out},
        {in, "-o"},
        {"--size", "31", in, "-o", out},
        {"--quality", "high", in, "-o", out},
        {"--hash", "sha1", in, "-o", out},
        {"--report", tmp.Path("report.txt"), in, "-o", out},
        {"--bogus", in, "-o", out}};
    for (const std::vector<std::string>& args : badUsage) {
        const auto [status, err] = Run(args);
        EXPECT_EQ(status, 2) << args.size();
        EXPECT_NE(err.find("usage: varnelo-batch"), std::string::npos) << err;
    }
    // An input that cannot be read, or an output folder that cannot be made: one line.
    const std::string file = tmp.Write("file", "");
    const std::map<std::string, std::vector<std::string>> unusable = {
        {"cannot read '" + tmp.Path("missing") + "'", {tmp.Path("missing"), "-o", out}},
        {"cannot create the output folder '" + file + "/sub'", {in, "-o", file + "/sub"}}};
    for (const auto& [message, args] : unusable) {
        const auto [status, err] = Run(args);
        EXPECT_EQ(status, 1) << err;
        EXPECT_EQ(Lines(err).size(), 1u) << err;
        EXPECT_NE(err.find(message), std::string::npos) << err;
    }
    EXPECT_FALSE(fs::exists(out));
}

}  // namespace
}  // namespace Varnelo
