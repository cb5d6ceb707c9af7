#include "PrivateConnection.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Socket.h"
#include "TimeSpan.h"
#include "daemon.h"
#include "debugger.h"
#include "utils.h"

namespace {

const char kFile[] = "PrivateConnection.cpp";
const char kErrorPrefix[] = "Error: ";
const char kEndMarker = '\v';
// A server error line consumes the line after it, which may be an error
// line itself; a hostile server must not make that recursion unbounded.
const int kMaxErrorChain = 8;
// ShouldContinue sleeps its second in these steps, watching for a stop.
const int kSleepStepMs = 10;
// The line buffer starts this large (or at the line limit, if smaller).
const int kLineStartBytes = 4096;

SockAddr private_default_addr() { return SockAddr(AF_INET, 0x7F000001u, static_cast<int>(kServicePort)); }

int private_clamp_line_len(int maxLineLen)
{
    if (maxLineLen < PrivateConnection::MIN_LINE_LEN) return PrivateConnection::MIN_LINE_LEN;
    if (maxLineLen > PrivateConnection::MAX_LINE_LEN) return PrivateConnection::MAX_LINE_LEN;
    return maxLineLen;
}

}  // namespace

const char PrivateConnection::NEWLINE[] = "\r\n";

PrivateConnection::PrivateConnection(const SockAddr* addr, int maxLineLen, const char* comment)
    : Debuggable("PrivateConnection"),
      m_addr(addr ? *addr : private_default_addr()),
      m_maxLineLen(private_clamp_line_len(maxLineLen)),
      m_comment(comment ? comment : "Unknown connection")
{
    m_lineCap = std::min(m_maxLineLen + 1, kLineStartBytes);
    m_line = static_cast<char*>(safe_mem_zalloc(static_cast<size_t>(m_lineCap), __FILE__, __LINE__));
    if (!m_line) m_lineCap = 0;
    safe_mem_object(kFile, __LINE__, "PrivateConnection", this);
}

PrivateConnection::~PrivateConnection()
{
    Close();
    safe_mem_free(m_line, __FILE__, __LINE__);
    safe_mem_object(kFile, __LINE__, "~PrivateConnection", this);
}

void PrivateConnection::DebugLine(int line, const char* function) const
{
    if (Debug()) syslog_safe(7, "DBG %s:%d %s", kFile, line, function);
}

bool PrivateConnection::Connect()
{
    MutexGuard io(m_ioLock, __FILE__, __LINE__);
    {
        MutexGuard guard(m_linkLock, __FILE__, __LINE__);
        if (m_stopForGood.load(std::memory_order_relaxed)) return false;
        m_stop.store(false, std::memory_order_relaxed);
        if (m_link) {
            DebugLine(__LINE__, __PRETTY_FUNCTION__);
            return false;
        }
    }
    sa_family_t family = m_addr.GetAF();
    if (family != AF_INET && family != AF_INET6 && family != AF_UNIX) {
        DebugLine(__LINE__, __PRETTY_FUNCTION__);
        return ConnectFailed(EAFNOSUPPORT);
    }
    if (!OpenLink()) return ConnectFailed(errno ? errno : EIO);
    if (!m_link->Connect()) return ConnectFailed(static_cast<Socket*>(m_link)->ConnectErrno());
    int greeted = AwaitPrompt();
    if (SetupTimedOut(greeted)) return false;
    // A server that closes before its prompt has refused us all the same.
    if (greeted < 0 || m_stopForGood.load(std::memory_order_relaxed)) return ConnectFailed(ECONNRESET);
    if (m_comment.empty())
        (void)Print("comment [pid=%d]%s", static_cast<int>(getpid()), NEWLINE);
    else
        (void)Print("comment [pid=%d] %s%s", static_cast<int>(getpid()), m_comment.c_str(), NEWLINE);
    // The prompt that answers the comment; only a bounded wait's end counts.
    if (SetupTimedOut(ReadIncompleteLine(strlenPrompt + 1, nullptr))) return false;
    m_eof = true;
    m_connectFailure.clear();
    DebugLine(__LINE__, __PRETTY_FUNCTION__);
    return true;
}

// Drops the link and words the reason; false.
bool PrivateConnection::ConnectFailed(int err)
{
    DropLink();
    char where[SockAddr::m_strLen];
    m_addr.Str(where, true);
    if (err == ECONNREFUSED)
        m_connectFailure = std::string("connection refused by ") + where;
    else
        m_connectFailure = std::string("cannot connect to ") + where + ": " + strerror(err ? err : EIO);
    return false;
}

bool PrivateConnection::SetupTimedOut(int result)
{
    if (result != -ETIMEDOUT) return false;
    MutexGuard io(m_ioLock, __FILE__, __LINE__);
    DropLink();
    m_connectFailure = "no greeting within " + std::to_string(m_greetingSeconds) + " s";
    return true;
}

void PrivateConnection::SetupDone()
{
    MutexGuard io(m_ioLock, __FILE__, __LINE__);
    Socket* socket = dynamic_cast<Socket*>(m_link);
    if (socket) socket->WaitTimeout(m_answerSeconds * 1000);
}

void PrivateConnection::Bounds(int connectSeconds, int greetingSeconds, int answerSeconds)
{
    m_connectSeconds = connectSeconds;
    m_greetingSeconds = greetingSeconds;
    m_answerSeconds = answerSeconds;
}

int PrivateConnection::Pending()
{
    MutexGuard io(m_ioLock, __FILE__, __LINE__);
    return m_link ? m_link->Pending() : -EPIPE;
}

bool PrivateConnection::OpenLink()
{
    Socket* link = new Socket(m_addr);
    link->ConnectTimeout(m_connectSeconds * 1000);
    link->WaitTimeout(m_greetingSeconds * 1000);
    link->QuietConnect(m_quietConnect);
    if (!link->Create()) {
        delete link;
        return false;
    }
    // Made under the lock so that a StopForGood() either comes first and is
    // seen here, or finds the descriptor to shut down.
    MutexGuard guard(m_linkLock, __FILE__, __LINE__);
    int wakeFd = fcntl(link->Fd(), F_DUPFD_CLOEXEC, 0);
    if (wakeFd < 0 || m_stopForGood.load(std::memory_order_relaxed)) {
        if (wakeFd >= 0) close(wakeFd);
        delete link;
        return false;
    }
    m_link = link;
    m_wakeFd = wakeFd;
    return true;
}

// 0 once the prompt came (or a stop ended the wait), else the read's
// negated errno (-ETIMEDOUT when the greeting bound ran out).
int PrivateConnection::AwaitPrompt()
{
    // A silent server must not time the link out: only a stop (or the
    // greeting bound, when set) ends the wait.
    m_link->LinkDeadTimeout(-1);
    const char* received = m_link->RxBuffer();
    while (!ShouldStop()) {
        int pos = 0;
        int n = m_link->ReadIncompleteLine(strlenPrompt + 1, &pos);
        if (n < 0) return ShouldStop() ? 0 : n;
        if (Debug()) syslog_safe(7, "DBG %s:%d <%s> Got \"%s\".", kFile, __LINE__, m_link->Addr(), received);
        if (strncmp(received, strPrompt, static_cast<size_t>(strlenPrompt)) == 0) break;
        // A banner line: skip the rest of it unless it has ended already.
        if (n == strlenPrompt && (n = m_link->ReadIncompleteLine(-1, &pos)) < 0) return ShouldStop() ? 0 : n;
    }
    return 0;
}

void PrivateConnection::Close()
{
    MutexGuard io(m_ioLock, __FILE__, __LINE__);
    DropLink();
}

void PrivateConnection::DropLink()
{
    MutexGuard guard(m_linkLock, __FILE__, __LINE__);
    delete m_link;
    m_link = nullptr;
    if (m_wakeFd >= 0) close(m_wakeFd);
    m_wakeFd = -1;
}

bool PrivateConnection::Adopt(Sock* link)
{
    MutexGuard io(m_ioLock, __FILE__, __LINE__);
    MutexGuard guard(m_linkLock, __FILE__, __LINE__);
    if (m_link || !link) return false;
    m_wakeFd = link->Fd() >= 0 ? fcntl(link->Fd(), F_DUPFD_CLOEXEC, 0) : -1;
    link->LinkDeadTimeout(-1);
    m_link = link;
    m_stop.store(false, std::memory_order_relaxed);
    m_eof = true;
    return true;
}

bool PrivateConnection::Reconnect()
{
    int count = m_retryCount;
    for (;;) {
        Close();
        if (Connect()) return true;
        if (!ShouldContinue(count)) return false;
    }
}

bool PrivateConnection::ShouldContinue(int& count)
{
    if (ShouldStop() || daemon_should_exit) return false;
    if (count < 1 && count != INFINITE_RETRY) return false;
    TimeSpan slept;
    while (slept.DurationMs() < 1000) {
        if (ShouldStop() || daemon_should_exit) return false;
        TimeSpan::Sleep(kSleepStepMs, 1);
    }
    if (count > 0) count--;
    if (count < 1 && count != INFINITE_RETRY) return false;
    return !daemon_should_exit && !ShouldStop();
}

int PrivateConnection::Print(const char* format, ...)
{
    MutexGuard io(m_ioLock, __FILE__, __LINE__);
    va_list args, again;
    va_start(args, format);
    va_copy(again, args);
    int n = vsnprintf(m_line, static_cast<size_t>(m_lineCap), format, args);
    va_end(args);
    if (n >= m_lineCap && n < m_maxLineLen && LineRoom(n + 1))
        n = vsnprintf(m_line, static_cast<size_t>(m_lineCap), format, again);
    va_end(again);
    if (n < 0 || n >= m_maxLineLen || n >= m_lineCap) return -ENOSPC;
    if (!m_link) return -EINVAL;
    return static_cast<int>(m_link->write(m_line, static_cast<size_t>(n)));
}

int PrivateConnection::ReadIncompleteLine(int maxLen, int* currPos)
{
    MutexGuard io(m_ioLock, __FILE__, __LINE__);
    int start = 0;
    return ReadPiece(maxLen, currPos ? *currPos : start);
}

int PrivateConnection::ReadPiece(int maxLen, int& pos)
{
    if (!m_link) return -EINVAL;
    maxLen = std::min(maxLen, m_maxLineLen);
    for (;;) {
        int size = std::min(maxLen, m_lineCap);
        int n = m_link->ReadIncompleteLine(m_line, size, &pos);
        // The buffer filled up without a terminator while the line may be
        // longer: grow it and read on from there.
        bool full = n == size - 1 && m_line[n] == '\0';
        if (n < 0 || !full || size == maxLen || !LineRoom(std::min(m_lineCap * 2, maxLen))) return n;
    }
}

// At least `size` bytes of line buffer; false (buffer unchanged) when the
// memory cannot be had.
bool PrivateConnection::LineRoom(int size)
{
    if (size <= m_lineCap) return true;
    void* grown = safe_mem_realloc(m_line, static_cast<size_t>(size), __FILE__, __LINE__);
    if (!grown) return false;
    m_line = static_cast<char*>(grown);
    m_lineCap = size;
    return true;
}

// The one lock of a row: Close from another thread waits for the read.
int PrivateConnection::ReadLine()
{
    MutexGuard io(m_ioLock, __FILE__, __LINE__);
    return ReadAnswerLine(0);
}

int PrivateConnection::ReadAnswerLine(int depth)
{
    // A short first read, so that the marker and a short remainder after it
    // are taken without reading into the next answer.
    int pos = 0;
    int n = ReadPiece(10, pos);
    if (n < 0) return n;
    m_eof = m_line[0] == kEndMarker;
    if (m_eof) {
        pos = 0;
        if (ReadPiece(9, pos) < 0 || strncmp(m_line, kErrorPrefix, sizeof kErrorPrefix - 1) != 0)
            return n;
        (void)ReadPiece(m_maxLineLen, pos);
        m_lastError.assign(m_line, static_cast<size_t>(pos));
        if (depth < kMaxErrorChain) (void)ReadAnswerLine(depth + 1);
        return -EIO;
    }
    // Nine bytes without a terminator: the line goes on.
    if (n == 9) return ReadPiece(m_maxLineLen, pos);
    return n;
}

void PrivateConnection::Stop()
{
    m_stop.store(true, std::memory_order_relaxed);
    MutexGuard guard(m_linkLock, __FILE__, __LINE__);
    // A connect this ends is no failure to log.
    Socket* socket = dynamic_cast<Socket*>(m_link);
    if (socket) socket->QuietConnect(true);
    if (m_wakeFd >= 0) (void)shutdown(m_wakeFd, SHUT_RDWR);
}

void PrivateConnection::StopForGood()
{
    {
        MutexGuard guard(m_linkLock, __FILE__, __LINE__);
        m_stopForGood.store(true, std::memory_order_relaxed);
    }
    Stop();
}

bool PrivateConnection::Connected()
{
    MutexGuard guard(m_linkLock, __FILE__, __LINE__);
    return m_link && m_link->IsConnected();
}

void PrivateConnection::Disconnect()
{
    MutexGuard io(m_ioLock, __FILE__, __LINE__);
    if (m_link) m_link->Disconnect();
}
