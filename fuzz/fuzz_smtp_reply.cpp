#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <thread>

#include "SmtpClient.h"

// Arbitrary server bytes, then the end of the stream, as every reply of a
// mail with login: line assembly, the last-line rule, the AUTH scan. The
// server's end of the connection is fed and drained by a thread, so the
// client's own writes never block. Every reply line stays bounded.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static int listener = -1;
    sockaddr_un name = {};
    name.sun_family = AF_UNIX;  // an abstract name: no file is left behind
    snprintf(name.sun_path + 1, sizeof name.sun_path - 1, "fuzz_smtp_reply.%d", static_cast<int>(getpid()));
    const SockAddr server(name);
    if (listener < 0) {
        listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (bind(listener, &server.Get().addr, sizeof name) != 0 || listen(listener, 4) != 0) __builtin_trap();
    }
    std::thread peer([&] {
        int fd = accept(listener, nullptr, nullptr);
        (void)send(fd, data, size, MSG_NOSIGNAL);
        shutdown(fd, SHUT_WR);
        char sink[4096];
        while (read(fd, sink, sizeof sink) > 0) {
        }
        close(fd);
    });
    SmtpClient client(server);
    client.Timeout(5);
    SmtpClient::Header hdr = {"a@x", "user", "password"};
    (void)client.Mail(hdr, "b@y", "s", "m");
    client.Close();
    peer.join();
    if (client.LastReply().size() > 7998) __builtin_trap();
    return 0;
}
