#include "taskqueue.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "fsutils.h"
#include "support/temp_dir.h"
#include "threadpool.h"

namespace Varnelo {
namespace {

// A task that records its number when run and its destruction.
class ProbeTask : public Task {
  public:
    ProbeTask(int number, int* ran, bool* destroyed = nullptr)
        : Task("<probe/>"), m_number(number), m_ran(ran), m_destroyed(destroyed) {}
    ~ProbeTask() override {
        if (m_destroyed != nullptr) *m_destroyed = true;
    }
    void Execute() override { *m_ran = m_number; }

  private:
    int m_number;
    int* m_ran;
    bool* m_destroyed;
};

std::string QueueSemaphoreName() { return "jprocsem_" + ToString(getpid()); }

TEST(TaskQueueTest, FirstInFirstOutUpToCapacityThenDropsSilently) {
    TaskQueue queue(4096);
    int ran = -1;
    for (int i = 0; i < 4096; ++i) queue.Push(std::make_unique<ProbeTask>(i, &ran));
    bool destroyed = false;
    queue.Push(std::make_unique<ProbeTask>(4096, &ran, &destroyed));
    EXPECT_TRUE(destroyed);
    EXPECT_EQ(queue.Size(), 4096);
    for (int i = 0; i < 4096; ++i) {
        std::unique_ptr<Task> task = queue.Pop();
        ASSERT_NE(task, nullptr);
        task->Execute();
        ASSERT_EQ(ran, i);
    }
    Semaphore count(QueueSemaphoreName().c_str(), 0);
    EXPECT_FALSE(count.TryWait()) << "the dropped task must not have been counted";
}

TEST(TaskQueueTest, DrainsACountLeftUnderItsNameAndSurvivesAStrayOne) {
    LogCapture capture(9);
    Semaphore leftover(QueueSemaphoreName().c_str(), 0);
    for (int i = 0; i < 3; ++i) leftover.Post();
    TaskQueue queue(8);
    EXPECT_EQ(capture.Count("TaskQueue::SEM_SIGNALED"), 3);
    EXPECT_EQ(capture.Count("TaskQueue::SEM_COMPLETE"), 1);

    leftover.Post();  // a count with no task behind it
    EXPECT_EQ(queue.Pop(), nullptr);
    EXPECT_EQ(capture.Count("TaskQueue::sem error"), 1);
}

// A task that answers by writing one byte to a pipe.
class AnswerTask : public Task {
  public:
    explicit AnswerTask(int fd) : Task("<answer/>"), m_fd(fd) {}
    void Execute() override { EXPECT_EQ(write(m_fd, "a", 1), 1); }

  private:
    int m_fd;
};

// A queue with three workers, as a service on two processors has.
struct Service {
    explicit Service(int nameId) : queue(64, nameId), pool(queue, 3) { pool.Start(); }
    ~Service() {
        pool.Stop();
        pool.Join();
    }
    TaskQueue queue;
    ThreadPool pool;
};

// Two processes whose ids differ only in their last digit: the semaphores' names are cut to the
// same 15 characters, so each side's workers take the other's wake-ups. Requests go to one and
// the other in turn, each only after the last was answered; none waits for ever. (How promptly
// they are answered is a figure for a benchmark, not a test.)
TEST(TaskQueueTest, AQueueSharingItsSemaphoreWithAnotherProcessStillAnswersPromptly) {
    const int prefix = 100000 + getpid() % 100000;  // six digits, then the distinguishing one
    int requests[2], answers[2];
    ASSERT_EQ(pipe(requests), 0);
    ASSERT_EQ(pipe(answers), 0);
    const pid_t other = fork();
    ASSERT_NE(other, -1);
    if (other == 0) {
        close(requests[1]);
        {
            Service service(prefix * 10 + 2);
            char byte;
            while (read(requests[0], &byte, 1) == 1) {
                service.queue.Push(std::make_unique<AnswerTask>(answers[1]));
            }
        }
        _exit(0);
    }
    close(requests[0]);
    int answered = 0;
    {
        Service service(prefix * 10 + 1);
        for (; answered < 200; ++answered) {
            if (answered % 2 == 0) {
                service.queue.Push(std::make_unique<AnswerTask>(answers[1]));
            } else if (write(requests[1], "r", 1) != 1) {
                break;
            }
            pollfd ready{answers[0], POLLIN, 0};
            char byte;
            if (poll(&ready, 1, 2000) != 1 || read(answers[0], &byte, 1) != 1) break;
        }
    }
    close(requests[1]);  // the other process's input ends, and so does it
    int status = -1;
    EXPECT_EQ(waitpid(other, &status, 0), other);
    EXPECT_EQ(status, 0);
    close(answers[0]);
    close(answers[1]);
    EXPECT_EQ(answered, 200) << "a request waited 2 s";
}

}  // namespace
}  // namespace Varnelo
