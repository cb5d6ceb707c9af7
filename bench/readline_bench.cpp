// ReadLine throughput over loopback TCP, in MB/s, with the read-ahead
// buffer (lines taken from it a span at a time) and without it (a FILE
// view switches it off, so every byte costs a system call). The rate per
// second of the reading thread's CPU time is the steadier figure on a
// busy host.
// Usage: readline_bench [megabytes, 1..1024, default 16]
#include <sys/select.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "Socket.h"

namespace {

// Rows like a query result: 62 characters and a newline, 63 bytes.
std::string MakeBlock()
{
    std::string block;
    char row[80];
    for (int i = 0; block.size() < 65000; i++) {
        snprintf(row, sizeof row, "%08d|%-46s|%6d\n", i, "some text of a typical result column", i % 997);
        block += row;
    }
    return block;
}

struct Rate {
    double wall;  // MB per second of elapsed time
    double cpu;   // MB per second of the reading thread's CPU time
};

double ThreadCpuSeconds()
{
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

Rate Measure(Socket& client, Sock& server, size_t total)
{
    std::string block = MakeBlock();
    std::thread writer([&] {
        for (size_t sent = 0; sent < total; sent += block.size())
            if (server.write(block.data(), block.size()) < 0) return;
    });
    size_t lines = 0, expected = total / block.size() * std::count(block.begin(), block.end(), '\n');
    auto start = std::chrono::steady_clock::now();
    double cpuStart = ThreadCpuSeconds();
    while (lines < expected) {
        bool complete = false;
        if (client.ReadLine(complete) < 0) break;
        if (complete) lines++;
    }
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    double cpu = ThreadCpuSeconds() - cpuStart;
    writer.join();
    double mb = static_cast<double>(total / block.size() * block.size()) / 1e6;
    return {mb / seconds, mb / cpu};
}

std::unique_ptr<Sock> Pair(Socket& listener, Socket& client)
{
    SockAddr bound;
    if (!listener.Create() || !listener.Bind() || !listener.Listen(1) || bound.GetSockname(listener.Fd()))
        return nullptr;
    SockAddr remote = listener.Remote();
    remote.SetPort(bound.GetPort());
    client.SetRemote(remote);
    if (!client.Connect()) return nullptr;
    fd_set set;
    FD_ZERO(&set);
    int maxFd = -1;
    listener.AcceptListAdd(set, maxFd);
    return std::unique_ptr<Sock>(listener.AcceptListCheck(set));
}

}  // namespace

int main(int argc, char** argv)
{
    char* end = nullptr;
    long mb = argc > 1 ? strtol(argv[1], &end, 10) : 16;
    if ((argc > 1 && *end) || mb < 1 || mb > 1024) {
        fprintf(stderr, "usage: %s [megabytes 1..1024]\n", argv[0]);
        return 2;
    }
    SockAddr loopback;
    loopback.Parse(AF_INET, "127.0.0.1");
    for (bool ahead : {true, false}) {
        Socket listener(loopback), client(loopback);
        std::unique_ptr<Sock> server = Pair(listener, client);
        if (!server) return 1;
        if (!ahead && !client.File()) return 1;
        // Byte-at-a-time reads are slow: a smaller amount keeps the run short.
        size_t total = static_cast<size_t>(ahead ? mb : 1) << 20;
        Rate r = Measure(client, *server, total);
        printf("ReadLine %-18s %8.1f MB/s elapsed, %8.1f MB/s of reader CPU (%zu MB)\n",
               ahead ? "with read-ahead:" : "one byte per call:", r.wall, r.cpu, total >> 20);
    }
    return 0;
}
