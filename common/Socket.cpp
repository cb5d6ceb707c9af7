#include "Socket.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "daemon.h"
#include "debugger.h"
#include "utils.h"

namespace {

// Every bind and connect passes the size of the largest address, the Unix one.
const socklen_t kAddrLen = sizeof(sockaddr_un);
// "+xxxx " in front of a line sent with checksums.
const int kChecksumPrefix = 6;
// The read-ahead buffer: line assembly takes lines from it a span at a
// time, so the descriptor is read once per 8000 bytes, not per line or byte.
const size_t kAheadLen = 8000;
// Reads poll this often while nothing arrives; a write waits this long for room.
const int kPollMs = 100;

bool socket_family_ok(sa_family_t family)
{
    return family == AF_INET || family == AF_INET6 || family == AF_UNIX;
}

// A blocking read gives EAGAIN after this long, so the link-dead check runs.
void socket_set_receive_timeout(int fd)
{
    timeval tv = {5, 5};
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
}

int socket_errno() { return errno ? errno : EIO; }

}  // namespace

Socket::Socket(const SockAddr& addr, void* data)
    : Sock(addr),
      m_f(nullptr),
      m_data(data),
      m_unlinkOnClose(false),
      m_ahead(static_cast<char*>(safe_mem_malloc(kAheadLen, __FILE__, __LINE__))),
      m_aheadPos(0),
      m_aheadEnd(0)
{
    safe_mem_object("Socket.cpp", __LINE__, "Socket", this);
    Listed(true);
}

Socket::Socket(int fd, const SockAddr& remote, void* data) : Socket(remote, data)
{
    m_fd = fd;
    int rv = m_local.GetSockname(fd);
    if (rv < 0) syslog_safe(4, "Couldn't get local socket address (%d).", -rv);
    if (socket_family_ok(remote.GetAF()) && !SetKeepAlive(m_keepAliveIdle, m_keepAliveInterval, m_keepAliveCount))
        syslog_safe(3, "Unable to set KEEP_ALIVE option (%d).", errno);
}

Socket::~Socket()
{
    Listed(false);
    Disconnect();
    safe_mem_free(m_ahead, __FILE__, __LINE__);
    safe_mem_object("Socket.cpp", __LINE__, "~Socket", this);
}

bool Socket::FamilySupported(const char* function, int line) const
{
    if (socket_family_ok(m_remote.GetAF())) return true;
    syslog_safe(3, "%s:%d %s Address family %d not supported.", __FILE__, line, function, m_remote.GetAF());
    return false;
}

bool Socket::Create()
{
    if (m_fd != -1) return true;
    if (!FamilySupported(__PRETTY_FUNCTION__, __LINE__)) return false;
    int fd = socket(m_remote.GetAF(), SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        syslog_safe(3, "Unable to create socket (%d).", errno);
        return false;
    }
    m_fd = fd;
    return true;
}

bool Socket::Bind()
{
    sa_family_t family = m_local.GetAF();
    const char* path = m_local.Get().un.sun_path;
    struct stat st;
    if (family == AF_INET || family == AF_INET6) {
        int on = 1;
        (void)setsockopt(m_fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    } else if (family == AF_UNIX && stat(path, &st) == 0) {
        syslog_safe(6, "Removing existing file at \"%s\".", path);
        (void)unlink(path);
    }
    if (bind(m_fd, &m_local.Get().addr, kAddrLen) != 0) {
        char text[SockAddr::m_strLen];
        syslog_safe(3, "Unable to bind socket %s, FD %d (%d).", m_local.Str(text, true), m_fd.load(), errno);
        return false;
    }
    m_unlinkOnClose = family == AF_UNIX && path[0] != '\0';
    return true;
}

bool Socket::Listen(int backlog)
{
    if (listen(m_fd, backlog) == 0) return true;
    char text[SockAddr::m_strLen];
    syslog_safe(3, "Socket %s will not listen (%d).", m_local.Str(text, true), errno);
    return false;
}

bool Socket::AcceptListAdd(fd_set& set, int& maxFd)
{
    int fd = m_fd;
    if (fd == -1 || fd >= FD_SETSIZE) return false;
    FD_SET(fd, &set);
    if (fd > maxFd) maxFd = fd;
    return true;
}

Sock* Socket::AcceptListCheck(fd_set& set)
{
    int fd = m_fd;
    if (fd == -1 || fd >= FD_SETSIZE || !FD_ISSET(fd, &set)) return nullptr;
    SockAddr peer;
    socklen_t len = sizeof(sockaddr_all);
    int conn = accept4(fd, &peer.GetPrivate().addr, &len, SOCK_CLOEXEC);
    if (conn < 0) {
        syslog_safe(3, "<%s> Accept failed (%d).", m_remote_str, errno);
        return nullptr;
    }
    socket_set_receive_timeout(conn);
    return new Socket(conn, peer, nullptr);
}

bool Socket::Connect()
{
    bool fresh = m_fd == -1;
    if (!Create()) return false;
    if (!FamilySupported(__PRETTY_FUNCTION__, __LINE__)) return false;
    int err = 0;
    if (m_connectTimeoutMs > 0) err = ConnectBounded();
    else if (connect(m_fd, &m_remote.Get().addr, kAddrLen) != 0) err = socket_errno();
    m_connectErrno = err;
    if (err != 0) {
        if (!m_quietConnect.load(std::memory_order_relaxed)) syslog_safe(3, "<%s> Unable to connect (%d).", m_remote_str, err);
        // A fresh descriptor for the next try: a failed one is unusable.
        if (fresh) Disconnect();
        return false;
    }
    m_pos = 0;
    UpdateRxTime();
    UpdateTxTime();
    if (!SetKeepAlive(m_keepAliveIdle, m_keepAliveInterval, m_keepAliveCount)) {
        syslog_safe(3, "Unable to set KEEP_ALIVE option (%d).", errno);
        return false;
    }
    int rv = m_local.GetSockname(m_fd);
    if (rv < 0) syslog_safe(4, "Can't get local socket address (%d).", -rv);
    socket_set_receive_timeout(m_fd);
    return true;
}

// connect() that gives up after ConnectTimeout(): 0 or an errno, ETIMEDOUT
// when the time ran out. A stop that shuts the descriptor down ends it too.
int Socket::ConnectBounded()
{
    const int fd = m_fd;
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) return socket_errno();
    int err = connect(fd, &m_remote.Get().addr, kAddrLen) == 0 ? 0 : errno;
    TimeSpan waiting;
    while (err == EINPROGRESS || err == EINTR) {
        int left = m_connectTimeoutMs - waiting.DurationMs();
        if (left <= 0) {
            err = ETIMEDOUT;
        } else if (daemon_should_exit) {
            err = EINTR;
            break;
        } else {
            pollfd pfd = {fd, POLLOUT, 0};
            int n = poll(&pfd, 1, std::min(left, kPollMs));
            if (n < 0 && errno != EINTR) {
                err = errno;
            } else if (n > 0) {
                socklen_t len = sizeof err;
                if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) err = errno;
                else if (err == 0 && (pfd.revents & (POLLHUP | POLLERR))) err = ECONNRESET;
            }
        }
    }
    (void)fcntl(fd, F_SETFL, flags);
    return err;
}

void Socket::Disconnect()
{
    if (m_f) {
        fclose(m_f);
        m_f = nullptr;
    }
    m_aheadPos = m_aheadEnd = 0;
    int fd = m_fd.exchange(-1);
    if (fd != -1) {
        shutdown(fd, SHUT_RDWR);
        close(fd);
    }
    if (m_unlinkOnClose) {
        (void)unlink(m_local.Get().un.sun_path);
        m_unlinkOnClose = false;
    }
}

// The timing options belong to TCP: at the socket level their numbers are
// SO_ERROR, SO_DONTROUTE and SO_BROADCAST, and don't-route would keep every
// packet on the local subnet. A Unix socket has no TCP timing.
bool Socket::SetKeepAlive(int idle, int interval, int count)
{
    int on = 1, back = 0;
    socklen_t len = sizeof back;
    if (setsockopt(m_fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) != 0) return false;
    if (getsockopt(m_fd, SOL_SOCKET, SO_KEEPALIVE, &back, &len) != 0) return false;
    sa_family_t family = m_remote.GetAF();
    if (family != AF_INET && family != AF_INET6) return true;
    const int option[3] = {TCP_KEEPIDLE, TCP_KEEPINTVL, TCP_KEEPCNT};
    const int value[3] = {idle, interval, count};
    for (int i = 0; i < 3; i++)
        if (value[i]) (void)setsockopt(m_fd, IPPROTO_TCP, option[i], &value[i], sizeof value[i]);
    return true;
}

int Socket::vprintf(const char* format, va_list args)
{
    if (m_fd == -1) return -EAGAIN;
    if (!m_txBuf) return -ENOMEM;
    const int offset = m_checksum ? kChecksumPrefix : 0;
    const int room = m_bufLen - offset;
    char* text = m_txBuf + offset;
    int n = vsnprintf(text, static_cast<size_t>(room), format, args);
    if (n < 0) return -EINVAL;
    if (n > room - 1) {
        syslog_safe(4, "<%s> Trying to send too much data.", m_remote_str);
        return -E2BIG;
    }
    if (m_checksum) {
        // The final newline is not part of the sum.
        unsigned sum = checksum(text, n > 0 ? static_cast<size_t>(n - 1) : 0) & 0xffff;
        snprintf(m_txBuf, kChecksumPrefix, "+%04x", sum);
        m_txBuf[kChecksumPrefix - 1] = ' ';
        n += offset;
    }
    if (m_sendFlags) {
        bool ready = false;
        if (!WSelect(ready, 0, kPollMs * 1000)) {
            int err = socket_errno();
            syslog_safe(4, "<%s> Unable to write (%d): %s", m_remote_str, err, text);
            return -err;
        }
        if (!ready) {
            syslog_safe(4, "<%s> Unable to write to/INTR (%d): %s", m_remote_str, errno, text);
            return -EAGAIN;
        }
    }
    return static_cast<int>(write(m_txBuf, static_cast<size_t>(n)));
}

void Socket::Sent(size_t n)
{
    m_txBytes += static_cast<unsigned int>(n);
    m_lastTx.Reset();
}

// A full send buffer is waited out with poll rather than a busy retry.
ssize_t Socket::write(const void* buf, size_t len)
{
    const char* p = static_cast<const char*>(buf);
    size_t left = len;
    // Without a bound the send itself may block, as it always has.
    const int flags = MSG_NOSIGNAL | (m_waitTimeoutMs > 0 ? MSG_DONTWAIT : 0);
    TimeSpan waiting;
    while (left > 0 && !daemon_should_exit) {
        ssize_t n = send(m_fd, p, left, flags);
        if (n > 0) {
            Sent(static_cast<size_t>(n));
            p += n;
            left -= static_cast<size_t>(n);
            waiting.Reset();
            continue;
        }
        int err = n == 0 ? EAGAIN : errno;
        if (err == EAGAIN || err == EWOULDBLOCK) {
            int rv = Await(POLLOUT, waiting);
            if (rv < 0) return rv;
        } else if (err != EINTR) {
            if (err == EPIPE) Disconnect();
            return -err;
        }
    }
    return static_cast<ssize_t>(len - left);
}

// One slice of a wait for `events`: 0 when it ended (ready or not),
// -ETIMEDOUT when WaitTimeout() has passed since `waiting` began, -EPIPE
// when a read finds the link dead (which disconnects).
int Socket::Await(short events, const TimeSpan& waiting)
{
    int slice = kPollMs;
    if (m_waitTimeoutMs > 0) {
        int left = m_waitTimeoutMs - waiting.DurationMs();
        if (left <= 0) return -ETIMEDOUT;
        slice = std::min(slice, left);
    }
    if (events == POLLIN && LinkDead()) {
        Disconnect();
        return -EPIPE;
    }
    if (events == POLLIN) AcknowledgeNow();
    pollfd pfd = {m_fd, events, 0};
    (void)poll(&pfd, 1, slice);
    return 0;
}

// A peer that holds back a short last segment until the bytes before it
// are acknowledged (Nagle) would otherwise wait for this side's delayed
// acknowledgement, 40 ms or more, whenever a reader has taken everything
// and waits: a long result stalled at every 64 KiB the server wrote.
void Socket::AcknowledgeNow()
{
    sa_family_t family = m_remote.GetAF();
    if (family != AF_INET && family != AF_INET6) return;
    int on = 1;
    (void)setsockopt(m_fd, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
}

// Bytes handed out are counted as they go (one writer, no locked add).
// The receive clock restarts when bytes come from the descriptor and when
// the read-ahead runs dry: once per fill rather than per byte or line, and
// a wait, which starts on an empty read-ahead, measures from the last byte
// handed out, as it would without one.
void Socket::HandedOut(size_t n)
{
    m_rxBytes.store(m_rxBytes.load(std::memory_order_relaxed) + static_cast<unsigned int>(n),
                    std::memory_order_relaxed);
    if (Buffered() == 0) m_lastRx.Reset();
}

void Socket::Filled(size_t n)
{
    m_aheadPos = 0;
    m_aheadEnd = n;
    m_lastRx.Reset();
}

bool Socket::LinkDead() const { return m_linkDeadTimeout != -1 && m_lastRx.Duration() > m_linkDeadTimeout; }

// One read from the buffer, or from the descriptor (through the buffer
// when the request is small and the flags allow), never waiting when flags
// are 0 (read() waits between tries): a count, 0 for a closed peer, or -1
// with errno.
ssize_t Socket::Fetch(char* buf, size_t len, int flags)
{
    const int recvFlags = flags ? flags : MSG_DONTWAIT;
    if (Buffered() == 0 && m_ahead && !m_f && (flags & ~MSG_DONTWAIT) == 0 && len < kAheadLen) {
        ssize_t n = recv(m_fd, m_ahead, kAheadLen, recvFlags);
        if (n <= 0) return n;
        Filled(static_cast<size_t>(n));
    }
    if (Buffered() == 0) return recv(m_fd, buf, len, recvFlags);
    size_t n = std::min(len, Buffered());
    memcpy(buf, m_ahead + m_aheadPos, n);
    if (!(flags & MSG_PEEK)) m_aheadPos += n;
    return static_cast<ssize_t>(n);
}

ssize_t Socket::read(void* buf, size_t len, int flags)
{
    if (len <= Buffered() && !(flags & MSG_PEEK)) {  // the common case of line assembly
        memcpy(buf, m_ahead + m_aheadPos, len);
        m_aheadPos += len;
        HandedOut(len);
        return static_cast<ssize_t>(len);
    }
    char* p = static_cast<char*>(buf);
    size_t left = len;
    int err = 0;
    TimeSpan waiting;  // each wait for a byte is bounded on its own
    while (left > 0) {
        ssize_t n = Fetch(p, left, flags);
        if (n > 0) {
            HandedOut(static_cast<size_t>(n));
            p += n;
            left -= static_cast<size_t>(n);
            err = 0;
            if (flags & MSG_PEEK) break;  // peeking again would copy the same bytes
            waiting.Reset();
        } else if (n == 0) {
            return -EPIPE;
        } else if ((err = errno) == EAGAIN || err == EWOULDBLOCK) {
            if (flags) return static_cast<ssize_t>(len - left);  // 0 when nothing came
            int rv = Await(POLLIN, waiting);
            if (rv < 0) return rv;
        } else if (err != EINTR) {
            return -err;
        }
        if (daemon_should_exit || m_fd == -1) break;
    }
    return err ? -err : static_cast<ssize_t>(len - left);
}

size_t Socket::ReadBuffered(char* buf, size_t len)
{
    if (Buffered() == 0) return 0;
    const char* from = m_ahead + m_aheadPos;
    size_t n = LineSpan(from, std::min(len, Buffered()));
    memcpy(buf, from, n);
    m_aheadPos += n;
    HandedOut(n);
    return n;
}

int Socket::Pending()
{
    if (m_fd == -1) return -EPIPE;
    if (Buffered() > 0) return static_cast<int>(std::min(Buffered(), static_cast<size_t>(INT_MAX)));
    char peek;
    // With a stdio view the bytes must stay on the descriptor.
    bool keep = m_ahead && !m_f;
    ssize_t n = keep ? recv(m_fd, m_ahead, kAheadLen, MSG_DONTWAIT) : recv(m_fd, &peek, 1, MSG_PEEK | MSG_DONTWAIT);
    if (n == 0) return -EPIPE;
    if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? 0 : -errno;
    if (keep) Filled(static_cast<size_t>(n));
    return static_cast<int>(n);
}

bool Socket::Poll(short events, bool& ready, long sec, long usec)
{
    ready = false;
    int fd = m_fd;
    if (fd == -1 || sec < 0 || usec < 0) return false;
    long long ms = sec * 1000LL + (usec + 999) / 1000;
    pollfd pfd = {fd, events, 0};
    int rv = poll(&pfd, 1, static_cast<int>(ms > INT_MAX ? INT_MAX : ms));
    if (rv < 0) return errno == EINTR;
    ready = rv > 0;
    return true;
}

bool Socket::WSelect(bool& ready, long sec, long usec) { return Poll(POLLOUT, ready, sec, usec); }

bool Socket::RSelect(bool& ready, long sec, long usec)
{
    if (m_fd != -1 && Buffered() > 0) return ready = true;
    return Poll(POLLIN, ready, sec, usec);
}

// The stream has a descriptor of its own, so closing it never closes m_fd.
FILE* Socket::File()
{
    if (m_f) return m_f;
    if (m_fd == -1) {
        syslog_safe(4, "Can't get FILE for %s, no FD, socket %p.", m_remote_str, static_cast<void*>(this));
        return nullptr;
    }
    if (Buffered() > 0) {
        syslog_safe(4, "Can't get FILE for %s, %zu bytes read ahead, socket %p.", m_remote_str, Buffered(),
                    static_cast<void*>(this));
        return nullptr;
    }
    int fd = fcntl(m_fd, F_DUPFD_CLOEXEC, 0);
    FILE* f = fd < 0 ? nullptr : fdopen(fd, "r+");
    if (!f) {
        int err = errno;
        if (fd >= 0) close(fd);
        syslog_safe(3, "Unable to get FILE for %s (%d), socket %p.", m_remote_str, err, static_cast<void*>(this));
        return nullptr;
    }
    m_f = f;
    return m_f;
}

void Socket::Describe(Sock* out)
{
    out->printf("%4d %9u %9u %s %s\n", m_fd.load(), m_rxBytes.load(), m_txBytes.load(), m_remote_str, Name());
}

bool Socket::NonBlocking(bool on)
{
    if (m_fd == -1) return false;
    int flags = fcntl(m_fd, F_GETFL);
    if (flags < 0) {
        syslog_safe(3, "Unable to get socket flags (%d).", errno);
        return false;
    }
    flags = on ? flags | O_NONBLOCK : flags & ~O_NONBLOCK;
    if (fcntl(m_fd, F_SETFL, flags) < 0) {
        syslog_safe(3, "Unable to set socket flags (%d).", errno);
        return false;
    }
    m_nonBlocking = on;
    return true;
}

int Socket::ProcessCompleteLine(char* line, int len)
{
    size_t n = static_cast<size_t>(len);
    return CheckChecksum(line, n);
}

// TCP_CORK's number at the socket level, as the system has always set it:
// there it is SO_TYPE, which is read-only, so this call changes nothing.
void Socket::JamTogehter(bool on)
{
    int value = on;
    (void)setsockopt(m_fd, SOL_SOCKET, TCP_CORK, &value, sizeof value);
}

int Socket::CheckChecksum(char* line, size_t& len)
{
    if (line[0] != '+') return static_cast<int>(len);
    unsigned int sum = 0;
    const char* space = static_cast<const char*>(memchr(line, ' ', len));
    if (!space || sscanf(line + 1, "%8x ", &sum) != 1) {
        len = static_cast<size_t>(-EINVAL);
        return -EINVAL;
    }
    const char* text = space + 1;
    size_t textLen = len - static_cast<size_t>(text - line);
    if ((checksum(text, textLen) & 0xffff) != sum) {
        len = static_cast<size_t>(-EINVAL);
        return -EINVAL;
    }
    memmove(line, text, textLen + 1);
    len = textLen;
    return static_cast<int>(textLen);
}
