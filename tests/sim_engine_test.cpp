// The protocol engine without sockets (the SQL client's reads over it run in sim_server_test, sql_results_test).
#include <gtest/gtest.h>

#include <memory>

#include "ShellSession.h"
#include "SimDatabase.h"
#include "process.h"

namespace {

// Past the greeting, like a fresh connection: answers and pushed change lines collect in `pending` (lines are split
// as on the wire in sim_parse_test).
struct EngineClient : AnswerSink, MonitorSink {
    explicit EngineClient(ShellShared& shared) : session(shared, *this, *this, "test") { EXPECT_TRUE(session.Start()); }
    bool Write(const char* data, size_t len) override { return !peerGone && (pending.append(data, len), true); }
    void Push(const char* line, size_t len) override { pending.append(line, len); }
    std::string Answer(const std::string& line)  // the raw answer bytes of one request line
    {
        pending.clear();
        outcome = line.size() > kShellMaxLine ? session.HandleTooLong() : session.HandleLine(line);
        return std::exchange(pending, "");
    }

    ShellSession session;
    std::string pending;
    ShellSession::Outcome outcome = ShellSession::kContinue;
    bool peerGone = false;
};

struct Engine : ::testing::Test {
    void SetUp() override { ASSERT_TRUE(sim_db_prepare(shared.dbPath = dir + "/unit.db", 0)); }
    void TearDown() override { EXPECT_EQ(0, system(("rm -rf " + dir).c_str())); }
    std::unique_ptr<EngineClient> Connect() { return std::make_unique<EngineClient>(shared); }

    const std::string dir = MakeTempDir();
    ShellShared shared;
};

// One session, in order: rows and errors with the header on, then off, an over-long line, the directives, the end.
TEST_F(Engine, AnswersEveryRequestWithExactBytes)
{
    auto client = Connect();
    EXPECT_EQ("vantor-sim database shell, SQLite " SQLITE_VERSION "\nEnter SQL statements terminated with a \";\"\n#> ",
              client->pending);
    const std::string end = "\v#> \n", ok = "OK\n" + end;
    const std::string usageMonitor = "usage: monitor <table> [select] [insert] [update] [delete]";
    const auto error = [&](const std::string& text) { return "\vError: " + text + "\n" + end; };
    const auto syntax = [&](const std::string& near) { return error("near \"" + near + "\": syntax error"); };
    const std::string usageShell = error("usage: shell <escape> <separator> (two different printable characters)");
    const std::pair<std::string, std::string> cases[] = {
        {".header on", ok}, {"SELECT HwID FROM Hardware LIMIT 3;", "HwID\n1\n2\n3\n" + end},
        {"SELECT HwID, HwName FROM Hardware WHERE HwID = 99;", "HwID|HwName\n" + end},
        {"SELECT 'a|b\\c' AS \"x|y\";", "x\\|y\na\\|b\\\\c\n" + end},
        {"SELECT 'a'||char(13,10,11)||'b' t, NULL n, x'01ff' b, 1.5 r;", "t|n|b|r\na   b||X'01FF'|1.5\n" + end},
        {"SELECT 1 AS one; SELECT 2 AS two;", "one\n1\ntwo\n2\n" + end},
        {std::string("SELECT 1 AS one;\0SELECT 2;", 26), "one\n1\n" + end},
        {"UPDATE Hardware SET HwName = \"renamed\" WHERE HwID = 7;", end}, {"-- only a comment", end}, {" \t", end},
        {"SELEC 1;", syntax("SELEC")}, {"shellfish;", syntax("shellfish")}, {"commentary;", syntax("commentary")},
        {"SELECT 1 AS a; SELECT x FROM Nowhere;", "a\n1\n" + error("no such table: Nowhere")},
        {"INSERT INTO Hardware (HwID) VALUES (1);", error("NOT NULL constraint failed: Hardware.HwName")},
        {".header off", ok}, {std::string(kShellMaxLine + 1, 'x'), error("line longer than 65535 bytes")},
        {"SELECT 1;", "1\n" + end}, {"comment [pid=812] SQL Wrapper", "#> "}, {"  shell  # ;", ok},
        {"SELECT 'a;b|#', 2;", "a#;b|##;2\n" + end}, {"shell \\ |", ok}, {"shell x", usageShell},
        {"shell | |", usageShell}, {".header maybe", error("usage: .header on|off")},
        {".tables", error("unknown command: .tables")}, {"monitor", error(usageMonitor)},
        {"monitoring", syntax("monitoring")}, {"monitor Events select update", "#> "},
        {"monitor " + std::string(kShellMaxTableName + 1, 't'), error(usageMonitor)},
        {"monitor Events truncate", error("unknown monitor operation: truncate")},
        {"monitor Nowhere", error("no such table: Nowhere")}, {"monitor events", "#> "}, {".quit", ""},
    };
    for (const auto& c : cases) EXPECT_EQ(c.second, client->Answer(c.first)) << c.first.substr(0, 80);
    EXPECT_EQ(ShellSession::kClose, client->outcome);
}

TEST_F(Engine, NotReadyForTheFirstShellDirectivesOnlyAndTheSessionsEnd)
{
    shared.notReadyLeft = 1;
    auto first = Connect(), second = Connect();
    EXPECT_EQ("DB not ready\n\v#> \n", first->Answer("shell \\ |"));
    EXPECT_EQ("\vError: DB not ready\n\v#> \n", first->Answer("SELECT 1;"));
    EXPECT_EQ("OK\n\v#> \n", second->Answer("shell \\ |"));
    first->peerGone = true;  // a failed write ends a session too
    first->Answer("SELECT 1;");
    second->Answer(" .exit now");
    EXPECT_TRUE(first->outcome == ShellSession::kClose && second->outcome == ShellSession::kClose);
}

// Words narrow a subscription, in any case; only commits are sent; the first line after a subscription leads.
TEST_F(Engine, MonitorSendsTheCommittedChangesOfItsTableAndWords)
{
    auto writer = Connect(), watcher = Connect(), narrow = Connect();
    EXPECT_TRUE(watcher->Answer("monitor Events") == "#> " && narrow->Answer("monitor events insert delete") == "#> ");
    const auto run = [&](std::initializer_list<const char*> statements, const std::string& answer = "\v#> \n") {
        for (const char* statement : statements) EXPECT_EQ(answer, writer->Answer(statement)) << statement;
    };
    run({"BEGIN;", "INSERT INTO Events (EvntDscID) VALUES (1);", "ROLLBACK;",
         "BEGIN; INSERT INTO Events (EvntDscID) VALUES (2), (3); COMMIT;"});
    run({"INSERT INTO Events (EvntID) VALUES (13), (1);"}, "\vError: UNIQUE constraint failed: Events.EvntID\n\v#> \n");
    run({"UPDATE Events SET EvntDscID = 2 WHERE EvntID = 3;", "DELETE FROM Hardware WHERE HwID = 7;",
         "DELETE FROM Events WHERE EvntID > 10;"});
    EXPECT_EQ("event insert Events 11;\ninsert Events 12;\nupdate Events 3;\ndelete Events 11;\ndelete Events 12;\n",
              watcher->pending);
    EXPECT_EQ("event insert Events 11;\ninsert Events 12;\ndelete Events 11;\ndelete Events 12;\n", narrow->pending);
    EXPECT_EQ("#> ", watcher->Answer("monitor Hardware"));
    run({"DELETE FROM Hardware WHERE HwID = 6;"});
    EXPECT_EQ("event delete Hardware 6;\n", watcher->pending);
}

}  // namespace
