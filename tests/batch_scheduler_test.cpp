// varnelo-batch's scheduler against a fake service: what it sends, and what answers in any
// order, missing answers and deaths of the service settle.

#include <gtest/gtest.h>

#include <map>
#include <set>

#include "varnelo-batch/scheduler.h"

namespace Varnelo {
namespace {

ImageResult Ok() {
    ImageResult result;
    result.outcome = ImageResult::MADE;
    return result;
}

// Takes every request the scheduler hands out now.
std::vector<Request> TakeAll(Scheduler& scheduler) {
    std::vector<Request> requests;
    for (Request request; scheduler.Next(request);) requests.push_back(request);
    return requests;
}

std::map<int, std::string> Reasons(const std::vector<Settled>& settled) {
    std::map<int, std::string> reasons;
    for (const Settled& s : settled)
        reasons[s.id] = s.result.outcome == ImageResult::MADE ? "ok" : s.result.reason;
    return reasons;
}

TEST(BatchSchedulerTest, MatchesAnswersInAnyOrderAndFailsTheOnesLeftOut) {
    Scheduler scheduler(1, 0);  // one worker: two requests in flight
    for (int i = 0; i < 10; ++i) scheduler.Add(i, false, 1000);
    const std::vector<Request> sent = TakeAll(scheduler);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].ids, (std::vector<int>{1, 2, 3, 4, 5}));  // 10 queued / 2 requests
    EXPECT_EQ(sent[1].ids, (std::vector<int>{6, 7}));

    // The second request answers first, backwards.
    EXPECT_EQ(Reasons(scheduler.Answered({{7, Ok()}, {6, Ok()}})),
              (std::map<int, std::string>{{6, "ok"}, {7, "ok"}}));
    // The first answers 2 and 4 only, with an unknown id and one already settled.
    EXPECT_EQ(Reasons(scheduler.Answered({{4, Ok()}, {99, Ok()}, {7, Ok()}, {2, Ok()}})),
              (std::map<int, std::string>{{1, "no answer from the service"},
                                          {2, "ok"},
                                          {3, "no answer from the service"},
                                          {4, "ok"},
                                          {5, "no answer from the service"}}));
    EXPECT_FALSE(scheduler.InFlight());
    EXPECT_EQ(TakeAll(scheduler).size(), 2u);  // 8, 9 and 10 go out now
}

TEST(BatchSchedulerTest, SendsWhatADeadServiceHeldAloneAndGivesUpAtTheSecondDeath) {
    Scheduler scheduler(4, 0);
    for (int i = 0; i < 3; ++i) scheduler.Add(i, i == 2, 1000);
    EXPECT_EQ(TakeAll(scheduler).size(), 3u);  // few left for eight workers' requests: one each
    EXPECT_TRUE(scheduler.Died().empty());

    // One suspect at a time, alone.
    std::vector<Request> again = TakeAll(scheduler);
    ASSERT_EQ(again.size(), 1u);
    EXPECT_TRUE(again[0].suspect);
    EXPECT_EQ(again[0].ids, (std::vector<int>{1}));
    EXPECT_EQ(Reasons(scheduler.Died()),
              (std::map<int, std::string>{{1, "service died on this photo"}}));

    again = TakeAll(scheduler);
    ASSERT_EQ(again.size(), 1u);
    EXPECT_EQ(again[0].ids, (std::vector<int>{2}));
    scheduler.Answered({{2, Ok()}});
    again = TakeAll(scheduler);
    ASSERT_EQ(again.size(), 1u);
    EXPECT_TRUE(again[0].thumbnail);
    scheduler.Answered({{3, Ok()}});
    EXPECT_FALSE(scheduler.Open());
}

TEST(BatchSchedulerTest, KeepsThePhotosInFlightUnderTheLimitAndSettlesEachImageOnce) {
    Scheduler scheduler(3, 4);
    for (int photo = 0; photo < 25; ++photo) {
        scheduler.Add(photo, false, 1000);
        if (photo % 2 == 0) scheduler.Add(photo, true, 1000);
    }
    std::multiset<int> settled;
    std::vector<Request> inFlight;
    for (int round = 0; scheduler.Open() && round < 1000; ++round) {
        for (const Request& request : TakeAll(scheduler)) inFlight.push_back(request);
        EXPECT_LE(scheduler.PhotosInFlight(), 4u);
        ASSERT_FALSE(inFlight.empty());
        // Every third round the service dies; otherwise the newest request is answered.
        std::vector<Settled> done;
        if (round % 3 == 2) {
            done = scheduler.Died();
            inFlight.clear();
        } else {
            std::vector<std::pair<int, ImageResult>> answers;
            for (const int id : inFlight.back().ids) answers.emplace_back(id, Ok());
            inFlight.pop_back();
            done = scheduler.Answered(answers);
        }
        for (const Settled& s : done) settled.insert(s.id);
    }
    EXPECT_FALSE(scheduler.Open());
    EXPECT_EQ(settled.size(), 38u);
    EXPECT_EQ(std::set<int>(settled.begin(), settled.end()).size(), 38u);
}

}  // namespace
}  // namespace Varnelo
