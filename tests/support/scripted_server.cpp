#include "scripted_server.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>


namespace {

SockAddr loopback4() { return SockAddr(AF_INET, 0x7F000001u, 0); }

// A listening socket on `addr` (port 0: a free one), the port then in `bound`; -1 on failure.
int listen_on(const SockAddr& addr, int backlog, SockAddr& bound)
{
    int fd = socket(addr.GetAF(), SOCK_STREAM | SOCK_CLOEXEC, 0);
    bound = addr;
    bool un = addr.GetAF() == AF_UNIX;
    socklen_t len = un ? sizeof(sockaddr_un) : sizeof(sockaddr_all);  // the kernel refuses a longer Unix address
    if (un) (void)unlink(addr.Get().un.sun_path);
    if (fd >= 0 && (bind(fd, &addr.Get().addr, len) != 0 || listen(fd, backlog) != 0 ||
                    (!un && getsockname(fd, &bound.GetPrivate().addr, &len) != 0))) {
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

Script Trickle(const std::string& bytes, size_t size, int ms)
{
    Script steps;
    for (size_t at = 0; at < bytes.size(); at += size) {
        if (at > 0) steps.push_back(Wait(ms));
        steps.push_back(Send(bytes.substr(at, size)));
    }
    return steps;
}

ScriptedServer::ScriptedServer(std::vector<Script> scripts, int stepTimeoutMs)
    : ScriptedServer(std::move(scripts), loopback4(), stepTimeoutMs)
{
}

ScriptedServer::ScriptedServer(std::vector<Script> scripts, const SockAddr& listen, int stepTimeoutMs)
    : m_scripts(std::move(scripts)), m_stepTimeoutMs(stepTimeoutMs)
{
    m_listenFd = listen_on(listen, 16, m_addr);
    if (m_listenFd < 0 || pipe2(m_wakePipe, O_CLOEXEC) != 0)
        Fail("cannot listen");
    else
        m_thread = std::thread(&ScriptedServer::Run, this);
}

ScriptedServer::~ScriptedServer()
{
    m_going = true;
    if (m_wakePipe[1] >= 0) (void)!write(m_wakePipe[1], "x", 1);
    if (m_thread.joinable()) m_thread.join();
    for (int fd : {m_listenFd, m_wakePipe[0], m_wakePipe[1]})
        if (fd >= 0) close(fd);
    if (m_addr.GetAF() == AF_UNIX) (void)unlink(m_addr.Get().un.sun_path);
}

void ScriptedServer::Run()
{
    for (;;) {
        pollfd fds[2] = {{m_listenFd, POLLIN, 0}, {m_wakePipe[0], POLLIN, 0}};
        if ((poll(fds, 2, -1) < 0 && errno != EINTR) || fds[1].revents) return;
        int fd = (fds[0].revents & POLLIN) ? accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC) : -1;
        if (fd < 0) continue;
        // Each Send leaves at once as its own segment, so a script's cuts reach the client as cuts.
        int on = 1;
        if (m_addr.GetAF() != AF_UNIX) (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        size_t index;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            index = m_received.size();
            m_received.emplace_back();
            m_acceptTimes.push_back(std::chrono::steady_clock::now());
        }
        m_accepted++;
        if (index < m_scripts.size()) Play(fd, index);
        close(fd);
        m_closed++;
    }
}

// Appends what arrives within timeoutMs; false when the peer closed, the server is going or nothing came.
bool ScriptedServer::ReadSome(int fd, size_t index, int timeoutMs)
{
    pollfd fds[2] = {{fd, POLLIN, 0}, {m_wakePipe[0], POLLIN, 0}};
    if (poll(fds, 2, timeoutMs) <= 0 || fds[1].revents) return false;
    char buffer[4096];
    ssize_t n = read(fd, buffer, sizeof buffer);
    if (n <= 0) return false;
    std::lock_guard<std::mutex> guard(m_lock);
    m_received[index].append(buffer, static_cast<size_t>(n));
    return true;
}

void ScriptedServer::Play(int fd, size_t index)
{
    size_t seen = 0;
    const std::string tag = "connection " + std::to_string(index) + ": ";
    // Reads until `has` holds for what came; false, the failure recorded, when nothing more comes.
    auto readUntil = [&](const std::string& want, auto has) {
        for (std::string got; !has(got = Received(index));)
            if (!ReadSome(fd, index, m_stepTimeoutMs))
                return Fail(tag + "expected \"" + want + "\", got \"" + got.substr(seen) + "\""), false;
        return true;
    };
    const Script& script = m_scripts[index];
    for (size_t i = 0; i < script.size(); i++) {
        const ScriptStep& step = script[i];
        const std::string& bytes = step.bytes;
        bool hold = step.kind == ScriptStep::Hold;
        if (step.kind == ScriptStep::Close) {
            (void)shutdown(fd, SHUT_WR);  // the end-of-file is on its way before the script counts as done
            m_scriptsDone++;
            return;
        } else if (step.kind == ScriptStep::Send) {
            // Bytes right before a close are held back so that TCP sends the end-of-file in
            // their segment: the peer then never sees them without the close behind them.
            bool closeNext = i + 1 < script.size() && script[i + 1].kind == ScriptStep::Close;
            int flags = MSG_NOSIGNAL | (closeNext ? MSG_MORE : 0);
            if (send(fd, bytes.data(), bytes.size(), flags) != static_cast<ssize_t>(bytes.size()))
                Fail(tag + "send failed");
        } else if (hold || step.kind == ScriptStep::Wait) {
            int ms = hold ? m_stepTimeoutMs : step.ms;
            bool woke = WaitUntil([&] { return m_going || (hold && m_released > 0); }, ms);
            if (hold && !woke) Fail(tag + "never released");
            if (m_going || (hold && !woke)) return;
            if (hold) m_released--;
        } else if (step.kind == ScriptStep::ExpectUntil) {
            size_t found = std::string::npos;
            auto has = [&](const std::string& got) { return (found = got.find(bytes, seen)) != std::string::npos; };
            if (!readUntil(bytes, has)) return;
            seen = found + bytes.size();
        } else {  // Expect: the bytes as they come, so a short read is no mismatch
            if (!readUntil(bytes, [&](const std::string& got) { return got.size() >= seen + bytes.size(); })) return;
            std::string got = Received(index).substr(seen, bytes.size());
            if (got != bytes) Fail(tag + "expected \"" + bytes + "\", got \"" + got + "\"");
            seen += bytes.size();
        }
    }
    m_scriptsDone++;
    while (ReadSome(fd, index, -1)) {
    }
}

SockAddr RefusedAddr()
{
    SockAddr bound;
    int fd = listen_on(loopback4(), 1, bound);
    if (fd >= 0) close(fd);
    return bound;
}

BlackHole::BlackHole()
{
    // A backlog-0 listener's queue holds one connection, later SYNs are dropped: fill it until a connect stays pending.
    m_fds.push_back(listen_on(loopback4(), 0, m_addr));
    for (int i = 0; i < 8 && m_fds.back() >= 0; i++) {
        m_fds.push_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        (void)connect(m_fds.back(), &m_addr.Get().addr, sizeof(sockaddr_in));
        pollfd pfd = {m_fds.back(), POLLOUT, 0};
        if (poll(&pfd, 1, 200) == 0) return;
    }
}

ScriptedDatagramPeer::ScriptedDatagramPeer(std::vector<Script> scripts, unsigned short port)
    : m_scripts(std::move(scripts)), m_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    SockAddr any(AF_INET, 0u, static_cast<int>(port));
    if (m_fd >= 0 && bind(m_fd, &any.Get().addr, sizeof(sockaddr_in)) == 0)
        m_thread = std::thread(&ScriptedDatagramPeer::Run, this);
}

ScriptedDatagramPeer::~ScriptedDatagramPeer()
{
    m_stop = true;
    if (m_thread.joinable()) m_thread.join();
    if (m_fd >= 0) close(m_fd);
}

void ScriptedDatagramPeer::Run()
{
    std::vector<char> buffer(65536);
    while (!m_stop) {
        pollfd p = {m_fd, POLLIN, 0};
        sockaddr_in from = {};
        socklen_t len = sizeof from;
        auto* to = reinterpret_cast<sockaddr*>(&from);
        ssize_t n = poll(&p, 1, 20) > 0 ? recvfrom(m_fd, buffer.data(), buffer.size(), 0, to, &len) : -1;
        if (n < 0) continue;
        size_t index;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            index = m_received.size();
            m_received.emplace_back(buffer.data(), static_cast<size_t>(n));
        }
        for (const ScriptStep& step : index < m_scripts.size() ? m_scripts[index] : Script())
            if (step.kind == ScriptStep::Wait)
                WaitUntil([&] { return m_stop.load(); }, step.ms);
            else if (step.kind == ScriptStep::Send)
                (void)sendto(m_fd, step.bytes.data(), step.bytes.size(), 0, to, len);
    }
}
