#include "process.h"

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

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <thread>

#include "wait.h"

namespace {

// Reaps pid within timeoutMs, else kills and reaps it (timedOut set).
int WaitBounded(pid_t pid, int timeoutMs, bool& timedOut)
{
    int status = 0;
    pid_t r = 0;
    timedOut = false;
    if (pid <= 0) return -1;  // no child: waitpid(-1) would reap somebody else's
    timedOut = !WaitUntil([&] { return (r = waitpid(pid, &status, WNOHANG)) != 0 && !(r < 0 && errno == EINTR); },
                          timeoutMs);
    if (timedOut && kill(pid, SIGKILL) == 0) r = waitpid(pid, &status, 0);
    if (r != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
}

// Starts argv[0] on the given standard descriptors; status 127 when it cannot run.
pid_t Spawn(const std::vector<std::string>& argv, int in, int out, int err, bool dieWithParent = false)
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

// In the new mount namespace: a tmpfs on /var/local, and /etc an overlay whose writes land in a tmpfs on
// `scratch` (made and removed by the parent).
bool MakePrivatePaths(const std::string& scratch)
{
    std::string up = scratch + "/up", work = scratch + "/work";
    std::string options = "lowerdir=/etc,upperdir=" + up + ",workdir=" + work;
    mkdir("/var/local", 0755);
    return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("tmpfs", "/var/local", "tmpfs", 0, "mode=0755") == 0 &&
           mount("tmpfs", scratch.c_str(), "tmpfs", 0, "mode=0755") == 0 && mkdir(up.c_str(), 0755) == 0 &&
           mkdir(work.c_str(), 0755) == 0 && mount("overlay", "/etc", "overlay", 0, options.c_str()) == 0;
}

#ifdef VTEST_EMULATOR
// qemu 7.2 passes these through, so a failure is the emulator's or the host's. Empty when the socket (and option) work.
std::string SocketProbe(int family, int type, int protocol, int option = 0)
{
    int fd = socket(family, type, protocol), on = 1;
    bool ok = fd >= 0 && (!option || setsockopt(fd, IPPROTO_IP, option, &on, sizeof on) == 0);
    std::string why = ok ? "" : std::string(fd < 0 ? "socket" : "setsockopt") + " failed: " + strerror(errno);
    if (fd >= 0) close(fd);
    return why;
}

std::string EmulatedGap(EmulationGap gap)
{
    switch (gap) {
    case EmulationGap::Namespaces: return NamespacesUnavailableReason(CLONE_NEWNS | CLONE_NEWNET);
    case EmulationGap::PacketSockets: return SocketProbe(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL));
    case EmulationGap::Ptrace: return "qemu-user does not implement ptrace(2) (ENOSYS)";
    case EmulationGap::SetIdPrograms: return "qemu-user loads an ARM program as data, so its set-id bits never apply";
    case EmulationGap::ProcSelfExe:
        return "qemu-user fakes open(2) of /proc/self/exe but not stat(2), which sees the emulator";
    case EmulationGap::Transparent: return SocketProbe(AF_INET, SOCK_DGRAM, 0, IP_TRANSPARENT);
    }
    return "unknown gap";
}
#endif

}  // namespace

int ScaledMs(int ms)
{
    const char* text = getenv("VTEST_TIME_SCALE");
    char* end = nullptr;
    long scale = text && *text >= '1' && *text <= '9' ? strtol(text, &end, 10) : 1;
    return ms * (end && *end == '\0' && scale <= 100 ? static_cast<int>(scale) : 1);
}

RunResult RunProgram(const std::vector<std::string>& argv, const std::string& input, int timeoutMs)
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
        result.status = WaitBounded(pid, ScaledMs(timeoutMs), result.timedOut);
        (void)shutdown(in[1], SHUT_RDWR);  // ends a send that a surviving grandchild never reads
        feed.join();
        close(in[1]);
        result.out = ReadFd(out);
        result.err = ReadFd(err);
    }
    for (int fd : {out, err})
        if (fd >= 0) close(fd);
    return result;
}

RunResult RunVtest(const std::vector<std::string>& args, const std::string& input, int timeoutMs)
{
    return RunProgram(TargetArgv(VTEST_BINARY, args), input, timeoutMs);
}

std::vector<std::string> TargetArgv(const std::string& binary, const std::vector<std::string>& args)
{
    std::vector<std::string> argv;
#ifdef VTEST_EMULATOR
    std::istringstream words(VTEST_EMULATOR);
    for (std::string word; words >> word;) argv.push_back(word);
#endif
    argv.push_back(binary);
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

std::string EmulationSkipReason(EmulationGap gap)
{
#ifdef VTEST_EMULATOR
    std::string why = EmulatedGap(gap);
    return why.empty() ? "" : "under user-mode emulation: " + why;
#else
    (void)gap;
    return "";
#endif
}

size_t CountOf(const std::string& text, const std::string& what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) n++;
    return n;
}

std::vector<std::string> InShell(const std::string& script, const std::vector<std::string>& argv)
{
    std::vector<std::string> all = {"/bin/sh", "-c", script, "sh"};
    all.insert(all.end(), argv.begin(), argv.end());
    return all;
}

std::string OperatorErrors(const std::string& err)
{
    std::string out;
    for (size_t at = 0, end; at < err.size(); at = end) {
        end = std::min(err.find('\n', at), err.size() - 1) + 1;
        std::string line = err.substr(at, end - at);
        if (!(line.size() > 10 && line[2] == '.' && line[9] == ' ' && line[10] == '[')) out += line;
    }
    return out;
}

std::string MakeTempDir()
{
    char tmpl[] = "/tmp/vtest-test-XXXXXX";
    return mkdtemp(tmpl) ? tmpl : "";
}

std::string NamespacesUnavailableReason(int flags)
{
    pid_t pid = fork();
    if (pid == 0) _exit(unshare(flags) == 0 ? 0 : 1);
    bool timedOut = false;
    if (pid > 0 && WaitBounded(pid, ScaledMs(10000), timedOut) == 0) return "";
    return "cannot create namespaces here (needs root and unshare(2); not available under user-mode emulation)";
}

int RunInNamespaces(int flags, const std::function<int()>& body, int timeoutMs)
{
    std::string scratch = (flags & CLONE_NEWNS) ? MakeTempDir() : "";
    pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) {
        if (unshare(flags) != 0) _exit(250);
        if ((flags & CLONE_NEWNS) && !MakePrivatePaths(scratch)) _exit(252);
        if ((flags & CLONE_NEWNET) && system("ip link set lo up") != 0) _exit(253);
        _exit(body() & 0xff);
    }
    bool timedOut = false;
    int rv = WaitBounded(pid, ScaledMs(timeoutMs), timedOut);
    if (!scratch.empty()) rmdir(scratch.c_str());
    return timedOut || rv >= 250 ? -1 : rv;
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::string& errPath)
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

ChildProcess::~ChildProcess()
{
    CloseInput();
    if (m_outFd >= 0) close(m_outFd);
    if (m_pid > 0 && kill(m_pid, SIGKILL) == 0) waitpid(m_pid, nullptr, 0);
}

bool ChildProcess::WaitForOutput(const std::string& text, int timeoutMs)
{
    int got = 1;
    auto seen = [&] { return m_out.find(text) != std::string::npos || (got = ReadWithin(m_outFd, m_out, 20)) < 0; };
    return WaitUntil(seen, ScaledMs(timeoutMs)) && got >= 0;
}

int ChildProcess::Wait(int timeoutMs)
{
    bool timedOut = false;
    if (m_pid <= 0) return -1;
    int status = WaitBounded(m_pid, ScaledMs(timeoutMs), timedOut);
    m_pid = -1;
    return timedOut ? -1 : status;
}
