// The client of a daemon's command channel: a line service on a stream
// socket that answers each command line with output lines and then shows
// its prompt again. Connects lazily, skips the greeting up to the first
// prompt, sends one command per Exec and hands each output line to the
// registered callback, to HandleOutput and to an optional list.
//
// A line ends at CR or at LF (so CR LF gives a line and an empty one); a
// line whose first prompt-length bytes are the prompt is taken for the
// prompt (Pending() then shows the rest waiting). Api logs and prints
// nothing; failures show in the results and LastError().
#pragma once

#include <list>
#include <string>

#include "ListedObj.hpp"
#include "SockAddr.h"

class Socket;

class Api : public ListedObj<Api> {
public:
    // Receives the registered data pointer and one output line.
    typedef void (*OutputCb)(void* data, const char* out);
    // Bytes of the own line buffer: a longer line comes in pieces of
    // kLineLen - 1 bytes (the prompt-length start and the rest after it).
    static const int kLineLen = 4000;

    // `prompt` is kept, not copied: the caller keeps it alive (null or
    // empty: strPrompt). Does not connect.
    Api(const SockAddr& server, const char* prompt);
    // Copies everything but the link: the copy starts unconnected. (Two
    // objects owning one link would free it twice.)
    Api(const Api& other);
    Api& operator=(const Api&) = delete;
    ~Api() override;

    // Sees each output line of Exec after the callback; does nothing here.
    virtual void HandleOutput(const char* out);
    void RegisterOutputCb(OutputCb cb, void* data);

    // Connects unless connected, then reads the greeting up to the first
    // prompt. false when the connection failed: LastError() is the negated
    // errno (-EAFNOSUPPORT for a family other than IPv4, IPv6 and Unix) and
    // the link is dropped. true otherwise, also when the greeting ended on
    // a read error: LastError() then says which and the link is dropped.
    bool Connect();
    // Connects, sends `cmd` and "\n", and hands each output line, in order,
    // to the callback, HandleOutput and `out` (appended; may be null), up
    // to the prompt. false when connecting, the greeting or the send failed
    // (nothing was read; -E2BIG for a command of 7999 bytes or more, which
    // the link's formatted write refuses). true when the output ended: at the prompt (LastError() 0) or
    // on a read error (LastError(); the link is dropped, the next Exec
    // connects again and skips the new greeting).
    bool Exec(const char* cmd, std::list<std::string>* out);
    bool Exec(const char* cmd) { return Exec(cmd, nullptr); }
    bool Exec(const char* cmd, std::list<std::string>& out) { return Exec(cmd, &out); }
    // Reads one output line into `buffer` (len bytes with the NUL; more
    // than the prompt's length). true for a line or a piece of one
    // (LastLineEnd()); "\v" after the prompt-length start is dropped. false
    // for the prompt (LastError() 0) or a read error: LastError() -EPIPE
    // (closed, or no byte for the link-dead time-out), -ETIMEDOUT,
    // -ENOTCONN without a connection, -EINVAL for a short buffer; the bytes
    // of the line so far are in Partial() and the link is dropped.
    bool ReadLineOrPrompt(char* buffer, int len);
    // Destroys the link; nothing when there is none.
    void Disconnect();

    // Seconds; 0, the default, keeps the plain waits: connect blocks as the
    // system does, and a read gives up after the link-dead time-out of
    // silence (Sock's default, 60 s) with -EPIPE. n > 0: connect, the
    // greeting as a whole and each wait for a byte end n s after they began
    // with -ETIMEDOUT, and the link-dead time-out is off.
    void Timeout(int seconds);
    int Timeout() const { return m_timeout; }
    // 0 unless the last Connect, Exec or ReadLineOrPrompt ended on an
    // error, else its negated errno (see there).
    int LastError() const { return m_lastError; }
    // How the last line of ReadLineOrPrompt ended: '\r', '\n', or 0 for a
    // piece of a longer line (and for the prompt or an error).
    char LastLineEnd() const { return m_lastLineEnd; }
    // The text of a line that a read error cut off, up to any NUL (empty
    // when none); reset by each ReadLineOrPrompt.
    const std::string& Partial() const { return m_partial; }
    // Never waits: the number of bytes received and not yet read, -EPIPE
    // when only the daemon's close waits (or there is no connection), 0
    // when nothing does.
    int Pending();

private:
    void ApplyTimeout();
    void SkipGreeting();
    int ReadRest(char* buf, int size);
    bool ReadFailed(char* buffer, int len, int err);

    SockAddr m_server;
    Socket* m_link;
    OutputCb m_outCb;
    void* m_outCbData;
    const char* m_prompt;
    int m_promptLen;
    int m_timeout;
    int m_lastError;
    char m_lastLineEnd;
    std::string m_partial;
    // Last, so a line that overran it would show in a derived class's data.
    char m_line[kLineLen];
};
