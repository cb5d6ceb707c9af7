// A thread of its own for a subclass's ThreadMain(): started with a chosen
// stack size, named for the kernel, stopped by request with a bounded wait,
// and listed class-wide so that shutdown can stop and report all of them.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstdarg>

#include "Debuggable.h"
#include "ListedObj.hpp"

class Thread : public Debuggable, public ListedObj<Thread> {
public:
    // The name is a printf format (as for Debuggable). stackSize is in bytes.
    explicit Thread(const char* name, unsigned stackSize = m_defaultStackSize);
    Thread(const char* format, va_list args, unsigned stackSize = m_defaultStackSize);
    // Stop(false): asks the thread to stop and waits up to MaxWaitTime().
    ~Thread() override;
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // On the thread itself a new name also reaches the kernel.
    void NameUpdated() override;

    // Starts ThreadMain() on a new thread. Without noWait it returns only once
    // the thread runs. False when this object was started before (it runs at
    // most once) or the thread could not be created (logged, may be retried).
    virtual bool Start(bool noWait = false);
    // Asks the thread to stop. With noWait, or when detached, never started
    // or called on the thread itself, returns true at once. Otherwise joins,
    // logging "Still waiting..." once a second: true when joined, false
    // (logged) after MaxWaitTime() seconds.
    virtual bool Stop(bool noWait = false);

    // Lets the thread end without a join. Needs the thread to be created.
    void Detach();

    bool IsRunning() const { return m_running.load(std::memory_order_acquire); }
    bool ShouldStop() const { return m_shouldStop.load(std::memory_order_acquire); }
    bool KeepRunning() const { return !ShouldStop(); }
    // True once the thread has begun (its kernel id is known).
    bool Started() const { return Tid() != -1; }
    // True when called on this object's own thread.
    bool ThisThread() const;
    unsigned StackSize() const { return m_stackSize; }
    // The pthread handle, all bits set before the thread is created.
    pthread_t ThreadId() const { return m_threadId.load(std::memory_order_relaxed); }
    // The kernel thread id, -1 until the thread has begun.
    pid_t Tid() const { return m_tid.load(std::memory_order_relaxed); }
    int MaxWaitTime() const { return m_maxWaitTime; }
    void MaxWaitTime(int seconds) { m_maxWaitTime = seconds; }
    // The object deletes itself when ThreadMain() returns (call before Start:
    // it must have been made with new, and nobody may touch it afterwards).
    void Delete() { m_delete.store(true, std::memory_order_relaxed); }
    static void GeneralDebug(bool on) { m_generalDebug.store(on, std::memory_order_relaxed); }

    // CPU time of the thread in clock ticks: first kernel mode, second user
    // mode; both 0 when its stat file cannot be read.
    void RunningTime(long& first, long& second) const;
    // INT_MIN: the policy's lowest priority, INT_MAX: its highest, any other
    // value: the midpoint of the two (the number itself is never used).
    void SetPriority(int priority) const;
    // Gives the first 15 characters of the name to the kernel for the
    // calling thread.
    void PublishName() const;

    // Sets every listed thread's stop flag.
    static void SignalAllStop();
    // Process shutdown: signals all threads to stop and waits up to 10 s for
    // the list to empty; then reports the remaining ones and returns false.
    static bool Fini();

    static std::atomic<bool> m_generalDebug;
    static unsigned m_defaultStackSize;

protected:
    // The thread's work; poll KeepRunning(). The result is the exit value.
    virtual void* ThreadMain() = 0;

private:
    static void* ThreadCB(void* object);
    // The bounded join of Stop(): true when the thread has ended.
    bool Join();

    unsigned m_stackSize;
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_shouldStop{false};
    std::atomic<pthread_t> m_threadId;
    std::atomic<pid_t> m_tid{-1};
    std::atomic<bool> m_detached{false};
    std::atomic<bool> m_delete{false};
    int m_maxWaitTime = 20;
    // Set once joined, so that a second Stop() never joins a stale handle.
    bool m_joined = false;
};
