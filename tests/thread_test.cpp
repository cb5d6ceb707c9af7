#include <gtest/gtest.h>
#include <sys/times.h>
#include <unistd.h>

#include <climits>
#include <fstream>

#include "Thread.h"
#include "fixed_paths.h"
#include "process.h"
#include "utils.h"
#include "wait.h"

namespace {

// Loops until asked to stop; with obeyStop false only `release` ends it.
struct LoopThread : Thread {
    explicit LoopThread(const char* name, bool obey = true) : Thread(name), obeyStop(obey) {}
    ~LoopThread() override
    {
        release = true;
        Stop();
    }
    void* ThreadMain() override
    {
        while (!release && (!obeyStop || KeepRunning()))
            if (!spin) usleep(1000);
        return nullptr;
    }
    const bool obeyStop;
    std::atomic<bool> release{false}, spin{false};
};

TEST(Thread, StartsOnceStopsSilentlyAndIsRunningWhenStartReturns)
{
    LoopThread thread("worker"), nowait("nowait", false);
    EXPECT_EQ(thread.Tid(), -1);
    ASSERT_TRUE(thread.Start());
    EXPECT_TRUE(thread.IsRunning() && thread.Tid() != -1);
    EXPECT_FALSE(thread.Start(true));
    EXPECT_TRUE(thread.Stop());
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_FALSE(thread.Start()) << "an ended thread is not started again";
    EXPECT_TRUE(thread.Stop()) << "a second stop after the join";
    ASSERT_TRUE(nowait.Start(true));
    EXPECT_FALSE(nowait.Start()) << "a no-wait start counts as started";
    EXPECT_TRUE(WaitUntil([&] { return nowait.IsRunning(); }, ScaledMs(5000)));
    StderrCapture err;
    EXPECT_TRUE(LoopThread("idle").Stop()) << "an unstarted thread";
    EXPECT_TRUE(nowait.Stop(true)) << "a no-wait stop returns at once";
    EXPECT_TRUE(nowait.ShouldStop() && nowait.IsRunning());
    EXPECT_EQ(err.Take(), "");
}

TEST(Thread, StopCountsItsWaitsAndGivesUp)
{
    const std::pair<int, const char*> cases[] = {
        {0, "err  Unable to stop thread within 0 seconds.\n"},
        {2, "warn Still waiting for thread 'stubborn' (1/2).\nwarn Still waiting for thread 'stubborn' (2/2).\n"
            "err  Unable to stop thread within 2 seconds.\n"}};
    for (auto [seconds, log] : cases) {
        StderrCapture err;
        LoopThread thread("stubborn", false);
        ASSERT_TRUE(thread.Start());
        thread.MaxWaitTime(seconds);
        EXPECT_FALSE(thread.Stop());
        EXPECT_EQ(LogLines(err.Take()), log);
        thread.release = true;
        thread.MaxWaitTime(20);
        EXPECT_TRUE(thread.Stop());
    }
}

TEST(Thread, DetachedOrSelfDeletingThreadIsNotJoined)
{
    {
        LoopThread detached("detached");
        ASSERT_TRUE(detached.Start());
        detached.Detach();
        detached.Detach();
        EXPECT_TRUE(detached.Stop());
        EXPECT_TRUE(WaitUntil([&] { return !detached.IsRunning(); }, ScaledMs(5000)));
    }
    const long objects = safe_mem_object_count("Thread");
    for (bool byFini : {false, true}) {
        auto* thread = new LoopThread("self");
        thread->Delete();
        ASSERT_TRUE(thread->Start());
        EXPECT_TRUE(byFini ? Thread::Fini() : thread->Stop(true));
        // The thread deletes itself under the list lock: looking under it too
        // means the thread is done with the object and the registries.
        EXPECT_TRUE(WaitUntil([&] {
            MUTEX_GUARD(Thread::m_objListLock);
            return safe_mem_object_count("Thread") == objects;
        }, ScaledMs(5000))) << byFini;
    }
}

// Fini stops every thread, then names those whose objects are still alive.
TEST(Thread, FiniStopsEveryThreadAndReportsThoseStillListed)
{
    StderrCapture err;
    LoopThread a("lingering"), b("other");
    ASSERT_TRUE(a.Start() && b.Start());
    EXPECT_FALSE(Thread::Fini());
    EXPECT_TRUE(a.ShouldStop() && b.ShouldStop());
    EXPECT_TRUE(WaitUntil([&] { return !a.IsRunning() && !b.IsRunning(); }, ScaledMs(5000)));
    EXPECT_EQ(LogLines(err.Take()), "warn Thread [" + std::to_string(a.Tid()) + "] lingering still alive.\n" +
                                        "warn Thread [" + std::to_string(b.Tid()) + "] other still alive.\n");
}

// The kernel keeps 15 characters of the name; the stat line's fields count
// from its last ')', so blanks and ')' in the name do not shift them.
TEST(Thread, KernelNameAndRunningTime)
{
    LoopThread thread("a) 1 2 3 456789XYZ");
    long kernel = 9, user = 9;
    thread.RunningTime(kernel, user);
    EXPECT_EQ(std::make_pair(kernel, user), std::make_pair(0L, 0L)) << "zero before the start";
    thread.spin = true;
    ASSERT_TRUE(thread.Start());
    const std::string path = "/proc/self/task/" + std::to_string(thread.Tid()) + "/comm";
    std::string name;
    EXPECT_TRUE(WaitUntil([&] {  // the thread names itself just after Start has returned
        std::ifstream comm(path);
        std::getline(comm, name);
        return name == "a) 1 2 3 456789";
    }, ScaledMs(5000))) << name;
    EXPECT_TRUE(WaitUntil([&] { return thread.RunningTime(kernel, user), user > 0; }, ScaledMs(10000)));
    tms process;  // a thread's ticks are part of the process's (each sum rounded apart)
    times(&process);
    EXPECT_LE(user + kernel, process.tms_utime + process.tms_stime + 2);
}

TEST(Thread, SetPriorityPicksLowestHighestOrMidpoint)
{
    LoopThread thread("prio");
    ASSERT_TRUE(thread.Start());
    sched_param param{};
    param.sched_priority = 1;
    if (pthread_setschedparam(thread.ThreadId(), SCHED_RR, &param) != 0) GTEST_SKIP() << "no real-time rights";
    for (auto [level, priority] : {std::pair<int, int>{5, 50}, {INT_MAX, 99}, {INT_MIN, 1}}) {
        thread.SetPriority(level);
        int policy;
        pthread_getschedparam(thread.ThreadId(), &policy, &param);
        EXPECT_EQ(std::make_pair(policy, param.sched_priority), std::make_pair(SCHED_RR, priority)) << level;
    }
}

}  // namespace
