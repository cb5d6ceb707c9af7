// Child processes with bounded time and captured output, and private namespaces so fixed system paths and
// network set-ups never touch the host.
#pragma once

#include <signal.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

struct RunResult {
    int status = -1;        // exit status, or 128 + signal; -1 when it could not run
    bool timedOut = false;  // killed after the time limit
    std::string out;
    std::string err;
};

// Runs argv[0] (a path) fed `input`; killed after timeoutMs (scaled).
RunResult RunProgram(const std::vector<std::string>& argv, const std::string& input = "", int timeoutMs = 20000);
// Runs this build's vtest.
RunResult RunVtest(const std::vector<std::string>& args, const std::string& input = "", int timeoutMs = 20000);
// Standard error less the logger's own lines ("SS.uuuuuu [tid] ...").
std::string OperatorErrors(const std::string& err);
// The argv that starts a program of this tree: in a cross build the emulator first (it cannot exec a foreign binary).
std::vector<std::string> TargetArgv(const std::string& binary, const std::vector<std::string>& args = {});
size_t CountOf(const std::string& text, const std::string& what);
// /bin/sh -c `script` with `argv` as "$@" (e.g. "exec \"$@\" 2>&1").
std::vector<std::string> InShell(const std::string& script, const std::vector<std::string>& argv);
// ms times VTEST_TIME_SCALE (a whole 1..100; else 1), for slow (emulated) hosts.
int ScaledMs(int ms);
// Fresh private directory under /tmp (empty on failure); the caller removes it.
std::string MakeTempDir();

// Runs `body` in a child inside new namespaces (CLONE_NEWNS and/or CLONE_NEWNET). With CLONE_NEWNS /var/local is a
// private tmpfs and /etc a copy-on-write overlay; with CLONE_NEWNET loopback is up. The body's result, or -1 when the
// namespaces could not be made or time ran out.
int RunInNamespaces(int flags, const std::function<int()>& body, int timeoutMs = 60000);
// Why namespaces cannot be made here, or empty.
std::string NamespacesUnavailableReason(int flags);

// For a RunInNamespaces body, where gtest's checks do not reach the parent.
#define CHILD_CHECK(cond)                                                                                  \
    do {                                                                                                   \
        if (!(cond)) return fprintf(stderr, "%s:%d child check failed: %s\n", __FILE__, __LINE__, #cond), 1; \
    } while (0)

// What user-mode emulation (qemu-user runs the armhf build's tests; see docs/arm.md) may not give a test.
enum class EmulationGap {
    Namespaces,     // namespaces made from inside the emulated process (probed)
    PacketSockets,  // AF_PACKET raw frames (probed)
    Ptrace,         // ptrace(2) and backtraces taken through it (never there)
    SetIdPrograms,  // set-id executables of this tree (never there)
    ProcSelfExe,    // /proc/self/exe naming the emulated program to stat(2) (never there)
    Transparent,    // IP_TRANSPARENT, with which simulated units answer from their own addresses (probed)
};
// Why a test needing `gap` cannot run emulated; always empty natively.
std::string EmulationSkipReason(EmulationGap gap);
#define SKIP_IF_EMULATED(gap) \
    do { if (std::string why_ = EmulationSkipReason(gap); !why_.empty()) GTEST_SKIP() << why_; } while (0)

// An interactive child: standard input and output on pipes, standard error inherited or to `errPath`. Killed and
// reaped on destruction, and killed when the thread that made it ends, so it never outlives a crashed test.
class ChildProcess {
public:
    explicit ChildProcess(const std::vector<std::string>& argv, const std::string& errPath = "");
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Reads standard output until it holds `text`; false after timeoutMs (scaled) or at its end.
    bool WaitForOutput(const std::string& text, int timeoutMs);
    const std::string& Output() const { return m_out; }
    bool Write(const std::string& text) { return write(m_in, text.data(), text.size()) == ssize_t(text.size()); }
    bool Signal(int signal) { return m_pid > 0 && kill(m_pid, signal) == 0; }
    void CloseInput() { if (m_in >= 0) close(m_in); m_in = -1; }
    // Exit status as RunResult::status, or -1 after timeoutMs (scaled; then killed).
    int Wait(int timeoutMs);
    bool Running() const { return m_pid > 0; }

private:
    int m_pid = -1;
    int m_in = -1;
    int m_outFd = -1;
    std::string m_out;
};
