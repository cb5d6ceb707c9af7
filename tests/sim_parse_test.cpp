// Request lines are classified in sim_engine_test, through their answers.
#include <gtest/gtest.h>

#include "ShellLine.h"
#include "SimOptions.h"
#include "SockAddr.h"

namespace {

TEST(LineAssembler, SplitsAtCrOrLfSkippingEmptyLinesInAnyChunking)
{
    const std::string input = "comment x\r\n\r\nSELECT 1;\nab\rabcdefghij\r\nz\n\v\x01\xff\nSELECT";  // last unended
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

// The listen address as parsed, written as --listen takes it; "refused" when the parser refused the one argument
// and named it, else its error.
std::string Parsed(std::vector<std::string> args, SimOptions& o)
{
    args.insert(args.begin(), "vantor-sim");
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(&a[0]);
    std::string error;
    if (!sim_parse_options(static_cast<int>(argv.size()), argv.data(), o, error))
        return args.size() == 2 && error.find(args[1]) != std::string::npos ? "refused" : error;
    const SimListen& l = o.listen;
    char text[SockAddr::m_strLen];
    const SockAddr addr = l.family == AF_UNIX ? SockAddr(l.un) : l.family == AF_INET6 ? SockAddr(l.in6)
                                                                                      : SockAddr(l.in4);
    return addr.Str(text, true);
}

// Ports are decimal 0..65535 without sign or leading zero; a refusal leaves the options as they were.
TEST(SimOptions, ParseStrictlyAndNameTheRefusedOption)
{
    SimOptions o;
    ASSERT_EQ("127.0.0.1:3543", Parsed({"--db=/tmp/x.db", "--events=10000000", "--not-ready=2", "--replicas=3,2",
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
    for (const std::string listen : {"127.0.0.1:3543", "0.0.0.0:0", "::0001|65535", "/tmp/sim.sock", "./sim.sock"})
        EXPECT_EQ(listen, Parsed({"--listen=" + listen}, o));
}

}  // namespace
