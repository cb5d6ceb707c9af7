// Network namespaces for the discovery tests (which must never broadcast on the host's network):
// scripts/sim-lan.sh under a name of the test's own.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "fixed_paths.h"
#include "process.h"

class SimLan {
public:
    // `upArgs`: what follows "sim-lan.sh up".
    explicit SimLan(const std::vector<std::string>& upArgs)
    {
        static std::atomic<int> counter{0};
        m_name = "vt" + std::to_string(getpid()) + "x" + std::to_string(counter++);
        RunResult r = Script(Joined({"up"}, upArgs));
        m_up = r.status == 0;
        m_error = r.out + r.err;
    }
    ~SimLan() { (void)Script({"down"}); }
    SimLan(const SimLan&) = delete;
    SimLan& operator=(const SimLan&) = delete;

    // False when the script failed; Error() has its output.
    bool Up() const { return m_up; }
    const std::string& Error() const { return m_error; }
    std::string Client() const { return m_name + "-client"; }
    std::string Units() const { return m_name + "-units"; }
    std::string SimLog() const
    {
        const char* tmp = getenv("TMPDIR");
        return ReadFile(std::string(tmp && *tmp ? tmp : "/tmp") + "/" + m_name + ".sim.log");
    }
    // vtest with `args` in the client namespace, after `prefix` (setpriv ...).
    RunResult Vtest(const std::vector<std::string>& args, const std::vector<std::string>& prefix = {}) const
    {
        std::vector<std::string> argv = Joined({"/sbin/ip", "netns", "exec", Client()}, prefix);
        return RunProgram(Joined(argv, TargetArgv(VTEST_BINARY, args)));
    }

private:
    RunResult Script(const std::vector<std::string>& args) const
    {
        std::vector<std::string> argv = {"/usr/bin/env", "SIM_LAN=" + m_name, "VANTOR_SIM=" VTEST_SIM_BINARY,
#ifdef VTEST_EMULATOR
                                         "SIM_EMULATOR=" VTEST_EMULATOR,
#endif
                                         "/bin/bash", VTEST_SOURCE_DIR "/scripts/sim-lan.sh"};
        return RunProgram(Joined(argv, args), "", 60000);
    }

    std::string m_name, m_error;
    bool m_up = false;
};

// Runs `body` on a thread that joined network namespace `name` (its sockets stay there); false when it could not.
inline bool RunInNetns(const std::string& name, const std::function<void()>& body)
{
    bool joined = false;
    std::thread([&] {
        int fd = open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
        joined = fd >= 0 && setns(fd, CLONE_NEWNET) == 0;
        if (fd >= 0) close(fd);
        if (joined) body();
    }).join();
    return joined;
}

// Skips where network namespaces cannot be made (not root, or emulated).
#define SKIP_WITHOUT_NETNS()                                                                                \
    do {                                                                                                    \
        SKIP_IF_EMULATED(EmulationGap::Namespaces);                                                         \
        if (std::string why_ = NamespacesUnavailableReason(CLONE_NEWNET); !why_.empty()) GTEST_SKIP() << why_; \
    } while (0)
