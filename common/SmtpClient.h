// Sends one plain-text mail through an SMTP server, optionally after AUTH
// LOGIN, never encrypted. Commands and header lines end in a bare "\n" (the
// servers this client was made for take it); Crlf(true) ends them in CR LF
// for servers that insist.
#pragma once

#include <list>
#include <string>

#include "Debuggable.h"
#include "SockAddr.h"
#include "Socket.h"
#include "TimeSpan.h"

class SmtpClient : public Debuggable {
public:
    // Borrowed pointers, not owned. A login is tried only when user and
    // password are both set.
    struct Header {
        const char* from = nullptr;
        const char* user = nullptr;
        const char* password = nullptr;
        // More header lines, each ending in "\n", sent after "Subject:"; null: none.
        const char* extra = nullptr;
    };

    // The part of the dialogue a false result stopped at.
    enum class Step { Connect, Greeting, Ehlo, Auth, MailFrom, RcptTo, Data, Body, EndOfData, Quit };

    explicit SmtpClient(const SockAddr& smtpServer);
    ~SmtpClient() override;
    SmtpClient(const SmtpClient&) = delete;
    SmtpClient& operator=(const SmtpClient&) = delete;

    // Connects, reads the "220 " greeting, sends "EHLO brix_smtp_client" and
    // logs in when the header has both credentials. true at once when
    // already connected. On false the connection is closed (see Stage()).
    bool Open(const Header& hdr);
    // Open, then one mail: envelope, DATA, "From:", "To:", "Subject:" and the
    // extra header lines, the dot-stuffed body, the end of data, QUIT. true
    // when QUIT was answered; false with Stage() and the rest set otherwise
    // (also when only QUIT failed: then DataReply() is not empty). From, to
    // and subject with CR or LF are refused before anything is sent.
    bool Mail(const Header& hdr, const char* to, const char* subject, const char* message);
    // An abort: "\n.\nQUIT\n" without waiting for a reply, then disconnect.
    void Close();

    // One whole reply into resp (cleared first): its last line, or null when
    // none came (then LastErrno() after a failed step says why). A line is
    // the last when it starts with " ", or a " " comes before any "-".
    const char* ReadResponses(std::list<std::string>& resp);
    // Sends the formatted command, then reads its reply as above; null
    // without reading when the send failed.
    const char* ReadResponses(std::list<std::string>& resp, const char* format, ...)
        __attribute__((format(printf, 3, 4)));

    // Additions that change no byte while unused.
    // seconds > 0: the link-dead time-out is off, and the connect, each
    // reply and each write wait at most that long, each from its own start
    // (a write's wait starts when the server last took a byte); a wait that
    // runs out is -ETIMEDOUT. connectMs > 0 bounds the connect alone more
    // tightly. 0: the link's own waits (no limit on connect and writes, the
    // link dead after 60 s without a byte).
    void Timeout(int seconds, int connectMs = 0);
    // CR LF after every command and header line; the body's LF, CR LF and
    // lone CR all become CR LF, and the data ends with ".\r\n" right after a
    // body that ends in a line break.
    void Crlf(bool on) { m_crlf = on; }
    Step Stage() const { return m_stage; }
    // The failed step's last reply line, or empty (for -ENOTSUP the EHLO
    // line that lists AUTH, if there is one).
    const std::string& LastReply() const { return m_lastReply; }
    // 0 when the server refused; else a negated errno: -EBADMSG a malformed
    // reply (a line of BufLen() - 1 characters or more, more than 100 lines,
    // or a bare code followed by silence), -ENOTSUP AUTH LOGIN not offered,
    // -ETIMEDOUT, -EPIPE the server closed (or the link went dead), -EINVAL a
    // refused argument, -E2BIG a command (a credential's base64 line) of
    // BufLen() bytes or more, not sent, or the errno of a failed connect or write.
    int LastErrno() const { return m_lastErrno; }
    // The reply to the end of data once accepted, kept when QUIT then
    // fails; else empty.
    const std::string& DataReply() const { return m_dataReply; }

private:
    bool Connect();
    bool Login(std::list<std::string>& resp, const Header& hdr);
    bool SendCredential(std::list<std::string>& resp, const char* text, const char* code);
    int SendMessage(const Header& hdr, const char* to, const char* subject, const char* message, bool& lineStart);
    int SendData(const char* text, bool& lineStart);
    int Send(const std::string& bytes);
    const char* Command(std::list<std::string>& resp, bool secret, int limitMs, const char* format, ...)
        __attribute__((format(printf, 5, 6)));
    const char* Exchange(std::list<std::string>& resp, bool secret, int limitMs, const char* format, va_list args);
    const char* ReadReply(std::list<std::string>& resp, int limitMs);
    int ReadReplyLine();
    int ReadByte(char& c);
    bool Expect(Step step, const char* reply, const char* code);
    bool Fail(Step step, int err);
    bool Refuse(Step step);
    void Note(int line, const char* text) const;
    const char* Eol() const { return m_crlf ? "\r\n" : "\n"; }

    Socket m_link;
    int m_timeoutMs = 0;
    int m_connectMs = 0;
    bool m_crlf = false;
    Step m_stage = Step::Connect;
    std::string m_lastReply;
    int m_lastErrno = 0;
    std::string m_dataReply;
    // The reply being read: its line so far, its last whole line, why it
    // ended without one, and when its wait began.
    std::string m_line;
    std::string m_replyLine;
    int m_replyErrno = 0;
    int m_replyLimitMs = 0;
    TimeSpan m_replyStart;
};
