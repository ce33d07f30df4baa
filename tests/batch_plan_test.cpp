// varnelo-batch's plan and state: the names of the outputs, what an earlier run's state makes
// of the files found at them, and the state read back after a run was killed.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "support/service_process.h"
#include "support/temp_dir.h"
#include "varnelo-batch/discovery.h"
#include "varnelo-batch/plan.h"
#include "varnelo-batch/state.h"

namespace fs = std::filesystem;

namespace Varnelo {
namespace {

class BatchPlanTest : public ::testing::Test {
  protected:
    Photo Source(const std::string& relative) {
        const std::string path = tmp.Path("in/" + relative);
        fs::create_directories(fs::path(path).parent_path());
        if (!fs::exists(path)) tmp.Write("in/" + relative, "photo " + relative);
        Photo photo;
        photo.source = photo.shown = path;
        photo.relative = relative;
        photo.file = Identify(path);
        return photo;
    }

    std::vector<Photo> Plan(std::vector<Photo> photos) {
        StateFile state(out);
        std::string error;
        EXPECT_TRUE(state.Load(false, error)) << error;
        NameOutputs(photos, rules, state);
        Decide(photos, rules, state);
        return photos;
    }

    // Records the copy of `photo` as if a run had just made it.
    void Made(const Photo& photo, const std::string& settings) {
        tmp.Write("out/" + fs::path(photo.copy.path).filename().string(), "copy");
        StateFile state(out);
        std::string error;
        Record record;
        record.output = fs::path(photo.copy.path).filename().string();
        record.source = photo.source;
        record.sourceSize = photo.file.size;
        record.sourceMtimeNs = photo.file.mtimeNs;
        record.settings = settings;
        record.file = IdentifyOutput(photo.copy.path);
        ASSERT_TRUE(state.Load(true, error) && state.Append(record, error)) << error;
    }

    TempDir tmp;
    const std::string out = (fs::create_directories(tmp.Path("out")), tmp.Path("out"));
    PlanRules rules = {out, "shown", false, false, "copy size=100", "thumbnail size=72"};
};

TEST_F(BatchPlanTest, NamesEachOutputOnceAndKeepsTheNamesOfTheState) {
    rules.thumbnails = true;
    std::vector<Photo> photos =
        Plan({Source("b.JPEG"), Source("b.jpg"), Source("sub/c.jpeg"), Source("b_thumb.jpg")});
    // b.jpg keeps its name over b.JPEG (the tool's end-to-end test shows), and its thumbnail's.
    EXPECT_EQ(photos[1].thumb.path, out + "/b_thumb.jpg");
    EXPECT_EQ(photos[2].copy.shown, "shown/sub/c.jpg");
    EXPECT_EQ(photos[3].copy.path, out + "/b_thumb-2.jpg");  // b_thumb.jpg is b.jpg's thumbnail
    EXPECT_EQ(fs::path(photos[0].copy.temp).parent_path(), out);

    // Once b.JPEG has its copy recorded as b.jpg, it keeps that name, even beside b.jpg.
    rules.thumbnails = false;
    Photo first = Plan({Source("b.JPEG")})[0];
    Made(first, rules.copySettings);
    photos = Plan({Source("b.JPEG"), Source("b.jpg")});
    EXPECT_EQ(photos[0].copy.path, out + "/b.jpg");
    EXPECT_EQ(photos[0].copy.status, Status::UP_TO_DATE);
    EXPECT_EQ(photos[1].copy.path, out + "/b-2.jpg");
}

TEST_F(BatchPlanTest, TakesOnlyFilesItMadeFromTheSamePhoto) {
    // A person's file and other settings are met end to end. Here: a photo touched but of the
    // same size is made again; the copy of one photo is guarded from another that would take
    // its name, and from its own photo once changed by hand.
    const Photo a = Plan({Source("a.jpg")})[0];
    Made(a, rules.copySettings);
    Photo touched = a;
    touched.file.mtimeNs += 1;
    EXPECT_EQ(Plan({touched})[0].copy.status, Status::PENDING);
    Photo other = Source("x/a.jpg");
    other.relative = "a.jpg";
    const Photo taker = Plan({other})[0];
    EXPECT_TRUE(taker.copy.guarded);
    EXPECT_NE(taker.copy.reason.find("holds the copy of another photo"), std::string::npos);
    tmp.Write("out/a.jpg", "edited by hand");
    EXPECT_TRUE(Plan({a})[0].copy.guarded);

    // Copies that kept all metadata before the choice existed stay; those without it do not.
    const Photo b = Plan({Source("b.jpg")})[0];
    Made(b, "copy size=100 quality=85 exif=kept hash=md5");
    rules.copySettings = "copy size=100 quality=85 metadata=all hash=md5";
    EXPECT_EQ(Plan({b})[0].copy.status, Status::UP_TO_DATE);
    Made(b, "copy size=100 quality=85 exif=orientation hash=md5");
    rules.copySettings = "copy size=100 quality=85 metadata=icc hash=md5";
    EXPECT_EQ(Plan({b})[0].copy.status, Status::PENDING);
}

TEST_F(BatchPlanTest, StateOfAKilledRunStillExplainsEveryFile) {
    const Photo a = Plan({Source("a.jpg")})[0];
    Made(a, "old");
    // A record written before a rename that never happened, then a line cut by the kill.
    Record unfinished;
    unfinished.output = "a.jpg";
    unfinished.source = a.source;
    unfinished.settings = "new";
    unfinished.file = {0, 0, 12345, 1, true};
    {
        StateFile state(out);
        std::string error;
        ASSERT_TRUE(state.Load(true, error) && state.Append(unfinished, error)) << error;
    }
    std::ofstream(tmp.Path("out/") + StateFile::kName, std::ios::app) << "a.jpg\tcut";

    StateFile state(out);
    std::string error;
    ASSERT_TRUE(state.Load(true, error));
    const Record* found = state.Find("a.jpg", IdentifyOutput(a.copy.path));
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->settings, "old");
    // A second run cannot take the folder while this one holds it.
    StateFile second(out);
    EXPECT_FALSE(second.Load(true, error));
    EXPECT_NE(error.find("another varnelo-batch"), std::string::npos);

    ASSERT_TRUE(state.Compact(error)) << error;
    EXPECT_EQ(Lines(ReadFileBytes(tmp.Path("out/") + StateFile::kName)).size(), 2u);

    // Leftovers of temporary names go; a person's files that look alike stay.
    tmp.Write("out/" + std::string(kTempPrefix) + "77-1.jpg", "half");
    tmp.Write("out/" + std::string(kTempPrefix) + "notes.txt", "mine");
    EXPECT_EQ(RemoveLeftovers(out), 1u);
    EXPECT_TRUE(fs::exists(tmp.Path("out/") + kTempPrefix + "notes.txt"));
}

}  // namespace
}  // namespace Varnelo
