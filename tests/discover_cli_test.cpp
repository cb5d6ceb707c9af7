// discover and ipconfig end to end inside network namespaces made here: scripted and simulated units,
// routes and interfaces missing.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>

#include <cstring>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>

#include "NetUtils.h"
#include "scripted_server.h"
#include "sim_lan.h"
#include "wait.h"

namespace {

std::string Brief(const char* mac, const char* address, const char* hwid, const char* host, const char* version,
                  const char* master, int indent = 0)
{
    char line[300];
    snprintf(line, sizeof line, "%*s%-17s %-15s %6s %-16s %-10s %s\n", indent, "", mac, address, hwid, host, version,
             master);
    return line;
}

std::string Unit(const char* mac, const char* master) { return std::string("mac=") + mac + "\nmasterMac=" + master; }

std::vector<std::string> Words(const std::string& text)
{
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}

TEST(DiscoverCli, LayoutsOfScriptedAnswers)
{
    SKIP_WITHOUT_NETNS();
    SimLan lan({"0"});
    ASSERT_TRUE(lan.Up()) << lan.Error();
    const char* u = "192.168.77.2";
    const std::string hello("Hello", 6), big = "mac=01\nbig=" + std::string(65507 - 11, 'x');
    const struct { const char* label; const char* args; std::vector<std::string> answers;
                   std::string out, request = "Hello" + std::string(1, '\0'); int status = 0; std::string err = ""; } cases[] = {
        {"brief lines in MAC order, duplicates kept", "discover",
         {"mac=02:00:00:00:00:02\nhwid=7\nhostname=b\nversion=1.0\nmasterMac=02:00:00:00:00:01",
          "mac=02:00:00:00:00:01\nhostname=a", "mac=02:00:00:00:00:01\nhostname=a2\nversion="},
         Brief("02:00:00:00:00:01", u, "-", "a", "-", "-") + Brief("02:00:00:00:00:01", u, "-", "a2", "-", "-") +
             Brief("02:00:00:00:00:02", u, "7", "b", "1.0", "02:00:00:00:00:01")},
        {"full: every key, odd bytes escaped, the single-line form", "discover full",
         {"mac=01\nhost\\name=a\tb\x7f\xc3\xa9\r", "mac:02 hwid:9 ipv4:10.1.1.1"},
         Brief("01", u, "-", "-", "-", "-") + "    host\\\\name=a\\x09b\\x7f\xc3\xa9\\x0d\n    mac=01\n" +
             "    remote=192.168.77.2:3543\n" + Brief("02", u, "9", "-", "-", "-") +
             "    hwid=9\n    ipv4=10.1.1.1\n    mac=02\n    master=?\n    remote=192.168.77.2:3543\n"},
        {"tree: slaves under the first of their master's MAC, cycles last", "discover tree",
         {Unit("a1", ""), Unit("a2", "A1"), Unit("a3", "a2"), Unit("a4", "a5"), Unit("a5", "a4"), Unit("a6", "a6"),
          Unit("a7", "a99"), Unit("a8", "A9"), Unit("a9", ""), Unit("a2", "a1") + "\nhostname=dup"},
         Brief("a1", u, "-", "-", "-", "-") + Brief("a2", u, "-", "-", "-", "A1", 4) +
             Brief("a3", u, "-", "-", "-", "a2", 8) + Brief("a2", u, "-", "dup", "-", "a1", 4) +
             Brief("a6", u, "-", "-", "-", "a6") + Brief("a7", u, "-", "-", "-", "a99") +
             Brief("a9", u, "-", "-", "-", "-") + Brief("a8", u, "-", "-", "-", "A9", 4) +
             Brief("a4", u, "-", "-", "-", "a5") + Brief("a5", u, "-", "-", "-", "a4", 4)},
        {"json: every key, escapes, invalid UTF-8", "discover --json", {"mac=01\nname=q\"b\\s\x01\xff\xc3\xa9", "mac=02"},
         "[\n  {\"mac\": \"01\", \"name\": \"q\\\"b\\\\s\\u0001\\ufffd\xc3\xa9\", \"remote\": \"192.168.77.2:3543\"},\n"
         "  {\"mac\": \"02\", \"remote\": \"192.168.77.2:3543\"}\n]\n"},
        {"json when none answered", "discover --json", {}, "[]\n", hello, 1, "No unit answered within 0.3 s.\n"},
        {"an answer of 65,507 bytes", "discover full", {big},
         Brief("01", u, "-", "-", "-", "-") + "    big=" + big.substr(11) + "\n    mac=01\n    remote=192.168.77.2:3543\n"},
        {"ipconfig sends the library's MAC text, - as no DNS",
         "ipconfig mac 0A:0B:0C:0D:0E:0F 10.1.2.3 255.255.0.0 10.1.0.1 - temporary --no-confirm", {}, "",
         "SetIPv4 mac:0a:0b:0c:0d:0e:0f 10.1.2.3 255.255.0.0 10.1.0.1 temporary" + std::string(1, '\0')},
    };
    for (const auto& c : cases) {
        Script answers;
        for (const std::string& answer : c.answers) answers.push_back(Send(answer));
        std::unique_ptr<ScriptedDatagramPeer> unit;
        ASSERT_TRUE(RunInNetns(lan.Units(), [&] { unit.reset(new ScriptedDatagramPeer({answers}, 3543)); }));
        RunResult r = lan.Vtest(Words(c.args + std::string(" --timeout=0.3")));
        EXPECT_EQ(r.out, c.out) << c.label;
        EXPECT_EQ(r.status, c.status) << c.label;
        EXPECT_EQ(r.err, c.err) << c.label;
        WaitUntil([&] { return !unit->Received().empty(); }, ScaledMs(2000));
        EXPECT_EQ(unit->Received(), std::vector<std::string>{c.request}) << c.label;
    }
}

TEST(DiscoverCli, SendFailuresNameTheirCause)
{
    SKIP_WITHOUT_NETNS();
    const std::vector<std::string> noRaw = {"/usr/bin/setpriv", "--inh-caps=-net_raw", "--bounding-set=-net_raw"}, caps;
    const std::string noEth0 = ": cannot send: no route for the broadcast, and no interface \"eth0\" for its hand-built "
                               "frame (--interface=NAME names another).\n";
    // up: the LAN's options; errEnd: the end of standard error; lines: of standard output
    const struct { const char* label; std::string up; const std::vector<std::string>& prefix; bool eth0Down;
                   std::string args; int status; std::string errEnd; size_t lines = 0; } cases[] = {
        {"frame without CAP_NET_RAW", "0 --no-route", noRaw, false, "discover", 2,
         "discover: cannot send: no route for the broadcast, and its hand-built frame needs CAP_NET_RAW.\n"},
        {"frame without eth0", "0 --no-route --client-if=enp3s0", caps, false,
         "ipconfig mac 02:00:00:00:00:01 1.2.3.4 255.0.0.0 1.2.3.1 -", 2, "ipconfig" + noEth0},
        {"neither eth0 nor CAP_NET_RAW", "0 --no-route --client-if=enp3s0", noRaw, false, "discover", 2, "discover" + noEth0},
        {"--interface missing", "0", caps, false, "discover --interface=eth9", 2, "discover: cannot send: no interface \"eth9\".\n"},
        {"--interface down", "0", caps, true, "discover --interface=eth0", 2, "discover: cannot send: interface \"eth0\" is down.\n"},
        {"--interface up needs no route", "2 --no-route", noRaw, false, "discover --interface=eth0 --timeout=0.5", 0, "", 2},
    };
    for (const auto& c : cases) {
        SimLan lan(Words(c.up));
        ASSERT_TRUE(lan.Up()) << lan.Error();
        EXPECT_EQ(c.eth0Down ? RunProgram({"/sbin/ip", "-n", lan.Client(), "link", "set", "eth0", "down"}).status : 0, 0);
        RunResult r = lan.Vtest(Words(c.args), c.prefix);
        EXPECT_EQ(r.status, c.status) << c.label;
        EXPECT_EQ(r.err.substr(r.err.size() - std::min(r.err.size(), c.errEnd.size())), c.errEnd) << c.label << r.err;
        EXPECT_EQ(static_cast<size_t>(std::count(r.out.begin(), r.out.end(), '\n')), c.lines) << c.label;
    }
}

// Without a route the request goes out as a hand-built frame from the socket's own port; answers come back.
TEST(DiscoverCli, WithoutRouteTheHandBuiltFrameCarriesTheRequest)
{
    SKIP_WITHOUT_NETNS();
    SKIP_IF_EMULATED(EmulationGap::PacketSockets);
    SimLan lan({"3", "--no-route"});
    ASSERT_TRUE(lan.Up()) << lan.Error();
    int capture = -1;
    ASSERT_TRUE(RunInNetns(lan.Units(), [&] {
        capture = socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, htons(ETH_P_IP));
        sockaddr_ll at = {AF_PACKET, htons(ETH_P_IP), static_cast<int>(if_nametoindex("lan0")), 0, 0, 0, {}};
        EXPECT_EQ(bind(capture, reinterpret_cast<sockaddr*>(&at), sizeof at), 0);
    }));
    RunResult r = lan.Vtest({"discover", "--timeout=0.5"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 3) << r.out;
    std::smatch port;
    std::string log = lan.SimLog();
    ASSERT_TRUE(std::regex_search(log, port, std::regex("Hello from 192\\.168\\.77\\.1:(\\d+)"))) << log;
    const int srcPort = std::stoi(port[1]);
    // IPv4 header (checksum zeroed) with don't-fragment and TTL 64, then UDP to 3543 without checksum.
    const unsigned char header[] = {0x45, 0, 0, 34, 0, 0, 0x40, 0, 64, 17, 0, 0, 192, 168, 77, 1, 255, 255, 255, 255,
                                    static_cast<unsigned char>(srcPort >> 8), static_cast<unsigned char>(srcPort & 0xff),
                                    0x0d, 0xd7, 0, 14, 0, 0, 'H', 'e', 'l', 'l', 'o', 0};
    unsigned char frame[2048];
    ssize_t n;  // the first frame to 3543 of the right size
    while ((n = recv(capture, frame, sizeof frame, 0)) > 0 && (n != sizeof header || frame[22] != 0x0d || frame[23] != 0xd7)) {}
    close(capture);
    ASSERT_EQ(n, static_cast<ssize_t>(sizeof header));
    EXPECT_EQ(ipv4_checksum(frame, 20), 0);
    frame[10] = frame[11] = 0;
    EXPECT_EQ(memcmp(frame, header, sizeof header), 0);
}

// A thousand units answer one "Hello" at once, none lost; then some move.
TEST(DiscoverCli, AThousandUnitsAndIpconfig)
{
    SKIP_WITHOUT_NETNS();
    SimLan lan({"1000", "--", "--setipv4-delay=1"});
    ASSERT_TRUE(lan.Up()) << lan.Error();
    RunResult all = lan.Vtest({"discover", "--json"});
    EXPECT_EQ(all.status, 0) << all.err;
    std::set<std::string> macs;  // the order is the library's, pinned there
    std::regex mac("\"mac\": \"(02:56:54:00:0[0-3]:[0-9a-f]{2})\"");
    for (auto it = std::sregex_iterator(all.out.begin(), all.out.end(), mac); it != std::sregex_iterator(); ++it)
        macs.insert((*it)[1]);
    EXPECT_EQ(macs.size(), 1000u);
    SKIP_IF_EMULATED(EmulationGap::Transparent);  // moved units answer from their new addresses
    // Each moves to the gateway 10.9.9.1.
    const struct { const char* label; std::string target, option; int status; std::string out, err; } cases[] = {
        {"taken late, within the time-out", "02:56:54:00:00:0A 10.9.9.9", "--timeout=6", 0,
         Brief("02:56:54:00:00:0a", "10.9.9.9", "110", "unit-0010", "3.2.0", "02:56:54:00:00:01"), ""},
        {"taken after the time-out", "02:56:54:00:00:0b 10.9.9.8", "--timeout=0.5", 1, "",
         "ipconfig: mac 02:56:54:00:00:0b did not answer from 10.9.9.8 within 0.5 s (last answered from 10.77.0.13).\n"},
        {"never taken", "02:56:54:00:99:99 10.9.9.7", "--timeout=0.5", 1, "",
         "ipconfig: mac 02:56:54:00:99:99 did not answer from 10.9.9.7 within 0.5 s (no answer from it).\n"},
        {"not confirmed when asked not to", "02:56:54:00:00:0c 10.9.9.6", "--no-confirm", 0, "", ""},
    };
    for (const auto& c : cases) {
        std::vector<std::string> args = Words("ipconfig mac " + c.target + " 255.255.255.0 10.9.9.1 - " + c.option);
        RunResult r = lan.Vtest(args);
        EXPECT_EQ(r.status, c.status) << c.label;
        EXPECT_EQ(r.out, c.out) << c.label;
        EXPECT_EQ(r.err, c.err) << c.label;
    }
    // The unconfirmed request reaches the simulator's log after vtest has gone.
    const char* moved = "SetIPv4: unit 10.77.0.14 moves to 10.9.9.6 in 1 s.";
    EXPECT_TRUE(WaitUntil([&] { return lan.SimLog().find(moved) != std::string::npos; }, ScaledMs(5000))) << lan.SimLog();
}

TEST(DiscoverCli, UsageErrorsSendNothing)
{
    SKIP_WITHOUT_NETNS();
    const std::string discover = std::string("Usage: ") + VTEST_BINARY +
                                 " discover [full] [tree] [--json] [--timeout=<seconds>] [--interface=<name>]\n";
    const std::string ipconfig = std::string("Usage: ") + VTEST_BINARY +
                                 " ipconfig <addrType> <addr> <ipv4Address> <ipv4Mask> <ipv4Gateway> <dnsList> "
                                 "[temporary] [--no-confirm] [--timeout=<seconds>] [--interface=<name>]\n";
    const std::string mac = "ipconfig mac 02:00:00:00:00:01 ", ok = mac + "10.0.0.5 255.0.0.0 10.0.0.1 - ";
    const std::pair<std::string, std::string> cases[] = {
        {"discover tree --json", "discover: tree and --json do not go together.\n" + discover},
        {"discover --timeout=0.05", "discover: invalid time-out '0.05' (seconds, 0.1 to 60).\n" + discover},
        {mac + "10.0.0.5 255.0.0.0", "ipconfig: missing parameter: ipv4Gateway.\n" + ipconfig},
        {"ipconfig eth 02:00:00:00:00:01 10.0.0.5 255.0.0.0 10.0.0.1 -", "ipconfig: unknown address type 'eth'.\n" + ipconfig},
        {mac + "10.0.0.500 255.0.0.0 10.0.0.1 -", "ipconfig: ipv4Address must be a dotted quad, not '10.0.0.500'.\n" + ipconfig},
        {ok + "permanent", "ipconfig: unexpected argument 'permanent'.\n" + ipconfig},
        {ok + "--interface=abcdefghijklmnop", "ipconfig: invalid interface name 'abcdefghijklmnop' (1 to 15 characters).\n" + ipconfig},
    };
    for (const auto& [args, err] : cases) {
        std::vector<std::string> argv = {"/usr/bin/unshare", "-n"};
        for (const std::string& word : TargetArgv(VTEST_BINARY, Words(args))) argv.push_back(word);
        RunResult r = RunProgram(argv);
        EXPECT_EQ(r.status, 255) << args;
        EXPECT_EQ(r.err, err) << args;
    }
}

}  // namespace
