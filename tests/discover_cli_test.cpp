// discover and ipconfig end to end inside network namespaces made here: scripted and simulated units,
// routes and interfaces missing.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>

#include <cstring>
#include <iterator>
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

std::vector<std::string> Words(const std::string& text)
{
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}

size_t Lines(const std::string& text) { return static_cast<size_t>(std::count(text.begin(), text.end(), '\n')); }

// Each row against units that answer "Hello" with its answers; a refused command line sends nothing.
TEST(DiscoverCli, LayoutsOfScriptedAnswersAndRefusedCommandLines)
{
    SKIP_WITHOUT_NETNS();
    SimLan lan({"0"});
    ASSERT_TRUE(lan.Up()) << lan.Error();
    const char* u = "192.168.77.2";
    const std::string big = "mac=02\nbig=" + std::string(65507 - 11, 'x'), remote = "    remote=192.168.77.2:3543\n";
    // A tree line of a unit with a MAC and a master only.
    auto t = [u](const char* mac, const char* master, int in = 0) { return Brief(mac, u, "-", "-", "-", master, in); };
    auto unit = [](const char* mac, const char* master) { return std::string("mac=") + mac + "\nmasterMac=" + master; };
    const std::string discover = "Usage: " VTEST_BINARY " discover [full] [tree] [--json] [--timeout=<seconds>] "
                                 "[--interface=<name>]\n";
    const std::string ipconfig = "Usage: " VTEST_BINARY " ipconfig <addrType> <addr> <ipv4Address> <ipv4Mask> "
                                 "<ipv4Gateway> <dnsList> [temporary] [--no-confirm] [--timeout=<seconds>] "
                                 "[--interface=<name>]\n";
    struct Case { std::string label, args; std::vector<std::string> answers; std::string out,
                  request = "Hello" + std::string(1, '\0'); int status = 0; std::string err = ""; };
    std::vector<Case> cases = {
        {"tree: slaves under the first of their master's MAC, cycles last; the brief columns", "discover tree",
         {unit("a1", "") + "\nhwid=7\nhostname=b\nversion=1.0", unit("a2", "A1"), unit("a3", "a2"), unit("a4", "a5"),
          unit("a5", "a4"), unit("a6", "a6"), unit("a7", "a99"), unit("a8", "A9"), unit("a9", ""),
          unit("a2", "a1") + "\nhostname=dup\nversion="},
         Brief("a1", u, "7", "b", "1.0", "-") + t("a2", "A1", 4) + t("a3", "a2", 8) +
             Brief("a2", u, "-", "dup", "-", "a1", 4) + t("a6", "a6") + t("a7", "a99") + t("a9", "-") +
             t("a8", "A9", 4) + t("a4", "a5") + t("a5", "a4", 4)},
        {"full: every key, odd bytes escaped; an answer of 65,507 bytes", "discover full",
         {"mac=01\nhost\\name=a\tb\x7f\xc3\xa9\r", big},
         t("01", "-") + "    host\\\\name=a\\x09b\\x7f\xc3\xa9\\x0d\n    mac=01\n" + remote + t("02", "-") +
             "    big=" + big.substr(11) + "\n    mac=02\n" + remote},
        {"json: every key, escapes, invalid UTF-8", "discover --json",
         {"mac=01\nname=q\"b\\s\x01\xff\xc3\xa9", "mac=02"},
         "[\n  {\"mac\": \"01\", \"name\": \"q\\\"b\\\\s\\u0001\\ufffd\xc3\xa9\", \"remote\": \"192.168.77.2:3543\"},\n"
         "  {\"mac\": \"02\", \"remote\": \"192.168.77.2:3543\"}\n]\n"},
        {"json when none answered", "discover --json", {}, "[]\n", "Hello" + std::string(1, '\0'), 1,
         "No unit answered within 0.3 s.\n"},
        {"ipconfig sends the library's MAC text, - as no DNS",
         "ipconfig mac 0A:0B:0C:0D:0E:0F 10.1.2.3 255.255.0.0 10.1.0.1 - temporary --no-confirm", {}, "",
         "SetIPv4 mac:0a:0b:0c:0d:0e:0f 10.1.2.3 255.255.0.0 10.1.0.1 temporary" + std::string(1, '\0')},
    };
    // Refused command lines: the reason, then the command's usage; nothing is sent.
    const std::string mac = "ipconfig mac 02:00:00:00:00:01 ", ok = mac + "10.0.0.5 255.0.0.0 10.0.0.1 - ";
    const std::pair<std::string, std::string> refused[] = {
        {"discover tree --json", "tree and --json do not go together"},
        {"discover --timeout=0.05", "invalid time-out '0.05' (seconds, 0.1 to 60)"},
        {mac + "10.0.0.5 255.0.0.0", "missing parameter: ipv4Gateway"},
        {"ipconfig eth 02:00:00:00:00:01 10.0.0.5 255.0.0.0 10.0.0.1 -", "unknown address type 'eth'"},
        {mac + "10.0.0.500 255.0.0.0 10.0.0.1 -", "ipv4Address must be a dotted quad, not '10.0.0.500'"},
        {ok + "permanent", "unexpected argument 'permanent'"},
        {ok + "--interface=abcdefghijklmnop", "invalid interface name 'abcdefghijklmnop' (1 to 15 characters)"},
    };
    for (const auto& [args, why] : refused) {
        const std::string command = Words(args)[0];
        const std::string& usage = command == "discover" ? discover : ipconfig;
        cases.push_back({"refused", args, {}, "", "", 255, command + ": " + why + ".\n" + usage});
    }
    for (const auto& c : cases) {
        Script answers;
        for (const std::string& answer : c.answers) answers.push_back(Send(answer));
        std::unique_ptr<ScriptedDatagramPeer> unit;
        ASSERT_TRUE(RunInNetns(lan.Units(), [&] { unit.reset(new ScriptedDatagramPeer({answers}, 3543)); }));
        RunResult r = lan.Vtest(Words(c.args + " --timeout=0.3"));
        EXPECT_EQ(r.out, c.out) << c.label << ": " << c.args;
        EXPECT_EQ(r.status, c.status) << c.label << ": " << c.args;
        EXPECT_EQ(r.err, c.err) << c.label << ": " << c.args;
        if (!c.request.empty()) WaitUntil([&] { return !unit->Received().empty(); }, ScaledMs(2000));
        EXPECT_EQ(unit->Received(), std::vector<std::string>(c.request.empty() ? 0 : 1, c.request)) << c.label;
    }
}

TEST(DiscoverCli, SendFailuresNameTheirCause)
{
    SKIP_WITHOUT_NETNS();
    const std::vector<std::string> noRaw = {"/usr/bin/setpriv", "--inh-caps=-net_raw", "--bounding-set=-net_raw"}, caps,
                                   down = InShell("/sbin/ip link set eth0 down && exec \"$@\"", {});
    // up: the LAN's options
    const struct { const char* label; std::string up; const std::vector<std::string>& prefix; std::string args;
                   int status; std::string err; } cases[] = {
        {"frame without CAP_NET_RAW", "0 --no-route", noRaw, "discover", 2,
         "discover: cannot send: no route for the broadcast, and its hand-built frame needs CAP_NET_RAW.\n"},
        {"no eth0 is told before no CAP_NET_RAW", "0 --no-route --client-if=enp3s0", noRaw,
         "ipconfig mac 02:00:00:00:00:01 1.2.3.4 255.0.0.0 1.2.3.1 -", 2, "ipconfig: cannot send: no route for the "
         "broadcast, and no interface \"eth0\" for its hand-built frame (--interface=NAME names another).\n"},
        {"missing", "0", caps, "discover --interface=eth9", 2, "discover: cannot send: no interface \"eth9\".\n"},
        {"down", "0", down, "discover --interface=eth0", 2, "discover: cannot send: interface \"eth0\" is down.\n"},
        {"--interface up needs no route", "2 --no-route", noRaw, "discover --interface=eth0 --timeout=0.5", 0, ""},
    };
    for (const auto& c : cases) {
        SimLan lan(Words(c.up));
        ASSERT_TRUE(lan.Up()) << lan.Error();
        RunResult r = lan.Vtest(Words(c.args), c.prefix);
        EXPECT_EQ(r.status, c.status) << c.label << ": " << c.args;
        EXPECT_EQ(OperatorErrors(r.err), c.err) << c.label << ": " << c.args;
    }
}

// Without a route the request goes out as a hand-built frame from the socket's own port: the answers come back.
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
    EXPECT_EQ(Lines(r.out), 3u) << r.out << r.err;
    // IPv4 header (checksum zeroed) with don't-fragment and TTL 64, then UDP (source port zeroed) to 3543 without
    // checksum.
    const unsigned char header[] = {0x45, 0, 0, 34, 0, 0, 0x40, 0, 64, 17, 0, 0, 192, 168, 77, 1, 255, 255, 255, 255,
                                    0, 0, 0x0d, 0xd7, 0, 14, 0, 0, 'H', 'e', 'l', 'l', 'o', 0};
    unsigned char frame[2048];
    ssize_t n;  // the first frame to 3543 of the right size
    while ((n = recv(capture, frame, sizeof frame, 0)) > 0 && (n != sizeof header || frame[22] != 0x0d || frame[23] != 0xd7)) {}
    close(capture);
    ASSERT_EQ(n, static_cast<ssize_t>(sizeof header));
    EXPECT_EQ(ipv4_checksum(frame, 20), 0);
    frame[10] = frame[11] = frame[20] = frame[21] = 0;
    EXPECT_EQ(memcmp(frame, header, sizeof header), 0);
}

// A thousand units answer one "Hello" at once, none lost; then some move.
TEST(DiscoverCli, AThousandUnitsAndIpconfig)
{
    SKIP_WITHOUT_NETNS();
    SimLan lan({"1000", "--", "--setipv4-delay=1"});
    ASSERT_TRUE(lan.Up()) << lan.Error();
    RunResult all = lan.Vtest({"discover"});
    EXPECT_EQ(Lines(all.out), 1000u) << all.err;
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
        RunResult r = lan.Vtest(Words("ipconfig mac " + c.target + " 255.255.255.0 10.9.9.1 - " + c.option));
        EXPECT_EQ(r.status, c.status) << c.label;
        EXPECT_EQ(r.out, c.out) << c.label;
        EXPECT_EQ(r.err, c.err) << c.label;
    }
    // The unconfirmed request reaches the simulator's log after vtest has gone.
    const char* moved = "SetIPv4: unit 10.77.0.14 moves to 10.9.9.6 in 1 s.";
    EXPECT_TRUE(WaitUntil([&] { return lan.SimLog().find(moved) != std::string::npos; }, ScaledMs(5000))) << lan.SimLog();
}

}  // namespace
