// The simulator's parsers of outside input: request line assembly and the
// command-line options.
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
    for (size_t at = 0; at < input.size();) {
        size_t piece = std::min(chunk, input.size() - at);
        size_t used = 0;
        while (used < piece) {
            LineAssembler::Result result;
            used += lines.Feed(input.data() + at + used, piece - used, result);
            if (result == LineAssembler::kLine) events.push_back("L:" + lines.Line());
            if (result == LineAssembler::kTooLong) events.push_back("TOO-LONG");
        }
        at += piece;
    }
    return events;
}

TEST(LineAssembler, SplitsAtCrOrLfSkippingEmptyLinesInAnyChunking)
{
    const std::string input = "comment x\r\n\r\nSELECT 1;\nab\rabcdefghij\r\nz\n";
    const std::vector<std::string> expected = {"L:comment x", "L:SELECT 1;", "L:ab", "TOO-LONG", "L:z"};
    for (size_t chunk : {1, 2, 3, 7, 100}) EXPECT_EQ(expected, Assemble(input, 9, chunk)) << chunk;
}

TEST(LineAssembler, KeepsAnUnfinishedLineForTheNextBytes)
{
    EXPECT_EQ(std::vector<std::string>{}, Assemble("SELECT", 100, 100));
    EXPECT_EQ(std::vector<std::string>{"L:a\v\x01\xff"}, Assemble(std::string("a\v\x01\xff\n"), 100, 1));
}

TEST(ShellCommand, ClassifiesDirectivesAndLeavesTheRestToSql)
{
    ShellCommand c;
    shell_parse_command("  shell  # ;", c);
    EXPECT_EQ(ShellCommand::kShell, c.kind);
    EXPECT_EQ('#', c.escape);
    EXPECT_EQ(';', c.separator);
    shell_parse_command("monitor Events select insert", c);
    EXPECT_EQ(ShellCommand::kMonitor, c.kind);
    EXPECT_EQ("Events", c.table);
    EXPECT_EQ(unsigned(kMonitorSelect | kMonitorInsert), c.ops);
    shell_parse_command("monitor Events", c);
    EXPECT_EQ(unsigned(kMonitorChanges), c.ops);
    shell_parse_command("monitor " + std::string(kShellMaxTableName + 1, 't'), c);
    EXPECT_EQ(ShellCommand::kInvalid, c.kind);
    for (const char* sql : {"SELECT 1;", "commentary;", "shellfish", "monitoring", ""}) {
        shell_parse_command(sql, c);
        EXPECT_EQ(ShellCommand::kSql, c.kind) << sql;
    }
    for (const char* quit : {".quit", ".exit"}) {
        shell_parse_command(quit, c);
        EXPECT_EQ(ShellCommand::kQuit, c.kind);
    }
}

std::string ListenText(const SimListen& l)
{
    char text[INET6_ADDRSTRLEN] = "";
    if (l.family == AF_UNIX) return std::string("unix ") + l.un.sun_path;
    if (l.family == AF_INET6)
        return std::string("ipv6 ") + inet_ntop(AF_INET6, &l.in6.sin6_addr, text, sizeof text) + " " +
               std::to_string(ntohs(l.in6.sin6_port));
    return std::string("ipv4 ") + inet_ntop(AF_INET, &l.in4.sin_addr, text, sizeof text) + " " +
           std::to_string(ntohs(l.in4.sin_port));
}

TEST(SimOptions, ParsesListenAddressesStrictly)
{
    const std::vector<std::pair<std::string, std::string>> good = {
        {"127.0.0.1:3543", "ipv4 127.0.0.1 3543"}, {"0.0.0.0:0", "ipv4 0.0.0.0 0"},
        {"::1|65535", "ipv6 ::1 65535"},           {"/tmp/sim.sock", "unix /tmp/sim.sock"},
        {"./sim.sock", "unix ./sim.sock"},
    };
    for (const auto& c : good) {
        SimListen l;
        ASSERT_TRUE(sim_parse_listen(c.first, l)) << c.first;
        EXPECT_EQ(c.second, ListenText(l));
    }
    const std::vector<std::string> bad = {"127.0.0.1", "127.0.0.1:", "127.0.0.1:65536", "127.0.0.1:+1", "127.0.0.1:01",
                                          "127.0.0.1: 1", "127.0.0.1:1x", "300.1.1.1:1", "::1:80", "::1|", "host:80", "",
                                          "/tmp/" + std::string(120, 'p')};
    for (const std::string& text : bad) {
        SimListen l;
        l.in4.sin_port = 9999;
        EXPECT_FALSE(sim_parse_listen(text, l)) << text;
        EXPECT_EQ(9999, l.in4.sin_port) << text;
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
    ASSERT_TRUE(Parse({"--db=/tmp/x.db", "--events=10000000", "--not-ready=2", "--max-clients=1"}, o, error));
    EXPECT_EQ("/tmp/x.db", o.db);
    EXPECT_EQ(10000000, o.events);
    EXPECT_EQ(2, o.notReady);
    EXPECT_EQ(1, o.maxClients);
    ASSERT_TRUE(Parse({"--replicas=3,2", "--replica-stall=3", "--max-clients=1"}, o, error));
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
