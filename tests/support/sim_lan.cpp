#include "sim_lan.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "fixed_paths.h"

SimLan::SimLan(const std::vector<std::string>& upArgs)
{
    static std::atomic<int> counter{0};
    m_name = "vt" + std::to_string(getpid()) + "x" + std::to_string(counter++);
    std::vector<std::string> args = {"up"};
    args.insert(args.end(), upArgs.begin(), upArgs.end());
    RunResult r = Script(args);
    m_up = r.status == 0;
    m_error = r.out + r.err;
}

RunResult SimLan::Script(const std::vector<std::string>& args) const
{
    std::vector<std::string> argv = {"/usr/bin/env", "SIM_LAN=" + m_name,
#ifdef VTEST_SIM_BINARY
                                     "VANTOR_SIM=" VTEST_SIM_BINARY,
#endif
#ifdef VTEST_EMULATOR
                                     "SIM_EMULATOR=" VTEST_EMULATOR,
#endif
                                     "/bin/bash", VTEST_SOURCE_DIR "/scripts/sim-lan.sh"};
    argv.insert(argv.end(), args.begin(), args.end());
    return RunProgram(argv, "", 60000);
}

std::string SimLan::SimLog() const
{
    const char* tmp = getenv("TMPDIR");
    return ReadFile(std::string(tmp && *tmp ? tmp : "/tmp") + "/" + m_name + ".sim.log");
}

RunResult SimLan::Vtest(const std::vector<std::string>& args, const std::vector<std::string>& prefix) const
{
    std::vector<std::string> argv = {"/sbin/ip", "netns", "exec", Client()};
    argv.insert(argv.end(), prefix.begin(), prefix.end());
    std::vector<std::string> vtest = TargetArgv(VTEST_BINARY, args);
    argv.insert(argv.end(), vtest.begin(), vtest.end());
    return RunProgram(argv);
}

bool RunInNetns(const std::string& name, const std::function<void()>& body)
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
