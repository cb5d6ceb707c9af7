// Runs the simulated unit (vantor-sim) for a test: a fresh seeded database
// in a private temporary directory, listening on a free 127.0.0.1 port or
// on a Unix socket in that directory. The constructor waits (bounded) until
// the simulator accepts connections (30 s, scaled: seeding many events
// under a sanitizer is slow); the destructor stops it and removes
// the directory.
//
//     SimRunner sim;
//     ASSERT_TRUE(sim.Running()) << sim.Log();
//     RunVtest({"sql", "--server=" + sim.Address(), "SELECT HwID FROM Hardware LIMIT 3;"});
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

class SimRunner {
public:
    struct Options {
        bool unixSocket = false;              // listen on <dir>/sim.sock
        long events = 0;                      // --events: extra generated Events rows
        long notReady = 0;                    // --not-ready: shell directives refused first
        std::vector<std::string> extraArgs;   // more vantor-sim options
    };

    SimRunner();
    explicit SimRunner(const Options& options);
    ~SimRunner();
    SimRunner(const SimRunner&) = delete;
    SimRunner& operator=(const SimRunner&) = delete;

    // True when the simulator started and accepts connections.
    bool Running() const { return m_pid > 0; }
    // Where it listens: "127.0.0.1:PORT" (the text --server= takes) or the
    // Unix socket path.
    const std::string& Address() const { return m_address; }
    // The TCP port, 0 for a Unix socket.
    int Port() const { return m_port; }
    // The database file (WAL mode): tests may open it with SQLite directly.
    const std::string& DbPath() const { return m_dbPath; }
    // Everything the simulator logged so far (its standard error), and the
    // file it goes to.
    std::string Log() const;
    const std::string& LogPath() const { return m_logPath; }
    // A new blocking stream socket connected to the simulator (the caller
    // closes it), or -1.
    int Connect() const;
    // Stops it with SIGTERM (SIGKILL after 5 s, scaled). Returns its exit
    // status (128 + signal when killed), or -1 when it was not running.
    int Stop();
    pid_t Pid() const { return m_pid; }

private:
    bool Launch(const Options& options);
    bool AwaitReady(int outFd);

    std::string m_dir;
    std::string m_dbPath;
    std::string m_logPath;
    std::string m_address;
    int m_port = 0;
    pid_t m_pid = -1;
};
