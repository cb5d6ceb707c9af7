#include "shell_client.h"

#include <sys/socket.h>

#include <cerrno>

#include "process.h"
#include "wait.h"

FdShellTransport::~FdShellTransport() { if (m_fd >= 0) close(m_fd); }

// Appends what arrives within waitMs (scaled): 1, 0 on time-out, -1 when closed.
int FdShellTransport::Fill(int waitMs)
{
    if (m_at == m_buffer.size()) m_buffer.clear(), m_at = 0;
    return ReadWithin(m_fd, m_buffer, ScaledMs(waitMs));
}

int FdShellTransport::Get(char& c)
{
    int filled = m_at < m_buffer.size() ? 1 : Fill(m_waitMs);
    if (filled > 0) c = m_buffer[m_at++];
    return filled;
}

bool FdShellTransport::Send(const std::string& bytes)
{
    return send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

bool FdShellTransport::Quiet(int quietMs) { return m_at == m_buffer.size() && Fill(quietMs) == 0; }

bool FdShellTransport::ReadUntil(const std::string& end, std::string& bytes, int waitMs)
{
    int filled = 1;
    return WaitUntil([&] {
        bytes.append(m_buffer, m_at, std::string::npos);
        m_at = m_buffer.size();
        bool ended = bytes.size() >= end.size() && bytes.compare(bytes.size() - end.size(), end.size(), end) == 0;
        return ended || (filled = Fill(100)) < 0;
    }, ScaledMs(waitMs)) && filled >= 0;
}

int ScriptedShellClient::ReadPartial(int maxLen, int* pos)
{
    int fill = pos ? *pos : 0;
    m_buf.resize(static_cast<size_t>(fill));
    for (char c = 0; fill < maxLen - 1; ++fill) {
        int got = m_transport.Get(c);
        if (got <= 0) return got == 0 ? kStuck : kClosed;
        m_buf.push_back(c);
        if (c == '\r' || c == '\n' || c == '\v') break;
    }
    if (pos) *pos = fill;
    return m_lineLen = fill;
}

int ScriptedShellClient::ReadLine()
{
    int pos = 0;
    int n = ReadPartial(10, &pos);
    if (n < 0) return n;
    m_eof = !m_buf.empty() && m_buf[0] == '\v';
    if (!m_eof) return n == 9 ? ReadPartial(m_maxLineLen, &pos) : n;
    pos = 0;
    int r = ReadPartial(9, &pos);
    if (r < 0 || m_buf.compare(0, 7, "Error: ") != 0) return r < 0 ? r : n;
    r = ReadPartial(m_maxLineLen, &pos);
    if (r < 0) return r;
    m_lastError = m_buf.substr(0, static_cast<size_t>(r));
    int rest = ReadLine();
    return rest == kStuck || rest == kClosed ? rest : -EIO;
}

bool ScriptedShellClient::Greet(const std::string& comment)
{
    for (int pos = 0; ReadPartial(4, &pos) >= 0 && m_buf.compare(0, 3, "#> ") != 0; pos = 0)
        if (ReadPartial(8000, &pos) < 0) return false;
    return m_buf.compare(0, 3, "#> ") == 0 && m_transport.Send("comment " + comment + "\r\n") && Prompt();
}

bool ScriptedShellClient::Setup()
{
    if (!m_transport.Send("shell \\ |\r\n") || ReadLine() < 0) return false;
    m_notReady = Line().find("not ready") != std::string::npos;
    if (m_notReady || ReadPartial(2) < 0 || ReadPartial(9) < 0 || !m_transport.Send(".header on\r\n")) return false;
    for (int maxLen : {2, 9, 9, 9})
        if (ReadPartial(maxLen) < 0) return false;
    m_eof = true;
    return true;
}

int ScriptedShellClient::Exec(const std::string& statement, std::vector<std::string>& lines)
{
    lines.clear();
    if (!m_transport.Send(statement + "\r\n")) return kClosed;
    int n;
    while ((n = ReadLine()) >= 0 && !m_eof) lines.push_back(Line());
    return n < 0 ? n : 0;
}

bool ScriptedShellClient::Subscribe(const std::string& tableAndWords)
{
    m_first = true;
    return m_transport.Send("monitor " + tableAndWords + "\r\n") && Prompt();
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
