// Running the armhf build's tests under user-mode qemu on the build host.
#include <arpa/inet.h>
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

// qemu 7.2 passes these through; a failure here is the emulator's (or the
// host's) and not the code under test's.
std::string PacketSocketProbe()
{
    int fd = socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL));
    if (fd < 0) return std::string("AF_PACKET socket failed: ") + strerror(errno);
    close(fd);
    return "";
}

std::string TransparentProbe()
{
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    int on = 1;
    bool ok = fd >= 0 && setsockopt(fd, IPPROTO_IP, IP_TRANSPARENT, &on, sizeof on) == 0;
    std::string why = ok ? "" : std::string("IP_TRANSPARENT refused: ") + strerror(errno);
    if (fd >= 0) close(fd);
    return why;
}

std::string WithPrefix(const std::string& why)
{
    return why.empty() ? "" : "under user-mode emulation: " + why;
}

}  // namespace
#endif

std::string EmulationSkipReason(EmulationGap gap)
{
#ifdef VTEST_EMULATOR
    switch (gap) {
    case EmulationGap::Namespaces:
        return WithPrefix(NamespacesUnavailableReason(CLONE_NEWNS | CLONE_NEWNET));
    case EmulationGap::PacketSockets:
        return WithPrefix(PacketSocketProbe());
    case EmulationGap::Ptrace:
        return WithPrefix("qemu-user does not implement ptrace(2) (ENOSYS)");
    case EmulationGap::SetIdPrograms:
        return WithPrefix("qemu-user loads an ARM program as data, so its set-id bits never apply");
    case EmulationGap::ProcSelfExe:
        return WithPrefix("qemu-user fakes open(2) of /proc/self/exe but not stat(2), which sees the emulator");
    case EmulationGap::Transparent:
        return WithPrefix(TransparentProbe());
    }
    return WithPrefix("unknown gap");
#else
    (void)gap;
    return "";
#endif
}
