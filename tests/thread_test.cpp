#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <fstream>
#include <string>

#include "Thread.h"
#include "fixed_paths.h"
#include "process.h"
#include "wait.h"

namespace {

// Loops until asked to stop; with obeyStop false only `release` ends it.
class LoopThread : public Thread {
public:
    explicit LoopThread(const char* name, bool obeyStop = true) : Thread(name), m_obeyStop(obeyStop) {}
    ~LoopThread() override { Finish(); }

    void Finish()
    {
        release = true;
        Stop(false);
    }

    std::atomic<bool> release{false};
    std::atomic<bool> spin{false};

protected:
    void* ThreadMain() override
    {
        while (!release && (!m_obeyStop || KeepRunning()))
            if (!spin) usleep(1000);
        return nullptr;
    }

private:
    bool m_obeyStop;
};

// Counts destructions, to see a self-deleting thread go.
class SelfDeleting : public LoopThread {
public:
    explicit SelfDeleting(std::atomic<int>& gone) : LoopThread("self"), m_gone(gone) {}
    ~SelfDeleting() override { m_gone++; }

private:
    std::atomic<int>& m_gone;
};

std::string KernelName(pid_t tid)
{
    std::ifstream comm("/proc/self/task/" + std::to_string(tid) + "/comm");
    std::string name;
    std::getline(comm, name);
    return name;
}

TEST(Thread, StartsOnceAndIsRunningWhenStartReturns)
{
    LoopThread thread("worker");
    EXPECT_EQ(thread.Tid(), -1);
    EXPECT_FALSE(thread.IsRunning());
    ASSERT_TRUE(thread.Start());
    EXPECT_TRUE(thread.IsRunning());
    EXPECT_NE(thread.Tid(), -1);
    EXPECT_FALSE(thread.Start());
    EXPECT_FALSE(thread.Start(true));
    EXPECT_TRUE(thread.Stop());
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_FALSE(thread.Start()) << "an ended thread is not started again";
    EXPECT_TRUE(thread.Stop()) << "a second stop after the join";
}

TEST(Thread, NoWaitStartCountsAsStarted)
{
    LoopThread thread("nowait");
    ASSERT_TRUE(thread.Start(true));
    EXPECT_FALSE(thread.Start(true));
    EXPECT_TRUE(WaitUntil([&] { return thread.IsRunning(); }, ScaledMs(5000)));
}

TEST(Thread, StopOfUnstartedThreadAndNoWaitStopReturnAtOnceSilently)
{
    StderrCapture err;
    LoopThread idle("idle");
    EXPECT_TRUE(idle.Stop());
    LoopThread running("running", false);
    ASSERT_TRUE(running.Start());
    EXPECT_TRUE(running.Stop(true));
    EXPECT_TRUE(running.ShouldStop());
    EXPECT_TRUE(running.IsRunning());
    EXPECT_EQ(err.Take(), "");
}

TEST(Thread, StopWithoutWaitTimeFailsAtOnce)
{
    StderrCapture err;
    LoopThread thread("stubborn", false);
    ASSERT_TRUE(thread.Start());
    thread.MaxWaitTime(0);
    EXPECT_FALSE(thread.Stop());
    EXPECT_EQ(LogLines(err.Take()), "err  Unable to stop thread within 0 seconds.\n");
    thread.MaxWaitTime(20);
}

TEST(Thread, StopCountsItsWaitsAndGivesUp)
{
    StderrCapture err;
    LoopThread thread("stubborn", false);
    ASSERT_TRUE(thread.Start());
    thread.MaxWaitTime(2);
    EXPECT_FALSE(thread.Stop());
    EXPECT_EQ(LogLines(err.Take()),
              "warn Still waiting for thread 'stubborn' (1/2).\n"
              "warn Still waiting for thread 'stubborn' (2/2).\n"
              "err  Unable to stop thread within 2 seconds.\n");
    thread.release = true;
    thread.MaxWaitTime(20);
    EXPECT_TRUE(thread.Stop());
}

TEST(Thread, KernelSeesFirstFifteenCharactersOfTheName)
{
    LoopThread thread("0123456789abcdefXYZ");
    ASSERT_TRUE(thread.Start());
    EXPECT_EQ(KernelName(thread.Tid()), "0123456789abcde");
    EXPECT_STREQ(thread.Name(), "0123456789abcdefXYZ");
}

TEST(Thread, DetachedThreadIsNotJoined)
{
    LoopThread thread("detached");
    ASSERT_TRUE(thread.Start());
    thread.Detach();
    thread.Detach();
    EXPECT_TRUE(thread.Stop());
    EXPECT_TRUE(WaitUntil([&] { return !thread.IsRunning(); }, ScaledMs(5000)));
}

TEST(Thread, SelfDeletingThreadGoesWhenItEnds)
{
    std::atomic<int> gone{0};
    auto* thread = new SelfDeleting(gone);
    thread->Delete();
    ASSERT_TRUE(thread->Start());
    thread->Stop(true);
    // The thread deletes itself under the list lock: looking under it too
    // means the thread is done with the object and the registries.
    EXPECT_TRUE(WaitUntil([&] {
        MUTEX_GUARD(Thread::m_objListLock);
        return gone == 1;
    }, ScaledMs(5000)));
}

TEST(Thread, SignalAllStopReachesEveryThread)
{
    LoopThread a("a"), b("b");
    ASSERT_TRUE(a.Start());
    ASSERT_TRUE(b.Start());
    Thread::SignalAllStop();
    EXPECT_TRUE(a.ShouldStop());
    EXPECT_TRUE(b.ShouldStop());
    EXPECT_TRUE(WaitUntil([&] { return !a.IsRunning() && !b.IsRunning(); }, ScaledMs(5000)));
}

TEST(Thread, FiniWaitsForSelfDeletingThreadsToGo)
{
    std::atomic<int> gone{0};
    auto* thread = new SelfDeleting(gone);
    thread->Delete();
    ASSERT_TRUE(thread->Start());
    EXPECT_TRUE(Thread::Fini());
    EXPECT_EQ(gone, 1);
}

TEST(Thread, FiniReportsThreadsStillListed)
{
    StderrCapture err;
    LoopThread thread("lingering");
    ASSERT_TRUE(thread.Start());
    EXPECT_FALSE(Thread::Fini());
    EXPECT_EQ(LogLines(err.Take()), "warn Thread [" + std::to_string(thread.Tid()) + "] lingering still alive.\n");
}

TEST(Thread, RunningTimeReadsTicksPastBlanksAndParenthesesInTheName)
{
    LoopThread thread("a) 1 2 3");
    long kernel = 9, user = 9;
    thread.RunningTime(kernel, user);
    EXPECT_EQ(kernel, 0);
    EXPECT_EQ(user, 0);
    thread.spin = true;
    ASSERT_TRUE(thread.Start());
    EXPECT_TRUE(WaitUntil([&] {
        thread.RunningTime(kernel, user);
        return user > 0;
    }, ScaledMs(10000)));
    EXPECT_GE(kernel, 0);
}

TEST(Thread, SetPriorityPicksLowestHighestOrMidpoint)
{
    LoopThread thread("prio");
    ASSERT_TRUE(thread.Start());
    sched_param param{};
    param.sched_priority = 1;
    if (pthread_setschedparam(thread.ThreadId(), SCHED_RR, &param) != 0) GTEST_SKIP() << "no real-time rights";
    auto priority = [&] {
        int policy;
        pthread_getschedparam(thread.ThreadId(), &policy, &param);
        EXPECT_EQ(policy, SCHED_RR);
        return param.sched_priority;
    };
    thread.SetPriority(5);
    EXPECT_EQ(priority(), 50);
    thread.SetPriority(INT_MAX);
    EXPECT_EQ(priority(), 99);
    thread.SetPriority(INT_MIN);
    EXPECT_EQ(priority(), 1);
}

}  // namespace
