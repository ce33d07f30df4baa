#include "taskqueue.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "fsutils.h"
#include "support/log_capture.h"
#include "utils.h"

namespace Varnelo {
namespace {

// A task that records its number when run and its destruction in a flag.
class ProbeTask : public Task {
  public:
    ProbeTask(int number, int* ran = nullptr, bool* destroyed = nullptr)
        : Task("<probe/>"), m_number(number), m_ran(ran), m_destroyed(destroyed) {}
    ~ProbeTask() override {
        if (m_destroyed != nullptr) *m_destroyed = true;
    }
    void Execute() override {
        if (m_ran != nullptr) *m_ran = m_number;
    }

  private:
    int m_number;
    int* m_ran;
    bool* m_destroyed;
};

std::string QueueSemaphoreName() { return "jprocsem_" + ToString(getpid()); }

TEST(TaskQueueTest, HandsTasksOutInPushOrder) {
    TaskQueue queue(16);
    int ran = -1;
    for (int i = 0; i < 5; ++i) queue.Push(std::make_unique<ProbeTask>(i, &ran));
    EXPECT_EQ(queue.Size(), 5);
    for (int i = 0; i < 5; ++i) {
        std::unique_ptr<Task> task = queue.Pop();
        ASSERT_NE(task, nullptr);
        task->Execute();
        EXPECT_EQ(ran, i);
    }
    EXPECT_EQ(queue.Size(), 0);
}

TEST(TaskQueueTest, FullQueueDestroysTheNewTaskWithoutCountingIt) {
    TaskQueue queue(4096);
    for (int i = 0; i < 4096; ++i) queue.Push(std::make_unique<ProbeTask>(i));
    bool destroyed = false;
    queue.Push(std::make_unique<ProbeTask>(4096, nullptr, &destroyed));
    EXPECT_TRUE(destroyed);
    EXPECT_EQ(queue.Size(), 4096);

    for (int i = 0; i < 4096; ++i) ASSERT_NE(queue.Pop(), nullptr);
    Semaphore count(QueueSemaphoreName().c_str(), 0);
    EXPECT_FALSE(count.TryWait()) << "the dropped task must not have posted a count";
}

TEST(TaskQueueTest, PopBlocksUntilAPush) {
    TaskQueue queue(8);
    std::atomic<bool> pushed(false);
    std::thread producer([&] {
        Sleep_ms(30);
        pushed = true;
        queue.Push(std::make_unique<ProbeTask>(7));
    });
    std::unique_ptr<Task> task = queue.Pop();
    EXPECT_TRUE(pushed);
    EXPECT_NE(task, nullptr);
    producer.join();
}

TEST(TaskQueueTest, DrainsACountLeftUnderItsNameAndLogsEachUnit) {
    LogCapture capture(9);
    Semaphore leftover(QueueSemaphoreName().c_str(), 0);
    for (int i = 0; i < 3; ++i) leftover.Post();

    TaskQueue queue(8);
    EXPECT_EQ(capture.Count("TaskQueue::SEM_SIGNALED"), 3);
    EXPECT_EQ(capture.Count("TaskQueue::SEM_COMPLETE"), 1);
    EXPECT_FALSE(leftover.TryWait());
}

TEST(TaskQueueTest, CountWithoutATaskYieldsNullAndALogLine) {
    LogCapture capture(9);
    TaskQueue queue(8);
    Semaphore stranger(QueueSemaphoreName().c_str(), 0);
    stranger.Post();
    EXPECT_EQ(queue.Pop(), nullptr);
    EXPECT_EQ(capture.Count("TaskQueue::sem error"), 1);
}

TEST(TaskTest, EmptyRequestIsAStopTokenThatWritesNothing) {
    LogCapture capture(9);
    StdioTask token("");
    EXPECT_TRUE(token.IsTerminate());
    ::testing::internal::CaptureStdout();
    token.Execute();
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(capture.Count("StdioTask::Execute"), 1);
    EXPECT_EQ(capture.Count("Task::Task"), 1);
}

TEST(TaskTest, StdioTaskWritesResponseThenSeparator) {
    StdioTask close("<methodCall><methodName>upload.close</methodName></methodCall>\n");
    EXPECT_FALSE(close.IsTerminate());
    ::testing::internal::CaptureStdout();
    close.Execute();
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_TRUE(close.IsTerminate()) << "the close method ends the worker that ran it";
    ASSERT_GE(out.size(), 21u);
    EXPECT_EQ(out.substr(0, 16), "<methodResponse>");
    EXPECT_EQ(out.substr(out.size() - 21), "</methodResponse>\n\n*\n");
}

TEST(TaskTest, UnansweredRequestWritesNothing) {
    StdioTask broken("upload.close, not a document");
    ::testing::internal::CaptureStdout();
    broken.Execute();
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    EXPECT_FALSE(broken.IsTerminate());
}

TEST(TaskTest, SocketTaskSendsResponseWithItsNullAndClosesTheSocket) {
    // A socket pair stands in for a client connection.
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    SocketTask task("<methodCall><methodName>upload.close</methodName></methodCall>", pair[0]);
    task.Execute();
    EXPECT_TRUE(task.IsTerminate());
    std::string received;
    char buffer[4096];
    ssize_t n;
    while ((n = read(pair[1], buffer, sizeof(buffer))) > 0) received.append(buffer, n);
    close(pair[1]);
    ASSERT_FALSE(received.empty());
    EXPECT_EQ(received.back(), '\0');
    EXPECT_NE(received.find("<string>done</string>"), std::string::npos);
}

}  // namespace
}  // namespace Varnelo
