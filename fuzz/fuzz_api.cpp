#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "Api.h"

// A daemon that sends the prompt and then the input, and closes. Exec's
// lines, then ReadLineOrPrompt's into a buffer of 4..64 bytes, give back
// every byte in order as text, line ends, prompts or Partial(), except
// vertical tabs and the bytes after a NUL in a line (lines are C strings).
struct Collector : Api {
    using Api::Api;
    void HandleOutput(const char* out) override { got += out + std::string(LastLineEnd() ? 1 : 0, LastLineEnd()); }
    std::string got;
};

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1 || size > 65536) return 0;
    sockaddr_un un = {};
    un.sun_family = AF_UNIX;
    snprintf(un.sun_path + 1, sizeof un.sun_path - 1, "vtest-fuzz-api-%d", static_cast<int>(getpid()));
    int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener, reinterpret_cast<sockaddr*>(&un), sizeof un) != 0 || listen(listener, 1) != 0) __builtin_trap();
    const std::string input = "#> " + std::string(reinterpret_cast<const char*>(data) + 1, size - 1);
    std::thread daemon([&] {
        int fd = accept(listener, nullptr, nullptr);
        if (fd < 0 || write(fd, input.data(), input.size()) != static_cast<ssize_t>(input.size())) __builtin_trap();
        shutdown(fd, SHUT_WR);
        char sink[256];
        while (read(fd, sink, sizeof sink) > 0) {
        }
        close(fd);
    });
    std::string got = "#> ";
    {
        Collector api(SockAddr(un), "#> ");
        int len = 4 + data[0] % 61;
        std::unique_ptr<char[]> buf(new char[len]);
        bool sent = api.Exec("cmd");
        got += api.got;
        while (sent && !api.LastError()) {  // each round begins after a prompt
            got += "#> ";
            while (api.ReadLineOrPrompt(buf.get(), len)) got += buf.get() + std::string(api.LastLineEnd() ? 1 : 0, api.LastLineEnd());
        }
        got += api.Partial();
    }
    daemon.join();
    close(listener);
    // Every byte of `got` is the next kept byte of `input`.
    size_t j = 0;
    bool afterNul = false;
    for (char c : input) {
        if (j < got.size() && c == got[j]) {
            afterNul = afterNul && c != '\r' && c != '\n';
            if (++j, c == '\r' || c == '\n') afterNul = false;
        } else if (c == '\0' || (afterNul && c != '\r' && c != '\n')) {
            afterNul = true;
        } else if (c != '\v') {
            __builtin_trap();
        }
    }
    if (j != got.size()) __builtin_trap();
    return 0;
}
