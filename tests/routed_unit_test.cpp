// A unit behind a router: the client, the router and the unit each in a
// network namespace of their own, as on a site with several subnets.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <unistd.h>

#include "Socket.h"
#include "process.h"
#include "sim_runner.h"

namespace {

// The test's own namespace routes between 10.1.0.0/24 (the client) and
// 10.2.0.0/24 (the unit). The namespaces' names live on a tmpfs of the
// private mount namespace, so nothing is left on the host.
const char kNetworks[] =
    "mkdir -p /run/netns && mount -t tmpfs vt-netns /run/netns"
    " && ip netns add vt-client && ip netns add vt-unit"
    " && ip link add rc type veth peer name cr netns vt-client"
    " && ip link add ru type veth peer name ur netns vt-unit"
    " && ip addr add 10.1.0.1/24 dev rc && ip link set rc up"
    " && ip addr add 10.2.0.1/24 dev ru && ip link set ru up"
    " && ip -n vt-client addr add 10.1.0.2/24 dev cr && ip -n vt-client link set cr up"
    " && ip -n vt-client route add default via 10.1.0.1"
    " && ip -n vt-unit addr add 10.2.0.2/24 dev ur && ip -n vt-unit link set ur up"
    " && ip -n vt-unit link set lo up && ip -n vt-unit route add default via 10.2.0.1"
    " && echo 1 > /proc/sys/net/ipv4/ip_forward";

bool EnterNamespace(const char* path)
{
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    bool ok = fd >= 0 && setns(fd, CLONE_NEWNET) == 0;
    if (fd >= 0) close(fd);
    return ok;
}

int GetOption(int fd, int level, int option)
{
    int value = -1;
    socklen_t len = sizeof value;
    return getsockopt(fd, level, option, &value, &len) == 0 ? value : -1;
}

int RoutedChecks()
{
    if (system(kNetworks) != 0) return 2;
    // Held open, the router's namespace (and its links) outlives our leaving it.
    int router = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    CHILD_CHECK(router >= 0);
    // The simulator starts inside the unit's namespace.
    CHILD_CHECK(EnterNamespace("/run/netns/vt-unit"));
    SimRunner::Options options;
    options.extraArgs = {"--listen=10.2.0.2:3543"};
    SimRunner sim(options);
    CHILD_CHECK(sim.Running());
    CHILD_CHECK(EnterNamespace("/run/netns/vt-client"));

    // The tool reaches it through the router.
    RunResult r = RunProgram(TargetArgv(VTEST_BINARY, {"sql", "--server=10.2.0.2", "SELECT 42 AS n;"}), "", 30000);
    CHILD_CHECK(r.status == 0);
    CHILD_CHECK(r.out == "Connecting to 10.2.0.2:3543...\nLine #\t\"n\"\n1.\t\"42\"\t\n");

    // Keep-alive timing is TCP's (5 s idle, 5 s apart, 5 probes), and no
    // packet is kept on the local subnet.
    Socket socket(SockAddr(AF_INET, 0x0A020002u, 3543));
    CHILD_CHECK(socket.Connect());
    CHILD_CHECK(GetOption(socket.Fd(), SOL_SOCKET, SO_DONTROUTE) == 0);
    for (int option : {TCP_KEEPIDLE, TCP_KEEPINTVL, TCP_KEEPCNT})
        CHILD_CHECK(GetOption(socket.Fd(), IPPROTO_TCP, option) == 5);
    return 0;
}

TEST(RoutedUnit, AnswersThroughARouterWithTcpKeepAlive)
{
#ifdef VTEST_EMULATOR
    GTEST_SKIP() << "under user-mode emulation: the simulator and vtest would run in namespaces the emulator "
                    "enters for them";
#endif
    std::string why = NamespacesUnavailableReason(CLONE_NEWNS | CLONE_NEWNET);
    if (!why.empty()) GTEST_SKIP() << why;
    EXPECT_EQ(RunInNamespaces(CLONE_NEWNS | CLONE_NEWNET, RoutedChecks, 60000), 0);
}

}  // namespace
