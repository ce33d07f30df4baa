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
    result.success = true;
    return result;
}

// Takes every request the scheduler hands out now.
std::vector<Request> TakeAll(Scheduler& books) {
    std::vector<Request> requests;
    for (Request request; books.Next(request);) requests.push_back(request);
    return requests;
}

std::map<int, std::string> Reasons(const std::vector<Settled>& settled) {
    std::map<int, std::string> reasons;
    for (const Settled& s : settled) reasons[s.id] = s.result.success ? "ok" : s.result.reason;
    return reasons;
}

TEST(BatchSchedulerTest, MatchesAnswersInAnyOrderAndFailsTheOnesLeftOut) {
    Scheduler books(1, 0);  // one worker: two requests in flight
    for (int i = 0; i < 10; ++i) books.Add(i, false, 1000);
    const std::vector<Request> sent = TakeAll(books);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].ids, (std::vector<int>{1, 2, 3, 4, 5}));  // 10 queued / 2 requests
    EXPECT_EQ(sent[1].ids, (std::vector<int>{6, 7}));

    // The second request answers first, backwards.
    EXPECT_EQ(Reasons(books.Answered({{7, Ok()}, {6, Ok()}})),
              (std::map<int, std::string>{{6, "ok"}, {7, "ok"}}));
    // The first answers 2 and 4 only, with an unknown id and one already settled.
    EXPECT_EQ(Reasons(books.Answered({{4, Ok()}, {99, Ok()}, {7, Ok()}, {2, Ok()}})),
              (std::map<int, std::string>{{1, "no answer from the service"},
                                          {2, "ok"},
                                          {3, "no answer from the service"},
                                          {4, "ok"},
                                          {5, "no answer from the service"}}));
    EXPECT_FALSE(books.InFlight());
    EXPECT_EQ(TakeAll(books).size(), 2u);  // 8, 9 and 10 go out now
}

TEST(BatchSchedulerTest, SendsWhatADeadServiceHeldAloneAndGivesUpAtTheSecondDeath) {
    Scheduler books(4, 0);
    for (int i = 0; i < 3; ++i) books.Add(i, i == 2, 1000);
    EXPECT_EQ(TakeAll(books).size(), 3u);  // few left for eight workers' requests: one each
    EXPECT_TRUE(books.Died().empty());

    // One suspect at a time, alone.
    std::vector<Request> again = TakeAll(books);
    ASSERT_EQ(again.size(), 1u);
    EXPECT_TRUE(again[0].suspect);
    EXPECT_EQ(again[0].ids, (std::vector<int>{1}));
    EXPECT_EQ(Reasons(books.Died()),
              (std::map<int, std::string>{{1, "service died on this photo"}}));

    again = TakeAll(books);
    ASSERT_EQ(again.size(), 1u);
    EXPECT_EQ(again[0].ids, (std::vector<int>{2}));
    books.Answered({{2, Ok()}});
    again = TakeAll(books);
    ASSERT_EQ(again.size(), 1u);
    EXPECT_TRUE(again[0].thumbnail);
    books.Answered({{3, Ok()}});
    EXPECT_FALSE(books.Open());
}

TEST(BatchSchedulerTest, KeepsThePhotosInFlightUnderTheLimitAndSettlesEachImageOnce) {
    Scheduler books(3, 4);
    for (int photo = 0; photo < 25; ++photo) {
        books.Add(photo, false, 1000);
        if (photo % 2 == 0) books.Add(photo, true, 1000);
    }
    std::multiset<int> settled;
    std::vector<Request> inFlight;
    for (int round = 0; books.Open() && round < 1000; ++round) {
        for (const Request& request : TakeAll(books)) inFlight.push_back(request);
        EXPECT_LE(books.PhotosInFlight(), 4u);
        ASSERT_FALSE(inFlight.empty());
        // Every third round the service dies; otherwise the newest request is answered.
        std::vector<Settled> done;
        if (round % 3 == 2) {
            done = books.Died();
            inFlight.clear();
        } else {
            std::vector<std::pair<int, ImageResult>> answers;
            for (const int id : inFlight.back().ids) answers.emplace_back(id, Ok());
            inFlight.pop_back();
            done = books.Answered(answers);
        }
        for (const Settled& s : done) settled.insert(s.id);
    }
    EXPECT_FALSE(books.Open());
    EXPECT_EQ(settled.size(), 38u);
    EXPECT_EQ(std::set<int>(settled.begin(), settled.end()).size(), 38u);
}

}  // namespace
}  // namespace Varnelo
