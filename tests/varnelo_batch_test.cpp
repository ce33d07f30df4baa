// varnelo-batch end to end: the built client driving the built service over photo trees made
// in code, checked through its report, its output tree, its messages and its exit status.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/jpeg_fixtures.h"
#include "support/service_process.h"
#include "support/temp_dir.h"
#include "varnelo-batch/metadata.h"

namespace fs = std::filesystem;

namespace Varnelo {
namespace {

const std::string kBatch = VARNELO_BUILD_DIR "/varnelo-batch";

using Row = std::map<std::string, std::string>;

std::string Jpeg(int width, int height) { return EncodeJpeg({width, height}); }

// The fields of a CSV line; a quoted field may hold commas and doubled quotes.
std::vector<std::string> Split(const std::string& line) {
    std::vector<std::string> fields(1);
    bool quoted = false;
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '"' && quoted && i + 1 < line.size() && line[i + 1] == '"') {
            fields.back() += line[++i];
        } else if (line[i] == '"') {
            quoted = !quoted;
        } else if (line[i] == ',' && !quoted) {
            fields.emplace_back();
        } else {
            fields.back() += line[i];
        }
    }
    return fields;
}

class BatchTest : public ::testing::Test {
  protected:
    // Writes `bytes` under in/, making the folders; returns the file's path.
    std::string Put(const std::string& name, const std::string& bytes) {
        const fs::path path = fs::path(in) / name;
        fs::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << bytes;
        return path.string();
    }

    // Runs the client to its end with the service under test: exit status and standard error.
    std::pair<int, std::string> Run(std::vector<std::string> args) {
        args.insert(args.begin(), {"--service", VARNELO_BIN});
        ServiceProcess batch(kBatch, args);
        const int status = batch.Wait(60000);
        return {status, batch.Stderr()};
    }

    // The CSV report's rows by source (a stale file's by its name); each must come once.
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
            // A stale file is known by its name; its photo may have a row of its own.
            const bool stale = row["status"] == "stale" || row["status"] == "pruned";
            const std::string key = stale ? row["output"] : row["source"];
            EXPECT_TRUE(rows.emplace(key, row).second) << "twice: " << key;
        }
        return rows;
    }

    // The files under `folder`, relative to it, but the state.
    static std::set<std::string> Files(const std::string& folder) {
        std::set<std::string> files;
        std::error_code ec;
        for (fs::recursive_directory_iterator it(folder, ec), end; !ec && it != end; ++it) {
            const std::string name = it->path().lexically_relative(folder);
            if (it->is_regular_file() && name != ".varnelo-batch.state") files.insert(name);
        }
        return files;
    }

    // Starts the client on `count` photos and waits until it has converted one.
    std::unique_ptr<ServiceProcess> StartLongBatch(int count, std::vector<std::string> more) {
        const std::string photo = Jpeg(1000, 750);
        for (int i = 0; i < count; ++i) Put("p" + std::to_string(i) + ".jpg", photo);
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

TEST_F(BatchTest, ConvertsATreeAsItIsOnDiskAndReportsEveryPhotoOnce) {
    struct Converted {
        std::string source, output;
        int width, height;
    };
    // b.jpg keeps its name; b.JPEG, which would also become b.jpg, gets another.
    const std::vector<Converted> converted = {
        {Put("a.jpg", Jpeg(800, 600)), "a.jpg", 800, 600},
        {Put("sub/b.JPEG", Jpeg(300, 400)), "sub/b-2.jpg", 300, 400},
        {Put("sub/b.jpg", Jpeg(500, 250)), "sub/b.jpg", 500, 250}};
    const std::string small = Put("small.jpg", Jpeg(150, 100));
    const std::map<std::string, std::string> others = {
        {small, "copied"},
        {Put("corrupt.jpg", TruncateInScan(Jpeg(800, 600))), "converted_with_warnings"},
        {Put("fake.jpg", "not a photo"), "failed"},
        {Put("shot.png", "\x89PNG\r\n\x1A\n\0\0\0\rIHDR"), "not_jpeg"},
        {in + "/sub/link.jpg", "duplicate"},  // a link to a.jpg, reached after it
        {in + "/z-hard.jpg", "duplicate"},    // a second name of sub/b.jpg
        {tmp.Path("missing.jpg"), "failed"}};
    fs::create_symlink("../a.jpg", in + "/sub/link.jpg");
    fs::create_hard_link(in + "/sub/b.jpg", in + "/z-hard.jpg");
    // Hidden names, a NAS's thumbnail folder and files that are not images are left alone.
    Put(".hidden/h.jpg", Jpeg(800, 600));
    Put("@eaDir/e.jpg", Jpeg(800, 600));
    Put("._a.jpg", "resource fork");
    Put("notes.txt", "text");

    const auto [status, err] = Run({"-r", "--size", "200", "--hash", "crc32", "--thumbnails",
                                    "--report", report, in, tmp.Path("missing.jpg"), "-o", out});
    EXPECT_EQ(status, 1) << err;
    EXPECT_NE(err.find("not JPEG                     1  (1 PNG)"), std::string::npos) << err;
    EXPECT_NE(err.find("\n    " + tmp.Path("missing.jpg") + ": cannot read"), std::string::npos)
        << err;
    std::map<std::string, Row> rows = ReadCsv(report);
    EXPECT_EQ(rows.size(), converted.size() + others.size());

    // A photo not larger than --size is copied byte for byte; a cut one keeps what was read.
    std::set<std::string> expected = {"small.jpg", "small_thumb.jpg", "corrupt.jpg",
                                      "corrupt_thumb.jpg"};
    EXPECT_EQ(ReadFileBytes(out + "/small.jpg"), ReadFileBytes(small));
    EXPECT_EQ(rows[small]["width"] + "x" + rows[small]["height"] + " " + rows[small]["hash"],
              "150x100 " + TailCrc32(small));
    for (const Converted& c : converted) {
        Row& row = rows[c.source];
        const std::string copy = out + "/" + c.output;
        EXPECT_EQ(row["status"], "converted") << c.source;
        EXPECT_EQ(row["output"], copy);
        EXPECT_EQ(row["width"] + "x" + row["height"],
                  std::to_string(c.width) + "x" + std::to_string(c.height));
        // --hash crc32 must come back as a CRC-32 of the source's tail.
        EXPECT_EQ(row["hash"], TailCrc32(c.source));
        EXPECT_EQ(row["output_bytes"], std::to_string(ReadFileBytes(copy).size()));
        const DecodedJpeg decoded = DecodeJpeg(ReadFileBytes(copy));
        EXPECT_EQ(std::max(decoded.width, decoded.height), 200) << c.output;
        EXPECT_EQ(row["thumbnail_status"], "converted");
        // The copy keeps its photo's modification time.
        EXPECT_EQ(fs::last_write_time(copy), fs::last_write_time(c.source));
        expected.insert(c.output);
        expected.insert(c.output.substr(0, c.output.size() - 4) + "_thumb.jpg");
    }
    for (const auto& [source, state] : others) EXPECT_EQ(rows[source]["status"], state) << source;
    EXPECT_EQ(rows[in + "/sub/link.jpg"]["reason"], "same file as " + in + "/a.jpg");
    EXPECT_EQ(rows[in + "/fake.jpg"]["reason"], "not an image");
    EXPECT_EQ(rows[in + "/shot.png"]["reason"], "a PNG image");
    // Nothing for photos that failed, no temporary file left.
    EXPECT_EQ(Files(out), expected);
}

TEST_F(BatchTest, ReRunsOnlyWhatChangedAndNeverTakesAPersonsFile) {
    for (const char* name : {"a.jpg", "b.jpg", "c.jpg"}) Put(name, Jpeg(400, 300));
    EXPECT_EQ(Run({"--size", "100", in, "-o", out}).first, 0);
    const std::string jsonl = tmp.Path("report.jsonl");
    // A person's file at d's name; c changes; b was copied elsewhere by hand (time kept).
    Put("d.jpg", Jpeg(400, 300));
    const std::string mine = tmp.Write("out/d.jpg", "a person's own file");
    Put("c.jpg", Jpeg(440, 300));
    auto [status, err] = Run({"-q", "--size", "100", "--report", jsonl, in, "-o", out});
    EXPECT_EQ(status, 1);
    // -q: one line for the one failure, and nothing else.
    EXPECT_EQ(err, "varnelo-batch: " + in + "/d.jpg: '" + out +
                       "/d.jpg' exists and was not made by varnelo-batch from this photo, and "
                       "differs from what this run makes (--overwrite replaces it with the "
                       "copy)\n");
    EXPECT_EQ(ReadFileBytes(mine), "a person's own file");
    const std::vector<std::string> lines = Lines(ReadFileBytes(jsonl));
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_NE(lines[0].find("\"status\":\"up_to_date\""), std::string::npos) << lines[0];
    EXPECT_NE(lines[0].find("\"hash\":\"" + TailMd5(in + "/a.jpg")), std::string::npos);
    EXPECT_NE(lines[2].find("\"status\":\"converted\""), std::string::npos) << lines[2];
    EXPECT_NE(lines[3].find("\"status\":\"failed\""), std::string::npos) << lines[3];

    // Other settings make everything again, and --overwrite takes the person's file.
    std::tie(status, err) = Run({"--size", "90", "--overwrite", "--report", jsonl, in, "-o", out});
    EXPECT_EQ(status, 0) << err;
    EXPECT_EQ(DecodeJpeg(ReadFileBytes(mine)).width, 90);
    EXPECT_EQ(ReadFileBytes(jsonl).find("up_to_date"), std::string::npos);

    // Paths from standard input, NUL separated.
    ServiceProcess list(kBatch,
                        {"--service", VARNELO_BIN, "-n", "--size", "90", "-0", "-", "-o", out});
    list.Send(in + "/a.jpg" + std::string(1, '\0') + in + "/b.jpg");
    list.CloseInput();
    EXPECT_EQ(list.Wait(), 0) << list.Stderr();
    EXPECT_EQ(Lines(list.ReadRest()).back(), "0 to convert, 2 up to date");
}

// What a dry run foresees, by source: "convert", "copy", "up to date", ... and for the stale
// files it would remove, "remove" by the file.
std::map<std::string, std::string> Forecast(const std::string& text) {
    std::map<std::string, std::string> words;
    for (const std::string& line : Lines(text)) {
        if (line.size() < 13 || line[11] != ' ') continue;  // the counts
        std::string word = line.substr(0, 11), file = line.substr(12);
        word.erase(word.find_last_not_of(' ') + 1);
        words[file.substr(0, file.find_first_of(" :"))] = word;
    }
    return words;
}

TEST_F(BatchTest, DryRunForetellsTheRunAndPruneRemovesOnlyWhatThisRunNoLongerMakes) {
    // Around the size rule at --size 32: only the widths are compared, neither side below 8.
    Put("wide.jpg", Jpeg(40, 30));
    Put("narrow.jpg", Jpeg(8, 1000));  // stays 8 wide: copied
    Put("thin.jpg", Jpeg(5, 1000));    // raised to 8: converted
    Put("square.jpg", Jpeg(32, 32));
    const std::string gone = Put("gone.jpg", Jpeg(64, 48));
    const std::string edited = Put("edited.jpg", Jpeg(64, 48));
    const std::string elsewhere = tmp.Path("elsewhere");
    fs::create_directories(elsewhere);
    std::ofstream(elsewhere + "/e.jpg") << Jpeg(64, 48);
    // Each dry run must name what the run after it does.
    const std::map<std::string, std::string> expected = {
        {"convert", "converted"}, {"copy", "copied"},
        {"adopt", "adopted"},     {"up to date", "up_to_date"},
        {"skip", "too_small"},    {"remove", "pruned"},
        {"stale", "stale"}};
    auto foreseen = [&](std::vector<std::string> args) {
        args.insert(args.begin(), "-n");
        ServiceProcess dry(kBatch, args);
        dry.Wait();
        std::map<std::string, std::string> words = Forecast(dry.ReadRest());
        args.erase(args.begin());
        args.insert(args.begin(), {"--report", report});
        Run(args);
        for (const auto& [key, row] : ReadCsv(report)) {
            EXPECT_EQ(expected.at(words[key]), row.at("status")) << key;
            words.erase(key);
        }
        EXPECT_TRUE(words.empty()) << words.begin()->first;
        return ReadCsv(report);
    };
    foreseen({"--size", "32", in, elsewhere, "-o", out});
    EXPECT_EQ(ReadFileBytes(out + "/narrow.jpg"), ReadFileBytes(in + "/narrow.jpg"));

    // A copy put there by hand is adopted; a photo gone from the folder searched loses its
    // copy, but not one gone from elsewhere, nor one whose copy was edited since.
    fs::remove(gone);
    fs::remove(edited);
    fs::remove(elsewhere + "/e.jpg");
    std::ofstream(out + "/edited.jpg", std::ios::app) << "edited";
    const std::string added = Put("added.jpg", Jpeg(20, 20));
    fs::copy_file(added, out + "/added.jpg");
    auto rows = foreseen({"--size", "32", "--prune", in, "-o", out});
    EXPECT_EQ(rows[in + "/added.jpg"]["status"], "adopted");
    EXPECT_EQ(rows[out + "/gone.jpg"]["source"], gone);
    EXPECT_FALSE(fs::exists(out + "/gone.jpg"));
    EXPECT_TRUE(fs::exists(out + "/edited.jpg") && fs::exists(out + "/e.jpg"));

    // Grown out of --size: with --skip-small a copy is stale, without it one is copied.
    rows = foreseen({"--size", "40", "--skip-small", in, "-o", out});
    EXPECT_EQ(rows[in + "/wide.jpg"]["status"], "too_small");
    EXPECT_EQ(DecodeJpeg(ReadFileBytes(out + "/wide.jpg")).width, 32);
    foreseen({"--size", "40", in, "-o", out});
    EXPECT_EQ(ReadFileBytes(out + "/wide.jpg"), ReadFileBytes(in + "/wide.jpg"));

    // After a read error, --prune removes nothing.
    fs::remove(in + "/square.jpg");
    const auto [status, err] = Run({"--size", "40", "--prune", in, tmp.Path("none"), "-o", out});
    EXPECT_EQ(status, 1);
    EXPECT_NE(err.find("nothing pruned: an input or a folder could not be read"), std::string::npos)
        << err;
    EXPECT_TRUE(fs::exists(out + "/square.jpg"));
}

TEST_F(BatchTest, CopiesAndThumbnailsCarryTheMetadataChosen) {
    using namespace std::string_literals;
    // Turned a quarter, with a colour profile (a header and one tag), XMP and a comment.
    const std::string exif =
        "Exif\0\0MM\0*\0\0\0\x08\0\x01\x01\x12\0\x03\0\0\0\x01\0\x06\0\0\0\0\0\0"s;
    const std::string icc = "ICC_PROFILE\0\1\1\0\0\0\x9Cnone\x02\x10\0\0mntrRGB XYZ "s +
                            std::string(12, '\0') + "acsp" + std::string(88, '\0') +
                            "\0\0\0\1cprt\0\0\0\x90\0\0\0\x0Ctext\0\0\0\0ok\0\0"s;
    const std::vector<Segment> segments = {{0xE1, exif},
                                           {0xE1, "http://ns.adobe.com/xap/1.0/\0<x:xmpmeta/>"s},
                                           {0xE2, icc},
                                           {0xFE, "hello"}};
    Put("big.jpg", EncodeJpeg({200, 150}, segments));
    Put("small.jpg", EncodeJpeg({40, 30}, segments));
    auto markers = [&icc](const std::string& path) {
        std::string list;
        for (const Segment& s : ReadSegments(ReadFileBytes(path))) {
            list +=
                s.marker == 0xE2 ? (s.data == icc ? " icc" : " other") : " " + s.data.substr(0, 4);
        }
        return list;
    };
    // By default a copy keeps every segment, and a thumbnail the profile and the Orientation.
    EXPECT_EQ(Run({"--size", "64", "--thumbnails", in, "-o", out}).first, 0);
    EXPECT_EQ(markers(out + "/big.jpg"), " JFIF Exif http icc hell");
    EXPECT_EQ(markers(out + "/big_thumb.jpg"), " Exif icc");
    EXPECT_EQ(ReadOrientation(out + "/big_thumb.jpg"), 6);

    // A choice rewrites converted and copied photos alike; a photo whose metadata cannot be
    // read fails, and nothing takes its name.
    Put("bad.jpg", EncodeJpeg({200, 150}, {{0xE1, "Exif\0\0MM\0*\0\0\0\xF0"s}}));
    const std::string kept = tmp.Path("kept");
    const auto [status, err] =
        Run({"--size", "64", "--keep", "exif,icc", "--report", report, in, "-o", kept});
    EXPECT_EQ(status, 1) << err;
    for (const char* name : {"/big.jpg", "/small.jpg"}) {
        EXPECT_EQ(markers(kept + name), " JFIF Exif icc") << name;
        EXPECT_EQ(ReadOrientation(kept + name), 6) << name;
    }
    EXPECT_EQ(ReadCsv(report)[in + "/bad.jpg"]["reason"].rfind("metadata: ", 0), 0u);
    EXPECT_FALSE(fs::exists(kept + "/bad.jpg"));
}

TEST_F(BatchTest, KilledAtAnyMomentLeavesNoPartialCopyAndAReRunFinishes) {
    const std::string photo = EncodeJpeg({1600, 1200, JpegKind::COLOUR_420, false, 90, true});
    for (int i = 0; i < 40; ++i) Put("p" + std::to_string(i) + ".jpg", photo);
    std::mt19937 random(std::random_device{}());
    for (int kill = 0; kill < 6; ++kill) {
        ServiceProcess batch(kBatch, {"--service", VARNELO_BIN, "-q", "--thumbnails", "--size",
                                      "500", "--omit-exif", in, "-o", out});
        usleep(std::uniform_int_distribution<int>(0, 400000)(random));
        ::kill(batch.pid(), SIGKILL);
        batch.Wait();
        for (const std::string& file : Files(out)) {
            // Temporary copies, and the state (replaced whole by a rename).
            if (file.rfind(".varnelo-batch", 0) == 0) continue;
            const std::string bytes = ReadFileBytes(out + "/" + file);
            EXPECT_EQ(bytes.substr(bytes.size() - 2), "\xFF\xD9") << file << " after kill " << kill;
        }
    }
    const auto [status, err] =
        Run({"--thumbnails", "--size", "500", "--omit-exif", "--report", report, in, "-o", out});
    EXPECT_EQ(status, 0) << err;
    EXPECT_EQ(Files(out).size(), 80u);  // no temporary file left
    for (const auto& [source, row] : ReadCsv(report)) {
        EXPECT_TRUE(row.at("status") == "converted" || row.at("status") == "up_to_date") << source;
    }
}

TEST_F(BatchTest, RestartsAKilledServiceAndLosesNothing) {
    std::unique_ptr<ServiceProcess> batch = StartLongBatch(60, {});
    const pid_t service = ServiceOf(batch->pid());
    ASSERT_GT(service, 0) << batch->Stderr();
    kill(service, SIGKILL);
    EXPECT_EQ(batch->Wait(60000), 0) << batch->Stderr();

    EXPECT_NE(batch->Stderr().find("restarting it"), std::string::npos) << batch->Stderr();
    const std::map<std::string, Row> rows = ReadCsv(report);
    EXPECT_EQ(rows.size(), 60u);
    for (const auto& [source, row] : rows) EXPECT_EQ(row.at("status"), "converted") << source;
    EXPECT_EQ(Files(out).size(), 60u);
}

TEST_F(BatchTest, CtrlCClosesTheServiceAndReportsWhatIsLeft) {
    std::unique_ptr<ServiceProcess> batch = StartLongBatch(60, {"-v"});
    const pid_t service = ServiceOf(batch->pid());
    ASSERT_GT(service, 0) << batch->Stderr();
    kill(batch->pid(), SIGINT);
    EXPECT_EQ(batch->Wait(60000), 130) << batch->Stderr();

    // The service answered the close and ended by itself, and the client reaped it.
    EXPECT_NE(batch->Stderr().find("the service exited with status 0"), std::string::npos)
        << batch->Stderr();
    EXPECT_NE(kill(service, 0), 0);
    // Every photo is in the report; every copy written is a converted row, and back.
    std::set<std::string> converted;
    std::size_t left = 0;
    for (const auto& [source, row] : ReadCsv(report)) {
        if (row.at("status") == "converted") {
            converted.insert(fs::path(row.at("output")).lexically_relative(out));
        } else {
            EXPECT_EQ(row.at("status"), "not_processed") << source;
            ++left;
        }
    }
    EXPECT_EQ(converted.size() + left, 60u);
    EXPECT_GT(left, 0u);
    EXPECT_EQ(Files(out), converted);
}

TEST_F(BatchTest, RefusesBadUsageAndUnusablePathsBeforeAnyWork) {
    Put("a.jpg", Jpeg(64, 48));
    const std::vector<std::vector<std::string>> badUsage = {
        {},
        {in},
        {in, "-o"},
        {"--size", "31", in, "-o", out},
        {"-j", "0", in, "-o", out},
        {"--hash", "sha1", in, "-o", out},
        {"--report", tmp.Path("report.txt"), in, "-o", out},
        {"--bogus", in, "-o", out},
        {in, "-o", in + "/."}};  // the output folder is the input folder
    for (const std::vector<std::string>& args : badUsage) {
        const auto [status, err] = Run(args);
        EXPECT_EQ(status, 2) << err;
        const std::vector<std::string> lines = Lines(err);
        ASSERT_EQ(lines.size(), 2u) << err;
        EXPECT_EQ(lines[1], "Try 'varnelo-batch --help' for more information.");
    }
    // A report or output folder that cannot be written: one line, and nothing done.
    const std::string file = tmp.Write("file", "");
    for (const auto& [message, args] : std::map<std::string, std::vector<std::string>>{
             {"cannot write the report '" + file + "/r.csv'",
              {"--report", file + "/r.csv", in, "-o", out}},
             {"cannot create the output folder '" + file + "/sub'", {in, "-o", file + "/sub"}}}) {
        const auto [status, err] = Run(args);
        EXPECT_EQ(status, 1) << err;
        EXPECT_EQ(Lines(err).size(), 1u) << err;
        EXPECT_NE(err.find(message), std::string::npos) << err;
    }
    EXPECT_FALSE(fs::exists(out));
    ServiceProcess version(kBatch, {"--version"});
    EXPECT_EQ(version.Wait(), 0);
    EXPECT_EQ(version.ReadRest().rfind("varnelo-batch ", 0), 0u);
}

}  // namespace
}  // namespace Varnelo
