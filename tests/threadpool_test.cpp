#include "threadpool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>

#include "support/temp_dir.h"
#include "taskqueue.h"
#include "utils.h"

namespace Varnelo {
namespace {

// A task that counts its runs and, if asked, ends its worker or throws.
class CountingTask : public Task {
  public:
    enum Kind { kPlain, kTerminating, kThrowing };
    explicit CountingTask(std::atomic<int>& runs, Kind kind = kPlain)
        : Task("<counting/>"), m_runs(runs), m_kind(kind) {}
    void Execute() override {
        ++m_runs;
        if (m_kind == kThrowing) throw std::runtime_error("task failed");
        if (m_kind == kTerminating) m_terminate = true;
    }

  private:
    std::atomic<int>& m_runs;
    Kind m_kind;
};

class ThreadPoolTest : public ::testing::TestWithParam<CountingTask::Kind> {};

// A worker ended by a terminating or throwing task gets no stop token; the others each get one,
// after the work queued before them, so the pool always joins.
TEST_P(ThreadPoolTest, EndedWorkerIsSkippedAndQueuedWorkRunsBeforeStop) {
    LogCapture capture(9);
    TaskQueue queue(64);
    ThreadPool pool(queue, 3);
    pool.Start();
    std::atomic<int> runs(0);
    queue.Push(std::make_unique<CountingTask>(runs, GetParam()));
    for (int i = 0; i < 500 && !pool.IsTerminate(); ++i) Sleep_ms(10);
    ASSERT_TRUE(pool.IsTerminate());

    for (int i = 0; i < 20; ++i) queue.Push(std::make_unique<CountingTask>(runs));
    const int tasksBefore = capture.Count("Task::Task");
    pool.Stop();
    EXPECT_EQ(capture.Count("Task::Task") - tasksBefore, 2) << "one stop token per live worker";
    pool.Join();
    EXPECT_EQ(runs, 21);
    EXPECT_EQ(capture.Count("TaskThread::Exception"),
              GetParam() == CountingTask::kThrowing ? 1 : 0);
}

INSTANTIATE_TEST_SUITE_P(Endings, ThreadPoolTest,
                         ::testing::Values(CountingTask::kTerminating, CountingTask::kThrowing));

TEST(ThreadPoolLogTest, WorkersAreNumberedAndCountTheirOwnJobs) {
    LogCapture capture(9);
    TaskQueue queue(16);
    ThreadPool pool(queue, 1);
    std::atomic<int> runs(0);
    queue.Push(std::make_unique<CountingTask>(runs));
    queue.Push(std::make_unique<CountingTask>(runs));
    pool.Start();
    pool.Stop();
    pool.Join();
    const std::string text = capture.Text();
    EXPECT_NE(text.find("Create thread 0\n"), std::string::npos);
    EXPECT_NE(text.find("ConvThread start 0\n"), std::string::npos);
    EXPECT_NE(text.find("  Start job 0:1 queue size="), std::string::npos);
    EXPECT_NE(text.find("  Start job 0:3 queue size=0\n  End job 0:3 queue size=0\n"),
              std::string::npos)
        << "the third job is the stop token";
    EXPECT_NE(text.find("ConvThread stop 0\n"), std::string::npos);
}

}  // namespace
}  // namespace Varnelo
