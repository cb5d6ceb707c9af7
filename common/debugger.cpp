#include "debugger.h"

#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "TimeSpan.h"
#include "daemon.h"

namespace {

const char* const kLevelNames[] = {"emrg", "alrt", "crit", "err ", "warn", "noti", "info", "dbg ", "unk "};

// "SS.uuuuuu [tid] ": monotonic seconds modulo 60, microseconds, thread id.
int FormatPrefix(char* prefix, size_t size)
{
    long seconds;
    long long ns;
    TimeSpan::NowNs(seconds, ns);
    return snprintf(prefix, size, "%02ld.%06ld [%d] ", seconds % 60, static_cast<long>(ns / 1000),
                    static_cast<int>(dbg_gettid()));
}

// One write() per line, no stdio: no lock that a fork could leave taken in
// the child, and a line is never torn by another thread's.
void WriteLine(const char* line, size_t length)
{
    while (length > 0) {
        ssize_t n = write(STDERR_FILENO, line, length);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        line += n;
        length -= static_cast<size_t>(n);
    }
}

void WriteToStderr(int level, const char* prefix, char* message)
{
    if (level < 0 || level > 8) level = 8;
    char* save = nullptr;
    for (char* piece = strtok_r(message, "\n", &save); piece; piece = strtok_r(nullptr, "\n", &save)) {
        char line[4096 + 80];
        int n = snprintf(line, sizeof line, "%s%s %s\n", prefix, kLevelNames[level], piece);
        WriteLine(line, n < static_cast<int>(sizeof line) ? static_cast<size_t>(n) : sizeof line - 1);
    }
}

void WriteToSyslog(int level, const char* prefix, int prefixLen, const char* message)
{
    size_t chunk = static_cast<size_t>(200 - prefixLen);
    size_t len = strnlen(message, 4096);
    for (size_t at = 0; at < len; at += chunk) {
        int n = static_cast<int>(len - at < chunk ? len - at : chunk);
        syslog(level, "%s%s%.*s", prefix, at ? "..." : "", n, message + at);
    }
}

}  // namespace

pid_t dbg_gettid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

void syslog_safev(int level, const char* format, va_list args)
{
    char prefix[64];
    int prefixLen = FormatPrefix(prefix, sizeof prefix);
    char message[4095];
    vsnprintf(message, sizeof message, format, args);
    if (daemon_is_on)
        WriteToSyslog(level, prefix, prefixLen, message);
    else
        WriteToStderr(level, prefix, message);
}

void syslog_safe(int level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    syslog_safev(level, format, args);
    va_end(args);
}
