#include "Thread.h"

#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "TimeSpan.h"
#include "debugger.h"
#include "utils.h"

namespace {
const pthread_t kNoThread = static_cast<pthread_t>(-1);
// Fini() waits this many one-second rounds for the list to empty.
const int kFiniRounds = 10;
}  // namespace

std::atomic<bool> Thread::m_generalDebug{false};
unsigned Thread::m_defaultStackSize = 102400;

// The name is a format, as for every Debuggable: callers pass literals.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
Thread::Thread(const char* name, unsigned stackSize)
    : Debuggable(name ? name : ""), m_stackSize(stackSize), m_threadId(kNoThread)
{
    safe_mem_object("Thread.cpp", __LINE__, "Thread", this);
}
#pragma GCC diagnostic pop

Thread::Thread(const char* format, va_list args, unsigned stackSize)
    : Debuggable(format, args), m_stackSize(stackSize), m_threadId(kNoThread)
{
    safe_mem_object("Thread.cpp", __LINE__, "Thread", this);
}

Thread::~Thread()
{
    Stop(false);
    safe_mem_object("Thread.cpp", __LINE__, "~Thread", this);
}

void Thread::NameUpdated()
{
    if (ThisThread()) PublishName();
}

bool Thread::ThisThread() const
{
    return Started() && pthread_equal(pthread_self(), ThreadId());
}

bool Thread::Start(bool noWait)
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    int rv = pthread_attr_setstacksize(&attributes, m_stackSize);
    if (rv != 0) syslog_safe(4, "Stack size %u refused for '%s' (%d), default used.", m_stackSize, Name(), rv);

    bool startedBefore;
    {
        MutexGuard guard(m_objListLock, "Thread.cpp", 59);
        // A created thread that has not begun yet counts as started too.
        startedBefore = Tid() != -1 || ThreadId() != kNoThread;
        if (!startedBefore) m_shouldStop.store(false, std::memory_order_relaxed);
    }
    if (startedBefore) {
        pthread_attr_destroy(&attributes);
        return false;
    }

    pthread_t id;
    rv = pthread_create(&id, &attributes, ThreadCB, this);
    pthread_attr_destroy(&attributes);
    if (rv != 0) {
        syslog_safe(3, "%s:%d pthread_create()=%d [%s]", "Thread.cpp", 70, rv, Name());
        return false;
    }
    m_threadId.store(id, std::memory_order_relaxed);
    if (noWait) return true;
    while (Tid() == -1) TimeSpan::Sleep(10000LL, 1);
    return true;
}

void* Thread::ThreadCB(void* object)
{
    Thread* self = static_cast<Thread*>(object);
    bool wasDetached = self->m_detached.load(std::memory_order_relaxed);
    self->m_threadId.store(pthread_self(), std::memory_order_relaxed);
    // Running and named for the kernel before the id is published, so
    // Start() returning means all three.
    self->m_running.store(true, std::memory_order_relaxed);
    self->PublishName();
    self->m_tid.store(dbg_gettid(), std::memory_order_relaxed);
    if (m_generalDebug.load(std::memory_order_relaxed))
        syslog_safe(7, "DBG %s:%d Started (%s).", "Thread.cpp", 209, self->Name());

    void* result = self->ThreadMain();

    if (m_generalDebug.load(std::memory_order_relaxed))
        syslog_safe(7, "DBG %s:%d Ended (%s).", "Thread.cpp", 211, self->Name());
    MutexGuard guard(m_objListLock, "Thread.cpp", 213);
    if (self->m_delete.load(std::memory_order_relaxed)) {
        // Nobody will join a thread whose object is gone.
        if (!self->m_detached.exchange(true)) pthread_detach(pthread_self());
        delete self;
    } else if (!wasDetached) {
        // The last touch of the object: a detached one may be destroyed
        // as soon as this is seen.
        self->m_running.store(false, std::memory_order_release);
    }
    return result;
}

bool Thread::Stop(bool noWait)
{
    // Release: what the caller did before the request happens before the
    // thread acts on it (a self-deleting thread may be gone right after).
    m_shouldStop.store(true, std::memory_order_release);
    if (m_detached.load(std::memory_order_relaxed) || noWait || ThreadId() == kNoThread || m_joined ||
        ThisThread())
        return true;
    return Join();
}

bool Thread::Join()
{
    int left = m_maxWaitTime;
    // The first round's deadline is already past: it only collects a thread
    // that has ended; the numbered warnings then come once a second.
    timespec deadline = {time(nullptr), 0};
    while (left > 0) {
        int rv = pthread_timedjoin_np(ThreadId(), nullptr, &deadline);
        left--;
        if (rv != ETIMEDOUT) {
            m_joined = true;
            return true;
        }
        syslog_safe(4, "Still waiting for thread '%s' (%d/%d).", Name(), m_maxWaitTime - left, m_maxWaitTime);
        deadline.tv_sec += 1;
    }
    syslog_safe(3, "Unable to stop thread within %d seconds.", m_maxWaitTime);
    return false;
}

void Thread::Detach()
{
    MutexGuard guard(m_objListLock, "Thread.cpp", 145);
    if (!m_detached.load(std::memory_order_relaxed) && ThreadId() != kNoThread && !m_joined) {
        pthread_detach(ThreadId());
        m_detached.store(true, std::memory_order_relaxed);
    }
}

void Thread::PublishName() const
{
    char name[16];
    safe_strncpy(name, Name(), sizeof name);
    (void)prctl(PR_SET_NAME, name, 0, 0, 0);
}

namespace {

// Skips `count` blank-separated fields; null when the text ends first.
const char* thread_skip_fields(const char* at, int count)
{
    while (count-- > 0) {
        while (*at == ' ') at++;
        if (!*at) return nullptr;
        while (*at && *at != ' ') at++;
    }
    while (*at == ' ') at++;
    return *at ? at : nullptr;
}

// Parses one decimal field that ends in a blank or the text's end.
bool thread_parse_ticks(const char* at, long& out, const char** end)
{
    if (!at || *at < '0' || *at > '9') return false;
    char* stop = nullptr;
    errno = 0;
    long value = strtol(at, &stop, 10);
    if (errno != 0 || (*stop != ' ' && *stop != '\0' && *stop != '\n')) return false;
    out = value;
    *end = stop;
    return true;
}

}  // namespace

void Thread::RunningTime(long& first, long& second) const
{
    first = 0;
    second = 0;
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/task/%d/stat", static_cast<int>(getpid()), static_cast<int>(Tid()));
    FILE* file = fopen(path, "re");
    if (!file) return;
    char text[1024];
    size_t n = fread(text, 1, sizeof text - 1, file);
    fclose(file);
    text[n] = '\0';
    // The command name may hold blanks and ')': fields count from the last ')'.
    const char* close = strrchr(text, ')');
    if (!close) return;
    // Field 3 (the state) is the first after the name; 14 is user time.
    const char* user = thread_skip_fields(close + 1, 11);
    long userTicks, kernelTicks;
    const char* end;
    if (!thread_parse_ticks(user, userTicks, &end)) return;
    if (!thread_parse_ticks(thread_skip_fields(end, 0), kernelTicks, &end)) return;
    second = userTicks;
    first = kernelTicks;
}

void Thread::SetPriority(int priority) const
{
    int policy;
    sched_param param;
    int rv = pthread_getschedparam(ThreadId(), &policy, &param);
    if (rv != 0) {
        syslog_safe(4, "Unable to read scheduling of '%s' (%d).", Name(), rv);
        return;
    }
    int low = sched_get_priority_min(policy);
    int high = sched_get_priority_max(policy);
    if (priority == INT_MIN)
        param.sched_priority = low;
    else if (priority == INT_MAX)
        param.sched_priority = high;
    else
        param.sched_priority = (high + low) / 2;
    rv = pthread_setschedparam(ThreadId(), policy, &param);
    if (rv != 0) syslog_safe(4, "Unable to set priority of '%s' (%d).", Name(), rv);
}

void Thread::SignalAllStop()
{
    MUTEX_GUARD(m_objListLock);
    for (Thread* thread : m_objList) thread->m_shouldStop.store(true, std::memory_order_release);
}

bool Thread::Fini()
{
    SignalAllStop();
    for (int round = 0; round < kFiniRounds; round++) {
        TimeSpan::Sleep(1L, 1);
        MUTEX_GUARD(m_objListLock);
        if (m_objList.empty()) return true;
    }
    MUTEX_GUARD(m_objListLock);
    for (Thread* thread : m_objList)
        syslog_safe(4, "Thread [%d] %s still alive%s.", static_cast<int>(thread->Tid()), thread->Name(),
                    thread->m_detached.load(std::memory_order_relaxed) ? " (detached)" : "");
    return false;
}
