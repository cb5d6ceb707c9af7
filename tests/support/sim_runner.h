// Runs the simulated unit (vantor-sim) for a test: a fresh seeded database in a private temporary directory,
// listening on a free 127.0.0.1 port or on a Unix socket there. The constructor waits until it listens (30 s,
// scaled: seeding many events under a sanitizer is slow); the destructor stops it and removes the directory.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "SockAddr.h"
#include "fixed_paths.h"
#include "process.h"

class SimRunner {
public:
    struct Options {
        bool unixSocket = false;             // listen on <dir>/sim.sock
        long events = 0;                     // --events: extra generated Events rows
        long notReady = 0;                   // --not-ready: shell directives refused first
        std::vector<std::string> extraArgs;  // more vantor-sim options
    };

    SimRunner() : SimRunner(Options()) {}
    explicit SimRunner(const Options& options) : m_dir(MakeTempDir()), m_logPath(m_dir + "/sim.log")
    {
        std::string listen = options.unixSocket ? m_dir + "/sim.sock" : "127.0.0.1:0";
        std::vector<std::string> args = {"--listen=" + listen, "--db=" + m_dir + "/sim.db",
                                         "--events=" + std::to_string(options.events),
                                         "--not-ready=" + std::to_string(options.notReady)};
        args = TargetArgv(VTEST_SIM_BINARY, Joined(args, options.extraArgs));
        m_child = std::make_unique<ChildProcess>(args, m_logPath);
        // Its one line on standard output, once it listens: "vantor-sim listening on <address>, database <path>".
        const std::string lead = "vantor-sim listening on ", &line = m_child->Output();
        size_t end = m_child->WaitForOutput("\n", 30000) && line.compare(0, lead.size(), lead) == 0
                         ? line.find(", database ") : std::string::npos;
        if (end == std::string::npos)
            Stop();
        else
            m_address = line.substr(lead.size(), end - lead.size());
        if (!m_address.empty() && m_address[0] != '/') m_port = atoi(m_address.c_str() + m_address.rfind(':') + 1);
    }
    ~SimRunner()
    {
        Stop();
        if (!m_dir.empty()) (void)!system(("rm -rf '" + m_dir + "'").c_str());
    }

    bool Running() const { return m_child->Running(); }
    // "127.0.0.1:PORT" (as --server= takes it) or the Unix socket path.
    const std::string& Address() const { return m_address; }
    int Port() const { return m_port; }  // 0 for a Unix socket
    // Its standard error so far, and the file it goes to.
    std::string Log() const { return ReadFile(m_logPath); }
    const std::string& LogPath() const { return m_logPath; }
    // A new blocking stream socket connected to it (the caller closes it), or -1.
    int Connect() const
    {
        sockaddr_un un = {AF_UNIX, {}};
        strncpy(un.sun_path, m_address.c_str(), sizeof un.sun_path - 1);
        SockAddr to = m_port ? SockAddr(AF_INET, 0x7F000001u, m_port) : SockAddr(un);
        int fd = Running() ? socket(to.GetAF(), SOCK_STREAM | SOCK_CLOEXEC, 0) : -1;
        if (fd >= 0 && connect(fd, &to.Get().addr, m_port ? sizeof(sockaddr_in) : sizeof un) != 0) close(fd), fd = -1;
        return fd;
    }
    // SIGTERM, SIGKILL after 5 s (scaled): its exit status, or -1 when it was not running or had to be killed.
    int Stop() { return Running() ? (m_child->Signal(SIGTERM), m_child->Wait(5000)) : -1; }

private:
    std::string m_dir, m_logPath, m_address;
    int m_port = 0;
    std::unique_ptr<ChildProcess> m_child;  // also what makes a runner non-copyable
};
