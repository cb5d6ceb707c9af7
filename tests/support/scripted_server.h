// The one scripted peer of the tests: a loopback server (TCP over IPv4 or IPv6, or a Unix socket) that plays
// byte-exact scripts, one per accepted connection in order, and records what each received. Extra connections
// are accepted and closed at once. Every wait is bounded.
#pragma once

#include <atomic>
#include <chrono>
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
inline Script Then(Script script, const Script& more)
{
    script.insert(script.end(), more.begin(), more.end());
    return script;
}
// Sends `bytes` in pieces of `size` bytes, `ms` apart.
Script Trickle(const std::string& bytes, size_t size, int ms);

class ScriptedServer {
public:
    // Listens on a free port of 127.0.0.1, or of `listen` (::1, or a Unix socket path).
    explicit ScriptedServer(std::vector<Script> scripts, int stepTimeoutMs = 10000);
    ScriptedServer(std::vector<Script> scripts, const SockAddr& listen, int stepTimeoutMs = 10000);
    ~ScriptedServer();
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    SockAddr Addr() const { return m_addr; }
    int Accepted() const { return m_accepted; }
    std::vector<std::chrono::steady_clock::time_point> AcceptTimes() const { return Locked(m_acceptTimes); }
    // Everything connection `index` received (also after its script ended).
    std::string Received(size_t index) const
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return index < m_received.size() ? m_received[index] : std::string();
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
    T Locked(const T& value) const
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return value;
    }
    void Run();
    void Play(int fd, size_t index);
    bool ReadSome(int fd, size_t index, int timeoutMs);
    void Fail(const std::string& what)
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_failures.push_back(what);
    }

    std::vector<Script> m_scripts;
    int m_stepTimeoutMs;
    int m_listenFd = -1;
    int m_wakePipe[2] = {-1, -1};
    SockAddr m_addr;
    std::atomic<int> m_accepted{0}, m_scriptsDone{0}, m_closed{0}, m_released{0};
    std::atomic<bool> m_going{false};
    mutable std::mutex m_lock;
    std::vector<std::string> m_received;
    std::vector<std::chrono::steady_clock::time_point> m_acceptTimes;
    std::vector<std::string> m_failures;
    std::thread m_thread;
};

// A loopback address (a port just free again) where nothing listens.
SockAddr RefusedAddr();

// A loopback address whose accept queue is full: a connect hangs (the SYN dropped) until the client gives up.
class BlackHole {
public:
    BlackHole();
    ~BlackHole()
    {
        for (int fd : m_fds)
            if (fd >= 0) close(fd);
    }
    BlackHole(const BlackHole&) = delete;
    BlackHole& operator=(const BlackHole&) = delete;
    SockAddr Addr() const { return m_addr; }

private:
    std::vector<int> m_fds;
    SockAddr m_addr;
};

// The datagram side, for discovery: a UDP socket on `port` of any address, in the network namespace of the
// thread that makes it; it records each datagram and answers the k-th with script k (Send goes back to the
// sender, Wait pauses, other steps are ignored).
class ScriptedDatagramPeer {
public:
    ScriptedDatagramPeer(std::vector<Script> scripts, unsigned short port);
    ~ScriptedDatagramPeer();
    ScriptedDatagramPeer(const ScriptedDatagramPeer&) = delete;
    ScriptedDatagramPeer& operator=(const ScriptedDatagramPeer&) = delete;
    std::vector<std::string> Received() const
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_received;
    }

private:
    void Run();

    std::vector<Script> m_scripts;
    int m_fd = -1;
    std::atomic<bool> m_stop{false};
    mutable std::mutex m_lock;
    std::vector<std::string> m_received;
    std::thread m_thread;
};
