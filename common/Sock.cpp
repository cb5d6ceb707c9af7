#include "Sock.h"

#include <cerrno>
#include <cstring>

#include "daemon.h"
#include "utils.h"

long Sock::m_defaultLinkDeadTimeout = 60;
int Sock::m_keepAliveIdle = 5;
int Sock::m_keepAliveInterval = 5;
int Sock::m_keepAliveCount = 5;

namespace {

// Both buffers hold this many bytes.
const int kBufLen = 8000;
// Line assembly sleeps this long when a blocking connection has no byte.
const int kIdleSleepMs = 100;

bool sock_is_terminator(char c) { return c == '\r' || c == '\n' || c == '\v'; }

// Whether this thread's Sock constructor took the list lock.
thread_local bool t_listLockHeld = false;

// Evaluated before any base is built: the list lock is then held until the
// end of Sock's constructor, so a listing never reads a member half made.
const char* sock_hold_list_lock()
{
    t_listLockHeld = ListedObj<Sock>::m_objListLock.Lock(__FILE__, __LINE__);
    return "Sock";
}

}  // namespace

Sock::Sock(const SockAddr& addr)
    : Debuggable("%s", sock_hold_list_lock()),
      m_fd(-1),
      m_linkDeadTimeout(m_defaultLinkDeadTimeout),
      m_rxBytes(0),
      m_txBytes(0),
      m_pos(0),
      m_nonBlocking(false),
      m_secure(false),
      m_local(addr),
      m_remote(addr),
      m_bufLen(kBufLen),
      m_sendFlags(0),
      m_checksum(false),
      m_listed(false)
{
    safe_mem_object("Sock.cpp", __LINE__, "Sock", this);
    addr.Str(m_remote_str, true);
    m_rxBuf = static_cast<char*>(safe_mem_zalloc(m_bufLen, __FILE__, __LINE__));
    m_txBuf = static_cast<char*>(safe_mem_zalloc(m_bufLen, __FILE__, __LINE__));
    Rename("Sock %s", m_remote_str);
    if (t_listLockHeld) m_objListLock.Unlock();
}

Sock::~Sock()
{
    safe_mem_free(m_rxBuf, __FILE__, __LINE__);
    safe_mem_free(m_txBuf, __FILE__, __LINE__);
    safe_mem_object("Sock.cpp", __LINE__, "~Sock", this);
    m_customData.clear();
}

void Sock::Listed(bool on)
{
    MUTEX_GUARD(m_objListLock);
    m_listed = on;
}

void Sock::SetRemote(const SockAddr& addr)
{
    m_remote = addr;
    addr.Str(m_remote_str, true);
}

int Sock::printf(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    int rv = vprintf(format, args);
    va_end(args);
    return rv;
}

int Sock::ReadIncompleteLine(char* buf, int size, int* pos)
{
    int fill = pos ? *pos : 0;
    const int limit = size - 1;
    if (!buf || size < 1 || fill < 0 || fill > limit) return -EINVAL;
    buf[limit] = '\0';
    ssize_t last = 0;
    bool terminated = false;
    while (fill < limit && !daemon_should_exit.load(std::memory_order_relaxed) && IsConnected()) {
        size_t span = ReadBuffered(buf + fill, static_cast<size_t>(limit - fill));
        if (span > 0) {
            last = static_cast<ssize_t>(span);
            fill += static_cast<int>(span);
            if (sock_is_terminator(buf[fill - 1])) {
                fill--;
                terminated = true;
                break;
            }
            continue;
        }
        last = read(buf + fill, 1, 0);
        if (last > 0) {
            if (sock_is_terminator(buf[fill])) {
                terminated = true;
                break;
            }
            fill++;
        } else if (last == 0) {
            if (m_nonBlocking) break;
            TimeSpan::Sleep(kIdleSleepMs, 1);
        } else {
            break;
        }
    }
    if (pos) *pos = fill;
    // Without a terminator buf[fill] holds no byte of the line.
    if (!terminated) buf[fill] = '\0';
    if (fill < limit) buf[fill + 1] = '\0';
    if (!IsConnected()) return -ESPIPE;
    return last < 0 ? static_cast<int>(last) : fill;
}

size_t Sock::LineSpan(const char* bytes, size_t len)
{
    // Line feeds are the usual end, so the rarer two are only looked for
    // before the first one.
    size_t end = len;
    for (char terminator : {'\n', '\r', '\v'}) {
        const void* at = memchr(bytes, terminator, end);
        if (at) end = static_cast<size_t>(static_cast<const char*>(at) - bytes);
    }
    return end < len ? end + 1 : len;
}

int Sock::ReadIncompleteLine(int max, int* pos)
{
    if (!m_rxBuf) return -ENOMEM;
    int size = max == -1 || max > m_bufLen ? m_bufLen : max;
    return ReadIncompleteLine(m_rxBuf, size, pos);
}

int Sock::ReadLine(char* buf, int size, int* pos, bool& complete)
{
    complete = false;
    int at = pos ? *pos : 0;
    if (!buf || size < 1 || at < 0 || at > size - 1) return -EINVAL;
    int rv;
    for (;;) {
        rv = ReadIncompleteLine(buf, size, &at);
        if (rv <= 0) {
            buf[at] = '\0';
            if (rv == -EAGAIN) rv = at;
            break;
        }
        // The byte-level read counted these already; counting them again
        // is how this counter has always been kept.
        m_rxBytes += static_cast<unsigned int>(rv);
        char c = buf[at];
        if (c == '\r' || c == '\n') {
            buf[at] = '\0';
            complete = true;
            at = 0;
            rv = ProcessCompleteLine(buf, rv);
            break;
        }
        if (c == '\v') continue;  // the next byte overwrites it
        // No terminator: a full piece of a long line (the next call starts a
        // new piece), or a partial line on a non-blocking connection.
        if (at >= size - 1) at = 0;
        break;
    }
    if (pos) *pos = at;
    return rv;
}

int Sock::ReadLine(char* buf, int size)
{
    bool complete;
    return ReadLine(buf, size, nullptr, complete);
}

int Sock::ReadLine(bool& complete)
{
    if (!m_rxBuf) return -ENOMEM;
    return ReadLine(m_rxBuf, m_bufLen, &m_pos, complete);
}

int Sock::ReadLine()
{
    bool complete;
    if (!m_rxBuf) return -ENOMEM;
    return ReadLine(m_rxBuf, m_bufLen, nullptr, complete);
}

void Sock::CustomDataSet(const char* key, const char* value) { m_customData[key] = value; }

const char* Sock::CustomDataGet(const char* key) const
{
    auto it = m_customData.find(key);
    return it == m_customData.end() ? nullptr : it->second.c_str();
}

bool Sock::CustomDataDel(const char* key) { return m_customData.erase(key) > 0; }

void Sock::SetKeepAliveDefaults(int idle, int interval, int count)
{
    m_keepAliveIdle = idle;
    m_keepAliveInterval = interval;
    m_keepAliveCount = count;
}

void Sock::StatusReport(Sock* out)
{
    static const char rule[] = "-------------------------------------------------------------------------------------\n";
    static_assert(sizeof rule == 85 + 2, "the rule is 85 characters");
    out->printf("\nS o c k e t s\n");
    out->printf("%s", rule);
    out->printf(" FD  RX bytes  TX bytes  From, name\n");
    out->printf("%s", rule);
    MUTEX_GUARD(m_objListLock);
    for (Sock* s : m_objList)
        if (s->m_listed) s->Describe(out);
}

void Sock::CloseAll()
{
    MUTEX_GUARD(m_objListLock);
    for (Sock* s : m_objList)
        if (s->m_listed) s->Disconnect();
}
