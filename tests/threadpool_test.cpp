#include "threadpool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>

#include "support/log_capture.h"
#include "taskqueue.h"
#include "utils.h"

namespace Varnelo {
namespace {

// A task that counts its runs and, if asked, ends its worker or throws.
class CountingTask : public Task {
  public:
    enum Kind { kPlain, kTerminating, kThrowing };
    CountingTask(std::atomic<int>& runs, Kind kind = kPlain)
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

void WaitFor(const ThreadPool& pool) {
    for (int i = 0; i < 500 && !pool.IsTerminate(); ++i) Sleep_ms(10);
}

TEST(ThreadPoolTest, CreatesNumberedWorkersInOrder) {
    LogCapture capture(9);
    TaskQueue queue(16);
    ThreadPool pool(queue, 3);
    EXPECT_FALSE(pool.IsTerminate());
    const std::vector<std::string> lines = capture.Lines();
    std::vector<std::string> created;
    for (const std::string& line : lines) {
        if (line.rfind("Create thread ", 0) == 0) created.push_back(line);
    }
    EXPECT_EQ(created,
              (std::vector<std::string>{"Create thread 0", "Create thread 1", "Create thread 2"}));
}

TEST(ThreadPoolTest, StopRunsQueuedWorkFirstThenEndsEveryWorker) {
    TaskQueue queue(64);
    ThreadPool pool(queue, 3);
    pool.Start();
    std::atomic<int> runs(0);
    for (int i = 0; i < 20; ++i) queue.Push(std::make_unique<CountingTask>(runs));
    pool.Stop();
    pool.Join();
    EXPECT_EQ(runs, 20);
    EXPECT_EQ(queue.Size(), 0);
    EXPECT_TRUE(pool.IsTerminate());
}

TEST(ThreadPoolTest, TerminatingTaskEndsOneWorkerAndStopSkipsIt) {
    LogCapture capture(9);
    TaskQueue queue(64);
    ThreadPool pool(queue, 3);
    pool.Start();
    std::atomic<int> runs(0);
    queue.Push(std::make_unique<CountingTask>(runs, CountingTask::kTerminating));
    WaitFor(pool);
    ASSERT_TRUE(pool.IsTerminate());

    // The two live workers still serve.
    for (int i = 0; i < 10; ++i) queue.Push(std::make_unique<CountingTask>(runs));
    const int tasksBefore = capture.Count("Task::Task");
    pool.Stop();
    EXPECT_EQ(capture.Count("Task::Task") - tasksBefore, 2) << "one stop token per live worker";
    pool.Join();
    EXPECT_EQ(runs, 11);
    EXPECT_EQ(capture.Count("TaskThread::Exception"), 0);
}

TEST(ThreadPoolTest, ThrowingTaskEndsOnlyItsWorker) {
    LogCapture capture(9);
    TaskQueue queue(64);
    ThreadPool pool(queue, 2);
    pool.Start();
    std::atomic<int> runs(0);
    queue.Push(std::make_unique<CountingTask>(runs, CountingTask::kThrowing));
    WaitFor(pool);
    for (int i = 0; i < 5; ++i) queue.Push(std::make_unique<CountingTask>(runs));
    pool.Stop();
    pool.Join();
    EXPECT_EQ(runs, 6);
    EXPECT_EQ(capture.Count("TaskThread::Exception"), 1);
}

TEST(ThreadPoolTest, JobCounterCountsOnlyTasksThisWorkerRan) {
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
    EXPECT_NE(text.find("ConvThread start 0\n"), std::string::npos);
    EXPECT_NE(text.find("  Start job 0:1 queue size="), std::string::npos);
    EXPECT_NE(text.find("  End job 0:2 queue size="), std::string::npos);
    EXPECT_NE(text.find("  Start job 0:3 queue size=0\n"), std::string::npos) << "the stop token";
    EXPECT_EQ(text.find("0:4"), std::string::npos);
    EXPECT_NE(text.find("ConvThread stop 0\n"), std::string::npos);
}

TEST(ThreadTest, JoinAndKillAreHarmlessOnAFinishedThread) {
    class Quick : public Thread {
      public:
        void Execute() override {}
    };
    Quick never;
    EXPECT_NE(never.Join(), 0);
    EXPECT_NE(never.Kill(), 0);

    Quick quick;
    ASSERT_EQ(quick.Start(), 0);
    EXPECT_EQ(quick.Join(), 0);
    EXPECT_NE(quick.Kill(), 0);
    EXPECT_NE(quick.Join(), 0);
}

TEST(ThreadTest, CoresAreAtLeastOne) { EXPECT_GE(GetNumOfCores(), 1); }

}  // namespace
}  // namespace Varnelo
