#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <memory>

#include "Socket.h"

// Bytes in through a socket pair, read back as lines (checksum prefixes
// checked) into a buffer of 1..64 bytes: no result longer than the buffer
// allows, no terminator inside a line, nothing written outside it.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1 || size > 65536) return 0;
    int room = 1 + data[0] % 64;
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return 0;
    int sndbuf = 1 << 20;
    setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf);
    if (write(fds[0], data + 1, size - 1) != static_cast<ssize_t>(size - 1)) __builtin_trap();
    close(fds[0]);
    SockAddr peer;
    peer.Parse(AF_UNIX, "/fuzz");
    Socket s(fds[1], peer);
    std::unique_ptr<char[]> buf(new char[room]);
    int pos = 0, rv;
    bool complete;
    for (int n = 0; n <= static_cast<int>(size) && (rv = s.ReadLine(buf.get(), room, &pos, complete)) >= 0; n++) {
        if (rv > room - 1 || pos < 0 || pos > room - 1) __builtin_trap();
        if (complete && (memchr(buf.get(), '\n', rv) || memchr(buf.get(), '\r', rv))) __builtin_trap();
    }
    return 0;
}
