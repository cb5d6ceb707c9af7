#include "debugger.h"

#include <cxxabi.h>
#include <dirent.h>
#include <execinfo.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

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

// ---------------------------------------------------------------------------
// Crash handler

namespace {

char* g_programName = nullptr;
// Set while a fatal signal is being handled: a second fault inside the
// handler goes straight to the default action instead of looping.
volatile sig_atomic_t g_inFatalHandler = 0;

const int kMaxFrames = 64;
const int kCaughtSignals[] = {SIGSEGV, SIGILL, SIGABRT, SIGFPE, SIGUSR1, SIGSYS, SIGBUS, SIGSTKFLT};

const char* const kSignalNames[] = {
    "UNKNOWN",   "SIGHUP",  "SIGINT",    "SIGQUIT", "SIGILL",        "SIGTRAP", "SIGABRT/SIGIOT", "SIGBUS",
    "SIGFPE",    "SIGKILL", "SIGUSR1",   "SIGSEGV", "SIGUSR2",       "SIGPIPE", "SIGALRM",        "SIGTERM",
    "SIGSTKFLT", "SIGCHLD", "SIGCONT",   "SIGSTOP", "SIGTSTP",       "SIGTTIN", "SIGTTOU",        "SIGURG",
    "SIGXCPU",   "SIGXFSZ", "SIGVTALRM", "SIGPROF", "SIGWINCH",      "SIGPOLL/SIGIO", "SIGPWR", "SIGSYS",
};

struct CodeText {
    int code;
    const char* text;
};

// Each table ends at the first entry whose code is 0.
const CodeText kGeneralCodes[] = {
    {0, "kill(2) or raise(3)"},   {128, "Sent by the kernel."}, {-1, "sigqueue(2)"},
    {-2, "POSIX timer expired"},  {-3, "POSIX message queue state changed"},
    {-4, "AIO completed"},        {-5, "queued SIGIO"},         {-6, "tkill(2) or tgkill(2)"},
    {0, nullptr},
};
const CodeText kIllCodes[] = {
    {1, "illegal opcode"},    {2, "illegal operand"},     {3, "illegal addressing mode"}, {4, "illegal trap"},
    {5, "privileged opcode"}, {6, "privileged register"}, {7, "coprocessor error"},       {8, "internal stack error"},
    {0, nullptr},
};
const CodeText kFpeCodes[] = {
    {1, "integer divide by zero"},          {2, "integer overflow"},
    {3, "floating-point divide by zero"},   {4, "floating-point overflow"},
    {5, "floating-point underflow"},        {6, "floating-point inexact result"},
    {7, "floating-point invalid operation"}, {8, "subscript out of range"},
    {0, nullptr},
};
const CodeText kSegvCodes[] = {
    {1, "address not mapped to object"}, {2, "invalid permissions for mapped object"}, {0, nullptr}};
const CodeText kBusCodes[] = {
    {1, "invalid address alignment"}, {2, "nonexistent physical address"}, {3, "object-specific hardware error"},
    {0, nullptr}};
const CodeText kTrapCodes[] = {{1, "process breakpoint"}, {2, "process trace trap"}, {0, nullptr}};
const CodeText kChldCodes[] = {
    {1, "child has exited"},        {2, "child was killed"}, {3, "child terminated abnormally"},
    {4, "traced child has trapped"}, {5, "child has stopped"}, {6, "stopped child has continued"},
    {0, nullptr}};
const CodeText kPollCodes[] = {
    {1, "data input available"}, {2, "output buffers available"},     {3, "input message available"},
    {4, "I/O error"},            {5, "high priority input available"}, {6, "device disconnected"},
    {0, nullptr}};

const char* dbg_int2str(const CodeText* table, int code)
{
    const CodeText* entry = table;
    while (entry->code != code && entry->code != 0) entry++;
    return entry->text;
}

const char* BuildIdentification()
{
    return "vtest " VTEST_VERSION " (Linux " VTEST_PLATFORM ", built " __DATE__ " " __TIME__
           ", revision " VTEST_REVISION ")";
}

bool IsFaultSignal(int signal)
{
    return signal == SIGILL || signal == SIGFPE || signal == SIGSEGV || signal == SIGBUS;
}

FILE* OpenDumpFile(char* name, size_t size)
{
    time_t now = time(nullptr);
    struct tm t;
    localtime_r(&now, &t);
    snprintf(name, size, "/var/local/%s-%d-%04d-%02d-%02d-%02d%02d%02d.dbg",
             g_programName ? g_programName : "unknown", static_cast<int>(getpid()), t.tm_year + 1900,
             t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
    FILE* dump = fopen(name, "w+");
    if (!dump) syslog_safe(3, "Unable to create %s (%d).", name, errno);
    return dump;
}

void LogSignalSummary(int signal, const siginfo_t* info, int count, pid_t tid)
{
    syslog_safe(6, "! Signal %s (%d), address 0x%08x, trace %d, errno %d, code %s (%d), TID %d.",
                dbg_sig2str(signal), signal,
                static_cast<unsigned>(reinterpret_cast<uintptr_t>(info->si_addr)), count, info->si_errno,
                dbg_code2str(signal, info->si_code), info->si_code, static_cast<int>(tid));
    switch (info->si_code) {
    case SI_ASYNCIO:
        syslog_safe(6, "! Band event %ld, fd %d.", static_cast<long>(info->si_band), info->si_fd);
        break;
    case SI_TIMER:
        syslog_safe(6, "! Timer %d, overrun count %d.", info->si_timerid, info->si_overrun);
        break;
    case SI_TKILL:
        syslog_safe(6, "! Killed by PID %d (UID %d)", static_cast<int>(info->si_pid),
                    static_cast<int>(info->si_uid));
        break;
    }
}

void DumpFrames(void** frames, int count, FILE* dump)
{
    char** symbols = backtrace_symbols(frames, count);
    for (int i = 0; i < count; i++) {
        std::string line = symbols ? symbols[i] : "?";
        dbg_demangle(line);
        syslog_safe(6, "!   %s", line.c_str());
        if (dump) fprintf(dump, "  %s\n", line.c_str());
    }
    free(symbols);
}

// Emits one line of a /proc file to the log and the dump.
void EmitFileLine(const char* line, FILE* dump)
{
    if (!line[0]) return;
    syslog_safe(6, "! %s", line);
    if (dump) fprintf(dump, "%s\n", line);
}

}  // namespace

const char* dbg_sig2str(int signal)
{
    return signal >= 1 && signal <= 31 ? kSignalNames[signal] : kSignalNames[0];
}

// The general table comes first and starts with code 0, so its search
// always ends at "kill(2) or raise(3)"; logs and dump files have always
// shown that cause, and tools reading them expect it.
const char* dbg_code2str(int signal, int code)
{
    const char* text = dbg_int2str(kGeneralCodes, code);
    if (text) return text;
    switch (signal) {
    case SIGILL: return dbg_int2str(kIllCodes, code);
    case SIGTRAP: return dbg_int2str(kTrapCodes, code);
    case SIGBUS: return dbg_int2str(kBusCodes, code);
    case SIGFPE: return dbg_int2str(kFpeCodes, code);
    case SIGSEGV: return dbg_int2str(kSegvCodes, code);
    case SIGCHLD: return dbg_int2str(kChldCodes, code);
    case SIGPOLL: return dbg_int2str(kPollCodes, code);
    default: return "Unknown";
    }
}

void dbg_demangle(std::string& line)
{
    size_t open = line.find('(');
    if (open == std::string::npos) return;
    size_t close = line.find(')', open);
    if (close == std::string::npos || close == open + 1) return;
    std::string inner = line.substr(open + 1, close - open - 1);
    size_t plus = inner.rfind("+0x");
    std::string name = inner.substr(0, plus);
    if (name.compare(0, 2, "_Z") != 0) return;
    int status = 0;
    char* demangled = abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status);
    if (status == 0 && demangled) line.replace(open + 1, name.size(), demangled);
    free(demangled);
}

int dbg_add_file(const char* path, FILE* dump, int toFile)
{
    int fd = open(path, O_RDONLY);
    if (fd < 0) {
        syslog_safe(3, "Unable to open %s (%d).", path, errno);
        return -1;
    }
    if (!toFile) dump = nullptr;
    syslog_safe(6, "%s", "");
    syslog_safe(6, "! %s", path);
    syslog_safe(6, "! ----------------------------------------------------");
    if (dump) fprintf(dump, "\n%s\n-----------------------------------------\n", path);
    // Byte by byte with plain read(2): buffered input is not safe here.
    char line[256];
    size_t len = 0;
    char c;
    ssize_t rv;
    while ((rv = read(fd, &c, 1)) == 1) {
        bool end = c == '\r' || c == '\n' || c == '\v';
        if (!end) line[len++] = c;
        if (end || len == sizeof line - 1) {
            line[len] = '\0';
            EmitFileLine(line, dump);
            len = 0;
        }
    }
    line[len] = '\0';
    EmitFileLine(line, dump);
    if (rv < 0) syslog_safe(3, "Problem reading %s (%d/%d).", path, static_cast<int>(rv), errno);
    close(fd);
    return 0;
}

int dbg_bt_dump(int signal, siginfo_t* info, void** frames, int count, pid_t tid, int toFile)
{
    char name[PATH_MAX] = "";
    FILE* dump = toFile ? OpenDumpFile(name, sizeof name) : nullptr;
    if (info) {
        const char* cause = dbg_code2str(signal, info->si_code);
        syslog_safe(6, "! Signal code: %d - %s", info->si_code, cause);
        if (dump) fprintf(dump, "Signal code: %d - %s", info->si_code, cause);
    }
    syslog_safe(6, "! Fatal signal received: %s(%d)", dbg_sig2str(signal), signal);
    if (dump) fprintf(dump, "Fatal signal received: %s(%d)\n", dbg_sig2str(signal), signal);
    if (info && IsFaultSignal(signal)) {
        unsigned long address = reinterpret_cast<uintptr_t>(info->si_addr);
        syslog_safe(6, "! Fault address: 0x%08lx", address);
        if (dump) fprintf(dump, "Fault address: 0x%08lx\n", address);
    }
    syslog_safe(6, "! Backtrace (PID %d, length %d):", static_cast<int>(tid), count);
    if (dump) fprintf(dump, "\nBacktrace (PID %d, length %d):\n", static_cast<int>(tid), count);
    DumpFrames(frames, count, dump);
    if (info) LogSignalSummary(signal, info, count, tid);
    for (const char* path : {"/proc/self/limits", "/proc/self/status", "/proc/self/maps", "/proc/self/net/tcp",
                             "/proc/self/net/udp"})
        (void)dbg_add_file(path, dump, toFile);
    if (dump) {
        syslog_safe(6, "! Debug info stored to %s", name);
        fclose(dump);
    }
    return 0;
}

void dbg_sig_handler(int signal, siginfo_t* info, void* /*context*/)
{
    if (signal != SIGUSR1) {
        if (g_inFatalHandler) {
            ::signal(signal, SIG_DFL);
            raise(signal);
            return;
        }
        g_inFatalHandler = 1;
    }
    syslog_safe(3, "! %s", BuildIdentification());
    void* frames[kMaxFrames];
    int count = backtrace(frames, kMaxFrames);
    if (count < 0) {
        syslog_safe(3, "Error obtaining backtrace.");
        return;
    }
    assert(count > 0);
    if (dbg_bt_dump(signal, info, frames, count, dbg_gettid(), 1) != 0) _exit(1);
    if (signal != SIGUSR1) {
        ::signal(signal, SIG_DFL);
        raise(signal);
        return;
    }
    pid_t child = fork();
    if (child < 0) {
        syslog_safe(3, "Error forking backtrace-printing child (%d).", errno);
        return;
    }
    if (child == 0) _exit(dbg_backtrace_all() == 0 ? 0 : 1);
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
}

int dbg_init(const char* programName)
{
    free(g_programName);
    g_programName = strdup(programName ? programName : "unknown");
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_sigaction = dbg_sig_handler;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (int signal : kCaughtSignals)
        if (sigaction(signal, &action, nullptr) != 0) return -1;
    return 0;
}

int dbg_fini()
{
    char* name = g_programName;
    g_programName = nullptr;
    free(name);
    return 0;
}

int dbg_backtrace_thread(pthread_t thread, int toFile)
{
    if (!pthread_equal(thread, pthread_self())) {
        int rv = pthread_kill(thread, SIGUSR1);
        return rv ? -rv : 0;
    }
    void* frames[kMaxFrames];
    int count = backtrace(frames, kMaxFrames);
    if (count <= 0) return -EINVAL;
    (void)dbg_bt_dump(0, nullptr, frames, count, dbg_gettid(), toFile);
    return 0;
}

int dbg_backtrace_thread_syslog(pthread_t thread) { return dbg_backtrace_thread(thread, 0); }
int dbg_backtrace_self() { return dbg_backtrace_thread(pthread_self(), 1); }
int dbg_backtrace_self_syslog() { return dbg_backtrace_thread(pthread_self(), 0); }

int dbg_backtrace_all()
{
    char path[64];
    int pid = static_cast<int>(getpid());
    snprintf(path, sizeof path, "/proc/%d/task", pid);
    DIR* dir = opendir(path);
    if (!dir) return -errno;
    while (dirent* entry = readdir(dir)) {
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
        int tid = atoi(entry->d_name);
        if (tid != pid) kill(tid, SIGUSR2);
    }
    closedir(dir);
    return 0;
}
