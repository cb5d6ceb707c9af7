#include "ClientConnection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "Sock.h"
#include "daemon.h"
#include "debugger.h"

namespace {

// Bytes taken from the socket at a time.
constexpr size_t kReadChunk = 16384;
// Stack of a client thread: room for SQLite's deepest expressions, while
// many clients still fit into a 32-bit address space.
constexpr size_t kClientStack = 2 * 1024 * 1024;

long monotonic_seconds()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long>(now.tv_sec);
}

// The eventfd's counter only wakes poll; its value does not matter.
void signal_raise(int fd)
{
    uint64_t one = 1;
    if (::write(fd, &one, sizeof one) < 0) return;
}

void signal_drain(int fd)
{
    uint64_t count;
    if (::read(fd, &count, sizeof count) < 0) return;
}

}  // namespace

ClientConnection::ClientConnection(ShellShared& shared, Sock* link)
    : m_shared(shared),
      m_link(link),
      m_peer(link->Addr()),
      m_wakeFd(dup(link->Fd())),
      m_signalFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      m_lines(kShellMaxLine, LineAssembler::kLf),
      m_lastActivity(monotonic_seconds())
{
}

ClientConnection::~ClientConnection()
{
    Stop();
    if (m_started) pthread_join(m_thread, nullptr);
    m_shared.hub.Unsubscribe(this);
    if (m_wakeFd >= 0) close(m_wakeFd);
    if (m_signalFd >= 0) close(m_signalFd);
}

bool ClientConnection::Start()
{
    if (m_wakeFd < 0 || m_signalFd < 0) {
        syslog_safe(3, "<ClientConnection> %s: no descriptors left (%d).", m_peer.c_str(), errno);
        return false;
    }
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, kClientStack);
    int rc = pthread_create(&m_thread, &attr, ThreadEntry, this);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        syslog_safe(3, "<ClientConnection> %s: unable to start a thread (%d).", m_peer.c_str(), rc);
        return false;
    }
    m_started = true;
    return true;
}

void ClientConnection::Stop()
{
    m_stop = true;
    Interrupt();
}

void ClientConnection::Interrupt()
{
    std::lock_guard<std::mutex> guard(m_wakeLock);
    if (m_wakeFd >= 0) (void)shutdown(m_wakeFd, SHUT_RDWR);
}

void* ClientConnection::ThreadEntry(void* self)
{
    static_cast<ClientConnection*>(self)->Serve();
    return nullptr;
}

void ClientConnection::Serve()
{
    {
        ShellSession session(m_shared, *this, *this, m_peer);
        bool open = session.Start();
        while (open && !m_stop && !daemon_should_exit) {
            pollfd fds[2] = {{m_link->Fd(), POLLIN, 0}, {m_signalFd, POLLIN, 0}};
            if (poll(fds, 2, 100) < 0 && errno != EINTR) break;
            if (fds[1].revents) signal_drain(m_signalFd);
            open = FlushPushed();
            if (open && fds[0].revents) open = ServeReadable(session);
            if (session.Subscribed()) m_link->LinkDeadTimeout(-1);
            if (open && Idle()) {
                syslog_safe(6, "<ClientConnection> %s: silent for %ld s, closed.", m_peer.c_str(),
                            m_link->LinkDeadTimeout());
                open = false;
            }
        }
        m_command.reset();
    }  // the session unsubscribes here: no more pushes
    m_link->Disconnect();
    {
        std::lock_guard<std::mutex> guard(m_wakeLock);
        close(m_wakeFd);
        m_wakeFd = -1;
    }
    syslog_safe(7, "DBG %s:%d %s: connection closed.", __FILE__, __LINE__, m_peer.c_str());
    m_finished = true;
}

// Takes what has arrived and answers every complete line. False when the
// connection is to be closed. The bytes are taken with recv itself: the
// library's read serves line assembly, reads ahead of the request, and folds
// a final partial read into -EPIPE, which would hide a last request.
bool ClientConnection::ServeReadable(ShellSession& session)
{
    char buffer[kReadChunk];
    ssize_t got = recv(m_link->Fd(), buffer, sizeof buffer, MSG_DONTWAIT);
    if (got < 0) return errno == EAGAIN || errno == EINTR;
    if (got == 0) return false;
    for (size_t at = 0; at < static_cast<size_t>(got);) {
        LineAssembler::Result result;
        at += m_lines.Feed(buffer + at, static_cast<size_t>(got) - at, result);
        bool open = true;
        if (result == LineAssembler::kLine) open = HandleLine(session, m_lines.Line());
        if (result == LineAssembler::kTooLong) open = HandleTooLong(session);
        if (!open) return false;
        if (result != LineAssembler::kNeedMore) m_lastActivity = monotonic_seconds();
    }
    return true;
}

// The first line tells whose the connection is: a database shell line
// keeps it the shell's, any other line is the first command of the
// command channel. Until then lines end at LF or CR LF, as both send them.
bool ClientConnection::HandleLine(ShellSession& session, const std::string& line)
{
    if (!m_decided) {
        if (sim_is_shell_line(line)) m_lines.SetEnds(LineAssembler::kCrOrLf);
        else BecomeCommandChannel();
        m_decided = true;
    }
    if (m_command) return m_command->HandleLine(line);
    return session.HandleLine(line) == ShellSession::kContinue;
}

bool ClientConnection::HandleTooLong(ShellSession& session)
{
    if (!m_decided) BecomeCommandChannel();
    m_decided = true;
    if (m_command) return m_command->HandleTooLong();
    return session.HandleTooLong() == ShellSession::kContinue;
}

// Every answer goes out in one write: nothing is gained by waiting for
// more (the option fails harmlessly on a Unix socket).
void ClientConnection::BecomeCommandChannel()
{
    int on = 1;
    (void)setsockopt(m_link->Fd(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    m_command = std::make_unique<CommandSession>(m_shared, *this, m_stop, m_peer);
}

bool ClientConnection::Write(const char* data, size_t len)
{
    bool ok = m_link->write(data, len) == static_cast<ssize_t>(len);
    m_lastActivity = monotonic_seconds();
    return ok;
}

void ClientConnection::Push(const char* line, size_t len)
{
    std::lock_guard<std::mutex> guard(m_pushLock);
    if (m_overflow) return;
    if (m_unsent + len > kSimMaxQueuedPush) {
        syslog_safe(4, "<ClientConnection> %s: more than %zu bytes of changes unread, disconnecting.", m_peer.c_str(),
                    kSimMaxQueuedPush);
        m_overflow = true;
        m_stop = true;
        // Safe under the hub's lock: the descriptor closes only after unsubscribing.
        (void)shutdown(m_wakeFd, SHUT_RDWR);
        return;
    }
    m_pushed.append(line, len);
    m_unsent += len;
    signal_raise(m_signalFd);
}

bool ClientConnection::FlushPushed()
{
    std::string lines;
    {
        std::lock_guard<std::mutex> guard(m_pushLock);
        lines.swap(m_pushed);
    }
    if (lines.empty()) return true;
    bool ok = Write(lines.data(), lines.size());
    std::lock_guard<std::mutex> guard(m_pushLock);
    m_unsent -= lines.size();
    return ok;
}

// A client silent for longer than its link-dead time-out is dropped, as the
// unit's services do; a subscriber, silent by nature, has it switched off.
bool ClientConnection::Idle() const
{
    long limit = m_link->LinkDeadTimeout();
    return limit >= 0 && monotonic_seconds() - m_lastActivity > limit;
}
