#include <gtest/gtest.h>
#include <sys/times.h>

#include <climits>

#include "Thread.h"
#include "fixed_paths.h"
#include "process.h"
#include "wait.h"

namespace {

// Loops until asked to stop; with obeyStop false only `release` ends it.
struct LoopThread : Thread {
    explicit LoopThread(const char* name, bool obey = true) : Thread(name), obeyStop(obey) {}
    ~LoopThread() override { release = true; Stop(); }
    void* ThreadMain() override
    {
        while (!release && (!obeyStop || KeepRunning()))
            if (!spin) usleep(1000);
        return nullptr;
    }
    const bool obeyStop;
    std::atomic<bool> release{false}, spin{false};
};

// Stops of threads never started, detached or not waited for are silent; a stubborn one's waits are counted.
TEST(Thread, StartsOnceAndStopsSilentlyUntilAThreadOutstaysTheWait)
{
    LoopThread thread("worker"), stubborn("stubborn", false), detached("detached");
    ASSERT_TRUE(thread.Start());
    EXPECT_TRUE(thread.IsRunning() && !thread.Start(true)) << "running when Start returns, and started once";
    EXPECT_TRUE(thread.Stop() && !thread.IsRunning() && !thread.Start()) << "joined, and never started again";
    StderrCapture err;
    EXPECT_TRUE(thread.Stop() && LoopThread("idle").Stop()) << "a second stop after the join, an unstarted thread";
    ASSERT_TRUE(detached.Start());
    detached.Detach();
    detached.Detach();
    EXPECT_TRUE(detached.Stop() && WaitUntil([&] { return !detached.IsRunning(); }, ScaledMs(5000)));
    ASSERT_TRUE(stubborn.Start(true) && !stubborn.Start()) << "a no-wait start counts as started";
    EXPECT_TRUE(stubborn.Stop(true) && stubborn.ShouldStop()) << "a no-wait stop returns at once";
    EXPECT_TRUE(WaitUntil([&] { return stubborn.IsRunning(); }, ScaledMs(5000)));
    stubborn.MaxWaitTime(2);
    EXPECT_FALSE(stubborn.Stop());
    EXPECT_EQ(LogLines(err.Take()), "warn Still waiting for thread 'stubborn' (1/2).\n"
                                    "warn Still waiting for thread 'stubborn' (2/2).\n"
                                    "err  Unable to stop thread within 2 seconds.\n");
    stubborn.release = true;
    stubborn.MaxWaitTime(20);
    EXPECT_TRUE(stubborn.Stop()) << "a later stop still joins";
}

// A self-deleting thread is not joined; Fini stops every thread, then names those whose objects are still alive.
TEST(Thread, SelfDeletingThreadsLeaveAndFiniReportsThoseStillListed)
{
    const long left = safe_mem_object_count("Thread");
    for (bool byFini : {false, true}) {
        auto* thread = new LoopThread("self");
        thread->Delete();
        ASSERT_TRUE(thread->Start());
        EXPECT_TRUE(byFini ? Thread::Fini() : thread->Stop(true));
        // The thread deletes itself under the list lock: once the count is back under it too, it is done.
        const auto gone = [&] { MUTEX_GUARD(Thread::m_objListLock); return safe_mem_object_count("Thread") == left; };
        EXPECT_TRUE(WaitUntil(gone, ScaledMs(5000))) << byFini;
    }
    StderrCapture err;
    LoopThread a("lingering"), b("other");
    ASSERT_TRUE(a.Start() && b.Start());
    EXPECT_FALSE(Thread::Fini());
    EXPECT_TRUE(WaitUntil([&] { return !a.IsRunning() && !b.IsRunning(); }, ScaledMs(5000)));
    EXPECT_EQ(LogLines(err.Take()), "warn Thread [" + std::to_string(a.Tid()) + "] lingering still alive.\n" +
                                        "warn Thread [" + std::to_string(b.Tid()) + "] other still alive.\n");
}

// The stat line's fields count from its last ')', so blanks and ')' in the name do not shift them.
TEST(Thread, KernelNameRunningTimeAndPriority)
{
    LoopThread thread("a) 1 2 3 456789XYZ");
    long kernel = 9, user = 9;
    EXPECT_TRUE((thread.RunningTime(kernel, user), kernel == 0 && user == 0)) << "zero before the start";
    thread.spin = true;
    ASSERT_TRUE(thread.Start());
    const std::string comm = "/proc/self/task/" + std::to_string(thread.Tid()) + "/comm";
    EXPECT_TRUE(WaitUntil([&] { return ReadFile(comm) == "a) 1 2 3 456789\n"; }, ScaledMs(5000))) << ReadFile(comm);
    EXPECT_TRUE(WaitUntil([&] { return thread.RunningTime(kernel, user), user > 0; }, ScaledMs(10000)));
    thread.spin = false;
    tms process;  // a thread's ticks are part of the process's (each sum rounded apart)
    times(&process);
    EXPECT_LE(user + kernel, process.tms_utime + process.tms_stime + 2);
    sched_param param{1};
    if (pthread_setschedparam(thread.ThreadId(), SCHED_RR, &param) != 0) GTEST_SKIP() << "no real-time rights";
    for (auto [level, priority] : {std::pair<int, int>{5, 50}, {INT_MAX, 99}, {INT_MIN, 1}}) {
        thread.SetPriority(level);
        EXPECT_TRUE(sched_getparam(thread.Tid(), &param) == 0 && param.sched_priority == priority) << level;
    }
}

}  // namespace
