#include <gtest/gtest.h>

#include <thread>

#include "Debuggable.h"
#include "fixed_paths.h"
#include "process.h"
#include "wait.h"

namespace {

// A lock pthread refuses (an error-checking mutex taken again) is not held, and the guard leaves it alone.
TEST(Mutex, RefusedLockIsNotHeldAndTheGuardDoesNotUnlock)
{
    Mutex m(false);
    pthread_mutex_destroy(m.PthreadMutex());
    *m.PthreadMutex() = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
    ASSERT_EQ(pthread_mutex_lock(m.PthreadMutex()), 0);
    StderrCapture err;
    EXPECT_FALSE(m.Lock("again.cpp", 1));
    { MutexGuard guard(m, "guard.cpp", 2); }
    EXPECT_TRUE(m.Recursed() == 0 && m.LockFile() == nullptr && m.LockTid() == 0);
    EXPECT_EQ(pthread_mutex_unlock(m.PthreadMutex()), 0);  // still ours: the guard did not unlock it
    { MutexGuard unknown(m, nullptr, 0); }
    const std::string log = err.Take();
    EXPECT_EQ(CountOf(log, "Mutex::Lock() error: rv=35"), 2u) << log;
    EXPECT_EQ(CountOf(log, "dbg  DBG Mutex.hpp:142 Lock() Lock from unknown location.\n"), 1u) << log;
}

// Reports name the holder's first position, its id (cleared at every unlock, even a nested one), its last step.
TEST(Mutex, BlockedWaiterReportsHolderAndLatestStep)
{
    StderrCapture err;
    const auto reported = [](const std::string& tid, const std::string& step) {  // the capture's file, as it grows
        const std::string line = "DBG waiter.cpp:200 Mutex::Lock() blocked ([" + tid +
                                 "] holder.cpp:100 still holds). <--------------- [holder.cpp:" + step + "]\n";
        return WaitUntil([&] { return ReadFile("/proc/self/fd/2").find(line) != std::string::npos; }, ScaledMs(10000));
    };
    Mutex::m_reportSeconds = 1;
    Mutex m(true);
    m.Lock("holder.cpp", 100);
    m.Lock("holder.cpp", 120);
    std::thread waiter([&] {
        EXPECT_FALSE(m.TryLock("try.cpp", 1, false) || m.TimedLock("timed.cpp", 2, 20, false));
        m.Lock("waiter.cpp", 200);
        m.Unlock();
    });
    EXPECT_TRUE(reported(std::to_string(dbg_gettid()), "120"));
    m.Unlock();
    m.Step("holder.cpp", 150);
    EXPECT_TRUE(reported("0", "150"));
    m.Unlock();
    waiter.join();
    Mutex::m_reportSeconds = 5;
    EXPECT_TRUE(m.TimedLock("timed.cpp", 7, 20, false));
    m.Unlock();
}

// The holder id is cached per thread: a child forked while its parent holds a lock records its own id.
TEST(Mutex, ChildForkedWhileLockedRecordsItsOwnId)
{
    Mutex held(true), inChild(false);
    held.Lock(__FILE__, __LINE__);
    EXPECT_EQ(0, RunInNamespaces(0, [&] {
        inChild.Lock(__FILE__, __LINE__);
        return inChild.LockTid() == dbg_gettid() && dbg_gettid() != held.LockTid() ? 0 : 1;
    }));
    held.Unlock();
}

// Rename cuts at 399 characters and calls the hook; Debug(object, flag) ignores the flag: it unlists the object.
TEST(Debuggable, RenameCutsAndTheRegistryFollowsCopiesAndRemovals)
{
    struct Counting : Named { int updates = 0; void NameUpdated() override { updates++; } } named;
    named.Rename("%d-%s", 3, std::string(500, 'a').c_str());
    EXPECT_TRUE(named.updates == 1 && std::string(named.Name()) == "3-" + std::string(397, 'a')) << named.Name();
    const size_t listed = Debuggable::Count();
    const long census = safe_mem_object_count("Debuggable");
    Debuggable a("a"), b("b"), c("c%d", 1), copy(c);
    EXPECT_TRUE(Debuggable::Debug(&b, true));
    EXPECT_FALSE(b.Debug() || Debuggable::Debug(&b, true));
    EXPECT_TRUE(Debuggable::Count() == listed + 3 && safe_mem_object_count("Debuggable") == census + 4);
    c.Debug(true);
    a = c;
    EXPECT_TRUE(std::string(a.Name()) == "c1" && a.Debug());
}

}  // namespace
