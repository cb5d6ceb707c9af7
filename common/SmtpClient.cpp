#include "SmtpClient.h"

#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "debugger.h"
#include "utils.h"

namespace {

const char kFile[] = "SmtpClient.cpp";
const char kEhloName[] = "brix_smtp_client";
const char kRule[] = "-----------------------------------------------------------------------------";
// Logged instead of the base64 login name and password.
const char kHidden[] = "*****";
// A reply of more lines is malformed: an endless reply must end somewhere.
const size_t kMaxReplyLines = 100;
// After a failure, QUIT's reply is awaited at most this long (RFC 5321
// 4.1.1.10 wants the client to wait for it before closing).
const int kQuitWaitMs = 5000;
// Mail data goes out in writes of about this many bytes.
const size_t kDataChunk = 65536;

// What may stand in a command or header line: no line break of its own.
bool smtp_field_ok(const char* text) { return text && !strpbrk(text, "\r\n"); }

// The EHLO line that lists the AUTH mechanisms: its text after the fourth
// character (after "250-" or "250 ") starts with "AUTH ", in any case.
const std::string* smtp_auth_offer(const std::list<std::string>& resp)
{
    for (const std::string& line : resp)
        if (line.size() >= 9 && strncasecmp(line.c_str() + 4, "AUTH ", 5) == 0) return &line;
    return nullptr;
}

bool smtp_offers_login(const std::string& offer)
{
    for (size_t at = 9; at <= offer.size();) {
        size_t end = offer.find(' ', at);
        if (end == std::string::npos) end = offer.size();
        if (end - at == 5 && strncasecmp(offer.c_str() + at, "LOGIN", 5) == 0) return true;
        at = end + 1;
    }
    return false;
}

// The last line of a reply starts with " ", or has a " " before any "-";
// one starting with "-" is a continuation.
bool smtp_last_line(const std::string& line)
{
    if (line.empty() || line[0] == '-') return false;
    if (line[0] == ' ') return true;
    size_t mark = line.find_first_of(" -", 1);
    return mark != std::string::npos && line[mark] == ' ';
}

// "250" alone: the end of a reply under RFC 5321, read as a continuation here.
bool smtp_bare_code(const std::string& line) { return line.find_first_of(" -") == std::string::npos; }

}  // namespace

SmtpClient::SmtpClient(const SockAddr& smtpServer) : Debuggable("SmtpClient"), m_link(smtpServer, nullptr)
{
    safe_mem_object(kFile, __LINE__, "SmtpClient", this);
}

SmtpClient::~SmtpClient() { safe_mem_object(kFile, __LINE__, "~SmtpClient", this); }

void SmtpClient::Timeout(int seconds, int connectMs)
{
    m_timeoutMs = seconds > 0 ? std::min(seconds, INT_MAX / 1000) * 1000 : 0;
    m_connectMs = connectMs > 0 ? connectMs : 0;
    m_link.LinkDeadTimeout(seconds > 0 ? -1 : Sock::DefaultLinkDeadTimeout());
}

bool SmtpClient::Open(const Header& hdr)
{
    if (m_link.IsConnected()) return true;
    if (!Connect()) return false;
    std::list<std::string> resp;
    if (!Expect(Step::Greeting, ReadReply(resp, m_timeoutMs), "220 ")) return false;
    if (!Expect(Step::Ehlo, Command(resp, false, m_timeoutMs, "EHLO %s%s", kEhloName, Eol()), "250 ")) return false;
    if (!hdr.user || !hdr.password) return true;
    return Login(resp, hdr);
}

bool SmtpClient::Connect()
{
    m_replyLine.clear();
    m_link.ConnectTimeout(m_connectMs > 0 ? m_connectMs : m_timeoutMs);
    if (m_link.Connect()) return true;
    int err = m_link.ConnectErrno();
    return Fail(Step::Connect, err ? -err : -EAFNOSUPPORT);
}

// resp holds the EHLO reply.
bool SmtpClient::Login(std::list<std::string>& resp, const Header& hdr)
{
    const std::string* offer = smtp_auth_offer(resp);
    if (!offer || !smtp_offers_login(*offer)) {
        Note(__LINE__, offer ? "Server does not support LOGIN authentication." : "Server does not support authentication.");
        m_replyLine = offer ? *offer : "";
        return Fail(Step::Auth, -ENOTSUP);
    }
    return Expect(Step::Auth, Command(resp, false, m_timeoutMs, "AUTH LOGIN%s", Eol()), "334 ") &&
           SendCredential(resp, hdr.user, "334 ") && SendCredential(resp, hdr.password, "235 ");
}

// Each credential goes as one base64 line, whatever its length.
bool SmtpClient::SendCredential(std::list<std::string>& resp, const char* text, const char* code)
{
    char* encoded = base64(text, strlen(text));
    if (!encoded) return Fail(Step::Auth, -ENOMEM);
    const char* reply = Command(resp, true, m_timeoutMs, "%s%s", encoded, Eol());
    safe_mem_free(encoded, __FILE__, __LINE__);
    return Expect(Step::Auth, reply, code);
}

bool SmtpClient::Mail(const Header& hdr, const char* to, const char* subject, const char* message)
{
    m_dataReply.clear();
    if (!smtp_field_ok(hdr.from)) return Refuse(Step::MailFrom);
    if (!smtp_field_ok(to)) return Refuse(Step::RcptTo);
    if (!smtp_field_ok(subject)) return Refuse(Step::Body);
    if (!Open(hdr)) return false;
    std::list<std::string> resp;
    const char* eol = Eol();
    if (!Expect(Step::MailFrom, Command(resp, false, m_timeoutMs, "MAIL FROM: <%s>%s", hdr.from, eol), "250 ") ||
        !Expect(Step::RcptTo, Command(resp, false, m_timeoutMs, "RCPT TO: <%s>%s", to, eol), "250 ") ||
        !Expect(Step::Data, Command(resp, false, m_timeoutMs, "DATA%s", eol), "354 "))
        return false;
    m_replyLine.clear();  // no reply belongs to the body
    bool lineStart = true;
    int rv = SendMessage(hdr, to, subject, message, lineStart);
    if (rv < 0) return Fail(Step::Body, rv);
    // Without Crlf the end is always "\r\n.\r\n", as the client always sent it.
    const char* end = m_crlf && lineStart ? ".\r\n" : "\r\n.\r\n";
    if (!Expect(Step::EndOfData, Command(resp, false, m_timeoutMs, "%s", end), "250 ")) return false;
    m_dataReply = resp.back();
    if (!Expect(Step::Quit, Command(resp, false, m_timeoutMs, "QUIT%s", eol), "221 ")) return false;
    m_link.Disconnect();
    return true;
}

// The header lines and the body, no reply read: 0 or a negated errno.
// lineStart tells on return whether the data ends in a line break.
int SmtpClient::SendMessage(const Header& hdr, const char* to, const char* subject, const char* message,
                            bool& lineStart)
{
    const std::string eol = Eol();
    Note(__LINE__, "[Sending header...]");
    int rv = Send(std::string("From: ") + hdr.from + eol + "To: " + to + eol + "Subject: " + subject + eol);
    if (rv == 0 && hdr.extra) rv = SendData(hdr.extra, lineStart);
    if (rv == 0) rv = Send(eol);
    Note(__LINE__, "[Done.]");
    if (rv < 0) return rv;
    Note(__LINE__, "[Sending message...]");
    lineStart = true;
    if (message && *message) rv = SendData(message, lineStart);
    Note(__LINE__, "[Done.]");
    return rv;
}

// A "." that starts a line is doubled, the very first one too (a leading
// ".\r\n" would end the data early). With Crlf, LF, CR LF and a lone CR
// each become CR LF. lineStart: whether the text starts a line, and on
// return whether its end does.
int SmtpClient::SendData(const char* text, bool& lineStart)
{
    std::string out;
    out.reserve(kDataChunk + 2);
    bool afterCr = false;
    for (const char* p = text; *p; p++) {
        const char c = *p;
        if (m_crlf && (c == '\r' || c == '\n')) {
            if (!(afterCr && c == '\n')) out += "\r\n";
            afterCr = c == '\r';
            lineStart = true;
            continue;
        }
        afterCr = false;
        if (lineStart && c == '.') out += '.';
        out += c;
        lineStart = c == '\n';
        if (out.size() >= kDataChunk) {
            int rv = Send(out);
            if (rv < 0) return rv;
            out.clear();
        }
    }
    return out.empty() ? 0 : Send(out);
}

// 0 or a negated errno; a write that the server does not take within the
// time-out gives -ETIMEDOUT.
int SmtpClient::Send(const std::string& bytes)
{
    m_link.WaitTimeout(m_timeoutMs);
    ssize_t n = m_link.write(bytes.data(), bytes.size());
    // A long upload is no silence of the server: the link-dead clock starts again.
    m_link.UpdateRxTime();
    return n == static_cast<ssize_t>(bytes.size()) ? 0 : n < 0 ? static_cast<int>(n) : -EINTR;
}

void SmtpClient::Close()
{
    if (!m_link.IsConnected()) return;
    (void)Send("\n.\nQUIT\n");
    m_link.Disconnect();
}

const char* SmtpClient::ReadResponses(std::list<std::string>& resp) { return ReadReply(resp, m_timeoutMs); }

const char* SmtpClient::ReadResponses(std::list<std::string>& resp, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const char* last = Exchange(resp, false, m_timeoutMs, format, args);
    va_end(args);
    return last;
}

const char* SmtpClient::Command(std::list<std::string>& resp, bool secret, int limitMs, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const char* last = Exchange(resp, secret, limitMs, format, args);
    va_end(args);
    return last;
}

// Sends one command (a secret one is logged as "*****"), then reads its
// reply, both waits bounded by limitMs (0: the link's own).
const char* SmtpClient::Exchange(std::list<std::string>& resp, bool secret, int limitMs, const char* format,
                                 va_list args)
{
    m_link.WaitTimeout(limitMs);
    int rv = m_link.vprintf(format, args);
    m_link.UpdateRxTime();
    if (Debug()) {
        const char* text = secret ? kHidden : m_link.TxBuffer() + strspn(m_link.TxBuffer(), "\r\n");
        syslog_safe(7, "DBG %s:%d %.*s", kFile, __LINE__, static_cast<int>(strcspn(text, "\r\n")), text);
        syslog_safe(7, "DBG %s:%d %s", kFile, __LINE__, kRule);
    }
    if (rv < 0) {
        resp.clear();
        m_replyLine.clear();
        m_replyErrno = rv;
        return nullptr;
    }
    return ReadReply(resp, limitMs);
}

// One reply within limitMs (0: the link's own waits): its last line, or
// null with m_replyErrno set.
const char* SmtpClient::ReadReply(std::list<std::string>& resp, int limitMs)
{
    resp.clear();
    m_line.clear();
    m_replyLine.clear();
    m_replyLimitMs = limitMs;
    m_replyStart.Reset();
    for (;;) {
        int rv = ReadReplyLine();
        if (rv == 0 && resp.size() == kMaxReplyLines) rv = -EBADMSG;
        // A bare code followed by silence was the reply's end after all.
        if (rv == -ETIMEDOUT && smtp_bare_code(m_replyLine) && !m_replyLine.empty()) rv = -EBADMSG;
        if (rv < 0) {
            m_replyErrno = rv;
            return nullptr;
        }
        resp.push_back(m_line);
        m_replyLine.swap(m_line);
        m_line.clear();
        if (Debug()) syslog_safe(7, "DBG %s:%d %s", kFile, __LINE__, m_replyLine.c_str());
        if (smtp_last_line(m_replyLine)) {
            if (Debug()) syslog_safe(7, "DBG %s:%d %s", kFile, __LINE__, kRule);
            return resp.back().c_str();
        }
    }
}

// The line assembly of Sock::ReadLine (CR, LF and VT end a line, VT is
// dropped, empty lines are skipped, BufLen() - 1 characters make a piece),
// done here so that no wait can outlast the reply's limit: ReadLine goes
// on reading while bytes trickle in. 0 with the line in m_line, or a
// negated errno (-EBADMSG for a line too long to be one).
int SmtpClient::ReadReplyLine()
{
    const size_t longest = static_cast<size_t>(m_link.BufLen() - 2);
    for (;;) {
        char c;
        int rv = ReadByte(c);
        if (rv < 0) return rv;
        if (c == '\r' || c == '\n') {
            if (!m_line.empty()) return 0;
        } else if (c != '\v') {
            if (m_line.size() >= longest) return -EBADMSG;
            m_line += c;
        }
    }
}

// One byte; a wait for it ends when the reply's limit is reached.
int SmtpClient::ReadByte(char& c)
{
    if (m_link.Pending() == 0) {
        int left = 0;
        if (m_replyLimitMs > 0) {
            left = m_replyLimitMs - m_replyStart.DurationMs();
            if (left <= 0) return -ETIMEDOUT;
        }
        m_link.WaitTimeout(left);
    }
    ssize_t n = m_link.read(&c, 1, 0);
    return n == 1 ? 0 : n < 0 ? static_cast<int>(n) : -EINTR;
}

bool SmtpClient::Expect(Step step, const char* reply, const char* code)
{
    if (reply && strncmp(reply, code, strlen(code)) == 0) return true;
    if (Debug())
        syslog_safe(7, "DBG %s:%d Unexpected response from server: %s", kFile, __LINE__, reply ? reply : "(none)");
    return Fail(step, reply ? 0 : m_replyErrno);
}

// While the server still talks (a refusal, a malformed reply outside the
// data, or a command too long to send), QUIT and its reply come before the close; after a time-out, a
// lost connection or a failed write nothing more is sent.
bool SmtpClient::Fail(Step step, int err)
{
    m_stage = step;
    m_lastErrno = err;
    m_lastReply = m_replyLine;
    // -E2BIG: the link refused a command too long for one line; nothing went out.
    const bool talking = err == 0 || err == -EBADMSG || err == -ENOTSUP || err == -E2BIG;
    if (talking && step != Step::Connect && step != Step::Body && step != Step::Quit) {
        std::list<std::string> resp;
        int limit = m_timeoutMs > 0 ? std::min(m_timeoutMs, kQuitWaitMs) : kQuitWaitMs;
        (void)Command(resp, false, limit, "QUIT%s", Eol());
    }
    m_link.Disconnect();
    return false;
}

// An argument refused before anything was sent.
bool SmtpClient::Refuse(Step step)
{
    m_stage = step;
    m_lastErrno = -EINVAL;
    m_lastReply.clear();
    return false;
}

void SmtpClient::Note(int line, const char* text) const
{
    if (Debug()) syslog_safe(7, "DBG %s:%d %s", kFile, line, text);
}
