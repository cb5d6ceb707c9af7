// A scripted database shell client that makes exactly the reads of the
// system's client (partial reads that stop at CR, LF or 0x0B, the 9-byte
// first read of a line, the marker and error rules, the set-up and
// subscription reads), over any byte transport: tests prove with it that each
// answer is consumed exactly, no byte left over and no read left waiting.
#pragma once

#include <string>
#include <vector>

class ShellTransport {
public:
    virtual ~ShellTransport() = default;
    // One byte: 1 and `c` set; 0 when none came in time (the real client would
    // wait for ever); -1 when the peer closed.
    virtual int Get(char& c) = 0;
    // Sends a request as it stands (the caller adds "\r\n"); false on failure.
    virtual bool Send(const std::string& bytes) = 0;
};

// Over a connected stream socket (closed by the destructor); a byte not come
// within `waitMs` (scaled) is a read the real client would wait on for ever.
class FdShellTransport : public ShellTransport {
public:
    explicit FdShellTransport(int fd, int waitMs = 15000) : m_fd(fd), m_waitMs(waitMs) {}
    ~FdShellTransport() override;
    FdShellTransport(const FdShellTransport&) = delete;
    FdShellTransport& operator=(const FdShellTransport&) = delete;

    int Get(char& c) override;
    bool Send(const std::string& bytes) override;
    // True when no byte is left unread: none buffered, none arriving within `quietMs` (scaled).
    bool Quiet(int quietMs = 200);
    // Reads raw bytes until `end` has arrived; false on time-out or close.
    bool ReadUntil(const std::string& end, std::string& bytes, int waitMs);
    int Fd() const { return m_fd; }

private:
    int Fill(int waitMs);

    int m_fd;
    int m_waitMs;
    std::string m_buffer;
    size_t m_at = 0;
};

class ScriptedShellClient {
public:
    static constexpr int kStuck = -1000;   // a read found no byte: the client would hang
    static constexpr int kClosed = -1001;  // the peer closed during a read

    explicit ScriptedShellClient(ShellTransport& transport, int maxLineLen = 2048)
        : m_transport(transport), m_maxLineLen(maxLineLen) {}

    // Partial read into the line buffer from *pos (0 when null): at most
    // maxLen - 1 bytes or up to a terminator, which stays past the returned
    // end position. Returns that position, kStuck or kClosed.
    int ReadPartial(int maxLen, int* pos = nullptr);
    // The client's line read: the length, -5 (-EIO) for an error answer (text
    // in LastError()), or kStuck / kClosed.
    int ReadLine();
    // Skips banner lines up to the prompt, sends the comment line, reads the
    // three-byte answer. False when any read does not fit.
    bool Greet(const std::string& comment = "[pid=1] SQL Wrapper");
    // After the greeting: "shell \ |" and ".header on" with their fixed
    // discarding reads. False on a misfit; "not ready" sets NotReady().
    bool Setup();
    // Sends a statement and reads the header (if any) and rows as raw lines.
    // 0 when done, -5 for a server error, or a negative misfit.
    int Exec(const std::string& statement, std::vector<std::string>& lines);
    // Sends "monitor <table>" (plus words) and reads the three-byte answer.
    bool Subscribe(const std::string& tableAndWords);
    // One change line as the monitor client delivers it (last character cut,
    // six more skipped after a subscription); false on a misfit or a line
    // that would read as a lost subscription.
    bool NextEvent(std::string& event);

    // The last read line without its terminator.
    std::string Line() const { return m_buf.substr(0, static_cast<size_t>(m_lineLen)); }
    const std::string& LastError() const { return m_lastError; }
    bool Eof() const { return m_eof; }
    bool NotReady() const { return m_notReady; }

private:
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
