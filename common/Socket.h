// A stream connection on a real descriptor (IPv4, IPv6 or Unix), client or
// server side, with the optional "+xxxx " line checksum.
#pragma once

#include <atomic>

#include "Sock.h"

class Socket : public Sock {
public:
    // Not yet opened; addr is both the local and the remote address.
    explicit Socket(const SockAddr& addr, void* data = nullptr);
    // Wraps an open descriptor (an accepted connection) and takes it over.
    Socket(int fd, const SockAddr& remote, void* data = nullptr);
    ~Socket() override;

    // true when a descriptor is open or one was made; false for a family
    // other than IPv4, IPv6 and Unix or a failing socket().
    bool Create() override;
    // Binds to the local address (SO_REUSEADDR for IP; a stale Unix socket
    // file is removed first). Create() must come first.
    bool Bind() override;
    bool Listen(int backlog) override;
    // Adds the listening descriptor to `set` for the caller's select();
    // false when closed (or beyond FD_SETSIZE).
    bool AcceptListAdd(fd_set& set, int& maxFd) override;
    // A new heap Socket for one accepted connection (the caller owns it),
    // or null when the descriptor is not in `set` or accept failed.
    Sock* AcceptListCheck(fd_set& set) override;
    // Connect to the remote address, blocking unless ConnectTimeout() is
    // set; false on failure (a descriptor made by this call is closed
    // again), with the reason in ConnectErrno().
    bool Connect() override;
    // Closes the FILE view and the descriptor; removes the Unix socket file
    // this object bound.
    void Disconnect() override;
    bool IsConnected() override { return m_fd.load(std::memory_order_relaxed) != -1; }
    // SO_KEEPALIVE, then on TCP the non-zero values as TCP_KEEPIDLE,
    // TCP_KEEPINTVL and TCP_KEEPCNT (seconds, seconds, probes; results
    // ignored); false if SO_KEEPALIVE fails.
    bool SetKeepAlive(int idle, int interval, int count) override;
    // The number of bytes sent; -EAGAIN without a descriptor, -E2BIG for
    // text of BufLen() characters or more (BufLen() - 6 with checksums),
    // or a negated errno of the write.
    int vprintf(const char* format, va_list args) override;
    // All len bytes, or a negated errno (-EPIPE disconnects; -ETIMEDOUT
    // when WaitTimeout() is set and the peer took no byte within it).
    ssize_t write(const void* buf, size_t len) override;
    // flags 0: waits for all len bytes, polling every 100 ms; -EPIPE when
    // the peer closed or nothing came for LinkDeadTimeout() seconds (which
    // disconnects); -ETIMEDOUT when WaitTimeout() is set and no byte came
    // within it (the connection stays). Other flags: recv() until len bytes came; the count so
    // far (0: nothing) when no more are available. Bytes read ahead from
    // the descriptor come first; they are counted when handed out here.
    ssize_t read(void* buf, size_t len, int flags) override;
    // true with ready set when writable/readable within the time, true
    // with ready false on time-out or EINTR, false when closed or failing.
    bool WSelect(bool& ready, long sec, long usec) override;
    bool RSelect(bool& ready, long sec, long usec) override;
    // A stdio stream on the connection (cached), or null; also null while
    // bytes read ahead wait (the stream would miss them). Once a stream
    // exists, reads no longer read ahead.
    FILE* File() override;
    void Describe(Sock* out) override;
    bool NonBlocking(bool on) override;
    int ProcessCompleteLine(char* line, int len) override;
    void JamTogehter(bool on) override;
    // Looks without waiting; see Sock. Bytes found are kept in the read-ahead.
    int Pending() override;
    // A span of the read-ahead; see Sock. 0 also while a FILE view exists.
    size_t ReadBuffered(char* buf, size_t len) override;

    // Additions that change nothing while 0, their default. The longest a
    // Connect may take, and the longest each wait inside read() (flags 0)
    // for a byte, or inside write() for room, may take; in milliseconds,
    // each counted from the start of that wait (a byte that comes starts
    // the next). A connect that runs out fails with ETIMEDOUT.
    void ConnectTimeout(int ms) { m_connectTimeoutMs = ms; }
    int ConnectTimeout() const { return m_connectTimeoutMs; }
    void WaitTimeout(int ms) { m_waitTimeoutMs = ms; }
    int WaitTimeout() const { return m_waitTimeoutMs; }
    // The errno of the last failed Connect, 0 after a successful one.
    int ConnectErrno() const { return m_connectErrno; }
    // With it on, a failed Connect is not logged (an owner's quiet retries,
    // or a stop from another thread that ends a pending connect).
    void QuietConnect(bool on) { m_quietConnect.store(on, std::memory_order_relaxed); }

    // A line beginning with "+" must carry "+<hex sum> " of the rest: the
    // rest is moved to the start and its length returned (len updated).
    // Otherwise the line is returned unchanged (len). -EINVAL, with len set
    // to -22, for a bad prefix or sum. The line must be NUL-terminated.
    static int CheckChecksum(char* line, size_t& len);

    void* Data() const { return m_data; }
    void SetData(void* data) { m_data = data; }

private:
    bool FamilySupported(const char* function, int line) const;
    bool Poll(short events, bool& ready, long sec, long usec);
    bool LinkDead() const;
    int ConnectBounded();
    int Await(short events, const TimeSpan& waiting);
    void AcknowledgeNow();
    void HandedOut(size_t n);
    void Filled(size_t n);
    void Sent(size_t n);
    ssize_t Fetch(char* buf, size_t len, int flags);
    size_t Buffered() const { return m_aheadEnd - m_aheadPos; }

    FILE* m_f;
    void* m_data;
    // Set by a successful Bind of a Unix path: only its binder removes it.
    bool m_unlinkOnClose;
    // Read-ahead: bytes fetched from the descriptor, not yet handed out, at
    // m_ahead[m_aheadPos .. m_aheadEnd).
    char* m_ahead;
    size_t m_aheadPos;
    size_t m_aheadEnd;
    int m_connectTimeoutMs = 0;
    int m_waitTimeoutMs = 0;
    int m_connectErrno = 0;
    std::atomic<bool> m_quietConnect{false};
};
