// A database shell client that makes exactly the reads of the system's client (partial reads that stop at
// CR, LF or 0x0B, the 9-byte first read of a line, the marker and error rules, the set-up and subscription
// reads), over any byte transport: proof that each answer is consumed exactly, nothing left over or awaited.
#pragma once

#include <sys/socket.h>

#include <cerrno>
#include <string>
#include <vector>

#include "process.h"
#include "wait.h"

class ShellTransport {
public:
    virtual ~ShellTransport() = default;
    // One byte: 1 and `c` set; 0 when none came in time (the real client would wait for ever); -1 when closed.
    virtual int Get(char& c) = 0;
    // Sends a request as it stands (the caller adds "\r\n").
    virtual bool Send(const std::string& bytes) = 0;
};

// Over a connected stream socket, closed by the destructor; a byte not come within `waitMs` (scaled)
// is a read the real client would wait on for ever.
class FdShellTransport : public ShellTransport {
public:
    explicit FdShellTransport(int fd, int waitMs = 15000) : m_fd(fd), m_waitMs(waitMs) {}
    ~FdShellTransport() override { if (m_fd >= 0) close(m_fd); }
    FdShellTransport(const FdShellTransport&) = delete;
    FdShellTransport& operator=(const FdShellTransport&) = delete;

    int Get(char& c) override
    {
        int filled = m_at < m_buffer.size() ? 1 : Fill(m_waitMs);
        if (filled > 0) c = m_buffer[m_at++];
        return filled;
    }
    bool Send(const std::string& bytes) override
    {
        return send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    // True when no byte is left unread: none buffered, none arriving within `quietMs` (scaled).
    bool Quiet(int quietMs = 200) { return m_at == m_buffer.size() && Fill(quietMs) == 0; }
    // Reads raw bytes until `end` has arrived; false on time-out or close.
    bool ReadUntil(const std::string& end, std::string& bytes, int waitMs)
    {
        int filled = 1;
        return WaitUntil([&] {
            bytes.append(m_buffer, m_at, std::string::npos);
            m_at = m_buffer.size();
            bool ended = bytes.size() >= end.size() && bytes.compare(bytes.size() - end.size(), end.size(), end) == 0;
            return ended || (filled = Fill(100)) < 0;
        }, ScaledMs(waitMs)) && filled >= 0;
    }
    int Fd() const { return m_fd; }

private:
    int Fill(int waitMs)
    {
        if (m_at == m_buffer.size()) m_buffer.clear(), m_at = 0;
        return ReadWithin(m_fd, m_buffer, ScaledMs(waitMs));
    }

    int m_fd;
    int m_waitMs;
    std::string m_buffer;
    size_t m_at = 0;
};

class ScriptedShellClient {
public:
    explicit ScriptedShellClient(ShellTransport& transport, int maxLineLen = 2048)
        : m_transport(transport), m_maxLineLen(maxLineLen) {}

    // Skips banner lines up to the prompt, sends the comment line, reads the three-byte answer.
    bool Greet(const std::string& comment = "[pid=1] SQL Wrapper")
    {
        for (int pos = 0; ReadPartial(4, &pos) >= 0 && m_buf.compare(0, 3, "#> ") != 0; pos = 0)
            if (ReadPartial(8000, &pos) < 0) return false;
        return m_buf.compare(0, 3, "#> ") == 0 && m_transport.Send("comment " + comment + "\r\n") && Prompt();
    }
    // "shell \ |" and ".header on" with their fixed discarding reads; "not ready" sets NotReady().
    bool Setup()
    {
        if (!m_transport.Send("shell \\ |\r\n") || ReadLine() < 0) return false;
        m_notReady = Line().find("not ready") != std::string::npos;
        if (m_notReady || ReadPartial(2) < 0 || ReadPartial(9) < 0 || !m_transport.Send(".header on\r\n"))
            return false;
        for (int maxLen : {2, 9, 9, 9})
            if (ReadPartial(maxLen) < 0) return false;
        return true;
    }
    // Sends a statement, reads the header and rows as raw lines: 0, -EIO for a server error, or a negative misfit.
    int Exec(const std::string& statement, std::vector<std::string>& lines)
    {
        lines.clear();
        if (!m_transport.Send(statement + "\r\n")) return kClosed;
        int n;
        while ((n = ReadLine()) >= 0 && !m_eof) lines.push_back(Line());
        return n < 0 ? n : 0;
    }
    // Sends "monitor <table>" (plus words) and reads the three-byte answer.
    bool Subscribe(const std::string& tableAndWords)
    {
        m_first = true;
        return m_transport.Send("monitor " + tableAndWords + "\r\n") && Prompt();
    }
    // One change line as the monitor client delivers it: last character cut, six more skipped after a subscription.
    bool NextEvent(std::string& event)
    {
        int n = ReadLine();
        if (n <= 0) return false;
        std::string line = m_buf.substr(0, static_cast<size_t>(n - 1));
        event = line.size() >= (m_first ? 6u : 0u) ? line.substr(m_first ? 6 : 0) : std::string();
        m_first = false;
        return true;
    }
    const std::string& LastError() const { return m_lastError; }
    bool NotReady() const { return m_notReady; }

private:
    static constexpr int kStuck = -1000;   // a read found no byte: the client would hang
    static constexpr int kClosed = -1001;  // the peer closed during a read

    // Reads from *pos up to maxLen - 1 bytes or a terminator (kept past the end returned), or kStuck / kClosed.
    int ReadPartial(int maxLen, int* pos = nullptr)
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
    // The client's line read: the length, -EIO for an error answer (its text in m_lastError), or a misfit.
    int ReadLine()
    {
        int pos = 0, n = ReadPartial(10, &pos);
        if (n < 0) return n;
        m_eof = !m_buf.empty() && m_buf[0] == '\v';
        if (!m_eof) return n == 9 ? ReadPartial(m_maxLineLen, &pos) : n;
        pos = 0;
        int r = ReadPartial(9, &pos);
        if (r < 0 || m_buf.compare(0, 7, "Error: ") != 0) return r < 0 ? r : n;
        if ((r = ReadPartial(m_maxLineLen, &pos)) < 0) return r;
        m_lastError = m_buf.substr(0, static_cast<size_t>(r));
        int rest = ReadLine();
        return rest == kStuck || rest == kClosed ? rest : -EIO;
    }
    std::string Line() const { return m_buf.substr(0, static_cast<size_t>(m_lineLen)); }
    bool Prompt() { return ReadPartial(4) == 3 && m_buf == "#> "; }

    ShellTransport& m_transport;
    int m_maxLineLen;
    std::string m_buf;
    int m_lineLen = 0;
    bool m_eof = true;
    bool m_first = false;
    bool m_notReady = false;
    std::string m_lastError;
};
