#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "Debuggable.h"
#include "Mutex.hpp"
#include "fixed_paths.h"
#include "process.h"

namespace {

// The holder's position is the first lock's, its step the latest; the holder id goes at every unlock.
TEST(Mutex, RecursiveHolderKeepsFirstPositionAndLatestStep)
{
    Mutex m(true);
    m.Lock("first.cpp", 10);
    m.Lock("second.cpp", 20);
    EXPECT_EQ(m.Recursed(), 2);
    EXPECT_EQ(std::string(m.LockFile()) + ":" + std::to_string(m.LockLine()), "first.cpp:10");
    EXPECT_EQ(std::string(m.StepFile()) + ":" + std::to_string(m.StepLine()), "second.cpp:20");
    EXPECT_EQ(m.LockTid(), dbg_gettid());
    m.Unlock();
    EXPECT_TRUE(m.Recursed() == 1 && m.LockTid() == 0 && m.IsLocked());
    m.Unlock();
    EXPECT_FALSE(m.IsLocked());
    StderrCapture err;
    m.Lock(nullptr, 0);
    EXPECT_TRUE(m.IsLocked());
    m.Unlock();
    EXPECT_EQ(LogLines(err.Take()), "dbg  DBG Mutex.hpp:142 Lock() Lock from unknown location.\n");
}

// A lock pthread refuses (an error-checking mutex taken again by its holder)
// is not held, and the guard leaves the unlock out: the holder's own unlock still works.
TEST(Mutex, RefusedLockIsNotHeldAndTheGuardDoesNotUnlock)
{
    Mutex m(false);
    pthread_mutex_t checking = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
    pthread_mutex_destroy(m.PthreadMutex());
    *m.PthreadMutex() = checking;
    ASSERT_EQ(pthread_mutex_lock(m.PthreadMutex()), 0);
    StderrCapture err;
    EXPECT_FALSE(m.Lock("again.cpp", 1));
    { MutexGuard guard(m, "guard.cpp", 2); }
    EXPECT_TRUE(m.Recursed() == 0 && m.LockFile() == nullptr);
    EXPECT_EQ(pthread_mutex_unlock(m.PthreadMutex()), 0);
    EXPECT_EQ(CountOf(err.Take(), "Mutex::Lock() error: rv=35"), 2u);
}

TEST(Mutex, TryAndTimedLockRefuseWhileAnotherThreadHolds)
{
    Mutex m(false);
    m.Lock(__FILE__, __LINE__);
    std::thread other([&] { EXPECT_FALSE(m.TryLock("try.cpp", 1, false) || m.TimedLock("timed.cpp", 2, 20, false)); });
    other.join();
    m.Unlock();
    EXPECT_TRUE(m.TimedLock("timed.cpp", 7, 20, false));
    EXPECT_STREQ(m.LockFile(), "timed.cpp");
    m.Unlock();
}

// The waiter reports every m_reportSeconds (here 1) who holds the lock and its
// latest step; the holder waits for each report, so no fixed sleep bounds the test.
TEST(Mutex, BlockedWaiterReportsHolderRepeatedly)
{
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_NONBLOCK | O_CLOEXEC), 0);
    fflush(stderr);
    const int saved = dup(2);
    dup2(fds[1], 2);
    std::string seen;
    auto waitForReports = [&](size_t n) {
        char buf[4096];
        for (int i = 0; i < ScaledMs(10000) / 10 && CountOf(seen, "blocked") < n; i++) {
            usleep(10000);
            for (ssize_t got; (got = read(fds[0], buf, sizeof buf)) > 0;) seen.append(buf, static_cast<size_t>(got));
        }
        return CountOf(seen, "blocked") >= n;
    };
    Mutex::m_reportSeconds = 1;
    Mutex m(false);
    m.Lock("holder.cpp", 100);
    std::thread waiter([&] {
        m.Lock("waiter.cpp", 200);
        m.Unlock();
    });
    bool first = waitForReports(1);
    m.Step("holder.cpp", 150);
    bool second = waitForReports(2);
    m.Unlock();
    waiter.join();
    Mutex::m_reportSeconds = 5;
    dup2(saved, 2);
    for (int fd : {saved, fds[0], fds[1]}) close(fd);
    ASSERT_TRUE(first && second) << seen;
    std::string prefix = "DBG waiter.cpp:200 Mutex::Lock() blocked ([" + std::to_string(dbg_gettid()) +
                         "] holder.cpp:100 still holds). <--------------- [holder.cpp:";
    EXPECT_NE(seen.find(prefix + "100]\n"), std::string::npos) << seen;
    EXPECT_NE(seen.find(prefix + "150]\n"), std::string::npos) << seen;
}

// The holder id is cached per thread: a child forked while its parent holds
// a lock must record its own id, not the parent's, when it locks.
TEST(Mutex, ChildForkedWhileLockedRecordsItsOwnId)
{
    Mutex held(true), inChild(false);
    held.Lock(__FILE__, __LINE__);
    ASSERT_EQ(held.LockTid(), dbg_gettid());
    pid_t pid = fork();
    if (pid == 0) {
        inChild.Lock(__FILE__, __LINE__);
        _exit(inChild.LockTid() == dbg_gettid() && dbg_gettid() != held.LockTid() ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    held.Unlock();
}

struct CountingNamed : Named {
    int updates = 0;
    void NameUpdated() override { updates++; }
};

TEST(Named, RenameFormatsCutsAndCallsHookOnce)
{
    CountingNamed n;
    n.Rename("%d-%s", 3, "x");
    EXPECT_STREQ(n.Name(), "3-x");
    EXPECT_EQ(n.updates, 1);
    n.Rename("%s", std::string(500, 'a').c_str());
    EXPECT_EQ(std::string(n.Name()), std::string(399, 'a'));
}

// Debug(object, flag) ignores the flag: it takes the object out of the registry.
TEST(Debuggable, RegistryKeepsOrderAndDebugWithObjectOnlyUnregisters)
{
    size_t before = Debuggable::Count();
    long censusBefore = safe_mem_object_count("Debuggable");
    Debuggable a("a%d", 1), b("b"), c("c");
    EXPECT_EQ(Debuggable::Count(), before + 3);
    EXPECT_EQ(safe_mem_object_count("Debuggable"), censusBefore + 3);
    EXPECT_TRUE(Debuggable::Debug(&b, true));
    EXPECT_FALSE(b.Debug() || Debuggable::Debug(&b, true));
    EXPECT_EQ(Debuggable::Count(), before + 2);
    Debuggable copy(c);
    EXPECT_EQ(Debuggable::Count(), before + 3);
    c.Debug(true);
    a = c;
    EXPECT_STREQ(a.Name(), "c");
    EXPECT_TRUE(a.Debug());
}

}  // namespace
