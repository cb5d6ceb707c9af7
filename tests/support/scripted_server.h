// The one scripted peer of the tests: a loopback server (TCP over IPv4 or IPv6, or a Unix socket) that plays
// byte-exact scripts, one per accepted connection in order, and records what each received. Extra connections
// are accepted and closed at once. Every wait is bounded.
#pragma once

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "SockAddr.h"
#include "wait.h"

struct ScriptStep {
    enum Kind { Send, Expect, ExpectUntil, Close, Wait, Hold } kind;
    std::string bytes;
    int ms = 0;
};
using Script = std::vector<ScriptStep>;

inline ScriptStep Send(std::string bytes) { return {ScriptStep::Send, std::move(bytes)}; }
// Reads exactly these bytes; a difference is a failure.
inline ScriptStep Expect(std::string bytes) { return {ScriptStep::Expect, std::move(bytes)}; }
// Reads until what came since the last Expect holds `end` (variable text, checked later through Received()).
inline ScriptStep ExpectUntil(std::string end) { return {ScriptStep::ExpectUntil, std::move(end)}; }
// Shuts the connection; without it the connection stays open and silent until the client or the server goes.
inline ScriptStep Close() { return {ScriptStep::Close, ""}; }
inline ScriptStep Wait(int ms) { return {ScriptStep::Wait, "", ms}; }
// Reads nothing until the test calls Release(): a peer that stops reading.
inline ScriptStep Hold() { return {ScriptStep::Hold, ""}; }
inline Script Then(Script a, const Script& b) { a.insert(a.end(), b.begin(), b.end()); return a; }
// Sends `bytes` in pieces of `size` bytes, `ms` apart.
inline Script Trickle(const std::string& bytes, size_t size, int ms)
{
    Script steps;
    for (size_t at = 0; at < bytes.size(); at += size) {
        if (at > 0) steps.push_back(Wait(ms));
        steps.push_back(Send(bytes.substr(at, size)));
    }
    return steps;
}

// A listening socket on `addr` (port 0: a free one), the port then in `bound`; -1 on failure.
inline int ListenOn(const SockAddr& addr, int backlog, SockAddr& bound)
{
    int fd = socket(addr.GetAF(), SOCK_STREAM | SOCK_CLOEXEC, 0);
    bound = addr;
    bool un = addr.GetAF() == AF_UNIX;
    socklen_t len = un ? sizeof(sockaddr_un) : sizeof(sockaddr_all);  // the kernel refuses a longer Unix address
    if (un) (void)unlink(addr.Get().un.sun_path);
    if (fd >= 0 && (bind(fd, &addr.Get().addr, len) != 0 || listen(fd, backlog) != 0 ||
                    (!un && getsockname(fd, &bound.GetPrivate().addr, &len) != 0)))
        close(fd), fd = -1;
    return fd;
}
const SockAddr kLoopback4(AF_INET, 0x7F000001u, 0);

class ScriptedServer {
public:
    // Listens on a free port of 127.0.0.1, or of `listen` (::1, or a Unix socket path).
    explicit ScriptedServer(std::vector<Script> scripts, int stepTimeoutMs = 10000)
        : ScriptedServer(std::move(scripts), kLoopback4, stepTimeoutMs) {}
    ScriptedServer(std::vector<Script> scripts, const SockAddr& listen, int stepTimeoutMs = 10000)
        : m_scripts(std::move(scripts)), m_stepTimeoutMs(stepTimeoutMs), m_listenFd(ListenOn(listen, 16, m_addr))
    {
        if (m_listenFd < 0)
            Fail("cannot listen");
        else
            m_thread = std::thread(&ScriptedServer::Run, this);
    }
    ~ScriptedServer()
    {
        m_going = true;  // every wait of the thread looks at this at least every 20 ms
        if (m_thread.joinable()) m_thread.join();
        if (m_listenFd >= 0) close(m_listenFd);
        if (m_addr.GetAF() == AF_UNIX) (void)unlink(m_addr.Get().un.sun_path);
    }

    SockAddr Addr() const { return m_addr; }
    int Accepted() const { return static_cast<int>(Locked(m_acceptTimes).size()); }
    std::vector<std::chrono::steady_clock::time_point> AcceptTimes() const { return Locked(m_acceptTimes); }
    // Everything connection `index` received (also after its script ended).
    std::string Received(size_t index) const
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return index < m_received.size() ? m_received[index] : "";
    }
    // Scripts played to their end or their Close (whose end-of-file is sent).
    int ScriptsDone() const { return m_scriptsDone; }
    bool WaitScriptsDone(int timeoutMs) const
    {
        return WaitUntil([&] { return m_scriptsDone == static_cast<int>(m_scripts.size()); }, timeoutMs);
    }
    // True once `count` connections are closed (at a Close, a failed step, or the client's close after the script).
    bool WaitClosed(int count, int timeoutMs) const { return WaitUntil([&] { return m_closed >= count; }, timeoutMs); }
    void Release() { m_released++; }
    // Mismatches and time-outs, one text each.
    std::vector<std::string> Failures() const { return Locked(m_failures); }

private:
    template <class T>
    T Locked(const T& value) const { std::lock_guard<std::mutex> guard(m_lock); return value; }
    void Fail(const std::string& what) { std::lock_guard<std::mutex> guard(m_lock); m_failures.push_back(what); }

    void Run()
    {
        for (int fd, on = 1; !m_going;) {
            pollfd p = {m_listenFd, POLLIN, 0};
            if ((fd = poll(&p, 1, 20) > 0 ? accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC) : -1) < 0) continue;
            // Each Send leaves at once as its own segment, so a script's cuts reach the client as cuts.
            if (m_addr.GetAF() != AF_UNIX) (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            std::unique_lock<std::mutex> guard(m_lock);
            size_t index = m_received.size();
            m_received.emplace_back();
            m_acceptTimes.push_back(std::chrono::steady_clock::now());
            guard.unlock();
            if (index < m_scripts.size()) Play(fd, index);
            close(fd);
            m_closed++;
        }
    }

    // Appends what arrives within timeoutMs; false when the peer closed, the server is going or nothing came.
    bool ReadSome(int fd, size_t index, int timeoutMs)
    {
        std::string got;
        int r = 0;
        WaitUntil([&] { return m_going || (r = ReadWithin(fd, got, 20)) != 0; }, timeoutMs);
        std::lock_guard<std::mutex> guard(m_lock);
        m_received[index] += got;
        return r > 0 && !m_going;
    }

    void Play(int fd, size_t index)
    {
        size_t seen = 0;
        const std::string tag = "connection " + std::to_string(index) + ": ";
        const Script& script = m_scripts[index];
        for (size_t i = 0; i < script.size(); i++) {
            const ScriptStep& step = script[i];
            const std::string& bytes = step.bytes;
            if (step.kind == ScriptStep::Close) {
                (void)shutdown(fd, SHUT_WR);  // the end-of-file is on its way before the script counts as done
                m_scriptsDone++;
                return;
            } else if (step.kind == ScriptStep::Send) {
                // Bytes right before a close are held back so that TCP sends the end-of-file in
                // their segment: the peer then never sees them without the close behind them.
                int more = i + 1 < script.size() && script[i + 1].kind == ScriptStep::Close ? MSG_MORE : 0;
                if (send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | more) != static_cast<ssize_t>(bytes.size()))
                    Fail(tag + "send failed");
            } else if (step.kind == ScriptStep::Wait) {
                if (WaitUntil([&] { return m_going.load(); }, step.ms)) return;
            } else if (step.kind == ScriptStep::Hold) {
                if (!WaitUntil([&] { return m_going || m_released > 0; }, m_stepTimeoutMs))
                    return Fail(tag + "never released");
                if (m_going) return;
                m_released--;
            } else {  // Expect takes its bytes as they come (a short read is no mismatch), ExpectUntil reads up to them
                bool until = step.kind == ScriptStep::ExpectUntil;
                auto end = [&](const std::string& got) {  // where the awaited bytes end in what came, or npos
                    size_t at = until ? got.find(bytes, seen) : seen;
                    return at != got.npos && at + bytes.size() <= got.size() ? at + bytes.size() : got.npos;
                };
                std::string got;
                while (end(got = Received(index)) == std::string::npos)
                    if (!ReadSome(fd, index, m_stepTimeoutMs))
                        return Fail(tag + "expected \"" + bytes + "\", got \"" + got.substr(seen) + "\"");
                if (!until && got.compare(seen, bytes.size(), bytes) != 0)
                    Fail(tag + "expected \"" + bytes + "\", got \"" + got.substr(seen, bytes.size()) + "\"");
                seen = end(got);
            }
        }
        m_scriptsDone++;
        while (ReadSome(fd, index, INT_MAX)) {
        }
    }

    std::vector<Script> m_scripts;
    int m_stepTimeoutMs;
    SockAddr m_addr;  // before m_listenFd, which is made with it
    int m_listenFd = -1;
    std::atomic<int> m_scriptsDone{0}, m_closed{0}, m_released{0};
    std::atomic<bool> m_going{false};
    mutable std::mutex m_lock;
    std::vector<std::string> m_received, m_failures;
    std::vector<std::chrono::steady_clock::time_point> m_acceptTimes;
    std::thread m_thread;
};

// A loopback address (a port just free again) where nothing listens.
inline SockAddr RefusedAddr()
{
    SockAddr bound;
    int fd = ListenOn(kLoopback4, 1, bound);
    if (fd >= 0) close(fd);
    return bound;
}

// A loopback address whose accept queue is full: a connect hangs (the SYN dropped) until the client gives up.
class BlackHole {
public:
    BlackHole()
    {
        // A backlog-0 listener's queue holds one connection, later SYNs are dropped: fill it until one stays pending.
        m_fds.push_back(ListenOn(kLoopback4, 0, m_addr));
        for (int i = 0; i < 8 && m_fds.back() >= 0; i++) {
            m_fds.push_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
            (void)connect(m_fds.back(), &m_addr.Get().addr, sizeof(sockaddr_in));
            pollfd pfd = {m_fds.back(), POLLOUT, 0};
            if (poll(&pfd, 1, 200) == 0) return;
        }
    }
    ~BlackHole() { for (int fd : m_fds) if (fd >= 0) close(fd); }
    BlackHole(const BlackHole&) = delete;
    BlackHole& operator=(const BlackHole&) = delete;
    SockAddr Addr() const { return m_addr; }

private:
    std::vector<int> m_fds;
    SockAddr m_addr;
};

// The datagram side, for discovery: UDP on `port` of any address in the making thread's network namespace. It
// records each datagram and answers the k-th with script k (Send goes back to the sender, Wait pauses; no more).
class ScriptedDatagramPeer {
public:
    ScriptedDatagramPeer(std::vector<Script> scripts, unsigned short port)
        : m_scripts(std::move(scripts)), m_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        SockAddr any(AF_INET, 0u, static_cast<int>(port));
        if (m_fd >= 0 && bind(m_fd, &any.Get().addr, sizeof(sockaddr_in)) == 0)
            m_thread = std::thread(&ScriptedDatagramPeer::Run, this);
    }
    ~ScriptedDatagramPeer()
    {
        m_stop = true;
        if (m_thread.joinable()) m_thread.join();
        if (m_fd >= 0) close(m_fd);
    }
    std::vector<std::string> Received() const { std::lock_guard<std::mutex> guard(m_lock); return m_received; }

private:
    void Run()
    {
        for (std::vector<char> buffer(65536); !m_stop;) {
            pollfd p = {m_fd, POLLIN, 0};
            sockaddr_in from = {};
            socklen_t len = sizeof from;
            auto* to = reinterpret_cast<sockaddr*>(&from);
            ssize_t n = poll(&p, 1, 20) > 0 ? recvfrom(m_fd, buffer.data(), buffer.size(), 0, to, &len) : -1;
            if (n < 0) continue;
            std::unique_lock<std::mutex> guard(m_lock);
            m_received.emplace_back(buffer.data(), static_cast<size_t>(n));
            size_t index = m_received.size() - 1;
            guard.unlock();
            for (const ScriptStep& step : index < m_scripts.size() ? m_scripts[index] : Script())
                if (step.kind == ScriptStep::Wait)
                    WaitUntil([&] { return m_stop.load(); }, step.ms);
                else if (step.kind == ScriptStep::Send)
                    (void)sendto(m_fd, step.bytes.data(), step.bytes.size(), 0, to, len);
        }
    }

    std::vector<Script> m_scripts;
    int m_fd = -1;
    std::atomic<bool> m_stop{false};
    mutable std::mutex m_lock;
    std::vector<std::string> m_received;
    std::thread m_thread;
};
