// Network namespaces for the discovery tests, which broadcast and
// re-address units and so never run on the host's network: the simulated
// LAN of scripts/sim-lan.sh under a name of the test's own, and threads
// that join a namespace to make sockets there.
#pragma once

#include <sched.h>

#include <functional>
#include <string>
#include <vector>

#include "process.h"

class SimLan {
public:
    // `upArgs`: what follows "sim-lan.sh up" (units, --no-route,
    // --client-if=NAME, "--" and simulator options).
    explicit SimLan(const std::vector<std::string>& upArgs);
    ~SimLan();
    SimLan(const SimLan&) = delete;
    SimLan& operator=(const SimLan&) = delete;

    // True when the namespaces (and the simulator, if asked for) are up;
    // else Error() has the script's output.
    bool Up() const { return m_up; }
    const std::string& Error() const { return m_error; }
    std::string Client() const { return m_name + "-client"; }
    std::string Units() const { return m_name + "-units"; }
    std::string SimLog() const;
    // vtest with `args` in the client namespace, after `prefix` (setpriv ...).
    RunResult Vtest(const std::vector<std::string>& args, const std::vector<std::string>& prefix = {}) const;
    // "ip -n <ns> <words>"; true when it succeeded.
    bool Ip(const std::string& ns, const std::vector<std::string>& words) const;

private:
    RunResult Script(const std::vector<std::string>& args) const;

    std::string m_name;
    bool m_up = false;
    std::string m_error;
};

// Runs `body` on a thread that joined network namespace `name` (sockets
// made there stay in it). False when it could not join.
bool RunInNetns(const std::string& name, const std::function<void()>& body);

// Skips the test where network namespaces cannot be made (not root, or
// under user-mode emulation).
#define SKIP_WITHOUT_NETNS()                                                  \
    do {                                                                      \
        SKIP_IF_EMULATED(EmulationGap::Namespaces);                           \
        std::string netnsWhy_ = NamespacesUnavailableReason(CLONE_NEWNET);    \
        if (!netnsWhy_.empty()) GTEST_SKIP() << netnsWhy_;                    \
    } while (0)
