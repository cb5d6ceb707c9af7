// Elapsed time on the monotonic clock, and the system's sleep calls.
#pragma once

#include <ctime>

class TimeSpan {
public:
    static const long long m_sToNs = 1000000000LL;
    static const long long m_sToUs = 1000000LL;
    static const long long m_msToNs = 1000000LL;
    static const long long m_usToNs = 1000LL;

    TimeSpan() { Reset(); }
    // Starts `seconds` + `nanoseconds` away from now (positive: a deadline).
    TimeSpan(long seconds, long long nanoseconds) { Reset(seconds, nanoseconds); }

    void Reset(long seconds = 0, long long nanoseconds = 0);
    long long DurationNs() const;
    int DurationMs() const { return static_cast<int>(DurationNs() / m_msToNs); }
    // Whole seconds elapsed.
    long Duration() const { return static_cast<long>(DurationNs() / m_sToNs); }
    const timespec& GetTime() const { return m_startTime; }

    static void NowNs(long& seconds, long long& nanoseconds);
    static void NowMs(long& seconds, int& milliseconds);
    // The argument's type picks the unit: long seconds, int milliseconds,
    // long long nanoseconds (rounded down to whole microseconds).
    static void Sleep(long seconds, unsigned multiplier);
    static void Sleep(int milliseconds, unsigned multiplier);
    static void Sleep(long long nanoseconds, unsigned multiplier);
    // strftime of the local time of `time.tv_sec`; an empty string when the
    // buffer is too small.
    static char* Str(const timespec& time, char* buffer, unsigned size, const char* format);

    static long long ToNs(const timespec& t) { return t.tv_sec * m_sToNs + t.tv_nsec; }
    static long long ToUs(const timespec& t) { return ToNs(t) / m_usToNs; }
    static long long ToMs(const timespec& t) { return ToNs(t) / m_msToNs; }
    static long ToS(const timespec& t) { return static_cast<long>(t.tv_sec); }
    static timespec ToTimespec(long long ns);

private:
    timespec m_startTime;
    long long m_startNs;
};
