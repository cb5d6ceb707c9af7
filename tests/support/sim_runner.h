// Runs the simulated unit (vantor-sim) for a test: a fresh seeded database in a private temporary directory,
// listening on a free 127.0.0.1 port or on a Unix socket there. The constructor waits until it listens (30 s,
// scaled: seeding many events under a sanitizer is slow); the destructor stops it and removes the directory.
#pragma once

#include <csignal>
#include <memory>
#include <string>
#include <vector>

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
    explicit SimRunner(const Options& options);
    ~SimRunner();
    SimRunner(const SimRunner&) = delete;
    SimRunner& operator=(const SimRunner&) = delete;

    bool Running() const { return m_child && m_child->Running(); }
    // "127.0.0.1:PORT" (as --server= takes it) or the Unix socket path.
    const std::string& Address() const { return m_address; }
    int Port() const { return m_port; }  // 0 for a Unix socket
    // Its standard error so far, and the file it goes to.
    std::string Log() const;
    const std::string& LogPath() const { return m_logPath; }
    // A new blocking stream socket connected to it (the caller closes it), or -1.
    int Connect() const;
    // SIGTERM, SIGKILL after 5 s (scaled): its exit status, or -1 when it was not running or had to be killed.
    int Stop() { return Running() ? (m_child->Signal(SIGTERM), m_child->Wait(5000)) : -1; }

private:
    std::string m_dir;
    std::string m_logPath;
    std::string m_address;
    int m_port = 0;
    std::unique_ptr<ChildProcess> m_child;
};
