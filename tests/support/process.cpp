#include "process.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "wait.h"

namespace {

// Reaps pid within timeoutMs, else kills and reaps it (timedOut set).
int WaitBounded(pid_t pid, int timeoutMs, bool& timedOut)
{
    int status = 0;
    pid_t r = 0;
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
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    execv(args[0], args.data());
    _exit(127);
}

// A program that exits before reading all its input must not kill the test
// with SIGPIPE: block it around the write (this thread only) and drop a pending one.
ssize_t WriteNoSigpipe(int fd, const void* data, size_t size)
{
    sigset_t pipeOnly, old;
    sigemptyset(&pipeOnly);
    sigaddset(&pipeOnly, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeOnly, &old);
    ssize_t n = write(fd, data, size);
    timespec none = {0, 0};
    if (n < 0 && errno == EPIPE) (void)sigtimedwait(&pipeOnly, nullptr, &none);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    return n;
}

// In the new mount namespace: a tmpfs on /var/local, and /etc an overlay whose
// writes land in a tmpfs on `scratch` (made and removed by the parent).
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
    RunResult result;
    int in[2], out[2], err[2];
    if (pipe2(in, O_CLOEXEC) || pipe2(out, O_CLOEXEC) || pipe2(err, O_CLOEXEC)) return result;
    pid_t pid = Spawn(argv, in[0], out[1], err[1]);
    for (int fd : {in[0], out[1], err[1]}) close(fd);
    // Feeds input while draining both outputs, non-blocking, so a large input
    // never waits on a program whose own output waits for us.
    fcntl(in[1], F_SETFL, O_NONBLOCK);
    size_t written = 0;
    int live[3] = {out[0], err[0], in[1]};
    std::string* text[2] = {&result.out, &result.err};
    auto shut = [&](int i) { close(live[i]), live[i] = -1; };
    auto start = std::chrono::steady_clock::now();
    const int limit = ScaledMs(timeoutMs);
    while ((live[0] >= 0 || live[1] >= 0) && MsSince(start) < limit) {
        if (live[2] >= 0 && written == input.size()) shut(2);
        pollfd fds[3] = {{live[0], POLLIN, 0}, {live[1], POLLIN, 0}, {live[2], POLLOUT, 0}};
        if (poll(fds, 3, 50) <= 0) continue;
        for (int i = 0; i < 2; i++)
            if (fds[i].revents && ReadWithin(live[i], *text[i], 0) < 0) shut(i);
        ssize_t n = fds[2].revents ? WriteNoSigpipe(live[2], input.data() + written, input.size() - written) : 0;
        if (n > 0) written += static_cast<size_t>(n);
        if (n < 0 && errno != EAGAIN) written = input.size();
    }
    for (int i = 0; i < 3; i++)
        if (live[i] >= 0) shut(i);
    result.status = WaitBounded(pid, static_cast<int>(std::max(1L, limit - MsSince(start))), result.timedOut);
    return result;
}

RunResult RunVtest(const std::vector<std::string>& args, const std::string& input, int timeoutMs)
{
    return RunProgram(TargetArgv(VTEST_BINARY, args), input, timeoutMs);
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

bool ChildProcess::Write(const std::string& text)
{
    return write(m_in, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

bool ChildProcess::Signal(int signal) { return m_pid > 0 && kill(m_pid, signal) == 0; }

void ChildProcess::CloseInput()
{
    if (m_in >= 0) close(m_in);
    m_in = -1;
}

int ChildProcess::Wait(int timeoutMs)
{
    bool timedOut = false;
    if (m_pid <= 0) return -1;
    int status = WaitBounded(m_pid, ScaledMs(timeoutMs), timedOut);
    m_pid = -1;
    return timedOut ? -1 : status;
}
