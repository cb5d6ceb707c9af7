// Running the armhf build's tests under user-mode qemu on the build host.
#include <netinet/in.h>
#include <linux/if_ether.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>

#include "process.h"

std::vector<std::string> TargetArgv(const std::string& binary, const std::vector<std::string>& args)
{
    std::vector<std::string> argv;
#ifdef VTEST_EMULATOR
    std::istringstream words(VTEST_EMULATOR);
    for (std::string word; words >> word;) argv.push_back(word);
#endif
    argv.push_back(binary);
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

#ifdef VTEST_EMULATOR
namespace {

// qemu 7.2 passes these through; a failure is the emulator's (or the host's),
// not the code under test's. Empty when the socket (and option) work.
std::string SocketProbe(int family, int type, int protocol, int option = 0)
{
    int fd = socket(family, type, protocol), on = 1;
    bool ok = fd >= 0 && (!option || setsockopt(fd, IPPROTO_IP, option, &on, sizeof on) == 0);
    std::string why = ok ? "" : std::string(fd < 0 ? "socket" : "setsockopt") + " failed: " + strerror(errno);
    if (fd >= 0) close(fd);
    return why;
}

std::string Why(EmulationGap gap)
{
    switch (gap) {
    case EmulationGap::Namespaces: return NamespacesUnavailableReason(CLONE_NEWNS | CLONE_NEWNET);
    case EmulationGap::PacketSockets: return SocketProbe(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL));
    case EmulationGap::Ptrace: return "qemu-user does not implement ptrace(2) (ENOSYS)";
    case EmulationGap::SetIdPrograms: return "qemu-user loads an ARM program as data, so its set-id bits never apply";
    case EmulationGap::ProcSelfExe:
        return "qemu-user fakes open(2) of /proc/self/exe but not stat(2), which sees the emulator";
    case EmulationGap::Transparent: return SocketProbe(AF_INET, SOCK_DGRAM, 0, IP_TRANSPARENT);
    }
    return "unknown gap";
}

}  // namespace
#endif

std::string EmulationSkipReason(EmulationGap gap)
{
#ifdef VTEST_EMULATOR
    std::string why = Why(gap);
    return why.empty() ? "" : "under user-mode emulation: " + why;
#else
    (void)gap;
    return "";
#endif
}
