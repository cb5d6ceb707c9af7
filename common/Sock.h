// The line-buffered base of every connection: buffers, line assembly,
// traffic counters and clocks, and the class-wide list of live connections.
#pragma once

#include <sys/select.h>
#include <sys/types.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <string>

#include "Debuggable.h"
#include "ListedObj.hpp"
#include "SockAddr.h"
#include "TimeSpan.h"

class Sock : public Debuggable, public ListedObj<Sock> {
public:
    explicit Sock(const SockAddr& addr);
    ~Sock() override;
    Sock(const Sock&) = delete;
    Sock& operator=(const Sock&) = delete;

    // Descriptor work, done by the derived class (see Socket for results).
    virtual bool Create() = 0;
    virtual bool Bind() = 0;
    virtual bool Listen(int backlog) = 0;
    virtual bool AcceptListAdd(fd_set& set, int& maxFd) = 0;
    virtual Sock* AcceptListCheck(fd_set& set) = 0;
    virtual bool Connect() = 0;
    virtual void Disconnect() = 0;
    virtual bool IsConnected() = 0;
    virtual bool SetKeepAlive(int idle, int interval, int count) = 0;
    virtual int vprintf(const char* format, va_list args) = 0;
    virtual ssize_t write(const void* buf, size_t len) = 0;
    // len bytes: len, 0 when nothing is available (non-zero flags), or a
    // negated errno (-EPIPE: the peer closed or the link is dead).
    virtual ssize_t read(void* buf, size_t len, int flags) = 0;
    virtual bool WSelect(bool& ready, long sec, long usec) = 0;
    virtual bool RSelect(bool& ready, long sec, long usec) = 0;
    virtual FILE* File() = 0;
    virtual void Describe(Sock* out) = 0;
    virtual bool NonBlocking(bool on) = 0;
    // The base keeps no transmit queue and loses nothing.
    virtual bool TxQueueEmpty() { return true; }
    virtual bool SomethingLostSinceLastCheck() { return false; }
    // Called with each complete line; its result becomes the line's length.
    virtual int ProcessCompleteLine(char* /*line*/, int len) { return len; }
    virtual void JamTogehter(bool /*on*/) {}
    // Added after the slots above: what waits to be read, found without
    // waiting. The number of bytes received and not yet read, -EPIPE when
    // only the peer's close waits (or the connection is closed), 0 when
    // nothing does. The base keeps no read-ahead and says 0.
    virtual int Pending() { return 0; }
    // Added after Pending(): the fast path of line assembly. Moves bytes
    // already received into buf without waiting, up to and including the
    // first "\r", "\n" or "\v" and at most len, counted as read() counts
    // them; returns how many (0: none wait, and line assembly reads one
    // byte through read(), which waits, polls and checks the link). The
    // base keeps no read-ahead and says 0, so a class that implements only
    // read() is read a byte at a time with the same results. A subclass
    // that overrides read() of a class with a read-ahead overrides this too.
    virtual size_t ReadBuffered(char* /*buf*/, size_t /*len*/) { return 0; }

    // Sends through vprintf: its result.
    int printf(const char* format, ...) __attribute__((format(printf, 2, 3)));

    // Assembles one line into buf, starting at *pos (0 when pos is null)
    // and stopping at "\r", "\n" or "\v" (left at buf[result]), at size - 1
    // characters, or when no byte comes. Stores the fill position in *pos.
    // Returns the fill position, -ESPIPE when the connection went away,
    // -EINVAL for a bad size or position, or the error of read().
    // Bytes already received are taken a span at a time (ReadBuffered):
    // a virtual read, a link check and a clock read per byte cost more than
    // printing the line. Only when none wait does it read one byte through
    // read(), waiting, sleeping between tries and checking the exit flag.
    int ReadIncompleteLine(char* buf, int size, int* pos);
    // On the own receive buffer; max is capped at BufLen(), -1 means BufLen().
    int ReadIncompleteLine(int max, int* pos);

    // One line without its terminator, "\v" dropped. complete is true when
    // a whole line came; the result is then ProcessCompleteLine's (a
    // negated errno for a bad checksum). Otherwise the result is the
    // characters so far (0 for an empty line, which is never reported; a
    // line longer than size - 1 comes in pieces of size - 1), or a negated
    // errno from ReadIncompleteLine.
    int ReadLine(char* buf, int size, int* pos, bool& complete);
    int ReadLine(char* buf, int size);
    // On the own receive buffer, the position kept between calls.
    int ReadLine(bool& complete);
    int ReadLine();

    const char* Addr() const { return m_remote_str; }
    const SockAddr& Local() const { return m_local; }
    const SockAddr& Remote() const { return m_remote; }
    // Also remakes the remote text used in log lines and status rows.
    void SetRemote(const SockAddr& addr);
    int BufLen() const { return m_bufLen; }
    char* TxBuffer() { return m_txBuf; }
    char* RxBuffer() { return m_rxBuf; }
    int SendFlags() const { return m_sendFlags; }
    void SendFlags(int flags) { m_sendFlags = flags; }
    bool Checksum() const { return m_checksum; }
    void Checksum(bool on) { m_checksum = on; }
    int Fd() const { return m_fd; }
    void MarkSecure(bool on) { m_secure = on; }
    bool IsSecure() const { return m_secure; }
    // Seconds a read may go without bytes before the link is dead; -1: never.
    long LinkDeadTimeout() const { return m_linkDeadTimeout; }
    void LinkDeadTimeout(long seconds) { m_linkDeadTimeout = seconds; }
    static long DefaultLinkDeadTimeout() { return m_defaultLinkDeadTimeout; }
    static void DefaultLinkDeadTimeout(long seconds) { m_defaultLinkDeadTimeout = seconds; }
    unsigned int RxBytes() const { return m_rxBytes; }
    unsigned int TxBytes() const { return m_txBytes; }

    // Seconds since bytes were last received; milliseconds since last sent.
    long SinceRx() const { return m_lastRx.Duration(); }
    void UpdateRxTime() { m_lastRx.Reset(); }
    int SinceTxMs() const { return m_lastTx.DurationMs(); }
    void UpdateTxTime() { m_lastTx.Reset(); }

    void CustomDataSet(const char* key, const char* value);
    // The stored text, or null; valid until the key is set or deleted.
    const char* CustomDataGet(const char* key) const;
    // True if the key was there and is now gone.
    bool CustomDataDel(const char* key);

    static void SetKeepAliveDefaults(int idle, int interval, int count);
    // Prints the table of live connections through out->printf.
    static void StatusReport(Sock* out);
    // Disconnect() on every live connection.
    static void CloseAll();

protected:
    // Shows the connection to StatusReport and CloseAll (call with true at
    // the end of the most-derived constructor) or hides it (false, first in
    // its destructor), so a listing on another thread never calls into a
    // half-built or half-destroyed object. Waits for a listing in progress.
    void Listed(bool on);
    // The bytes up to and including the first "\r", "\n" or "\v", or len
    // when there is none: the span ReadBuffered hands out.
    static size_t LineSpan(const char* bytes, size_t len);

    // Written by the owner's thread, read by StatusReport and CloseAll.
    std::atomic<int> m_fd;
    long m_linkDeadTimeout;
    std::atomic<unsigned int> m_rxBytes;
    std::atomic<unsigned int> m_txBytes;
    int m_pos;
    char m_remote_str[SockAddr::m_strLen];
    bool m_nonBlocking;
    bool m_secure;
    SockAddr m_local;
    SockAddr m_remote;
    std::map<std::string, std::string> m_customData;
    const int m_bufLen;
    char* m_rxBuf;
    char* m_txBuf;
    int m_sendFlags;
    bool m_checksum;
    TimeSpan m_lastRx;
    TimeSpan m_lastTx;
    bool m_listed;  // under m_objListLock

    static long m_defaultLinkDeadTimeout;
    static int m_keepAliveIdle;
    static int m_keepAliveInterval;
    static int m_keepAliveCount;
};
