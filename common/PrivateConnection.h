// The client end of the database shell's line protocol: connect and wait
// for the prompt, announce the client, send one request line at a time and
// read answer lines up to the end-of-answer marker. SqlWrapper and
// MonitorWrapper add statements, rows and table monitoring.
#pragma once

#include <atomic>
#include <string>

#include "Debuggable.h"
#include "Mutex.hpp"
#include "SockAddr.h"

class Sock;

class PrivateConnection : public Debuggable {
public:
    // Appended to every request line.
    static const char NEWLINE[];
    // Retry count meaning: retry for ever.
    static constexpr int INFINITE_RETRY = -1;
    // Line lengths are clamped to this range: the fixed reads of ReadLine
    // need 10 bytes, and a peer never makes us hold more than 1 MiB.
    static constexpr int MIN_LINE_LEN = 16;
    static constexpr int MAX_LINE_LEN = 1 << 20;

    // addr null: 127.0.0.1 port 3543. comment null: "Unknown connection";
    // an empty one announces only the process id. Does not connect.
    PrivateConnection(const SockAddr* addr, int maxLineLen, const char* comment);
    ~PrivateConnection() override;
    PrivateConnection(const PrivateConnection&) = delete;
    PrivateConnection& operator=(const PrivateConnection&) = delete;

    // Connects, skips the banner up to the first prompt and sends the
    // comment line. False when a link is open already, the family is not
    // IPv4, IPv6 or Unix, the connection fails or breaks before the prompt,
    // or StopForGood() was called. A Stop() during the prompt wait ends the
    // wait and still gives true.
    bool Connect();
    // Destroys the link; nothing when closed.
    void Close();
    // Close and Connect under ShouldContinue with a copy of Retries():
    // whether a connection stands.
    virtual bool Reconnect();
    // Whether a retry loop may make one more attempt: false at once when
    // stopped, exiting or out of attempts; otherwise sleeps one second
    // (ended early by a stop), counts the attempt down and says whether
    // another is allowed. count -1 retries for ever.
    bool ShouldContinue(int& count);

    // Formats one request and writes it: the bytes written, -ENOSPC (nothing
    // sent) when it needs MaxLineLen() bytes or more, -EINVAL without a
    // link, or the write's negated errno.
    int Print(const char* format, ...) __attribute__((format(printf, 2, 3)));
    // Partial read into Line(), from *currPos (0 when null), of at most
    // maxLen - 1 bytes or up to CR, LF or the marker, which stays at
    // Line()[result]. The end position, -EINVAL without a link, or a
    // negated errno (the connection broke).
    int ReadIncompleteLine(int maxLen, int* currPos);
    // One answer line into Line(): its length (the terminator stays at that
    // index; 0 for the end marker, whereupon Eof() is true), -EIO for a
    // server error line (text in LastError(); the line after it is consumed),
    // or a negated errno. Lines past MaxLineLen() - 1 come in pieces.
    int ReadLine();

    // Hook for connection state changes; MonitorWrapper calls it.
    virtual void StateChange(bool /*connected*/) {}

    // Additions that change nothing while 0, their default; whole seconds.
    // connectSeconds bounds each connect; greetingSeconds each wait for a
    // byte from then to the end of the owner's set-up (the prompt, the
    // comment's answer, SqlWrapper's directives, MonitorWrapper's
    // subscription); answerSeconds each wait for a byte after that. A wait
    // that runs out makes the read give -ETIMEDOUT.
    void Bounds(int connectSeconds, int greetingSeconds, int answerSeconds);
    int GreetingSeconds() const { return m_greetingSeconds; }
    int AnswerSeconds() const { return m_answerSeconds; }
    // With it on, a failed connect is not logged (retries that would only
    // repeat the line); the reason is in ConnectFailure() all the same.
    void QuietConnect(bool on) { m_quietConnect = on; }
    // Why the last Connect failed, in an operator's words: "connection
    // refused by <address:port>", "cannot connect to <address:port>:
    // <strerror>" (a close before the prompt is "Connection reset by peer"),
    // or "no greeting within T s"; empty after one that succeeded.
    const std::string& ConnectFailure() const { return m_connectFailure; }
    // What waits on the connection, looked at without waiting (Sock's
    // Pending): the bytes, -EPIPE when only the server's close waits or no
    // link is open, 0 when nothing does.
    int Pending();

    // Takes over an open link (one end of a socket pair, say) as if
    // connected; false, leaving it to the caller, when a link is open.
    bool Adopt(Sock* link);

    // Safe from any thread: sets the stop flag and shuts the descriptor
    // down, so that a prompt wait, read, connect or retry sleep ends at
    // once. Connect clears the flag again.
    void Stop();
    // As Stop(), for good: Connect refuses from now on. For owners that are
    // going away while another thread may be using the connection.
    void StopForGood();
    bool ShouldStop() const { return m_stop.load(std::memory_order_relaxed); }

    bool Connected();
    // Closes the link's descriptor, keeping the link object.
    void Disconnect();
    // The server's address (127.0.0.1 port 3543 when none was given).
    const SockAddr& Address() const { return m_addr; }
    int Retries() const { return m_retryCount; }
    void Retries(int count) { m_retryCount = count; }
    char* Line() { return m_line; }
    int MaxLineLen() const { return m_maxLineLen; }
    const std::string& LastError() const { return m_lastError; }
    bool Eof() const { return m_eof; }

protected:
    // Removes the link; the caller holds m_ioLock.
    void DropLink();
    // Ends the owner's set-up: from now on waits are bounded by the answer
    // bound instead of the greeting bound.
    void SetupDone();
    // For a read of the owner's set-up: true when `result` is a time-out,
    // which closes the link and fails the connection ("no greeting ...").
    bool SetupTimedOut(int result);

    Sock* m_link = nullptr;
    std::string m_lastError;
    char* m_line = nullptr;
    bool m_eof = true;
    SockAddr m_addr;
    int m_maxLineLen;
    int m_retryCount = INFINITE_RETRY;
    std::atomic<bool> m_stop{false};
    std::string m_comment;

private:
    bool OpenLink();
    int AwaitPrompt();
    bool ConnectFailed(int err);
    bool LineRoom(int size);
    int ReadAnswerLine(int depth);
    // ReadIncompleteLine for a caller that holds m_ioLock.
    int ReadPiece(int maxLen, int& pos);
    void DebugLine(int line, const char* function) const;

    // The line buffer holds m_lineCap bytes and grows on demand up to
    // m_maxLineLen + 1, so a long limit costs nothing until a line needs it.
    int m_lineCap = 0;
    int m_connectSeconds = 0;
    int m_greetingSeconds = 0;
    int m_answerSeconds = 0;
    bool m_quietConnect = false;
    std::string m_connectFailure;

    std::atomic<bool> m_stopForGood{false};
    // Held by the owner's thread for each use of the link, so that Close
    // from another thread waits for that use to end (after waking it).
    Mutex m_ioLock{true};
    // Guards m_link and m_wakeFd for short looks from any thread.
    Mutex m_linkLock{true};
    // A duplicate of the link's descriptor: another thread shuts the
    // connection down through it without racing the link's own close.
    int m_wakeFd = -1;
};
