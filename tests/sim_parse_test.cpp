// The simulator's parsers of outside input: request line assembly, request
// classification and the command-line options.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include "MonitorHub.h"
#include "ShellLine.h"
#include "SimOptions.h"

namespace {

// Feeds `input` in pieces of `chunk` bytes; each event becomes "L:<line>" or "TOO-LONG".
std::vector<std::string> Assemble(const std::string& input, size_t max, size_t chunk)
{
    LineAssembler lines(max);
    std::vector<std::string> events;
    for (size_t at = 0; at < input.size(); at += std::min(chunk, input.size() - at)) {
        size_t piece = std::min(chunk, input.size() - at);
        for (size_t used = 0; used < piece;) {
            LineAssembler::Result result;
            used += lines.Feed(input.data() + at + used, piece - used, result);
            if (result != LineAssembler::kNeedMore) events.push_back(result == LineAssembler::kLine ? "L:" + lines.Line() : "TOO-LONG");
        }
    }
    return events;
}

TEST(LineAssembler, SplitsAtCrOrLfSkippingEmptyLinesInAnyChunking)
{
    const std::string input = "comment x\r\n\r\nSELECT 1;\nab\rabcdefghij\r\nz\n\v\x01\xff\nSELECT";  // last one unfinished
    const std::vector<std::string> expected = {"L:comment x", "L:SELECT 1;", "L:ab", "TOO-LONG", "L:z", "L:\v\x01\xff"};
    for (size_t chunk : {1, 2, 3, 7, 100}) EXPECT_EQ(expected, Assemble(input, 9, chunk)) << chunk;
}

// Kind, then escape and separator for shell, table and operation bits for monitor.
std::string Classified(const std::string& line)
{
    ShellCommand c;
    shell_parse_command(line, c);
    const char* kinds[] = {"sql", "comment", "shell", "header", "monitor", "quit", "invalid"};
    std::string text = kinds[c.kind];
    if (c.kind == ShellCommand::kShell) text += std::string(" ") + c.escape + c.separator;
    if (c.kind == ShellCommand::kMonitor) text += " " + c.table + " " + std::to_string(c.ops);
    return text;
}

TEST(ShellCommand, ClassifiesDirectivesAndLeavesTheRestToSql)
{
    const std::pair<std::string, std::string> cases[] = {
        {"  shell  # ;", "shell #;"}, {"monitor Events select insert", "monitor Events " + std::to_string(kMonitorSelect | kMonitorInsert)},
        {"monitor Events", "monitor Events " + std::to_string(kMonitorChanges)},
        {"monitor " + std::string(kShellMaxTableName + 1, 't'), "invalid"}, {".quit", "quit"}, {".exit", "quit"},
        {"SELECT 1;", "sql"}, {"commentary;", "sql"}, {"shellfish", "sql"}, {"monitoring", "sql"}, {"", "sql"},
    };
    for (const auto& [line, kind] : cases) EXPECT_EQ(kind, Classified(line)) << line;
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

bool Parse(std::vector<std::string> args, SimOptions& o, std::string& error)
{
    args.insert(args.begin(), "vantor-sim");
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(&a[0]);
    return sim_parse_options(static_cast<int>(argv.size()), argv.data(), o, error);
}

TEST(SimOptions, DefaultsAndRangeChecks)
{
    SimOptions o;
    std::string error;
    ASSERT_TRUE(Parse({}, o, error));
    EXPECT_EQ("ipv4 127.0.0.1 3543", ListenText(o.listen));
    ASSERT_TRUE(Parse({"--db=/tmp/x.db", "--events=10000000", "--not-ready=2", "--replicas=3,2", "--replica-stall=3",
                       "--max-clients=1"}, o, error));
    EXPECT_TRUE(o.db == "/tmp/x.db" && o.events == 10000000 && o.notReady == 2 && o.maxClients == 1);
    EXPECT_TRUE(o.replicas.enabled && o.replicas.count == 3 && o.replicas.lag == 2 && o.replicas.stall == 3);
    EXPECT_FALSE(Parse({"--replicas=2", "--replica-stall=3"}, o, error));
    for (const char* bad : {"--events=10000001", "--events=-1", "--not-ready=1000001", "--max-clients=0",
                            "--max-clients=4097", "--db=", "--listen=x", "--verbose", "--events=1e3",
                            "--replicas=3,", "--replicas=,2", "--replicas=4097", "--replicas=1,-1",
                            "--replica-stall=0", "--version-dir="}) {
        ASSERT_FALSE(Parse({bad}, o, error)) << bad;
        EXPECT_EQ(1, o.maxClients) << bad;
        EXPECT_NE(std::string::npos, error.find(bad)) << error;
    }
}

}  // namespace
