// The protocol engine without sockets: exact answer bytes, the client's fixed reads over them, and the monitor
// fan-out between sessions.
#include <gtest/gtest.h>

#include <memory>

#include "ShellSession.h"
#include "SimDatabase.h"
#include "process.h"
#include "shell_client.h"

namespace {

// One session whose answers collect in a buffer that the scripted client reads from; the server's line
// assembly sits in between, as on the wire.
class EngineClient : public ShellTransport, public AnswerSink, public MonitorSink {
public:
    explicit EngineClient(ShellShared& shared) : session(shared, *this, *this, "test"), reads(*this) {}

    bool Write(const char* data, size_t len) override
    {
        if (!peerGone) pending.append(data, len);
        return !peerGone;
    }
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
            LineAssembler::Result result;
            at += lines.Feed(bytes.data() + at, bytes.size() - at, result);
            if (result == LineAssembler::kLine) outcome = session.HandleLine(lines.Line());
            if (result == LineAssembler::kTooLong) outcome = session.HandleTooLong();
        }
        return true;
    }
    // The answer bytes of one request line, taken raw.
    std::string Answer(const std::string& line)
    {
        pending.clear();
        Send(line + "\r\n");
        std::string bytes;
        bytes.swap(pending);
        return bytes;
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
    void SetUp() override
    {
        dir = MakeTempDir();
        shared.dbPath = dir + "/unit.db";
        ASSERT_TRUE(sim_db_prepare(shared.dbPath, 0));
    }
    void TearDown() override { EXPECT_EQ(0, system(("rm -rf " + dir).c_str())); }

    // A client that has read the greeting, like a fresh connection.
    std::unique_ptr<EngineClient> Connect()
    {
        auto client = std::make_unique<EngineClient>(shared);
        EXPECT_TRUE(client->session.Start());
        return client;
    }
    // A client through the greeting and the set-up reads of the SQL client.
    std::unique_ptr<EngineClient> Prepared()
    {
        auto client = Connect();
        EXPECT_TRUE(client->reads.Greet() && client->reads.Setup());
        EXPECT_EQ("", client->pending);
        return client;
    }

    std::string dir;
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
    const std::vector<std::pair<std::string, std::string>> cases = {
        {".header on", "OK\n\v#> \n"},
        {"SELECT HwID FROM Hardware LIMIT 3;", "HwID\n1\n2\n3\n\v#> \n"},
        {"SELECT HwID, HwName FROM Hardware WHERE HwID = 99;", "HwID|HwName\n\v#> \n"},
        {"SELECT 'a|b\\c' AS \"x|y\";", "x\\|y\na\\|b\\\\c\n\v#> \n"},
        {"SELECT 'a' || char(13, 10, 11) || 'b' AS t, NULL AS n, x'01ff' AS b, 1.5 AS r;",
         "t|n|b|r\na   b||X'01FF'|1.5\n\v#> \n"},
        {"SELECT 1 AS one; SELECT 2 AS two;", "one\n1\ntwo\n2\n\v#> \n"},
        {std::string("\0SELECT 1;", 10), "\v#> \n"},
        {std::string("SELECT 1 AS one;\0SELECT 2;", 26), "one\n1\n\v#> \n"},
        {"UPDATE Hardware SET HwName = \"renamed\" WHERE HwID = 7;", "\v#> \n"},
        {"SELECT HwName FROM Hardware WHERE HwID = 7;", "HwName\nrenamed\n\v#> \n"},
        {"SELEC 1;", "\vError: near \"SELEC\": syntax error\n\v#> \n"},
        {"SELECT 1 AS a; SELECT x FROM Nowhere;", "a\n1\n\vError: no such table: Nowhere\n\v#> \n"},
        {"INSERT INTO Hardware (HwID, HwName, HwType) VALUES (1, 'x', 'y');",
         "\vError: UNIQUE constraint failed: Hardware.HwID\n\v#> \n"},
        {".header off", "OK\n\v#> \n"},
        {"SELECT 1;", "1\n\v#> \n"},
        {"SELECT '" + std::string(kShellMaxLine, 'x') + "';", "\vError: line longer than 65535 bytes\n\v#> \n"},
        {"SELECT 1;", "1\n\v#> \n"},
        {"comment [pid=812] SQL Wrapper", "#> "},
        {"comment [pid=812]", "#> "},
        {"shell \\ |", "OK\n\v#> \n"},
        {"shell x", usageShell},
        {"shell | |", usageShell},
        {".header maybe", "\vError: usage: .header on|off\n\v#> \n"},
        {".tables", "\vError: unknown command: .tables\n\v#> \n"},
        {"monitor", "\vError: usage: monitor <table> [select] [insert] [update] [delete]\n\v#> \n"},
        {"monitor Events truncate", "\vError: unknown monitor operation: truncate\n\v#> \n"},
        {"   ", "\v#> \n"},
        {"-- only a comment", "\v#> \n"},
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
    EXPECT_FALSE(Prepared()->reads.NotReady());
    // ".quit" and a lost peer close the session.
    first->Answer(".quit");
    EXPECT_EQ(ShellSession::kClose, first->outcome);
    auto gone = Connect();
    gone->peerGone = true;
    gone->Answer("SELECT 1;");
    EXPECT_EQ(ShellSession::kClose, gone->outcome);
}

// Subscription to all of a table's changes from another session is also run over real sockets; these pin the
// narrowing words, commits and bytes.
class Monitor : public Engine {
protected:
    void SetUp() override
    {
        Engine::SetUp();
        writer = Prepared();
        watcher = Connect();
        ASSERT_TRUE(watcher->reads.Greet("[pid=2] SQL monitor"));
    }
    // Runs statements on the writer; each must give `result`.
    void Run(std::initializer_list<const char*> statements, int result = 0)
    {
        std::vector<std::string> rows;
        for (const char* statement : statements)
            EXPECT_EQ(result, writer->reads.Exec(statement, rows)) << statement << ": " << writer->reads.LastError();
    }
    // Every change line the watcher has been pushed, as its client delivers them.
    std::vector<std::string> Events()
    {
        std::vector<std::string> events;
        std::string event;
        while (!watcher->pending.empty() && watcher->reads.NextEvent(event)) events.push_back(event);
        EXPECT_EQ("", watcher->pending);
        return events;
    }

    std::unique_ptr<EngineClient> writer, watcher;
};

TEST_F(Monitor, WordsNarrowTheSubscriptionAndCaseDoesNotMatter)
{
    ASSERT_TRUE(watcher->reads.Subscribe("events update delete"));
    Run({"INSERT INTO Events (EvntDscID) VALUES (1);", "INSERT INTO Hardware (HwName, HwType) VALUES ('h', 'unit');",
         "UPDATE Events SET EvntDscID = 2 WHERE EvntID = 3;", "DELETE FROM Hardware WHERE HwID = 7;",
         "DELETE FROM Events WHERE EvntID > 9;"});
    EXPECT_EQ((std::vector<std::string>{"update Events 3", "delete Events 10", "delete Events 11"}), Events());
}

// The first line after each subscription carries the lead; a rolled-back or failed change is never sent.
TEST_F(Monitor, OnlyCommittedChangesAreSentAndTheFirstLineCarriesTheLead)
{
    ASSERT_TRUE(watcher->reads.Subscribe("Events"));
    Run({"BEGIN;", "INSERT INTO Events (EvntDscID) VALUES (1);"});
    EXPECT_EQ("", watcher->pending);
    Run({"ROLLBACK;", "BEGIN; INSERT INTO Events (EvntDscID) VALUES (2), (3); COMMIT;"});
    Run({"INSERT INTO Events (EvntID) VALUES (13), (1);"}, -5);
    EXPECT_EQ("event insert Events 11;\ninsert Events 12;\n", watcher->pending);
    watcher->pending.clear();
    ASSERT_TRUE(watcher->reads.Subscribe("Hardware"));
    Run({"DELETE FROM Hardware WHERE HwID = 7;"});
    EXPECT_EQ((std::vector<std::string>{"delete Hardware 7"}), Events());
}

}  // namespace
