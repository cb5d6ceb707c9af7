// Test helpers: run a program with bounded time and captured output, and
// run a function in private namespaces so fixed system paths and network
// set-ups never touch the host.
#pragma once

#include <functional>
#include <string>
#include <vector>

struct RunResult {
    int status = -1;        // exit status, or 128 + signal; -1 when it could not run
    bool timedOut = false;  // killed after the time limit
    std::string out;
    std::string err;
};

// Runs argv[0] (a path) with the given standard input; kills it after
// timeoutMs milliseconds.
RunResult RunProgram(const std::vector<std::string>& argv, const std::string& input = "",
                     int timeoutMs = 20000);

// Standard error less the logger's own lines ("SS.uuuuuu [tid] ..."): what
// a command printed for the operator.
std::string OperatorErrors(const std::string& err);

// The argv that starts a program built by this tree (vtest, vantor-sim):
// in a cross build the emulator comes first, since an emulated process
// cannot exec a foreign binary by itself.
std::vector<std::string> TargetArgv(const std::string& binary, const std::vector<std::string>& args = {});

// How often `what` occurs in `text`.
size_t CountOf(const std::string& text, const std::string& what);

// The argv that runs `argv` through /bin/sh -c `script`, where the script
// names it as "$@" (for redirections and pipes: "exec \"$@\" 2>&1").
std::vector<std::string> InShell(const std::string& script, const std::vector<std::string>& argv);

// Runs the vtest binary of this build with the given arguments.
RunResult RunVtest(const std::vector<std::string>& args, const std::string& input = "",
                   int timeoutMs = 20000);

// Scales a time limit for slow hosts (emulators) by VTEST_TIME_SCALE, a
// whole number from 1 to 100; unset or anything else counts as 1.
int ScaledMs(int ms);

// Runs `body` in a child process inside new namespaces (CLONE_NEWNS and/or
// CLONE_NEWNET flags). With CLONE_NEWNS, /var/local is a private tmpfs and
// /etc a copy-on-write overlay, so the real paths can be used and written.
// With CLONE_NEWNET, loopback is brought up.
// Returns the body's result, or -1 when the namespaces could not be made.
int RunInNamespaces(int flags, const std::function<int()>& body, int timeoutMs = 60000);

// Why namespaces cannot be used here, or empty when they can.
std::string NamespacesUnavailableReason(int flags);

// For a RunInNamespaces body (a child process, where gtest's checks do not
// reach the parent): says which check failed and returns 1.
#define CHILD_CHECK(cond)                                                                  \
    do {                                                                                   \
        if (!(cond)) {                                                                     \
            fprintf(stderr, "%s:%d child check failed: %s\n", __FILE__, __LINE__, #cond); \
            return 1;                                                                      \
        }                                                                                  \
    } while (0)

// What user-mode emulation (qemu-user, which runs the armhf build's tests on
// the build host; see docs/arm.md) may not give a test.
enum class EmulationGap {
    Namespaces,     // mount and network namespaces made from inside the emulated process (probed)
    PacketSockets,  // AF_PACKET raw frames (probed)
    Ptrace,         // ptrace(2) and backtraces taken through it (never there)
    SetIdPrograms,  // set-user-id and set-group-id executables of this tree (never there)
    ProcSelfExe,    // /proc/self/exe naming the emulated program to stat(2) as well as open(2) (never there)
    Transparent,    // IP_TRANSPARENT, with which simulated units answer from their own addresses (probed)
};

// Why a test that needs `gap` cannot run under emulation, or empty when it
// can; always empty in a native build. A test opts out with
//   SKIP_IF_EMULATED(EmulationGap::Ptrace);
std::string EmulationSkipReason(EmulationGap gap);

#define SKIP_IF_EMULATED(gap)                                    \
    do {                                                         \
        std::string skipReason_ = EmulationSkipReason(gap);      \
        if (!skipReason_.empty()) GTEST_SKIP() << skipReason_;   \
    } while (0)

// Fresh private directory under /tmp, removed by the caller's own choice.
std::string MakeTempDir();

// A child with its standard input and output on pipes, for interactive
// runs: wait for some output, then answer. Killed and reaped on destruction.
class ChildProcess {
public:
    explicit ChildProcess(const std::vector<std::string>& argv);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Reads standard output until it holds `text`; false after timeoutMs
    // (scaled) or at end of output. Output() has everything read so far.
    bool WaitForOutput(const std::string& text, int timeoutMs);
    const std::string& Output() const { return m_out; }
    bool Write(const std::string& text);
    // Sends `signal` to the child (the emulator passes it on to an emulated one).
    bool Signal(int signal);
    // Closes the child's standard input: it reads end-of-file.
    void CloseInput();
    // Exit status as RunResult::status, or -1 after timeoutMs (then killed).
    int Wait(int timeoutMs);

private:
    int m_pid = -1;
    int m_in = -1;
    int m_outFd = -1;
    std::string m_out;
};
