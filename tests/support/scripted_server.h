// The one scripted peer of the tests: a loopback server (TCP over IPv4 or
// IPv6, or a Unix socket) that plays byte-exact scripts, one per accepted
// connection in order, and records what each connection received. Extra
// connections are accepted and closed at once. Every wait is bounded.
#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "SockAddr.h"

struct ScriptStep {
    enum Kind { Send, Expect, ExpectUntil, Close, Wait, Hold } kind;
    std::string bytes;
    int ms = 0;
};
using Script = std::vector<ScriptStep>;

inline ScriptStep Send(std::string bytes) { return {ScriptStep::Send, std::move(bytes)}; }
// Reads exactly as many bytes as given and records a failure if they differ.
inline ScriptStep Expect(std::string bytes) { return {ScriptStep::Expect, std::move(bytes)}; }
// Reads until what came since the last Expect holds `end` (variable text
// such as a date, checked afterwards through Received()).
inline ScriptStep ExpectUntil(std::string end) { return {ScriptStep::ExpectUntil, std::move(end)}; }
// Closes the connection. A script without it keeps the connection open,
// silent, until the client closes it or the server goes.
inline ScriptStep Close() { return {ScriptStep::Close, ""}; }
// Pauses before the next step (a slow or trickling peer).
inline ScriptStep Wait(int ms) { return {ScriptStep::Wait, "", ms}; }
// Pauses, reading nothing, until the test calls Release() (a peer that
// stops reading for as long as the client under test needs to notice).
inline ScriptStep Hold() { return {ScriptStep::Hold, ""}; }
// The script that sends `bytes` in pieces of `size` bytes, `ms` apart.
std::vector<ScriptStep> Trickle(const std::string& bytes, size_t size, int ms);

class ScriptedServer {
public:
    // Listens on 127.0.0.1 (or `listen`: ::1, or a Unix socket path) on a
    // free port.
    explicit ScriptedServer(std::vector<Script> scripts, int stepTimeoutMs = 10000);
    ScriptedServer(std::vector<Script> scripts, const SockAddr& listen, int stepTimeoutMs = 10000);
    ~ScriptedServer();
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    // The listening address with its port.
    SockAddr Addr() const;
    int Accepted() const { return m_accepted; }
    // When each connection was accepted.
    std::vector<std::chrono::steady_clock::time_point> AcceptTimes() const;
    // Everything connection `index` received (also after its script ended).
    std::string Received(size_t index) const;
    // Scripts played to their end or their Close (whose end-of-file has
    // then been sent).
    int ScriptsDone() const { return m_scriptsDone; }
    // True once every script has been played to its end (or its Close).
    bool WaitScriptsDone(int timeoutMs) const;
    // True once `count` connections are closed: at a Close step, a failed
    // step, or else after the script when the client closed (then
    // Received() holds all the client sent).
    bool WaitClosed(int count, int timeoutMs) const;
    // Ends the current or next Hold step.
    void Release();
    // Mismatches and time-outs, one text each.
    std::vector<std::string> Failures() const;

private:
    void Run();
    void Play(int fd, size_t index);
    bool ReadSome(int fd, size_t index, int timeoutMs);
    void Fail(const std::string& what);

    std::vector<Script> m_scripts;
    int m_stepTimeoutMs;
    int m_listenFd = -1;
    int m_wakePipe[2] = {-1, -1};
    int m_releasePipe[2] = {-1, -1};
    SockAddr m_addr;
    std::atomic<int> m_accepted{0};
    std::atomic<int> m_scriptsDone{0};
    std::atomic<int> m_closed{0};
    mutable std::mutex m_lock;
    std::vector<std::string> m_received;
    std::vector<std::chrono::steady_clock::time_point> m_acceptTimes;
    std::vector<std::string> m_failures;
    std::thread m_thread;
};

// A loopback address (a port just free again) where nothing listens:
// connecting to it is refused, until a server listens there.
SockAddr RefusedAddr();

// A loopback address whose accept queue is full: connecting to it hangs
// (the SYN is dropped) until the client's own time-out, as with a host that
// drops connection attempts.
class BlackHole {
public:
    BlackHole();
    ~BlackHole();
    BlackHole(const BlackHole&) = delete;
    BlackHole& operator=(const BlackHole&) = delete;
    SockAddr Addr() const { return m_addr; }

private:
    int m_listenFd = -1;
    std::vector<int> m_fillers;
    SockAddr m_addr;
};

// The datagram side, for discovery: a UDP socket on `port` of any address,
// in the network namespace of the thread that makes it, that records every
// datagram it receives and answers the k-th with script k (Send steps go
// back to its sender, Wait steps pause; other steps are ignored).
class ScriptedDatagramPeer {
public:
    ScriptedDatagramPeer(std::vector<Script> scripts, unsigned short port);
    ~ScriptedDatagramPeer();
    ScriptedDatagramPeer(const ScriptedDatagramPeer&) = delete;
    ScriptedDatagramPeer& operator=(const ScriptedDatagramPeer&) = delete;

    // The datagrams received so far, in order.
    std::vector<std::string> Received() const;

private:
    void Run();
    void Play(const Script& script, const sockaddr_in& to);

    std::vector<Script> m_scripts;
    int m_fd = -1;
    std::atomic<bool> m_stop{false};
    mutable std::mutex m_lock;
    std::vector<std::string> m_received;
    std::thread m_thread;
};
