#include "sim_runner.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "SockAddr.h"
#include "fixed_paths.h"

SimRunner::SimRunner(const Options& options) : m_dir(MakeTempDir()), m_logPath(m_dir + "/sim.log")
{
#ifdef VTEST_SIM_BINARY
    std::vector<std::string> args = TargetArgv(VTEST_SIM_BINARY);
#else
    std::vector<std::string> args = {"vantor-sim"};
#endif
    args.insert(args.end(), {options.unixSocket ? "--listen=" + m_dir + "/sim.sock" : "--listen=127.0.0.1:0",
                             "--db=" + m_dir + "/sim.db", "--events=" + std::to_string(options.events),
                             "--not-ready=" + std::to_string(options.notReady)});
    args.insert(args.end(), options.extraArgs.begin(), options.extraArgs.end());
    m_child = std::make_unique<ChildProcess>(args, m_logPath);
    // Its one line on standard output, once it listens: "vantor-sim listening on <address>, database <path>".
    const std::string lead = "vantor-sim listening on ";
    const std::string& line = m_child->Output();
    size_t end = m_child->WaitForOutput("\n", 30000) && line.compare(0, lead.size(), lead) == 0
                     ? line.find(", database ") : std::string::npos;
    if (end == std::string::npos) {
        Stop();
        return;
    }
    m_address = line.substr(lead.size(), end - lead.size());
    size_t colon = m_address.rfind(':');
    if (m_address[0] != '/' && colon != std::string::npos) m_port = atoi(m_address.c_str() + colon + 1);
}

SimRunner::~SimRunner()
{
    Stop();
    if (!m_dir.empty()) (void)!system(("rm -rf '" + m_dir + "'").c_str());
}

std::string SimRunner::Log() const { return ReadFile(m_logPath); }

int SimRunner::Connect() const
{
    sockaddr_un un = {AF_UNIX, {}};
    strncpy(un.sun_path, m_address.c_str(), sizeof un.sun_path - 1);
    SockAddr to = m_port ? SockAddr(AF_INET, 0x7F000001u, m_port) : SockAddr(un);
    int fd = Running() ? socket(to.GetAF(), SOCK_STREAM | SOCK_CLOEXEC, 0) : -1;
    if (fd >= 0 && connect(fd, &to.Get().addr, m_port ? sizeof(sockaddr_in) : sizeof un) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}
