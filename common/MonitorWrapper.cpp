#include "MonitorWrapper.h"

#include <cerrno>
#include <cstring>

#include "TimeSpan.h"
#include "daemon.h"
#include "utils.h"

namespace {

const char kFile[] = "MonitorWrapper.cpp";
const char kDefaultName[] = "SQL monitor";
const char kEndMarker = '\v';
const char kErrorPrefix[] = "Error: ";
// The first line after a subscription carries this many characters of the
// server's own before the change text.
const size_t kFirstLineSkip = 6;
// After a stop every wait of the thread ends at once; this only bounds a
// callback that takes its time, before the numbered join messages begin.
const int kStopGraceMs = 2000;

struct OperationWord {
    unsigned bit;
    const char* word;
};
// In the order the server expects them.
const OperationWord kOperationWords[] = {{MonitorWrapper::OPERATION_SELECT, " select"},
                                         {MonitorWrapper::OPERATION_INSERT, " insert"},
                                         {MonitorWrapper::OPERATION_UPDATE, " update"},
                                         {MonitorWrapper::OPERATION_DELETE, " delete"}};

}  // namespace

MonitorWrapper::MonitorWrapper(const char* table, unsigned /*operations*/, const SockAddr* addr, const char* name,
                               int maxLineLen, unsigned stackSize)
    : Thread(name ? name : kDefaultName, stackSize),
      PrivateConnection(addr, maxLineLen, name ? name : kDefaultName),
      m_table(table ? table : "")
{
    safe_mem_object(kFile, __LINE__, "MonitorWrapper", this);
}

bool MonitorWrapper::Start(bool noWait)
{
    bool started = Thread::Start(noWait);
    m_initOK = m_initOK || started;
    m_startTried = true;
    return started;
}

bool MonitorWrapper::InitOK()
{
    if (!m_startTried) (void)Start(true);
    return m_initOK;
}

MonitorWrapper::~MonitorWrapper()
{
    {
        MutexGuard guard(m_callbackLock, __FILE__, __LINE__);
        m_destructor.store(true, std::memory_order_relaxed);
    }
    Stop(false);
    safe_mem_object(kFile, __LINE__, "~MonitorWrapper", this);
}

bool MonitorWrapper::Stop(bool noWait)
{
    (void)Thread::Stop(true);
    StopForGood();
    if (noWait) return true;
    // A thread created but not yet begun is as good as running here.
    TimeSpan waited;
    while (m_initOK && (!Started() || IsRunning()) && waited.DurationMs() < kStopGraceMs) TimeSpan::Sleep(2, 1);
    return Thread::Stop(false);
}

void MonitorWrapper::Notify(bool connected)
{
    MutexGuard guard(m_callbackLock, __FILE__, __LINE__);
    if (!m_destructor.load(std::memory_order_relaxed)) StateChange(connected);
}

void MonitorWrapper::Deliver(const char* line)
{
    MutexGuard guard(m_callbackLock, __FILE__, __LINE__);
    if (!m_destructor.load(std::memory_order_relaxed)) Event(line);
}

void MonitorWrapper::DeliverRefusal(const char* text)
{
    MutexGuard guard(m_callbackLock, __FILE__, __LINE__);
    if (!m_destructor.load(std::memory_order_relaxed)) Refused(text);
}

bool MonitorWrapper::Subscribe(int& retry)
{
    for (;;) {
        if (!ShouldContinue(retry)) return false;
        // One attempt per round: the rounds are the retries, a second apart.
        Close();
        bool quiet = m_failing;
        QuietConnect(quiet);
        m_failing = !Connect();
        if (!m_failing && Request()) return true;
        // The first failed connect of a spell is logged with its reason (a
        // silent greeting included, which the socket does not see); a stop is
        // no failure.
        if (m_failing && !quiet && !Thread::ShouldStop() && !PrivateConnection::ShouldStop())
            syslog_safe(3, "<MonitorWrapper> Connect failed: %s.", ConnectFailure().c_str());
    }
}

bool MonitorWrapper::Request()
{
    std::string words;
    unsigned operations = m_operations.load(std::memory_order_relaxed);
    for (const OperationWord& op : kOperationWords)
        if (operations & op.bit) words += op.word;
    m_first = true;
    (void)Print("monitor %s%s%s", m_table.c_str(), words.c_str(), NEWLINE);
    // The answer: the prompt, or the marker and an error line (which the
    // first read stops at), bounded like the greeting.
    int n = ReadIncompleteLine(strlenPrompt + 1, nullptr);
    if (n < 0) return false;
    if (n == 0 && Line()[0] == kEndMarker) {
        int pos = 0;
        n = ReadIncompleteLine(MaxLineLen(), &pos);
        if (n < 0 || strncmp(Line(), kErrorPrefix, sizeof kErrorPrefix - 1) != 0) return false;
        Line()[n] = '\0';
        std::string text = Line();
        (void)ReadLine();  // the end of the answer
        DeliverRefusal(text.c_str());
        return false;
    }
    SetupDone();
    return true;
}

void* MonitorWrapper::ThreadMain()
{
    int retry = INFINITE_RETRY;
    bool subscribed = false;
    while (!Thread::ShouldStop() && !daemon_should_exit) {
        int n = ReadLine();
        // A stop wakes the read; what it returns is no news for the owner.
        if (Thread::ShouldStop()) break;
        if (n == -EIO) continue;
        if (n <= 0) {
            if (subscribed) Notify(false);
            subscribed = false;
            // Only a stop or the exit flag makes the retries give up.
            if (!Subscribe(retry)) break;
            Notify(true);
            subscribed = true;
            continue;
        }
        if (!subscribed) {
            Notify(true);
            subscribed = true;
        }
        // The character before the terminator is the server's, not the text's.
        char* line = Line();
        line[n - 1] = '\0';
        if (m_first) {
            size_t len = strlen(line);
            line += len < kFirstLineSkip ? len : kFirstLineSkip;
            m_first = false;
        }
        Deliver(line);
    }
    return nullptr;
}
