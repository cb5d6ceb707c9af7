#include "shell_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "process.h"

namespace {

bool is_terminator(char c)
{
    return c == '\r' || c == '\n' || c == '\v';
}

}  // namespace

FdShellTransport::FdShellTransport(int fd, int waitMs) : m_fd(fd), m_waitMs(waitMs) {}

FdShellTransport::~FdShellTransport()
{
    if (m_fd >= 0) close(m_fd);
}

// Appends what arrives within waitMs: 1, 0 on time-out, -1 when closed.
int FdShellTransport::Fill(int waitMs)
{
    if (m_at == m_buffer.size()) {
        m_buffer.clear();
        m_at = 0;
    }
    pollfd fd = {m_fd, POLLIN, 0};
    if (m_fd < 0) return -1;
    if (poll(&fd, 1, ScaledMs(waitMs)) <= 0) return 0;
    char chunk[65536];
    ssize_t n = recv(m_fd, chunk, sizeof chunk, 0);
    if (n <= 0) return -1;
    m_buffer.append(chunk, static_cast<size_t>(n));
    return 1;
}

int FdShellTransport::Get(char& c)
{
    if (m_at == m_buffer.size()) {
        int filled = Fill(m_waitMs);
        if (filled <= 0) return filled;
    }
    c = m_buffer[m_at++];
    return 1;
}

bool FdShellTransport::Send(const std::string& bytes)
{
    return send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

bool FdShellTransport::Quiet(int quietMs)
{
    return m_at == m_buffer.size() && Fill(quietMs) == 0;
}

bool FdShellTransport::ReadUntil(const std::string& end, std::string& bytes, int waitMs)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ScaledMs(waitMs));
    for (;;) {
        bytes.append(m_buffer, m_at, std::string::npos);
        m_at = m_buffer.size();
        if (bytes.size() >= end.size() && bytes.compare(bytes.size() - end.size(), end.size(), end) == 0) return true;
        if (std::chrono::steady_clock::now() > deadline || Fill(100) < 0) return false;
    }
}

int ScriptedShellClient::ReadPartial(int maxLen, int* pos)
{
    int fill = pos ? *pos : 0;
    m_buf.resize(static_cast<size_t>(fill));
    while (fill < maxLen - 1) {
        char c = 0;
        int got = m_transport.Get(c);
        if (got == 0) return kStuck;
        if (got < 0) return kClosed;
        m_buf.push_back(c);
        if (is_terminator(c)) break;
        ++fill;
    }
    if (pos) *pos = fill;
    m_lineLen = fill;
    return fill;
}

int ScriptedShellClient::ReadLine()
{
    int pos = 0;
    int n = ReadPartial(10, &pos);
    if (n < 0) return n;
    m_eof = !m_buf.empty() && m_buf[0] == '\v';
    if (m_eof) {
        pos = 0;
        int r = ReadPartial(9, &pos);
        if (r < 0) return r;
        if (m_buf.compare(0, 7, "Error: ") == 0) {
            r = ReadPartial(m_maxLineLen, &pos);
            if (r < 0) return r;
            m_lastError = m_buf.substr(0, static_cast<size_t>(r));
            int rest = ReadLine();
            return rest == kStuck || rest == kClosed ? rest : -EIO;
        }
        return n;
    }
    if (n == 9) return ReadPartial(m_maxLineLen, &pos);
    return n;
}

bool ScriptedShellClient::Greet(const std::string& comment)
{
    for (;;) {
        int pos = 0;
        int n = ReadPartial(4, &pos);
        if (n < 0) return false;
        if (m_buf.compare(0, 3, "#> ") == 0) break;
        if (ReadPartial(8000, &pos) < 0) return false;
    }
    std::string line = "comment " + comment + "\r\n";
    return m_transport.Send(line) && ReadPartial(4) == 3 && m_buf == "#> ";
}

bool ScriptedShellClient::Setup()
{
    if (!m_transport.Send("shell \\ |\r\n")) return false;
    int n = ReadLine();
    if (n < 0) return false;
    m_notReady = Line().find("not ready") != std::string::npos;
    if (m_notReady) return false;
    if (ReadPartial(2) < 0 || ReadPartial(9) < 0) return false;
    if (!m_transport.Send(".header on\r\n")) return false;
    for (int maxLen : {2, 9, 9, 9})
        if (ReadPartial(maxLen) < 0) return false;
    m_eof = true;
    return true;
}

int ScriptedShellClient::Exec(const std::string& statement, std::vector<std::string>& lines)
{
    lines.clear();
    if (!m_transport.Send(statement + "\r\n")) return kClosed;
    for (;;) {
        int n = ReadLine();
        if (n < 0) return n;
        if (m_eof) return 0;
        lines.push_back(Line());
    }
}

bool ScriptedShellClient::Subscribe(const std::string& tableAndWords)
{
    m_first = true;
    return m_transport.Send("monitor " + tableAndWords + "\r\n") && ReadPartial(4) == 3 && m_buf == "#> ";
}

bool ScriptedShellClient::NextEvent(std::string& event)
{
    int n = ReadLine();
    if (n <= 0) return false;
    std::string line = m_buf.substr(0, static_cast<size_t>(n - 1));
    size_t skip = m_first ? 6 : 0;
    m_first = false;
    event = line.size() >= skip ? line.substr(skip) : std::string();
    return true;
}
