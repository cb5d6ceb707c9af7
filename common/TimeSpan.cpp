#include "TimeSpan.h"

#include <unistd.h>

namespace {
long long MonotonicNs()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return TimeSpan::ToNs(now);
}
}  // namespace

timespec TimeSpan::ToTimespec(long long ns)
{
    timespec t;
    t.tv_sec = static_cast<time_t>(ns / m_sToNs);
    t.tv_nsec = static_cast<long>(ns % m_sToNs);
    return t;
}

void TimeSpan::Reset(long seconds, long long nanoseconds)
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    m_startNs = (static_cast<long long>(now.tv_sec) + seconds) * m_sToNs + now.tv_nsec + nanoseconds;
    m_startTime = ToTimespec(m_startNs);
}

long long TimeSpan::DurationNs() const { return MonotonicNs() - m_startNs; }

void TimeSpan::NowNs(long& seconds, long long& nanoseconds)
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    seconds = static_cast<long>(now.tv_sec);
    nanoseconds = now.tv_nsec;
}

void TimeSpan::NowMs(long& seconds, int& milliseconds)
{
    long long ns;
    NowNs(seconds, ns);
    milliseconds = static_cast<int>(ns / m_msToNs);
}

void TimeSpan::Sleep(long seconds, unsigned multiplier)
{
    sleep(static_cast<unsigned>(seconds * multiplier));
}

void TimeSpan::Sleep(int milliseconds, unsigned multiplier)
{
    usleep(static_cast<useconds_t>(milliseconds * multiplier * 1000));
}

void TimeSpan::Sleep(long long nanoseconds, unsigned multiplier)
{
    usleep(static_cast<useconds_t>(nanoseconds * static_cast<long long>(multiplier) / 1000));
}

char* TimeSpan::Str(const timespec& time, char* buffer, unsigned size, const char* format)
{
    struct tm local;
    time_t seconds = time.tv_sec;
    localtime_r(&seconds, &local);
    size_t n = strftime(buffer, size, format, &local);
    if (size > 0) buffer[n] = '\0';
    return buffer;
}
