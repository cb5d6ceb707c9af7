// A unit behind a router: the client and the unit each in a network
// namespace of their own, on two subnets the test's namespace routes between.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <unistd.h>

#include "Socket.h"
#include "process.h"
#include "sim_runner.h"

namespace {

// n1 (the client) on 10.1.0.0/24, n2 (the unit) on 10.2.0.0/24; their names
// live on a tmpfs of the private mount namespace, so nothing stays behind.
const char kNetworks[] =
    "mkdir -p /run/netns && mount -t tmpfs vt /run/netns && echo 1 > /proc/sys/net/ipv4/ip_forward"
    " && for i in 1 2; do ip netns add n$i && ip link add r$i type veth peer name e$i netns n$i"
    " && ip addr add 10.$i.0.1/24 dev r$i && ip link set r$i up && ip -n n$i addr add 10.$i.0.2/24 dev e$i"
    " && ip -n n$i link set e$i up && ip -n n$i route add default via 10.$i.0.1 || exit 1; done";

bool Enter(const char* path)
{
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    bool ok = fd >= 0 && setns(fd, CLONE_NEWNET) == 0;
    if (fd >= 0) close(fd);
    return ok;
}

int Option(int fd, int level, int name)
{
    int value = -1;
    socklen_t len = sizeof value;
    return getsockopt(fd, level, name, &value, &len) == 0 ? value : -1;
}

int RoutedChecks()
{
    if (system(kNetworks) != 0) return 2;
    // Held open, the router's namespace (and its links) outlives our leaving it.
    int router = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    CHILD_CHECK(router >= 0 && Enter("/run/netns/n2"));
    SimRunner sim(SimRunner::Options{false, 0, 0, {"--listen=10.2.0.2:3543"}});
    CHILD_CHECK(sim.Running() && Enter("/run/netns/n1"));
    RunResult r = RunProgram(TargetArgv(VTEST_BINARY, {"sql", "--server=10.2.0.2", "SELECT 42 AS n;"}), "", 30000);
    CHILD_CHECK(r.status == 0 && r.out == "Connecting to 10.2.0.2:3543...\nLine #\t\"n\"\n1.\t\"42\"\t\n");
    // No packet kept on the local subnet; keep-alive timing is TCP's 5/5/5.
    Socket socket(SockAddr(AF_INET, 0x0A020002u, 3543));
    CHILD_CHECK(socket.Connect() && Option(socket.Fd(), SOL_SOCKET, SO_DONTROUTE) == 0);
    for (int name : {TCP_KEEPIDLE, TCP_KEEPINTVL, TCP_KEEPCNT})
        CHILD_CHECK(Option(socket.Fd(), IPPROTO_TCP, name) == 5);
    return 0;
}

TEST(RoutedUnit, AnswersThroughARouterWithTcpKeepAlive)
{
    std::string why = NamespacesUnavailableReason(CLONE_NEWNS | CLONE_NEWNET);
    if (!why.empty()) GTEST_SKIP() << why;
    EXPECT_EQ(RunInNamespaces(CLONE_NEWNS | CLONE_NEWNET, RoutedChecks, 60000), 0);
}

}  // namespace
