#include "scripted_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "wait.h"

ScriptedServer::ScriptedServer(std::vector<Script> scripts, int stepTimeoutMs)
    : m_scripts(std::move(scripts)), m_stepTimeoutMs(stepTimeoutMs)
{
    m_listenFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (m_listenFd < 0 || bind(m_listenFd, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
        listen(m_listenFd, 16) != 0 || getsockname(m_listenFd, reinterpret_cast<sockaddr*>(&addr), &len) != 0 ||
        pipe2(m_wakePipe, O_CLOEXEC) != 0) {
        Fail("cannot listen");
        return;
    }
    m_port = ntohs(addr.sin_port);
    m_thread = std::thread(&ScriptedServer::Run, this);
}

ScriptedServer::~ScriptedServer()
{
    if (m_wakePipe[1] >= 0) (void)!write(m_wakePipe[1], "x", 1);
    if (m_thread.joinable()) m_thread.join();
    for (int fd : {m_listenFd, m_wakePipe[0], m_wakePipe[1]})
        if (fd >= 0) close(fd);
}

SockAddr ScriptedServer::Addr() const { return SockAddr(AF_INET, 0x7F000001u, static_cast<int>(m_port)); }

std::vector<std::chrono::steady_clock::time_point> ScriptedServer::AcceptTimes() const
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_acceptTimes;
}

std::string ScriptedServer::Received(size_t index) const
{
    std::lock_guard<std::mutex> guard(m_lock);
    return index < m_received.size() ? m_received[index] : std::string();
}

bool ScriptedServer::WaitScriptsDone(int timeoutMs) const
{
    return WaitUntil([&] { return m_scriptsDone == static_cast<int>(m_scripts.size()); }, timeoutMs);
}

std::vector<std::string> ScriptedServer::Failures() const
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_failures;
}

void ScriptedServer::Fail(const std::string& what)
{
    std::lock_guard<std::mutex> guard(m_lock);
    m_failures.push_back(what);
}

void ScriptedServer::Run()
{
    for (;;) {
        pollfd fds[2] = {{m_listenFd, POLLIN, 0}, {m_wakePipe[0], POLLIN, 0}};
        if (poll(fds, 2, -1) < 0 && errno != EINTR) return;
        if (fds[1].revents) return;
        if (!(fds[0].revents & POLLIN)) continue;
        int fd = accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
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
    }
}

// Appends what arrives within timeoutMs to the connection's record; false
// when the peer closed, the server is going or nothing came.
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
    for (const ScriptStep& step : m_scripts[index]) {
        if (step.kind == ScriptStep::Close) {
            m_scriptsDone++;
            return;
        }
        if (step.kind == ScriptStep::Send) {
            if (send(fd, step.bytes.data(), step.bytes.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(step.bytes.size()))
                Fail(tag + "send failed");
            continue;
        }
        // Expect: byte by byte as they come, so a short read is no mismatch.
        while (Received(index).size() < seen + step.bytes.size())
            if (!ReadSome(fd, index, m_stepTimeoutMs)) {
                Fail(tag + "expected \"" + step.bytes + "\", got \"" + Received(index).substr(seen) + "\"");
                return;
            }
        std::string got = Received(index).substr(seen, step.bytes.size());
        if (got != step.bytes) Fail(tag + "expected \"" + step.bytes + "\", got \"" + got + "\"");
        seen += step.bytes.size();
    }
    m_scriptsDone++;
    while (ReadSome(fd, index, -1)) {
    }
}
