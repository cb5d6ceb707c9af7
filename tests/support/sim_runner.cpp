#include "sim_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <arpa/inet.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "process.h"

namespace {

const char kReadyLead[] = "vantor-sim listening on ";

std::vector<std::string> runner_args(const SimRunner::Options& options, const std::string& dir)
{
#ifdef VTEST_SIM_BINARY
    std::vector<std::string> args = TargetArgv(VTEST_SIM_BINARY);
#else
    std::vector<std::string> args = {"vantor-sim"};
#endif
    args.push_back(options.unixSocket ? "--listen=" + dir + "/sim.sock" : "--listen=127.0.0.1:0");
    args.push_back("--db=" + dir + "/sim.db");
    args.push_back("--events=" + std::to_string(options.events));
    args.push_back("--not-ready=" + std::to_string(options.notReady));
    args.insert(args.end(), options.extraArgs.begin(), options.extraArgs.end());
    return args;
}

}  // namespace

SimRunner::SimRunner() : SimRunner(Options()) {}

SimRunner::SimRunner(const Options& options)
{
    m_dir = MakeTempDir();
    m_dbPath = m_dir + "/sim.db";
    m_logPath = m_dir + "/sim.log";
    if (!Launch(options)) Stop();
}

SimRunner::~SimRunner()
{
    Stop();
    if (!m_dir.empty() && system(("rm -rf '" + m_dir + "'").c_str()) != 0) return;
}

bool SimRunner::Launch(const Options& options)
{
    std::vector<std::string> args = runner_args(options, m_dir);
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) return false;
    int log = open(m_logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    m_pid = fork();
    if (m_pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlive a crashed test
        dup2(out[1], 1);
        if (log >= 0) dup2(log, 2);
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(&a[0]);
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(out[1]);
    if (log >= 0) close(log);
    bool ready = m_pid > 0 && AwaitReady(out[0]);
    close(out[0]);
    return ready;
}

// Reads the simulator's one line on standard output, which it prints once
// it listens: "vantor-sim listening on <address>, database <path>".
bool SimRunner::AwaitReady(int outFd)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ScaledMs(30000));
    std::string text;
    while (text.find('\n') == std::string::npos) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        pollfd fd = {outFd, POLLIN, 0};
        if (poll(&fd, 1, 50) <= 0) continue;
        char chunk[256];
        ssize_t n = read(outFd, chunk, sizeof chunk);
        if (n <= 0) return false;  // exited before listening
        text.append(chunk, static_cast<size_t>(n));
    }
    if (text.compare(0, strlen(kReadyLead), kReadyLead) != 0) return false;
    size_t end = text.find(", database ");
    if (end == std::string::npos) return false;
    m_address = text.substr(strlen(kReadyLead), end - strlen(kReadyLead));
    size_t colon = m_address.rfind(':');
    if (m_address[0] != '/' && colon != std::string::npos) m_port = atoi(m_address.c_str() + colon + 1);
    return true;
}

std::string SimRunner::Log() const
{
    std::ifstream in(m_logPath);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

int SimRunner::Connect() const
{
    if (!Running()) return -1;
    bool unixSocket = m_port == 0;
    int fd = socket(unixSocket ? AF_UNIX : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_in in4 = {};
    sockaddr_un un = {};
    sockaddr* addr = reinterpret_cast<sockaddr*>(&in4);
    socklen_t len = sizeof in4;
    if (unixSocket) {
        un.sun_family = AF_UNIX;
        strncpy(un.sun_path, m_address.c_str(), sizeof un.sun_path - 1);
        addr = reinterpret_cast<sockaddr*>(&un);
        len = sizeof un;
    } else {
        in4.sin_family = AF_INET;
        in4.sin_port = htons(static_cast<uint16_t>(m_port));
        in4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    if (connect(fd, addr, len) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int SimRunner::Stop()
{
    if (m_pid <= 0) return -1;
    kill(m_pid, SIGTERM);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ScaledMs(5000));
    int status = 0;
    while (waitpid(m_pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, &status, 0);
            break;
        }
        usleep(2000);
    }
    m_pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
