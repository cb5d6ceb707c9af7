// A loopback TCP server that plays byte-exact scripts, one per accepted
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
    enum Kind { Send, Expect, Close } kind;
    std::string bytes;
};
using Script = std::vector<ScriptStep>;

inline ScriptStep Send(std::string bytes) { return {ScriptStep::Send, std::move(bytes)}; }
// Reads exactly as many bytes as given and records a failure if they differ.
inline ScriptStep Expect(std::string bytes) { return {ScriptStep::Expect, std::move(bytes)}; }
// Closes the connection. A script without it keeps the connection open,
// silent, until the client closes it or the server goes.
inline ScriptStep Close() { return {ScriptStep::Close, ""}; }

class ScriptedServer {
public:
    explicit ScriptedServer(std::vector<Script> scripts, int stepTimeoutMs = 10000);
    ~ScriptedServer();
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    // 127.0.0.1 and the listening port.
    SockAddr Addr() const;
    int Accepted() const { return m_accepted; }
    // When each connection was accepted.
    std::vector<std::chrono::steady_clock::time_point> AcceptTimes() const;
    // Everything connection `index` received (also after its script ended).
    std::string Received(size_t index) const;
    // True once every script has been played to its end (or its Close).
    bool WaitScriptsDone(int timeoutMs) const;
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
    unsigned short m_port = 0;
    std::atomic<int> m_accepted{0};
    std::atomic<int> m_scriptsDone{0};
    mutable std::mutex m_lock;
    std::vector<std::string> m_received;
    std::vector<std::chrono::steady_clock::time_point> m_acceptTimes;
    std::vector<std::string> m_failures;
    std::thread m_thread;
};
