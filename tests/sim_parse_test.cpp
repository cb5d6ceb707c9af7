// The simulator's parsers of outside input: request line assembly and the command-line options (requests are
// classified in sim_engine_test, through their answers).
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include "ShellLine.h"
#include "SimOptions.h"

namespace {

TEST(LineAssembler, SplitsAtCrOrLfSkippingEmptyLinesInAnyChunking)
{
    const std::string input = "comment x\r\n\r\nSELECT 1;\nab\rabcdefghij\r\nz\n\v\x01\xff\nSELECT";  // last one unfinished
    const std::vector<std::string> expected = {"L:comment x", "L:SELECT 1;", "L:ab", "TOO-LONG", "L:z", "L:\v\x01\xff"};
    for (size_t chunk : {1, 2, 3, 7, 100}) {
        LineAssembler lines(9);
        std::vector<std::string> events;  // "L:<line>" or "TOO-LONG"
        for (size_t at = 0; at < input.size();) {
            LineAssembler::Result r;
            at += lines.Feed(input.data() + at, std::min(input.size(), (at / chunk + 1) * chunk) - at, r);
            if (r != LineAssembler::kNeedMore) events.push_back(r == LineAssembler::kLine ? "L:" + lines.Line() : "TOO-LONG");
        }
        EXPECT_EQ(expected, events) << chunk;
    }
}

std::string ListenText(const SimListen& l)
{
    char text[INET6_ADDRSTRLEN] = "";
    if (l.family == AF_UNIX) return std::string("unix ") + l.un.sun_path;
    bool v6 = l.family == AF_INET6;
    inet_ntop(l.family, v6 ? static_cast<const void*>(&l.in6.sin6_addr) : &l.in4.sin_addr, text, sizeof text);
    return std::string(v6 ? "ipv6 " : "ipv4 ") + text + " " + std::to_string(ntohs(v6 ? l.in6.sin6_port : l.in4.sin_port));
}

TEST(SimOptions, ParsesListenAddressesStrictly)
{
    const std::pair<std::string, std::string> cases[] = {  // "" for refused
        {"127.0.0.1:3543", "ipv4 127.0.0.1 3543"}, {"0.0.0.0:0", "ipv4 0.0.0.0 0"}, {"::1|65535", "ipv6 ::1 65535"},
        {"/tmp/sim.sock", "unix /tmp/sim.sock"}, {"./sim.sock", "unix ./sim.sock"}, {"127.0.0.1", ""},
        {"127.0.0.1:", ""}, {"127.0.0.1:65536", ""}, {"127.0.0.1:+1", ""}, {"127.0.0.1:01", ""}, {"127.0.0.1: 1", ""},
        {"127.0.0.1:1x", ""}, {"300.1.1.1:1", ""}, {"::1:80", ""}, {"::1|", ""}, {"host:80", ""}, {"", ""},
        {"/tmp/" + std::string(120, 'p'), ""},
    };
    for (const auto& [text, parsed] : cases) {
        SimListen l;
        l.in4.sin_port = 9999;
        std::string got = sim_parse_listen(text, l) ? ListenText(l) : "refused, port " + std::to_string(l.in4.sin_port);
        EXPECT_EQ(parsed.empty() ? "refused, port 9999" : parsed, got) << text;
    }
}

TEST(SimOptions, TakesValuesInRangeAndNamesTheRefusedOption)
{
    SimOptions o;
    std::string error;
    const auto parse = [&](std::vector<std::string> args) {
        args.insert(args.begin(), "vantor-sim");
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(&a[0]);
        return sim_parse_options(static_cast<int>(argv.size()), argv.data(), o, error);
    };
    ASSERT_TRUE(parse({}));
    EXPECT_EQ("ipv4 127.0.0.1 3543", ListenText(o.listen));
    ASSERT_TRUE(parse({"--db=/tmp/x.db", "--events=10000000", "--not-ready=2", "--replicas=3,2", "--replica-stall=3",
                       "--max-clients=1"}));
    EXPECT_TRUE(o.db == "/tmp/x.db" && o.events == 10000000 && o.notReady == 2 && o.maxClients == 1);
    EXPECT_TRUE(o.replicas.enabled && o.replicas.count == 3 && o.replicas.lag == 2 && o.replicas.stall == 3);
    EXPECT_FALSE(parse({"--replicas=2", "--replica-stall=3"}));
    for (const char* bad : {"--events=10000001", "--events=-1", "--not-ready=1000001", "--max-clients=0",
                            "--max-clients=4097", "--db=", "--listen=x", "--verbose", "--events=1e3",
                            "--replicas=3,", "--replicas=,2", "--replicas=4097", "--replicas=1,-1",
                            "--replica-stall=0", "--version-dir="}) {
        EXPECT_FALSE(parse({bad})) << bad;
        EXPECT_EQ(1, o.maxClients) << bad;
        EXPECT_NE(std::string::npos, error.find(bad)) << error;
    }
}

}  // namespace
