// The protocol engine without sockets: exact answer bytes, the client's fixed reads over them, and the monitor
// fan-out between sessions.
#include <gtest/gtest.h>

#include <memory>
#include <utility>

#include "ShellSession.h"
#include "SimDatabase.h"
#include "process.h"
#include "shell_client.h"

namespace {

// One session whose answers collect in a buffer that the scripted client reads from; the server's line
// assembly sits in between, as on the wire.
struct EngineClient : ShellTransport, AnswerSink, MonitorSink {
    explicit EngineClient(ShellShared& shared) : session(shared, *this, *this, "test"), reads(*this) {}
    bool Write(const char* data, size_t len) override { return !peerGone && (pending.append(data, len), true); }
    void Push(const char* line, size_t len) override { pending.append(line, len); }
    int Get(char& c) override
    {
        if (pending.empty()) return 0;
        c = pending[0], pending.erase(0, 1);
        return 1;
    }
    bool Send(const std::string& bytes) override
    {
        for (size_t at = 0; at < bytes.size();) {
            LineAssembler::Result r;
            at += lines.Feed(bytes.data() + at, bytes.size() - at, r);
            if (r != LineAssembler::kNeedMore)
                outcome = r == LineAssembler::kLine ? session.HandleLine(lines.Line()) : session.HandleTooLong();
        }
        return true;
    }
    std::string Answer(const std::string& line)  // the raw answer bytes of one request line
    {
        pending.clear();
        Send(line + "\r\n");
        return std::exchange(pending, "");
    }

    ShellSession session;
    LineAssembler lines;
    std::string pending;
    ShellSession::Outcome outcome = ShellSession::kContinue;
    bool peerGone = false;
    ScriptedShellClient reads;  // the SQL client's fixed reads on this session
};

class Engine : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(sim_db_prepare(shared.dbPath = dir + "/unit.db", 0)); }
    void TearDown() override { EXPECT_EQ(0, system(("rm -rf " + dir).c_str())); }
    // A client that has read the greeting, like a fresh connection; `prepared`: also the SQL client's set-up.
    std::unique_ptr<EngineClient> Connect(bool prepared = false)
    {
        auto client = std::make_unique<EngineClient>(shared);
        EXPECT_TRUE(client->session.Start());
        EXPECT_TRUE(!prepared || (client->reads.Greet() && client->reads.Setup() && client->pending.empty()));
        return client;
    }

    const std::string dir = MakeTempDir();
    ShellShared shared;
};

// One session through every answer type, in order: header on, statements, header off, an over-long line, then
// the directives and their usage errors.
TEST_F(Engine, AnswersEveryRequestWithExactBytes)
{
    auto client = Connect();
    EXPECT_EQ("vantor-sim database shell, SQLite " SQLITE_VERSION "\n"
              "Enter SQL statements terminated with a \";\"\n#> ",
              client->pending);
    const std::string usageShell =
        "\vError: usage: shell <escape> <separator> (two different printable characters)\n\v#> \n";
    const auto syntax = [](const char* near) { return "\vError: near \"" + std::string(near) + "\": syntax error\n\v#> \n"; };
    const std::pair<std::string, std::string> cases[] = {
        {".header on", "OK\n\v#> \n"},
        {"SELECT HwID FROM Hardware LIMIT 3;", "HwID\n1\n2\n3\n\v#> \n"},
        {"SELECT HwID, HwName FROM Hardware WHERE HwID = 99;", "HwID|HwName\n\v#> \n"},
        {"SELECT 'a|b\\c' AS \"x|y\";", "x\\|y\na\\|b\\\\c\n\v#> \n"},
        {"SELECT 'a' || char(13, 10, 11) || 'b' AS t, NULL AS n, x'01ff' AS b, 1.5 AS r;",
         "t|n|b|r\na   b||X'01FF'|1.5\n\v#> \n"},
        {"SELECT 1 AS one; SELECT 2 AS two;", "one\n1\ntwo\n2\n\v#> \n"},
        {std::string("SELECT 1 AS one;\0SELECT 2;", 26), "one\n1\n\v#> \n"},
        {"UPDATE Hardware SET HwName = \"renamed\" WHERE HwID = 7;", "\v#> \n"},
        {"SELEC 1;", syntax("SELEC")}, {"shellfish;", syntax("shellfish")}, {"commentary;", syntax("commentary")},
        {"SELECT 1 AS a; SELECT x FROM Nowhere;", "a\n1\n\vError: no such table: Nowhere\n\v#> \n"},
        {"INSERT INTO Hardware (HwID, HwName, HwType) VALUES (1, 'x', 'y');",
         "\vError: UNIQUE constraint failed: Hardware.HwID\n\v#> \n"},
        {".header off", "OK\n\v#> \n"},
        {"SELECT 1;", "1\n\v#> \n"},
        {"SELECT '" + std::string(kShellMaxLine, 'x') + "';", "\vError: line longer than 65535 bytes\n\v#> \n"},
        {"SELECT 1;", "1\n\v#> \n"},
        {"comment [pid=812] SQL Wrapper", "#> "},
        {"  shell  # ;", "OK\n\v#> \n"}, {"SELECT 'a;b|#', 2;", "a#;b|##;2\n\v#> \n"}, {"shell \\ |", "OK\n\v#> \n"},
        {"shell x", usageShell},
        {"shell | |", usageShell},
        {".header maybe", "\vError: usage: .header on|off\n\v#> \n"},
        {".tables", "\vError: unknown command: .tables\n\v#> \n"},
        {"monitor", "\vError: usage: monitor <table> [select] [insert] [update] [delete]\n\v#> \n"},
        {"monitor " + std::string(kShellMaxTableName + 1, 't'),
         "\vError: usage: monitor <table> [select] [insert] [update] [delete]\n\v#> \n"},
        {"monitor Events truncate", "\vError: unknown monitor operation: truncate\n\v#> \n"},
        {"-- only a comment", "\v#> \n"}, {"monitoring", syntax("monitoring")},
        {"monitor Nowhere", "\vError: no such table: Nowhere\n\v#> \n"},
        {"monitor events", "#> "},
    };
    for (const auto& c : cases) EXPECT_EQ(c.second, client->Answer(c.first)) << c.first.substr(0, 80);
}

TEST_F(Engine, NotReadyForTheFirstShellDirectivesOnlyAndTheSessionsEnd)
{
    shared.notReadyLeft = 1;
    auto first = Connect();
    ASSERT_TRUE(first->reads.Greet());
    EXPECT_FALSE(first->reads.Setup());
    EXPECT_TRUE(first->reads.NotReady());
    EXPECT_EQ("\v#> \n", first->pending);
    EXPECT_EQ("\vError: DB not ready\n\v#> \n", first->Answer("SELECT 1;"));
    EXPECT_FALSE(Connect(true)->reads.NotReady());
    for (auto [line, peerGone] : {std::pair<const char*, bool>{".quit", false}, {" .exit now", false}, {"SELECT 1;", true}}) {
        auto client = Connect();
        client->peerGone = peerGone;
        client->Answer(line);
        EXPECT_EQ(ShellSession::kClose, client->outcome) << line;
    }
}

// Words narrow a subscription, in any case; only committed changes are sent, and the first line after each
// subscription carries the lead.
TEST_F(Engine, MonitorSendsTheCommittedChangesOfItsTableAndWords)
{
    auto writer = Connect(true), watcher = Connect(), narrow = Connect();
    ASSERT_TRUE(watcher->reads.Greet("[pid=2] SQL monitor") && watcher->reads.Subscribe("Events"));
    ASSERT_TRUE(narrow->reads.Greet("[pid=3] SQL monitor") && narrow->reads.Subscribe("events update delete"));
    const auto run = [&](const char* statement, int result) {
        std::vector<std::string> rows;
        EXPECT_EQ(result, writer->reads.Exec(statement, rows)) << statement << ": " << writer->reads.LastError();
    };
    run("BEGIN;", 0);
    run("INSERT INTO Events (EvntDscID) VALUES (1);", 0);
    EXPECT_EQ("", watcher->pending);
    run("ROLLBACK;", 0);
    run("BEGIN; INSERT INTO Events (EvntDscID) VALUES (2), (3); COMMIT;", 0);
    run("INSERT INTO Events (EvntID) VALUES (13), (1);", -5);
    for (const char* statement : {"UPDATE Events SET EvntDscID = 2 WHERE EvntID = 3;", "DELETE FROM Hardware WHERE HwID = 7;",
                                  "DELETE FROM Events WHERE EvntID > 10;"})
        run(statement, 0);
    EXPECT_EQ("event insert Events 11;\ninsert Events 12;\nupdate Events 3;\ndelete Events 11;\ndelete Events 12;\n",
              watcher->pending);
    std::vector<std::string> events;  // as the monitor client delivers them
    for (std::string event; !narrow->pending.empty() && narrow->reads.NextEvent(event);) events.push_back(event);
    EXPECT_EQ((std::vector<std::string>{"update Events 3", "delete Events 11", "delete Events 12"}), events);
    EXPECT_EQ("", narrow->pending);
    watcher->pending.clear();
    ASSERT_TRUE(watcher->reads.Subscribe("Hardware"));
    run("DELETE FROM Hardware WHERE HwID = 6;", 0);
    EXPECT_EQ("event delete Hardware 6;\n", watcher->pending);
}

}  // namespace
