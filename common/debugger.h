// The system's one logger and its crash handler.
#pragma once

#include <pthread.h>
#include <signal.h>
#include <sys/types.h>

#include <cstdarg>
#include <cstdio>
#include <string>

// Logs at a syslog level (3 error, 4 warning, 6 info, 7 debug). Outside a
// daemon each non-empty line of the message goes to standard error as
// "<prefix><level name> <line>"; in a daemon the message goes to syslog in
// chunks of 200 characters less the prefix, later chunks marked "...".
void syslog_safe(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
void syslog_safev(int level, const char* format, va_list args);

// Kernel thread id of the caller (the raw system call, not pthread_self).
pid_t dbg_gettid();

// Installs the crash handler for SIGSEGV, SIGILL, SIGABRT, SIGFPE, SIGUSR1,
// SIGSYS, SIGBUS and SIGSTKFLT; `programName` names the dump files.
// Returns 0, or -1 as soon as one sigaction fails.
int dbg_init(const char* programName);
int dbg_fini();

void dbg_sig_handler(int signal, siginfo_t* info, void* context);
const char* dbg_sig2str(int signal);
const char* dbg_code2str(int signal, int code);

// Dumps `count` frames: log lines, and with toFile a dump file under
// /var/local/. info may be null. Returns 0: each step degrades on its own
// (no file still logs everything, a missing /proc file is logged).
int dbg_bt_dump(int signal, siginfo_t* info, void** frames, int count, pid_t tid, int toFile);
// Appends a file to the log and the dump; 0, or -1 when it cannot be opened.
int dbg_add_file(const char* path, FILE* dump, int toFile);
// Replaces a mangled name in a backtrace_symbols line by its demangled form.
void dbg_demangle(std::string& line);

// Backtraces: of the caller directly, of another thread through SIGUSR1.
// 0, -EINVAL when no backtrace could be taken, or -errno of pthread_kill.
int dbg_backtrace_thread(pthread_t thread, int toFile);
int dbg_backtrace_thread_syslog(pthread_t thread);
int dbg_backtrace_self();
int dbg_backtrace_self_syslog();
// Sends SIGUSR2 to every task of the process but the main one; 0 or -errno.
int dbg_backtrace_all();
