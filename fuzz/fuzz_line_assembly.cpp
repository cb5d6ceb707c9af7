#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "Socket.h"

namespace {

// A Socket reading `bytes` from a socket pair whose writer has closed; with
// a FILE view it has no read-ahead and reads a byte per call.
std::unique_ptr<Socket> Feed(const uint8_t* bytes, size_t len, bool bytePath)
{
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return nullptr;
    int sndbuf = 1 << 20;
    setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf);
    if (write(fds[0], bytes, len) != static_cast<ssize_t>(len)) __builtin_trap();
    close(fds[0]);
    SockAddr peer;
    peer.Parse(AF_UNIX, "/fuzz");
    auto s = std::make_unique<Socket>(fds[1], peer);
    if (bytePath && !s->File()) __builtin_trap();
    return s;
}

}  // namespace

// Bytes read back as lines (checksum prefixes checked) into a buffer of
// 1..64 bytes, once a span at a time from the read-ahead and once a byte
// per read: both give the same results, positions, counts and buffers; no
// result longer than the buffer allows, no terminator inside a line.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1 || size > 65536) return 0;
    int room = 1 + data[0] % 64;
    std::unique_ptr<Socket> spans = Feed(data + 1, size - 1, false), bytes = Feed(data + 1, size - 1, true);
    if (!spans || !bytes) return 0;
    std::string a(room, '#'), b(room, '#');
    int posA = 0, posB = 0, rv;
    bool complete, completeB;
    for (int n = 0; n <= static_cast<int>(size); n++) {
        rv = spans->ReadLine(&a[0], room, &posA, complete);
        if (rv != bytes->ReadLine(&b[0], room, &posB, completeB) || complete != completeB || posA != posB || a != b ||
            spans->RxBytes() != bytes->RxBytes())
            __builtin_trap();
        if (rv < 0) break;
        if (rv > room - 1 || posA < 0 || posA > room - 1) __builtin_trap();
        if (complete && (memchr(a.data(), '\n', rv) || memchr(a.data(), '\r', rv))) __builtin_trap();
    }
    return 0;
}
