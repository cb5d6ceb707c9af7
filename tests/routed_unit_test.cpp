// A unit behind a router: client and unit each in a network namespace, on two subnets routed between.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include "process.h"
#include "sim_runner.h"

namespace {

// n1 (client) on 10.1.0.0/24, n2 (unit) on 10.2.0.0/24, named on a private tmpfs so nothing stays behind.
const char kNetworks[] =
    "mkdir -p /run/netns && mount -t tmpfs vt /run/netns && echo 1 > /proc/sys/net/ipv4/ip_forward"
    " && for i in 1 2; do ip netns add n$i && ip link add r$i type veth peer name e$i netns n$i"
    " && ip addr add 10.$i.0.1/24 dev r$i && ip link set r$i up && ip -n n$i addr add 10.$i.0.2/24 dev e$i"
    " && ip -n n$i link set e$i up && ip -n n$i route add default via 10.$i.0.1 || exit 1; done";

// The descriptor stays open: the child that holds it exits at the end of the checks.
bool Enter(const char* path) { int fd = open(path, O_RDONLY | O_CLOEXEC); return fd >= 0 && !setns(fd, CLONE_NEWNET); }

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
    return 0;
}

// A connection that kept its packets on the local subnet (don't-route) would never reach the unit.
TEST(RoutedUnit, AnswersThroughARouter)
{
    if (std::string why = NamespacesUnavailableReason(CLONE_NEWNS | CLONE_NEWNET); !why.empty()) GTEST_SKIP() << why;
    EXPECT_EQ(RunInNamespaces(CLONE_NEWNS | CLONE_NEWNET, RoutedChecks, 60000), 0);
}

}  // namespace
