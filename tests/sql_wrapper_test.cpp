#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fixed_paths.h"
#include "process.h"
#include "sql_script.h"
#include "sql_wrapper.h"
#include "wait.h"

namespace {

using Clock = std::chrono::steady_clock;
using Rows = std::vector<std::vector<std::string>>;

// One prepared connection answering each statement in turn.
Script Answers(const std::vector<std::pair<std::string, std::string>>& answers)
{
    Script script = Prepared();
    for (const auto& [statement, answer] : answers) script = Then(script, Answer(statement, answer));
    return script;
}

// A scripted server and the clients under test; the clients go first, so
// the server sees their connections close.
class ClientTest : public ::testing::Test {
protected:
    void Serve(std::vector<Script> scripts)
    {
        Finish();
        m_server = std::make_unique<ScriptedServer>(std::move(scripts));
        m_addr = m_server->Addr();
    }
    void Finish()
    {
        m_sql.reset();
        m_connection.reset();
        if (m_server)
            for (const std::string& failure : m_server->Failures()) ADD_FAILURE() << failure;
    }
    void TearDown() override { Finish(); }
    // A client of one prepared connection answering each statement in turn.
    SqlWrapper& Answering(const std::vector<std::pair<std::string, std::string>>& answers)
    {
        Serve({Answers(answers)});
        return Sql();
    }
    SqlWrapper& Sql(int retries = 0, int maxLineLen = 2048)
    {
        m_sql = std::make_unique<SqlWrapper>(&m_addr, nullptr, maxLineLen, retries);
        return *m_sql;
    }
    PrivateConnection& Connection(const char* comment = "tester", int maxLineLen = 2048)
    {
        m_connection = std::make_unique<PrivateConnection>(&m_addr, maxLineLen, comment);
        return *m_connection;
    }
    void ExpectScriptsDone() { EXPECT_TRUE(m_server->WaitScriptsDone(ScaledMs(5000))); }
    // Every row left, as strings.
    Rows Rest()
    {
        Rows rows;
        for (std::vector<std::string> row; m_sql->Next(row);) rows.push_back(row);
        return rows;
    }

    std::unique_ptr<ScriptedServer> m_server;
    SockAddr m_addr;
    std::unique_ptr<SqlWrapper> m_sql;
    std::unique_ptr<PrivateConnection> m_connection;
};

// ---- connection and greeting

TEST_F(ClientTest, ConnectSkipsBannerLinesAndAnnouncesItself)
{
    // A missing comment is announced as "Unknown connection".
    const std::vector<std::pair<const char*, std::string>> cases = {
        {"tester", ""}, {"tester", "Welcome to the shell\nversion 1.0\n"}, {"tester", "a\n\nbc\r\n"},
        {"tester", "#>x\n"}, {"", ""}, {nullptr, ""}};
    std::vector<Script> scripts;
    for (const auto& [comment, banner] : cases)
        scripts.push_back(Greeting(comment ? comment : "Unknown connection", banner));
    Serve(scripts);
    for (const auto& [comment, banner] : cases) {
        PrivateConnection& connection = Connection(comment);
        EXPECT_TRUE(connection.Connect()) << banner;
        EXPECT_TRUE(connection.Eof());
        connection.Close();
        EXPECT_FALSE(connection.Connected());
    }
    ExpectScriptsDone();
}

TEST_F(ClientTest, ConnectRefusesASecondLinkAndForeignFamilies)
{
    Serve({Greeting("tester")});
    PrivateConnection& connection = Connection();
    ASSERT_TRUE(connection.Connect());
    EXPECT_FALSE(connection.Connect());
    EXPECT_TRUE(connection.Connected());
    SockAddr none;
    PrivateConnection foreign(&none, 2048, "x");
    EXPECT_FALSE(foreign.Connect());
    EXPECT_EQ(foreign.ReadLine(), -EINVAL);
    EXPECT_EQ(foreign.Print("x"), -EINVAL);
}

TEST_F(ClientTest, LineLimitRefusesFullPrintsAndCutsReads)
{
    const std::string full(40, 'x'), shorter(39, 'y');
    Serve({Then(Greeting("t"), {Expect(shorter), Send("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVW\n")})});
    PrivateConnection& connection = Connection("t", 40);
    ASSERT_TRUE(connection.Connect());
    EXPECT_EQ(connection.Print("%s", full.c_str()), -ENOSPC);
    EXPECT_EQ(connection.Print("%s", shorter.c_str()), 39);
    ASSERT_EQ(connection.ReadLine(), 39);
    EXPECT_EQ(std::string(connection.Line(), 39), "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLM");
    ASSERT_EQ(connection.ReadLine(), 10);
    EXPECT_EQ(std::string(connection.Line(), 10), "NOPQRSTUVW");
    ExpectScriptsDone();
    EXPECT_EQ(m_server->Received(0), CommentLine("t") + shorter);
}

TEST_F(ClientTest, ReadLineLengthsMarkerAndErrorLines)
{
    Serve({Then(Greeting("tester"),
                {Send("12345678\n123456789\n1234567890\n\v\n\vError: no such table: T\nconsumed\nafter\r")})});
    PrivateConnection& connection = Connection();
    ASSERT_TRUE(connection.Connect());
    // Only the bare marker is an end; the error line is consumed with the next.
    const std::vector<std::pair<int, const char*>> lines = {
        {8, "12345678"}, {9, "123456789"}, {10, "1234567890"}, {0, ""}, {-EIO, nullptr}, {5, "after"}};
    for (auto [result, text] : lines) {
        int n = connection.ReadLine();
        ASSERT_EQ(n, result);
        EXPECT_EQ(connection.Eof(), n == 0) << n;
        if (text) {
            EXPECT_EQ(std::string(connection.Line(), static_cast<size_t>(n)), text);
        }
    }
    EXPECT_EQ(connection.LastError(), "Error: no such table: T");
}

// ---- retries

class RetryTest : public ClientTest {
protected:
    // Reconnects expecting `result`; checks the attempts came a second apart
    // and returns how long it took.
    long Reconnect(PrivateConnection& client, bool result)
    {
        auto start = Clock::now();
        EXPECT_EQ(client.Reconnect(), result);
        long ms = MsSince(start);
        auto times = m_server->AcceptTimes();
        for (size_t i = 1; i < times.size(); i++)
            EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(times[i] - times[i - 1]).count(), 900);
        return ms;
    }
    // Retry counts 0, 1 and 3 make 1, 1 and 3 attempts against a server
    // playing scripts(attempts) (none waited for at 0), with the retry
    // message before each further attempt and the final one once.
    void ExpectAttemptsPerCount(std::vector<Script> (*scripts)(int), const std::string& retrying,
                                const std::string& failed)
    {
        for (auto [count, attempts] : std::vector<std::pair<int, int>>{{0, 1}, {1, 1}, {3, 3}}) {
            StderrCapture err;
            Serve(scripts(attempts));
            SqlWrapper& sql = Sql(count);
            long ms = Reconnect(sql, false);
            EXPECT_EQ(m_server->Accepted(), attempts) << count;
            EXPECT_TRUE(sql.GetRV());
            if (count == 0) {
                EXPECT_LT(ms, 1000) << "no sleep at count 0";
            }
            std::string expected;
            for (int i = 1; i < attempts; i++) expected += retrying + "\n";
            EXPECT_EQ(LogLines(err.Take()), expected + failed + "\n") << count;
        }
    }
    // A server that says the database is not ready, on every connection.
    static std::vector<Script> NotReady(int connections)
    {
        return std::vector<Script>(static_cast<size_t>(connections),
                                   Then(Greeting("SQL Wrapper"), {Expect("shell \\ |\r\n"), Send("DB not ready\n")}));
    }
};

TEST_F(RetryTest, ConnectFailuresAndNotReadyAnswersShareTheCount)
{
    ExpectAttemptsPerCount([](int) { return std::vector<Script>{}; },
                           "warn <SqlWrapper> Retrying (connect failed)...", "err  <SqlWrapper> Connect failed.");
    ExpectAttemptsPerCount(NotReady, "warn <SqlWrapper> Retrying (DB not yet ready)...",
                           "err  <SqlWrapper> DB not ready.");
}

TEST_F(RetryTest, BaseReconnectKeepsItsOwnLoop)
{
    Serve({});
    PrivateConnection& connection = Connection();
    connection.Retries(3);
    Reconnect(connection, false);
    EXPECT_EQ(m_server->Accepted(), 3);
}

// ---- statements and rows

TEST_F(ClientTest, StatementWithoutSemicolonNeverReachesTheServer)
{
    StderrCapture err;
    SqlWrapper& sql = Answering({{"SELECT 1;", "1\n1\n"}});
    EXPECT_FALSE(sql.Exec("SELECT 1"));
    EXPECT_TRUE(sql.GetRV());
    EXPECT_FALSE(sql.Exec(""));
    EXPECT_EQ(LogLines(err.Take()),
              "warn <SqlWrapper> \"SELECT 1\" missing semicolon.\nwarn <SqlWrapper> \"\" missing semicolon.\n");
    ASSERT_TRUE(sql.Exec(std::string("SELECT 1;")));
    EXPECT_EQ(Rest(), (Rows{{"1"}}));
    ExpectScriptsDone();
    EXPECT_EQ(m_server->Received(0), CommentLine("SQL Wrapper") + "shell \\ |\r\n.header on\r\nSELECT 1;\r\n");
}

TEST_F(ClientTest, RowsAreCutToTheColumnLimit)
{
    std::string header = "c1", row = "1";
    for (int i = 2; i <= 35; i++) {
        header += "|c" + std::to_string(i);
        row += "|" + std::to_string(i);
    }
    SqlWrapper& sql = Answering({{"SELECT *;", header + "\n" + row + "\n" + row + "\n"}});
    ASSERT_TRUE(sql.Exec("SELECT *;"));
    EXPECT_EQ(sql.GetHeaders().size(), 30u);
    std::vector<std::string> columns;
    ASSERT_TRUE(sql.Next(columns));
    EXPECT_EQ(columns.size(), 30u);
    EXPECT_EQ(columns[29], "30");
    ASSERT_TRUE(sql.Next(columns, 35));
    EXPECT_EQ(columns.size(), 35u);
    EXPECT_FALSE(sql.Next(columns));
    EXPECT_EQ(columns.size(), 35u) << "untouched at the end";
}

TEST_F(ClientTest, NextParsedRemovesEscapesAndSplitsAtSeparators)
{
    const std::vector<std::pair<std::string, std::vector<std::string>>> rows = {
        {"x|y\\|z", {"x", "y|z"}}, {"x||y", {"x", "", "y"}}, {"x|y|", {"x", "y"}},
        {"a\\\\b|c", {"a\\b", "c"}}, {"ab\\", {"ab"}},        {"", {}}};
    std::string answer = "h\n";
    for (const auto& row : rows) answer += row.first + "\n";
    SqlWrapper& sql = Answering({{"SELECT h;", answer + "a|b\\|c|d\\|e\n"}});
    ASSERT_TRUE(sql.Exec("SELECT h;"));
    for (const auto& [line, want] : rows) {
        char* columns[8];
        int count = 8;
        ASSERT_TRUE(sql.NextParsed(columns, count)) << line;
        EXPECT_EQ(std::vector<std::string>(columns, columns + count), want) << line;
    }
    // Escapes in columns beyond the capacity are removed the same way.
    char* first[1];
    int count = 1;
    ASSERT_TRUE(sql.NextParsed(first, count));
    EXPECT_EQ(count, 3);
    EXPECT_STREQ(first[0], "a");
    EXPECT_EQ(std::string(first[0] + 3), "b|c") << "the second column, moved over its escape";
}

TEST_F(ClientTest, MapRowsPairColumnsWithHeaderNames)
{
    SqlWrapper& sql = Answering({{"SELECT dup;", "id|name|id\n1|x|2\n"},
                                 {"SELECT few;", "a|b\n1|2|3\n"},
                                 {"SELECT short;", "a|b\n5|6\n7\n"}});
    std::map<std::string, std::string> row;
    ASSERT_TRUE(sql.Exec("SELECT dup;"));
    ASSERT_TRUE(sql.Next(row));
    EXPECT_EQ(row, (std::map<std::string, std::string>{{"id", "2"}, {"name", "x"}}));
    ASSERT_TRUE(sql.Exec("SELECT few;"));
    ASSERT_TRUE(sql.Next(row));
    EXPECT_EQ(row, (std::map<std::string, std::string>{{"a", "1"}, {"b", "2"}}));
    EXPECT_FALSE(sql.Next(row));
    EXPECT_EQ(row.size(), 2u) << "untouched at the end";
    // The same map refilled row after row keeps nothing of the row before.
    ASSERT_TRUE(sql.Exec("SELECT short;"));
    ASSERT_TRUE(sql.Next(row) && sql.Next(row));
    EXPECT_EQ(row, (std::map<std::string, std::string>{{"a", "7"}}));
}

TEST_F(ClientTest, ResultsWithoutRowsWithErrorsAndUndrained)
{
    StderrCapture err;
    SqlWrapper& sql = Answering({{"INSERT 1;", ""},
                    {"SELECT bad;", "Error: near \"bad\": syntax error\n"},
                    {"SELECT T;", "\vError: no such table: T\n"},
                    {"SELECT a;", "a\n1\n2\n3\n"},
                    {"SELECT 2;", "v\n2\n"}});
    ASSERT_TRUE(sql.Exec("INSERT 1;"));
    EXPECT_TRUE(sql.Eof());
    EXPECT_TRUE(sql.GetHeaders().empty());
    EXPECT_FALSE(sql.Next());
    EXPECT_TRUE(sql.GetRV());
    EXPECT_FALSE(sql.Exec("SELECT bad;"));
    EXPECT_EQ(sql.LastError(), "Error: near \"bad\": syntax error");
    EXPECT_FALSE(sql.Exec("SELECT T;"));
    EXPECT_TRUE(sql.GetRV());
    EXPECT_EQ(sql.LastError(), "Error: no such table: T");
    EXPECT_EQ(LogLines(err.Take()), "err  <SqlWrapper> Got prompt.\n");
    ASSERT_TRUE(sql.Exec("SELECT a;"));
    ASSERT_TRUE(sql.Next());
    EXPECT_STREQ(sql.Line(), "1");
    ASSERT_TRUE(sql.Exec("SELECT 2;")) << "the rest of the last result flushed";
    EXPECT_EQ(Rest(), (Rows{{"2"}}));
    EXPECT_EQ(m_server->Accepted(), 1);
}

TEST_F(ClientTest, LostConnectionInTheMiddleOfAResultThenAWorkingExec)
{
    Serve({Prepared({Expect("SELECT a;\r\n"), Send("a\n1\n"), Close()}), Answers({{"SELECT 2;", "v\n2\n"}})});
    SqlWrapper& sql = Sql();
    ASSERT_TRUE(sql.Exec("SELECT a;"));
    EXPECT_EQ(Rest(), (Rows{{"1"}}));
    EXPECT_TRUE(sql.GetRV());
    EXPECT_FALSE(sql.Next()) << "no second reconnect";
    EXPECT_EQ(m_server->Accepted(), 2);
    ASSERT_TRUE(sql.Exec("SELECT 2;"));
    EXPECT_EQ(Rest(), (Rows{{"2"}}));
    ExpectScriptsDone();
}

TEST_F(ClientTest, OverlongStatementIsRetriedWithReconnectsUntilTheCountEnds)
{
    Serve({Prepared(), Prepared()});
    SqlWrapper& sql = Sql(1, 40);
    EXPECT_FALSE(sql.Exec("SELECT 'a statement longer than the line';"));
    EXPECT_TRUE(sql.GetRV());
    EXPECT_EQ(m_server->Accepted(), 2);
    ExpectScriptsDone();
    EXPECT_EQ(m_server->Received(1), CommentLine("SQL Wrapper") + "shell \\ |\r\n.header on\r\n");
}

// ---- stops from another thread

class StopTest : public ClientTest {
protected:
    // Runs `work` on another thread, calls `stop` once `ready` holds, and
    // returns the work's result; fails the test if the stop does not end it.
    template <class Stopper, class Work, class Ready>
    bool InterruptDuring(Stopper stop, Work work, Ready ready)
    {
        auto result = std::async(std::launch::async, work);
        EXPECT_TRUE(WaitUntil(ready, ScaledMs(5000)));
        stop();
        EXPECT_EQ(result.wait_for(std::chrono::milliseconds(ScaledMs(5000))), std::future_status::ready);
        return result.get();
    }
    bool FirstAccepted() { return m_server->Accepted() == 1; }
};

TEST_F(StopTest, StopEndsThePromptWaitAndTheRetrySleep)
{
    Serve({{Send("banner without prompt\n")}});
    PrivateConnection& connection = Connection();
    EXPECT_TRUE(InterruptDuring([&] { connection.Stop(); }, [&] { return connection.Connect(); },
                                [&] { return FirstAccepted(); }));
    Serve({});
    SqlWrapper& sql = Sql(PrivateConnection::INFINITE_RETRY);
    EXPECT_FALSE(InterruptDuring([&] { sql.Stop(); }, [&] { return sql.Exec("SELECT 1;"); },
                                 [&] { return FirstAccepted(); }));
    EXPECT_EQ(m_server->Accepted(), 1);
}

TEST_F(StopTest, StopOrCloseEndsAReadOnASilentServerWithoutReconnecting)
{
    for (bool close : {false, true}) {
        Serve({Prepared({Expect("SELECT a;\r\n"), Send("a\n")})});
        SqlWrapper& sql = Sql(PrivateConnection::INFINITE_RETRY);
        ASSERT_TRUE(sql.Exec("SELECT a;"));
        auto start = Clock::now();
        // Nothing to poll for a blocked read: give it a moment to block.
        EXPECT_FALSE(InterruptDuring([&] { close ? sql.Close() : sql.Stop(); }, [&] { return sql.Next(); },
                                     [&] { return MsSince(start) > 100; }));
        EXPECT_TRUE(close ? !sql.Connected() : sql.GetRV()) << close;
        EXPECT_EQ(m_server->Accepted(), 1);
    }
}

}  // namespace
