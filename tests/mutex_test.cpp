#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "Debuggable.h"
#include "ListedObj.hpp"
#include "Mutex.hpp"
#include "process.h"

namespace {

// Redirects standard error into a pipe for the life of the object.
class StderrPipe {
public:
    StderrPipe()
    {
        fflush(stderr);
        if (pipe(m_fds) != 0) abort();
        m_saved = dup(2);
        dup2(m_fds[1], 2);
    }
    ~StderrPipe()
    {
        fflush(stderr);
        dup2(m_saved, 2);
        close(m_saved);
        close(m_fds[1]);
        close(m_fds[0]);
    }
    // Reads what is there now without blocking.
    std::string Drain()
    {
        fflush(stderr);
        std::string out;
        char buf[4096];
        pollfd p = {m_fds[0], POLLIN, 0};
        while (poll(&p, 1, 0) > 0) {
            ssize_t n = read(m_fds[0], buf, sizeof buf);
            if (n <= 0) break;
            out.append(buf, static_cast<size_t>(n));
        }
        return out;
    }

private:
    int m_fds[2];
    int m_saved;
};

TEST(Mutex, RecursiveHolderKeepsFirstPositionAndLatestStep)
{
    Mutex m(true);
    m.Lock("first.cpp", 10);
    m.Lock("second.cpp", 20);
    EXPECT_EQ(m.Recursed(), 2);
    EXPECT_STREQ(m.LockFile(), "first.cpp");
    EXPECT_EQ(m.LockLine(), 10);
    EXPECT_STREQ(m.StepFile(), "second.cpp");
    EXPECT_EQ(m.StepLine(), 20);
    EXPECT_EQ(m.LockTid(), dbg_gettid());
    m.Unlock();
    // The holder id is cleared on every unlock, also at a lower depth.
    EXPECT_EQ(m.Recursed(), 1);
    EXPECT_EQ(m.LockTid(), 0);
    EXPECT_TRUE(m.IsLocked());
    m.Unlock();
    EXPECT_FALSE(m.IsLocked());
}

TEST(Mutex, LockFromUnknownLocationIsLoggedAndTaken)
{
    Mutex m(false);
    StderrPipe err;
    m.Lock(nullptr, 0);
    EXPECT_TRUE(m.IsLocked());
    m.Unlock();
    std::string text = err.Drain();
    EXPECT_NE(text.find("dbg  DBG Mutex.hpp:142 Lock() Lock from unknown location.\n"), std::string::npos) << text;
}

// A lock pthread refuses (here: an error-checking mutex taken again by its
// holder) is reported as not held, and the guard leaves the unlock out: the
// holder's own unlock still finds the mutex its own.
TEST(Mutex, RefusedLockIsNotHeldAndTheGuardDoesNotUnlock)
{
    Mutex m(false);
    pthread_mutex_t checking = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
    pthread_mutex_destroy(m.PthreadMutex());
    *m.PthreadMutex() = checking;
    ASSERT_EQ(pthread_mutex_lock(m.PthreadMutex()), 0);
    StderrPipe err;
    EXPECT_FALSE(m.Lock("again.cpp", 1));
    { MutexGuard guard(m, "guard.cpp", 2); }
    EXPECT_EQ(m.Recursed(), 0);
    EXPECT_EQ(m.LockFile(), nullptr);
    EXPECT_EQ(pthread_mutex_unlock(m.PthreadMutex()), 0);
    EXPECT_EQ(CountOf(err.Drain(), "Mutex::Lock() error: rv=35"), 2u);
}

TEST(Mutex, TryAndTimedLockRefuseWhileAnotherThreadHolds)
{
    Mutex m(false);
    m.Lock(__FILE__, __LINE__);
    std::thread other([&] {
        EXPECT_FALSE(m.TryLock(__FILE__, __LINE__, false));
        EXPECT_FALSE(m.TimedLock(__FILE__, __LINE__, 20, false));
    });
    other.join();
    m.Unlock();
    EXPECT_TRUE(m.TimedLock("timed.cpp", 7, 20, false));
    EXPECT_STREQ(m.LockFile(), "timed.cpp");
    m.Unlock();
}

// The waiter reports every m_reportSeconds who holds the lock: its thread,
// where it took it, and where it marked progress last. The interval is
// shortened to one second; the holder waits for each report instead of
// sleeping a fixed time, so the test is bounded but not timing-sensitive.
TEST(Mutex, BlockedWaiterReportsHolderRepeatedly)
{
    Mutex::m_reportSeconds = 1;
    Mutex m(false);
    StderrPipe err;
    std::string seen;
    auto waitForReports = [&](size_t n) {
        for (int i = 0; i < ScaledMs(10000) / 10 && CountOf(seen, "blocked") < n; i++) {
            usleep(10000);
            seen += err.Drain();
        }
        return CountOf(seen, "blocked") >= n;
    };
    m.Lock("holder.cpp", 100);
    pid_t holderTid = dbg_gettid();
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
    ASSERT_TRUE(first && second) << seen;
    std::string prefix = "DBG waiter.cpp:200 Mutex::Lock() blocked ([" + std::to_string(holderTid) +
                         "] holder.cpp:100 still holds). <--------------- [holder.cpp:";
    EXPECT_NE(seen.find(prefix + "100]\n"), std::string::npos) << seen;
    EXPECT_NE(seen.find(prefix + "150]\n"), std::string::npos) << seen;
}

// The holder id is cached per thread; a child forked while its parent
// holds a lock runs with a new id and must record that one, not the
// parent's, when it locks.
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

struct Listed : ListedObj<Listed> {
    int id;
    explicit Listed(int i) : id(i) {}
};

TEST(ListedObj, KeepsLiveInstancesInConstructionOrder)
{
    Listed a(1);
    {
        Listed b(2);
        Listed c(3);
        std::vector<int> ids;
        for (Listed* l : ListedObj<Listed>::m_objList) ids.push_back(l->id);
        EXPECT_EQ(ids, (std::vector<int>{1, 2, 3}));
    }
    ASSERT_EQ(ListedObj<Listed>::m_objList.size(), 1u);
    EXPECT_EQ(ListedObj<Listed>::m_objList.front(), &a);
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

TEST(Debuggable, RegistryKeepsOrderAndDebugWithObjectOnlyUnregisters)
{
    size_t before = Debuggable::Count();
    long censusBefore = safe_mem_object_count("Debuggable");
    Debuggable a("a%d", 1), b("b"), c("c");
    EXPECT_EQ(Debuggable::Count(), before + 3);
    EXPECT_EQ(safe_mem_object_count("Debuggable"), censusBefore + 3);
    EXPECT_STREQ(a.Name(), "a1");

    // The flag is not used: the call takes the object out of the registry.
    EXPECT_TRUE(Debuggable::Debug(&b, true));
    EXPECT_FALSE(b.Debug());
    EXPECT_FALSE(Debuggable::Debug(&b, true));
    EXPECT_EQ(Debuggable::Count(), before + 2);

    Debuggable copy(c);
    EXPECT_EQ(Debuggable::Count(), before + 3);
    c.Debug(true);
    a = c;
    EXPECT_STREQ(a.Name(), "c");
    EXPECT_TRUE(a.Debug());
}

}  // namespace
