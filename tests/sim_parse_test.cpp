// Request lines are classified in sim_engine_test, through their answers.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include "ShellLine.h"
#include "SimOptions.h"

namespace {

TEST(LineAssembler, SplitsAtCrOrLfSkippingEmptyLinesInAnyChunking)
{
    const std::string input = "comment x\r\n\r\nSELECT 1;\nab\rabcdefghij\r\nz\n\v\x01\xff\nSELECT";  // last one unfinished
    const std::vector<std::string> expected = {"comment x", "SELECT 1;", "ab", "TOO-LONG", "z", "\v\x01\xff"};
    for (size_t chunk : {1, 2, 3, 7, 100}) {
        LineAssembler lines(9);
        std::vector<std::string> events;
        for (size_t at = 0; at < input.size();) {
            LineAssembler::Result r;
            at += lines.Feed(input.data() + at, std::min(input.size(), (at / chunk + 1) * chunk) - at, r);
            if (r != LineAssembler::kNeedMore) events.push_back(r == LineAssembler::kLine ? lines.Line() : "TOO-LONG");
        }
        EXPECT_EQ(expected, events) << chunk;
    }
}

// The listen address as parsed; "refused" when the parser refused the one argument and named it, else its error.
std::string Parsed(std::vector<std::string> args, SimOptions& o)
{
    args.insert(args.begin(), "vantor-sim");
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(&a[0]);
    std::string error;
    if (!sim_parse_options(static_cast<int>(argv.size()), argv.data(), o, error))
        return args.size() == 2 && error.find(args[1]) != std::string::npos ? "refused" : error;
    const SimListen& l = o.listen;
    if (l.family == AF_UNIX) return std::string("unix ") + l.un.sun_path;
    char text[INET6_ADDRSTRLEN] = "";
    const bool v6 = l.family == AF_INET6;
    inet_ntop(l.family, v6 ? static_cast<const void*>(&l.in6.sin6_addr) : &l.in4.sin_addr, text, sizeof text);
    return std::string(v6 ? "ipv6 " : "ipv4 ") + text + " " + std::to_string(ntohs(v6 ? l.in6.sin6_port : l.in4.sin_port));
}

// Ports are decimal 0..65535 without sign or leading zero; a refusal leaves the options as they were.
TEST(SimOptions, ParseStrictlyAndNameTheRefusedOption)
{
    SimOptions o;
    ASSERT_EQ("ipv4 127.0.0.1 3543", Parsed({"--db=/tmp/x.db", "--events=10000000", "--not-ready=2", "--replicas=3,2",
                                             "--replica-stall=3", "--max-clients=1"}, o));
    EXPECT_TRUE(o.db == "/tmp/x.db" && o.events == 10000000 && o.notReady == 2 && o.maxClients == 1);
    EXPECT_TRUE(o.replicas.enabled && o.replicas.count == 3 && o.replicas.lag == 2 && o.replicas.stall == 3);
    EXPECT_EQ("--replica-stall names no peer of --replicas", Parsed({"--replicas=2", "--replica-stall=3"}, o));
    const std::string bad[] = {"--listen=127.0.0.1", "--listen=127.0.0.1:", "--listen=127.0.0.1:65536",
        "--listen=127.0.0.1:+1", "--listen=127.0.0.1:01", "--listen=127.0.0.1: 1", "--listen=127.0.0.1:1x",
        "--listen=300.1.1.1:1", "--listen=::1:80", "--listen=::1|", "--listen=host:80", "--listen=",
        "--listen=/tmp/" + std::string(120, 'p'), "--events=10000001", "--events=-1", "--not-ready=1000001",
        "--max-clients=0", "--max-clients=4097", "--db=", "--verbose", "--events=1e3", "--replicas=3,",
        "--replicas=,2", "--replicas=4097", "--replicas=1,-1", "--replica-stall=0", "--version-dir="};
    for (const std::string& arg : bad) EXPECT_EQ("refused", Parsed({arg}, o)) << arg;
    EXPECT_EQ(1, o.maxClients);
    const std::pair<std::string, std::string> listens[] = {
        {"127.0.0.1:3543", "ipv4 127.0.0.1 3543"}, {"0.0.0.0:0", "ipv4 0.0.0.0 0"}, {"::1|65535", "ipv6 ::1 65535"},
        {"/tmp/sim.sock", "unix /tmp/sim.sock"}, {"./sim.sock", "unix ./sim.sock"}};
    for (const auto& [text, parsed] : listens) EXPECT_EQ(parsed, Parsed({"--listen=" + text}, o)) << text;
}

}  // namespace
