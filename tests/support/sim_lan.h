// Network namespaces for the discovery tests (which must never broadcast on the host's network):
// scripts/sim-lan.sh under a name of the test's own.
#pragma once

#include <sched.h>

#include <functional>
#include <string>
#include <vector>

#include "process.h"

class SimLan {
public:
    // `upArgs`: what follows "sim-lan.sh up".
    explicit SimLan(const std::vector<std::string>& upArgs);
    ~SimLan() { (void)Script({"down"}); }
    SimLan(const SimLan&) = delete;
    SimLan& operator=(const SimLan&) = delete;

    // False when the script failed; Error() has its output.
    bool Up() const { return m_up; }
    const std::string& Error() const { return m_error; }
    std::string Client() const { return m_name + "-client"; }
    std::string Units() const { return m_name + "-units"; }
    std::string SimLog() const;
    // vtest with `args` in the client namespace, after `prefix` (setpriv ...).
    RunResult Vtest(const std::vector<std::string>& args, const std::vector<std::string>& prefix = {}) const;

private:
    RunResult Script(const std::vector<std::string>& args) const;

    std::string m_name;
    bool m_up = false;
    std::string m_error;
};

// Runs `body` on a thread that joined network namespace `name` (its sockets stay there); false when it could not.
bool RunInNetns(const std::string& name, const std::function<void()>& body);

// Skips where network namespaces cannot be made (not root, or emulated).
#define SKIP_WITHOUT_NETNS()                                                                                \
    do {                                                                                                    \
        SKIP_IF_EMULATED(EmulationGap::Namespaces);                                                         \
        if (std::string why_ = NamespacesUnavailableReason(CLONE_NEWNET); !why_.empty()) GTEST_SKIP() << why_; \
    } while (0)
