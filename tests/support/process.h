// Child processes with bounded time and captured output, and private namespaces so fixed system paths and
// network set-ups never touch the host.
#pragma once

#include <fcntl.h>
#include <linux/if_ether.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "wait.h"

struct RunResult {
    int status = -1;        // exit status, or 128 + signal; -1 when it could not run or was killed at the time limit
    bool timedOut = false;  // killed at the time limit
    std::string out, err;
};

template <class T>
std::vector<T> Joined(std::vector<T> a, const std::vector<T>& b) { a.insert(a.end(), b.begin(), b.end()); return a; }

// ms times VTEST_TIME_SCALE (a whole 1..100; else 1), for slow (emulated) hosts.
inline int ScaledMs(int ms)
{
    const char* text = getenv("VTEST_TIME_SCALE");
    char* end = nullptr;
    long scale = text && *text >= '1' && *text <= '9' ? strtol(text, &end, 10) : 1;
    return ms * (end && *end == '\0' && scale <= 100 ? static_cast<int>(scale) : 1);
}

// Reaps pid within timeoutMs, else kills and reaps it (*timedOut set): its status as RunResult::status.
inline int WaitBounded(pid_t pid, int timeoutMs, bool* timedOut = nullptr)
{
    int status = 0;
    pid_t r = 0;
    if (pid <= 0) return -1;  // no child: waitpid(-1) would reap somebody else's
    bool late = !WaitUntil([&] { return (r = waitpid(pid, &status, WNOHANG)) != 0 && !(r < 0 && errno == EINTR); },
                           timeoutMs);
    if (late && kill(pid, SIGKILL) == 0) r = waitpid(pid, &status, 0);
    if (timedOut) *timedOut = late;
    if (r != pid || late) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
}

// Starts argv[0] on the given standard descriptors; status 127 when it cannot run.
inline pid_t Spawn(const std::vector<std::string>& argv, int in, int out, int err, bool dieWithParent = false)
{
    std::vector<char*> args;  // made before the fork: the child of a threaded process must not allocate
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = fork();
    if (pid != 0) return pid;
    if (dieWithParent) prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(in, 0), dup2(out, 1), dup2(err, 2);
    execv(args[0], args.data());
    _exit(127);
}

// Runs argv[0] (a path) fed `input`; killed after timeoutMs (scaled).
inline RunResult RunProgram(const std::vector<std::string>& argv, const std::string& input = "", int timeoutMs = 20000)
{
    // Input on a socket, so a program that stops reading early gives EPIPE, not SIGPIPE; outputs to files,
    // so neither side ever waits on the other.
    RunResult result;
    int in[2] = {-1, -1};
    int out = memfd_create("out", MFD_CLOEXEC), err = memfd_create("err", MFD_CLOEXEC);
    if (out >= 0 && err >= 0 && socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, in) == 0) {
        pid_t pid = Spawn(argv, in[0], out, err);
        close(in[0]);
        std::thread feed([&] {
            ssize_t size = static_cast<ssize_t>(input.size()), at = 0, n;
            while (at < size && (n = send(in[1], input.data() + at, size - at, MSG_NOSIGNAL)) > 0) at += n;
            (void)shutdown(in[1], SHUT_WR);
        });
        result.status = WaitBounded(pid, ScaledMs(timeoutMs), &result.timedOut);
        (void)shutdown(in[1], SHUT_RDWR);  // ends a send that a surviving grandchild never reads
        feed.join();
        close(in[1]);
        result.out = ReadFd(out);
        result.err = ReadFd(err);
    }
    for (int fd : {out, err}) if (fd >= 0) close(fd);
    return result;
}

// The argv that starts a program of this tree: in a cross build the emulator first (it cannot exec a foreign binary).
inline std::vector<std::string> TargetArgv(const std::string& binary, const std::vector<std::string>& args = {})
{
    std::vector<std::string> argv;
#ifdef VTEST_EMULATOR
    std::istringstream words(VTEST_EMULATOR);
    for (std::string word; words >> word;) argv.push_back(word);
#endif
    argv.push_back(binary);
    return Joined(argv, args);
}

inline RunResult RunVtest(const std::vector<std::string>& args, const std::string& input = "", int timeoutMs = 20000)
{
    return RunProgram(TargetArgv(VTEST_BINARY, args), input, timeoutMs);
}

// Standard error less the logger's own lines ("SS.uuuuuu [tid] ...").
inline std::string OperatorErrors(const std::string& err)
{
    std::string out;
    for (size_t at = 0, end; at < err.size(); at = end) {
        end = std::min(err.find('\n', at), err.size() - 1) + 1;
        std::string line = err.substr(at, end - at);
        if (!(line.size() > 10 && line[2] == '.' && line[9] == ' ' && line[10] == '[')) out += line;
    }
    return out;
}

inline size_t CountOf(const std::string& text, const std::string& what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) n++;
    return n;
}

// /bin/sh -c `script` with `argv` as "$@" (e.g. "exec \"$@\" 2>&1").
inline std::vector<std::string> InShell(const std::string& script, const std::vector<std::string>& argv)
{
    return Joined({"/bin/sh", "-c", script, "sh"}, argv);
}

// Fresh private directory under /tmp (empty on failure); the caller removes it.
inline std::string MakeTempDir()
{
    char tmpl[] = "/tmp/vtest-test-XXXXXX";
    return mkdtemp(tmpl) ? tmpl : "";
}

// Runs `body` in a child in new namespaces: with CLONE_NEWNS /var/local a tmpfs and /etc an overlay on one, with
// CLONE_NEWNET loopback up. The body's result, or -1 when the namespaces could not be made or time ran out.
inline int RunInNamespaces(int flags, const std::function<int()>& body, int timeoutMs = 60000)
{
    std::string scratch = (flags & CLONE_NEWNS) ? MakeTempDir() : "", up = scratch + "/up", work = scratch + "/work";
    std::string options = "lowerdir=/etc,upperdir=" + up + ",workdir=" + work;  // made before the fork, as in Spawn
    auto privatePaths = [&] {
        mkdir("/var/local", 0755);
        return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
               mount("tmpfs", "/var/local", "tmpfs", 0, "mode=0755") == 0 &&
               mount("tmpfs", scratch.c_str(), "tmpfs", 0, "mode=0755") == 0 && mkdir(up.c_str(), 0755) == 0 &&
               mkdir(work.c_str(), 0755) == 0 && mount("overlay", "/etc", "overlay", 0, options.c_str()) == 0;
    };
    const int kNoNamespace = 250;  // above what a body returns
    pid_t pid = fork();
    if (pid == 0) {
        if (unshare(flags) != 0 || ((flags & CLONE_NEWNS) && !privatePaths()) ||
            ((flags & CLONE_NEWNET) && system("ip link set lo up") != 0))
            _exit(kNoNamespace);
        _exit(body() & 0xff);
    }
    int rv = WaitBounded(pid, ScaledMs(timeoutMs));
    if (!scratch.empty()) rmdir(scratch.c_str());
    return rv >= kNoNamespace ? -1 : rv;
}

// Why namespaces cannot be made here, or empty.
inline std::string NamespacesUnavailableReason(int flags)
{
    bool can = RunInNamespaces(flags, [] { return 0; }, 10000) == 0;
    return can ? "" : "cannot create namespaces here (needs root and unshare(2); not under user-mode emulation)";
}

// For a RunInNamespaces body, where gtest's checks do not reach the parent.
#define CHILD_CHECK(cond)                                                                                  \
    do {                                                                                                   \
        if (!(cond)) return fprintf(stderr, "%s:%d child check failed: %s\n", __FILE__, __LINE__, #cond), 1; \
    } while (0)

// What user-mode emulation (qemu-user runs the armhf build's tests; see docs/arm.md) may not give a test.
enum class EmulationGap { Namespaces, PacketSockets, SetIdPrograms, ProcSelfExe, Transparent };

// Why a test needing `gap` cannot run emulated, empty natively. Sockets are probed (qemu passes them through).
inline std::string EmulationSkipReason([[maybe_unused]] EmulationGap gap)
{
    std::string why;
#ifdef VTEST_EMULATOR
    auto probe = [&](int family, int type, int protocol, int option) {
        int fd = socket(family, type, protocol), on = 1;
        bool ok = fd >= 0 && (!option || setsockopt(fd, IPPROTO_IP, option, &on, sizeof on) == 0);
        why = ok ? "" : std::string(fd < 0 ? "socket" : "setsockopt") + " failed: " + strerror(errno);
        if (fd >= 0) close(fd);
    };
    switch (gap) {
    case EmulationGap::Namespaces: why = NamespacesUnavailableReason(CLONE_NEWNS | CLONE_NEWNET); break;
    case EmulationGap::PacketSockets: probe(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL), 0); break;
    case EmulationGap::SetIdPrograms: why = "qemu-user loads an ARM program as data: no set-id"; break;
    case EmulationGap::ProcSelfExe: why = "qemu-user fakes open(2) of /proc/self/exe, not stat(2)"; break;
    case EmulationGap::Transparent: probe(AF_INET, SOCK_DGRAM, 0, IP_TRANSPARENT); break;  // units' own addresses
    }
#endif
    return why.empty() ? "" : "under user-mode emulation: " + why;
}
#define SKIP_IF_EMULATED(gap) \
    do { if (std::string why_ = EmulationSkipReason(gap); !why_.empty()) GTEST_SKIP() << why_; } while (0)

// An interactive child: standard input and output on pipes, standard error inherited or to `errPath`. Killed and
// reaped on destruction, and killed when the thread that made it ends, so it never outlives a crashed test.
class ChildProcess {
public:
    explicit ChildProcess(const std::vector<std::string>& argv, const std::string& errPath = "")
    {
        int in[2], out[2];
        if (pipe2(in, O_CLOEXEC) || pipe2(out, O_CLOEXEC)) return;
        int err = errPath.empty() ? 2 : open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        m_pid = Spawn(argv, in[0], out[1], err, true);
        for (int fd : {in[0], out[1], err != 2 ? err : -1})
            if (fd >= 0) close(fd);
        m_in = in[1];
        m_outFd = out[0];
    }
    ~ChildProcess()
    {
        CloseInput();
        if (m_outFd >= 0) close(m_outFd);
        if (m_pid > 0 && kill(m_pid, SIGKILL) == 0) waitpid(m_pid, nullptr, 0);
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Reads standard output until it holds `text`; false after timeoutMs (scaled) or at its end.
    bool WaitForOutput(const std::string& text, int timeoutMs)
    {
        int got = 1;
        auto seen = [&] { return m_out.find(text) != std::string::npos || (got = ReadWithin(m_outFd, m_out, 20)) < 0; };
        return WaitUntil(seen, ScaledMs(timeoutMs)) && got >= 0;
    }
    const std::string& Output() const { return m_out; }
    bool Write(const std::string& text) { return write(m_in, text.data(), text.size()) == ssize_t(text.size()); }
    bool Signal(int signal) { return m_pid > 0 && kill(m_pid, signal) == 0; }
    void CloseInput() { if (m_in >= 0) close(m_in); m_in = -1; }
    // Exit status as RunResult::status, or -1 after timeoutMs (scaled; then killed).
    int Wait(int timeoutMs) { return WaitBounded(std::exchange(m_pid, -1), ScaledMs(timeoutMs)); }
    bool Running() const { return m_pid > 0; }

private:
    int m_pid = -1, m_in = -1, m_outFd = -1;
    std::string m_out;
};
