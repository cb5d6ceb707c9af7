#include "Api.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "Socket.h"
#include "TimeSpan.h"
#include "utils.h"

namespace {

const char kFile[] = "Api.cpp";
// Timeout() is given in seconds and kept by the link in milliseconds.
const int kMaxTimeoutSeconds = INT_MAX / 1000;

bool api_family_ok(sa_family_t family)
{
    return family == AF_INET || family == AF_INET6 || family == AF_UNIX;
}

bool api_line_end(char c) { return c == '\r' || c == '\n'; }

}  // namespace

Api::Api(const SockAddr& server, const char* prompt)
    : m_server(server),
      m_link(nullptr),
      m_outCb(nullptr),
      m_outCbData(nullptr),
      m_prompt(prompt && *prompt ? prompt : strPrompt),
      m_promptLen(static_cast<int>(strlen(m_prompt))),
      m_timeout(0),
      m_lastError(0),
      m_lastLineEnd(0)
{
    m_line[0] = '\0';
    safe_mem_object(kFile, __LINE__, "Api", this);
}

Api::Api(const Api& other)
    : ListedObj<Api>(other),
      m_server(other.m_server),
      m_link(nullptr),
      m_outCb(other.m_outCb),
      m_outCbData(other.m_outCbData),
      m_prompt(other.m_prompt),
      m_promptLen(other.m_promptLen),
      m_timeout(other.m_timeout),
      m_lastError(other.m_lastError),
      m_lastLineEnd(other.m_lastLineEnd),
      m_partial(other.m_partial)
{
    memcpy(m_line, other.m_line, sizeof m_line);
    safe_mem_object(kFile, __LINE__, "Api", this);
}

Api::~Api()
{
    Disconnect();
    safe_mem_object(kFile, __LINE__, "~Api", this);
}

void Api::HandleOutput(const char* /*out*/) {}

void Api::RegisterOutputCb(OutputCb cb, void* data)
{
    m_outCb = cb;
    m_outCbData = data;
}

void Api::Timeout(int seconds)
{
    m_timeout = std::min(std::max(seconds, 0), kMaxTimeoutSeconds);
    if (m_link) ApplyTimeout();
}

// With a time-out, silence must end as -ETIMEDOUT, never as a dead link.
void Api::ApplyTimeout()
{
    const int ms = m_timeout * 1000;
    m_link->ConnectTimeout(ms);
    m_link->WaitTimeout(ms);
    m_link->LinkDeadTimeout(m_timeout > 0 ? -1 : Sock::DefaultLinkDeadTimeout());
}

void Api::Disconnect()
{
    delete m_link;
    m_link = nullptr;
}

bool Api::Connect()
{
    m_lastError = 0;
    if (!api_family_ok(m_server.GetAF())) {
        m_lastError = -EAFNOSUPPORT;
        return false;
    }
    if (!m_link) {
        m_link = new Socket(m_server, this);
        ApplyTimeout();
    }
    if (m_link->IsConnected()) return true;
    if (!m_link->Connect()) {
        // No errno when the descriptor itself could not be made.
        int err = m_link->ConnectErrno();
        m_lastError = -(err ? err : EIO);
        Disconnect();
        return false;
    }
    // The link-dead check counts from the last byte received.
    m_link->UpdateRxTime();
    SkipGreeting();
    return true;
}

// Reads lines up to the first prompt. With a time-out the greeting as a
// whole gets that long: each line's waits are cut to the time left.
void Api::SkipGreeting()
{
    TimeSpan started;
    const int limitMs = m_timeout * 1000;
    while (ReadLineOrPrompt(m_line, sizeof m_line)) {
        if (limitMs == 0) continue;
        int left = limitMs - started.DurationMs();
        if (left <= 0) {
            m_lastError = -ETIMEDOUT;
            Disconnect();
            return;
        }
        m_link->WaitTimeout(left);
    }
    if (m_link) m_link->WaitTimeout(limitMs);
}

bool Api::Exec(const char* cmd, std::list<std::string>* out)
{
    if (!cmd) {
        m_lastError = -EINVAL;
        return false;
    }
    if (!Connect() || m_lastError) return false;
    int rv = m_link->printf("%s\n", cmd);
    if (rv != static_cast<int>(strlen(cmd)) + 1) {
        m_lastError = rv < 0 ? rv : -EINTR;
        // A refused text sent nothing; after any other failure the
        // connection's state is unknown.
        if (rv != -E2BIG) Disconnect();
        return false;
    }
    // Silence while the command ran was no dead link.
    m_link->UpdateRxTime();
    while (ReadLineOrPrompt(m_line, sizeof m_line)) {
        if (m_outCb) m_outCb(m_outCbData, m_line);
        HandleOutput(m_line);
        if (out) out->push_back(m_line);
    }
    return true;
}

bool Api::ReadLineOrPrompt(char* buffer, int len)
{
    m_lastError = 0;
    m_lastLineEnd = 0;
    m_partial.clear();
    if (!buffer || len <= m_promptLen) {
        m_lastError = -EINVAL;
        return false;
    }
    buffer[0] = '\0';
    if (!m_link) {
        m_lastError = -ENOTCONN;
        return false;
    }
    for (int count = 0; count < m_promptLen; count++) {
        ssize_t n = m_link->read(buffer + count, 1, 0);
        if (n != 1) {  // 0 only when the process is being asked to exit
            buffer[count] = '\0';
            return ReadFailed(buffer, len, n < 0 ? static_cast<int>(n) : -EINTR);
        }
        if (api_line_end(buffer[count])) {
            m_lastLineEnd = buffer[count];
            buffer[count] = '\0';
            return true;
        }
    }
    buffer[m_promptLen] = '\0';
    if (strcmp(buffer, m_prompt) == 0) return false;
    int rv = ReadRest(buffer + m_promptLen, len - m_promptLen);
    if (rv < 0) return ReadFailed(buffer, len, rv);
    return true;
}

// The rest of a line after its prompt-length start, into buf (size bytes
// with the NUL), "\v" dropped as the line read does, but without its
// checksum step: "ID +12 volts" is output, not a framed line. The length,
// or a negated errno with the bytes so far NUL-terminated in buf. A full
// piece of a longer line ends with its NUL at buf[size - 1].
int Api::ReadRest(char* buf, int size)
{
    int pos = 0;
    for (;;) {
        int n = m_link->ReadIncompleteLine(buf, size, &pos);
        if (n < 0) return n;
        char c = buf[pos];
        if (c == '\v') continue;  // the next byte overwrites it
        if (api_line_end(c)) {
            buf[pos] = '\0';
            m_lastLineEnd = c;
            return pos;
        }
        if (pos == size - 1) return pos;
        return -EINTR;  // the process is being asked to exit
    }
}

bool Api::ReadFailed(char* buffer, int len, int err)
{
    m_partial.assign(buffer, strnlen(buffer, static_cast<size_t>(len)));
    // -ESPIPE: the link-dead check closed the link under the line read.
    m_lastError = err == -ESPIPE ? -EPIPE : err;
    Disconnect();
    return false;
}

int Api::Pending() { return m_link ? m_link->Pending() : -EPIPE; }
