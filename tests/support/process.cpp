#include "process.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

namespace {

int DecodeStatus(int status)
{
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

// Waits for pid with a deadline; kills it when the deadline passes.
int WaitBounded(pid_t pid, int timeoutMs, bool& timedOut)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    int status = 0;
    for (;;) {
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) return DecodeStatus(status);
        if (r < 0 && errno != EINTR) return -1;
        if (std::chrono::steady_clock::now() > deadline) {
            timedOut = true;
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return DecodeStatus(status);
        }
        usleep(2000);
    }
}

// Starts argv[0] with the given descriptors as its standard input, output
// and error; exit status 127 when it cannot be executed.
pid_t Spawn(const std::vector<std::string>& argv, int in, int out, int err)
{
    pid_t pid = fork();
    if (pid != 0) return pid;
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
}

// A program that exits before reading all its input must not kill the test
// with SIGPIPE: block it around the write and drop a pending one. The mask
// is the calling thread's, so children started later are not affected.
ssize_t WriteNoSigpipe(int fd, const void* data, size_t size)
{
    sigset_t pipeOnly, old;
    sigemptyset(&pipeOnly);
    sigaddset(&pipeOnly, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeOnly, &old);
    ssize_t n = write(fd, data, size);
    if (n < 0 && errno == EPIPE) {
        timespec none = {0, 0};
        (void)sigtimedwait(&pipeOnly, nullptr, &none);
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    return n;
}

}  // namespace

int ScaledMs(int ms)
{
    const char* text = getenv("VTEST_TIME_SCALE");
    char* end = nullptr;
    errno = 0;
    long scale = text ? strtol(text, &end, 10) : 1;
    bool valid = text && *text >= '1' && *text <= '9' && *end == '\0' && errno == 0 && scale <= 100;
    return ms * (valid ? static_cast<int>(scale) : 1);
}

RunResult RunProgram(const std::vector<std::string>& argv, const std::string& input, int timeoutMs)
{
    RunResult result;
    int in[2], out[2], err[2];
    if (pipe2(in, O_CLOEXEC) || pipe2(out, O_CLOEXEC) || pipe2(err, O_CLOEXEC)) return result;
    pid_t pid = Spawn(argv, in[0], out[1], err[1]);
    close(in[0]);
    close(out[1]);
    close(err[1]);
    // Feed standard input while draining both outputs, all with one deadline;
    // non-blocking, so a large input never waits on a program whose own
    // output is waiting for us.
    fcntl(in[1], F_SETFL, O_NONBLOCK);
    size_t written = 0;
    if (input.empty()) close(in[1]);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ScaledMs(timeoutMs));
    bool outOpen = true, errOpen = true, inOpen = !input.empty();
    while ((outOpen || errOpen) && std::chrono::steady_clock::now() < deadline) {
        pollfd fds[3] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}, {inOpen ? in[1] : -1, POLLOUT, 0}};
        if (poll(fds, 3, 50) <= 0) continue;
        char buf[4096];
        for (int i = 0; i < 2; i++) {
            if (!(fds[i].revents & (POLLIN | POLLHUP))) continue;
            ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n > 0)
                (i == 0 ? result.out : result.err).append(buf, static_cast<size_t>(n));
            else
                (i == 0 ? outOpen : errOpen) = false;
        }
        if (inOpen && (fds[2].revents & (POLLOUT | POLLERR))) {
            ssize_t n = WriteNoSigpipe(in[1], input.data() + written, input.size() - written);
            if (n > 0) written += static_cast<size_t>(n);
            if ((n < 0 && errno != EAGAIN) || written == input.size()) {
                close(in[1]);
                inOpen = false;
            }
        }
    }
    if (inOpen) close(in[1]);
    close(out[0]);
    close(err[0]);
    int remaining = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                         deadline - std::chrono::steady_clock::now()).count());
    result.status = WaitBounded(pid, remaining > 0 ? remaining : 1, result.timedOut);
    return result;
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
    std::string out, line;
    for (size_t at = 0; at < err.size();) {
        size_t end = err.find('\n', at);
        line = err.substr(at, end == std::string::npos ? std::string::npos : end - at + 1);
        at = end == std::string::npos ? err.size() : end + 1;
        bool logged = line.size() > 10 && line[2] == '.' && line[9] == ' ' && line[10] == '[';
        if (!logged) out += line;
    }
    return out;
}

RunResult RunVtest(const std::vector<std::string>& args, const std::string& input, int timeoutMs)
{
    return RunProgram(TargetArgv(VTEST_BINARY, args), input, timeoutMs);
}

std::string NamespacesUnavailableReason(int flags)
{
    pid_t pid = fork();
    if (pid == 0) _exit(unshare(flags) == 0 ? 0 : 1);
    int status = 0;
    waitpid(pid, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return "";
    return "cannot create namespaces here (needs root and unshare(2); not available under user-mode emulation)";
}

namespace {

// Inside the new mount namespace: a tmpfs on /var/local, and /etc as an
// overlay whose writes land in a tmpfs mounted on `scratch` (a directory
// the parent made and removes).
bool MakePrivatePaths(const std::string& scratch)
{
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
    mkdir("/var/local", 0755);
    if (mount("tmpfs", "/var/local", "tmpfs", 0, "mode=0755") != 0) return false;
    if (mount("tmpfs", scratch.c_str(), "tmpfs", 0, "mode=0755") != 0) return false;
    std::string up = scratch + "/up", work = scratch + "/work";
    mkdir(up.c_str(), 0755);
    mkdir(work.c_str(), 0755);
    std::string options = "lowerdir=/etc,upperdir=" + up + ",workdir=" + work;
    return mount("overlay", "/etc", "overlay", 0, options.c_str()) == 0;
}

}  // namespace

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

std::string MakeTempDir()
{
    char tmpl[] = "/tmp/vtest-test-XXXXXX";
    const char* dir = mkdtemp(tmpl);
    return dir ? dir : "";
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv)
{
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) || pipe2(out, O_CLOEXEC)) return;
    m_pid = Spawn(argv, in[0], out[1], 2);
    close(in[0]);
    close(out[1]);
    m_in = in[1];
    m_outFd = out[0];
}

ChildProcess::~ChildProcess()
{
    if (m_in >= 0) close(m_in);
    if (m_outFd >= 0) close(m_outFd);
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
}

bool ChildProcess::WaitForOutput(const std::string& text, int timeoutMs)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ScaledMs(timeoutMs));
    while (m_out.find(text) == std::string::npos) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        pollfd p = {m_outFd, POLLIN, 0};
        if (poll(&p, 1, 20) <= 0) continue;
        char buf[4096];
        ssize_t n = read(m_outFd, buf, sizeof buf);
        if (n <= 0) return false;
        m_out.append(buf, static_cast<size_t>(n));
    }
    return true;
}

bool ChildProcess::Write(const std::string& text)
{
    return write(m_in, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

bool ChildProcess::Signal(int signal)
{
    return m_pid > 0 && kill(m_pid, signal) == 0;
}

void ChildProcess::CloseInput()
{
    if (m_in >= 0) close(m_in);
    m_in = -1;
}

int ChildProcess::Wait(int timeoutMs)
{
    bool timedOut = false;
    int status = WaitBounded(m_pid, ScaledMs(timeoutMs), timedOut);
    m_pid = -1;
    return timedOut ? -1 : status;
}
