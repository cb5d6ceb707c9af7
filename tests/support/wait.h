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
