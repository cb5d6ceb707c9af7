// A pthread mutex that remembers who holds it and, while a caller waits,
// reports every m_reportSeconds who is in the way.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <ctime>

#include "debugger.h"
#include "utils.h"

class Mutex {
public:
    explicit Mutex(bool recursive)
        : m_recursive(recursive),
          m_lock_count(0),
          m_lock_file(nullptr),
          m_lock_line(0),
          m_step_file(nullptr),
          m_step_line(0),
          m_lock_tid(0)
    {
        safe_mem_object("Mutex.hpp", __LINE__, "Mutex", this);
        pthread_mutexattr_init(&m_attributes);
        if (m_recursive) pthread_mutexattr_settype(&m_attributes, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&m_mutex, &m_attributes);
    }
    ~Mutex()
    {
        safe_mem_object("Mutex.hpp", __LINE__, "~Mutex", this);
        pthread_mutex_destroy(&m_mutex);
        pthread_mutexattr_destroy(&m_attributes);
    }
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    // Blocks until taken, reporting every m_reportSeconds while it waits:
    // true once held. False only when pthread refuses the lock for another
    // reason than the wait (logged at level 7; nothing is held and the
    // holder fields are untouched): the caller must not Unlock then.
    // `file` must be a string literal (the caller's __FILE__): it is kept.
    // A free lock is taken at once, without reading the clock for the wait.
    bool Lock(const char* file, int line)
    {
        while (pthread_mutex_trylock(&m_mutex) != 0) {
            // time(NULL) lags CLOCK_REALTIME by up to a tick, so a deadline
            // built from it can already have passed: a burst of reports.
            timespec deadline;
            clock_gettime(CLOCK_REALTIME, &deadline);
            deadline.tv_sec += m_reportSeconds;
            int rv = pthread_mutex_timedlock(&m_mutex, &deadline);
            if (rv == 0) break;
            if (rv != ETIMEDOUT) {
                syslog_safe(7, "DBG %s:%d Mutex::Lock() error: rv=%d this=%p.", Text(file), line, rv,
                            static_cast<void*>(this));
                return false;
            }
            syslog_safe(7, "DBG %s:%d Mutex::Lock() blocked ([%d] %s:%d still holds). <--------------- [%s:%d]",
                        Text(file), line, static_cast<int>(m_lock_tid), Text(m_lock_file), static_cast<int>(m_lock_line),
                        Text(m_step_file), static_cast<int>(m_step_line));
        }
        GotLock(file, line, "Lock");
        return true;
    }

    // Takes the lock only if it is free (or already ours); with `flag` a
    // refusal is logged at level 7.
    bool TryLock(const char* file, int line, bool flag)
    {
        if (pthread_mutex_trylock(&m_mutex) != 0) {
            if (flag) syslog_safe(7, "DBG %s:%d Mutex::TryLock() busy ([%d] %s:%d holds).", Text(file), line,
                                  static_cast<int>(m_lock_tid), Text(m_lock_file), static_cast<int>(m_lock_line));
            return false;
        }
        GotLock(file, line, "TryLock");
        return true;
    }

    // Waits at most `timeout` milliseconds; with `flag` a time-out is logged
    // at level 7.
    bool TimedLock(const char* file, int line, int timeout, bool flag)
    {
        timespec deadline;
        clock_gettime(CLOCK_REALTIME, &deadline);
        long long ns = deadline.tv_nsec + (timeout % 1000) * 1000000LL;
        deadline.tv_sec += timeout / 1000 + static_cast<time_t>(ns / 1000000000LL);
        deadline.tv_nsec = static_cast<long>(ns % 1000000000LL);
        int rv = pthread_mutex_timedlock(&m_mutex, &deadline);
        if (rv != 0) {
            if (flag) syslog_safe(7, "DBG %s:%d Mutex::TimedLock() failed: rv=%d ([%d] %s:%d holds).", Text(file), line,
                                  rv, static_cast<int>(m_lock_tid), Text(m_lock_file), static_cast<int>(m_lock_line));
            return false;
        }
        GotLock(file, line, "TimedLock");
        return true;
    }

    // The holder id is cleared on every unlock, even when a recursive holder
    // keeps the lock at a lower depth; the reports only need "who took it".
    void Unlock()
    {
        m_lock_count = m_lock_count - 1;
        m_lock_tid = 0;
        pthread_mutex_unlock(&m_mutex);
    }

    // Marks progress inside a long critical section for waiters' reports.
    void Step(const char* file, int line)
    {
        m_step_file = file;
        m_step_line = line;
    }

    bool IsLocked() const { return m_lock_count > 0; }
    int Recursed() const { return m_lock_count; }
    pid_t LockTid() const { return m_lock_tid; }
    const char* LockFile() const { return m_lock_file; }
    int LockLine() const { return m_lock_line; }
    const char* StepFile() const { return m_step_file; }
    int StepLine() const { return m_step_line; }
    pthread_mutex_t* PthreadMutex() { return &m_mutex; }

    // Seconds between "blocked" reports of a waiting Lock().
    static int m_reportSeconds;

private:
    static const char* Text(const char* s) { return s ? s : "?"; }

    void GotLock(const char* file, int line, const char* func)
    {
        if (!file) syslog_safe(7, "DBG %s:%d %s() Lock from unknown location.", "Mutex.hpp", 142, func);
        if (m_lock_count == 0) {
            m_lock_file = file;
            m_lock_line = line;
            m_lock_tid = ThreadId();
        }
        m_lock_count = m_lock_count + 1;
        m_step_file = file;
        m_step_line = line;
    }

    // The caller's kernel thread id, cached per thread: a gettid system
    // call per lock would be one per row of a result. A forked child runs
    // with a new id, so the child of every fork forgets the cached one.
    static pid_t ThreadId()
    {
        if (m_threadId == 0) {
            static const bool forgetInChildren = pthread_atfork(nullptr, nullptr, ForgetThreadId) == 0;
            (void)forgetInChildren;
            m_threadId = dbg_gettid();
        }
        return m_threadId;
    }
    static void ForgetThreadId() { m_threadId = 0; }
    static inline thread_local pid_t m_threadId = 0;

    // The holder fields are written by the holder and read without the lock
    // by waiters' reports: relaxed atomics, a stale report is acceptable.
    template <class T>
    struct Relaxed {
        std::atomic<T> value;
        Relaxed(T v) : value(v) {}
        operator T() const { return value.load(std::memory_order_relaxed); }
        Relaxed& operator=(T v)
        {
            value.store(v, std::memory_order_relaxed);
            return *this;
        }
    };

    bool m_recursive;
    pthread_mutexattr_t m_attributes;
    pthread_mutex_t m_mutex;
    Relaxed<int> m_lock_count;
    Relaxed<const char*> m_lock_file;
    Relaxed<int> m_lock_line;
    Relaxed<const char*> m_step_file;
    Relaxed<int> m_step_line;
    Relaxed<pid_t> m_lock_tid;
};

inline int Mutex::m_reportSeconds = 5;

// Holds a Mutex for a scope; every path out unlocks it if Lock took it (a
// refused Lock is logged and the scope runs unprotected, as it always has).
class MutexGuard {
public:
    MutexGuard(Mutex& m, const char* file, int line) : m_mutex(m), m_held(m.Lock(file, line)) {}
    ~MutexGuard()
    {
        if (m_held) m_mutex.Unlock();
    }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

private:
    Mutex& m_mutex;
    bool m_held;
};

#define MUTEX_LOCK(m) (m).Lock(__FILE__, __LINE__)
#define MUTEX_GUARD_NAME2(line) mutexGuard_##line
#define MUTEX_GUARD_NAME(line) MUTEX_GUARD_NAME2(line)
#define MUTEX_GUARD(m) MutexGuard MUTEX_GUARD_NAME(__LINE__)((m), __FILE__, __LINE__)
