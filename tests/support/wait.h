// Bounded waiting: on a condition (polled every 2 ms) or on a descriptor.
#pragma once

#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <string>

// True as soon as `done()` holds; false when `timeoutMs` pass first.
template <class Condition>
bool WaitUntil(Condition done, int timeoutMs)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (; !done(); usleep(2000))
        if (std::chrono::steady_clock::now() > deadline) return false;
    return true;
}

inline long MsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}

// Appends what `fd` gives within `waitMs`: 1, 0 when nothing came, -1 at its end.
inline int ReadWithin(int fd, std::string& into, int waitMs)
{
    pollfd p = {fd, POLLIN, 0};
    char chunk[65536];
    if (fd < 0) return -1;
    if (poll(&p, 1, waitMs) <= 0) return 0;
    ssize_t n = read(fd, chunk, sizeof chunk);
    if (n > 0) into.append(chunk, static_cast<size_t>(n));
    return n > 0 ? 1 : -1;
}

// The whole file behind `fd`, from its start.
inline std::string ReadFd(int fd)
{
    std::string text;
    char buf[4096];
    for (ssize_t n, at = 0; (n = pread(fd, buf, sizeof buf, at)) > 0; at += n) text.append(buf, static_cast<size_t>(n));
    return text;
}
