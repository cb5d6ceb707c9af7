// Bounded waiting on a condition: polls every 2 ms.
#pragma once

#include <unistd.h>

#include <chrono>

// True as soon as `done()` holds; false when `timeoutMs` milliseconds pass
// first.
template <class Condition>
bool WaitUntil(Condition done, int timeoutMs)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        usleep(2000);
    }
    return true;
}

// Milliseconds since `start`.
inline long MsSince(std::chrono::steady_clock::time_point start)
{
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count());
}
