#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <future>
#include <iostream>
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

std::string Joined(const std::vector<std::string>& texts)
{
    std::string all;
    for (const std::string& t : texts) all += t + "\n";
    return all;
}

// A scripted server and the clients under test; the clients go first, so
// the server sees their connections close.
class ClientTest : public ::testing::Test {
protected:
    void Serve(std::vector<Script> scripts)
    {
        m_server = std::make_unique<ScriptedServer>(std::move(scripts));
        m_addr = m_server->Addr();
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
    void TearDown() override
    {
        m_sql.reset();
        m_connection.reset();
        if (m_server) {
            EXPECT_EQ(Joined(m_server->Failures()), "");
        }
    }
    // Every row left, as strings.
    std::vector<std::vector<std::string>> Rows(int maxColumns = 0)
    {
        std::vector<std::vector<std::string>> rows;
        for (std::vector<std::string> row; m_sql->Next(row, maxColumns);) rows.push_back(row);
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
    const std::vector<std::string> banners = {"", "Welcome to the shell\nversion 1.0\n", "a\n\nbc\r\n", "#>x\n"};
    std::vector<Script> scripts;
    for (const std::string& banner : banners) scripts.push_back(Greeting("tester", banner));
    Serve(scripts);
    PrivateConnection& connection = Connection();
    for (const std::string& banner : banners) {
        EXPECT_TRUE(connection.Connect()) << banner;
        EXPECT_TRUE(connection.Connected());
        EXPECT_TRUE(connection.Eof());
        connection.Close();
        EXPECT_FALSE(connection.Connected());
    }
    EXPECT_TRUE(m_server->WaitScriptsDone(ScaledMs(5000)));
}

TEST_F(ClientTest, CommentLineWithEmptyOrMissingComment)
{
    Serve({Greeting(""), Greeting("Unknown connection")});
    EXPECT_TRUE(Connection("").Connect());
    EXPECT_TRUE(Connection(nullptr).Connect());
    EXPECT_TRUE(m_server->WaitScriptsDone(ScaledMs(5000)));
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

TEST_F(ClientTest, PrintRefusesALineOfTheFullLimit)
{
    const std::string full(40, 'x'), shorter(39, 'y');
    Serve({Then(Greeting("tester"), {Expect(shorter)})});
    PrivateConnection& connection = Connection("tester", 40);
    ASSERT_TRUE(connection.Connect());
    EXPECT_EQ(connection.Print("%s", full.c_str()), -ENOSPC);
    EXPECT_EQ(connection.Print("%s", shorter.c_str()), 39);
    EXPECT_TRUE(m_server->WaitScriptsDone(ScaledMs(5000)));
    EXPECT_EQ(m_server->Received(0), CommentLine("tester") + shorter);
}

TEST_F(ClientTest, ReadLineLengthsMarkerAndErrorLines)
{
    Serve({Then(Greeting("tester"),
                {Send("12345678\n123456789\n1234567890\n\v\n\vError: no such table: T\nconsumed\nafter\r")})});
    PrivateConnection& connection = Connection();
    ASSERT_TRUE(connection.Connect());
    struct Line {
        int result;
        const char* text;
        bool eof;
    };
    for (const Line& want : std::vector<Line>{{8, "12345678", false},
                                              {9, "123456789", false},
                                              {10, "1234567890", false},
                                              {0, "", true},
                                              {-EIO, nullptr, false},  // Eof() of the consumed line
                                              {5, "after", false}}) {
        int n = connection.ReadLine();
        ASSERT_EQ(n, want.result);
        EXPECT_EQ(connection.Eof(), want.eof) << n;
        if (want.text) {
            EXPECT_EQ(std::string(connection.Line(), static_cast<size_t>(n)), want.text);
        }
    }
    EXPECT_EQ(connection.LastError(), "Error: no such table: T");
}

TEST_F(ClientTest, ReadLineGivesOverlongLinesInPieces)
{
    Serve({Then(Greeting("t"), {Send("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMN\n")})});
    PrivateConnection& connection = Connection("t", 32);
    ASSERT_TRUE(connection.Connect());
    ASSERT_EQ(connection.ReadLine(), 31);
    EXPECT_EQ(std::string(connection.Line(), 31), "abcdefghijklmnopqrstuvwxyzABCDE");
    ASSERT_EQ(connection.ReadLine(), 9);
    EXPECT_EQ(std::string(connection.Line(), 9), "FGHIJKLMN");
}

// ---- retries

// Attempts (accepted connections), the time they took and the log.
struct RetryOutcome {
    int attempts;
    long ms;
    std::vector<Clock::time_point> times;
};

class RetryTest : public ClientTest {
protected:
    RetryOutcome Reconnect(PrivateConnection& client, bool expected)
    {
        auto start = Clock::now();
        EXPECT_EQ(client.Reconnect(), expected);
        return {m_server->Accepted(), MsSince(start), m_server->AcceptTimes()};
    }
    void ExpectOneSecondApart(const RetryOutcome& outcome)
    {
        for (size_t i = 1; i < outcome.times.size(); i++)
            EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(outcome.times[i] - outcome.times[i - 1])
                          .count(),
                      900);
    }
    // Retry counts 0, 1 and 3 make 1, 1 and 3 attempts against a server
    // playing scripts(attempts), a second apart (none waited for at 0), with
    // the retry message before each further attempt and the final one once.
    void ExpectAttemptsPerCount(std::vector<Script> (*scripts)(int), const std::string& retrying,
                                const std::string& failed)
    {
        for (auto [count, attempts] : std::vector<std::pair<int, int>>{{0, 1}, {1, 1}, {3, 3}}) {
            StderrCapture err;
            Serve(scripts(attempts));
            SqlWrapper& sql = Sql(count);
            RetryOutcome outcome = Reconnect(sql, false);
            EXPECT_EQ(outcome.attempts, attempts) << count;
            EXPECT_TRUE(sql.GetRV());
            ExpectOneSecondApart(outcome);
            if (count == 0) {
                EXPECT_LT(outcome.ms, 1000) << "no sleep at count 0";
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

TEST_F(RetryTest, ConnectFailuresShareTheCount)
{
    ExpectAttemptsPerCount([](int) { return std::vector<Script>{}; },
                           "warn <SqlWrapper> Retrying (connect failed)...", "err  <SqlWrapper> Connect failed.");
}

TEST_F(RetryTest, NotReadyAnswersShareTheCount)
{
    ExpectAttemptsPerCount(NotReady, "warn <SqlWrapper> Retrying (DB not yet ready)...",
                           "err  <SqlWrapper> DB not ready.");
}

TEST_F(RetryTest, MixedFailuresShareTheCountAndThenSucceed)
{
    StderrCapture err;
    Serve({NotReady(1)[0], {Close()}, Prepared()});
    SqlWrapper& sql = Sql(3);
    RetryOutcome outcome = Reconnect(sql, true);
    EXPECT_EQ(outcome.attempts, 3);
    EXPECT_FALSE(sql.GetRV());
    EXPECT_EQ(LogLines(err.Take()),
              "warn <SqlWrapper> Retrying (DB not yet ready)...\nwarn <SqlWrapper> Retrying (connect failed)...\n");
    EXPECT_TRUE(m_server->WaitScriptsDone(ScaledMs(5000)));
}

TEST_F(RetryTest, BaseReconnectKeepsItsOwnLoop)
{
    Serve({});
    PrivateConnection& connection = Connection();
    connection.Retries(3);
    RetryOutcome outcome = Reconnect(connection, false);
    EXPECT_EQ(outcome.attempts, 3);
    ExpectOneSecondApart(outcome);
}

// ---- statements and rows

TEST_F(ClientTest, StatementWithoutSemicolonNeverReachesTheServer)
{
    StderrCapture err;
    Serve({Prepared(Answer("SELECT 1;", "1\n1\n"))});
    SqlWrapper& sql = Sql();
    EXPECT_FALSE(sql.Exec("SELECT 1"));
    EXPECT_TRUE(sql.GetRV());
    EXPECT_FALSE(sql.Exec(""));
    EXPECT_EQ(LogLines(err.Take()),
              "warn <SqlWrapper> \"SELECT 1\" missing semicolon.\nwarn <SqlWrapper> \"\" missing semicolon.\n");
    ASSERT_TRUE(sql.Exec(std::string("SELECT 1;")));
    EXPECT_EQ(Rows(), (std::vector<std::vector<std::string>>{{"1"}}));
    EXPECT_TRUE(m_server->WaitScriptsDone(ScaledMs(5000)));
    EXPECT_EQ(m_server->Received(0),
              CommentLine("SQL Wrapper") + "shell \\ |\r\n.header on\r\nSELECT 1;\r\n");
}

TEST_F(ClientTest, RowsAreCutToTheColumnLimit)
{
    std::string header, row;
    for (int i = 1; i <= 35; i++) {
        header += (i > 1 ? "|c" : "c") + std::to_string(i);
        row += (i > 1 ? "|" : "") + std::to_string(i);
    }
    Serve({Prepared(Answer("SELECT *;", header + "\n" + row + "\n" + row + "\n"))});
    SqlWrapper& sql = Sql();
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
    struct Row {
        const char* line;
        std::vector<std::string> columns;
    };
    const std::vector<Row> rows = {{"x|y\\|z", {"x", "y|z"}},
                                   {"x||y", {"x", "", "y"}},
                                   {"x|y|", {"x", "y"}},
                                   {"a\\\\b|c", {"a\\b", "c"}},
                                   {"ab\\", {"ab"}},
                                   {"", {}}};
    std::string answer = "h\n";
    for (const Row& r : rows) answer += std::string(r.line) + "\n";
    Serve({Prepared(Answer("SELECT h;", answer + "a|b\\|c|d\\|e\n"))});
    SqlWrapper& sql = Sql();
    ASSERT_TRUE(sql.Exec("SELECT h;"));
    for (const Row& r : rows) {
        char* columns[8];
        int count = 8;
        ASSERT_TRUE(sql.NextParsed(columns, count)) << r.line;
        ASSERT_EQ(count, static_cast<int>(r.columns.size())) << r.line;
        for (int i = 0; i < count; i++) EXPECT_EQ(columns[i], r.columns[static_cast<size_t>(i)]) << r.line;
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
    Serve({Prepared(Then(Answer("SELECT dup;", "id|name|id\n1|x|2\n"),
                         Answer("SELECT few;", "a|b\n1|2|3\n")))});
    SqlWrapper& sql = Sql();
    std::map<std::string, std::string> row;
    ASSERT_TRUE(sql.Exec("SELECT dup;"));
    ASSERT_TRUE(sql.Next(row));
    EXPECT_EQ(row, (std::map<std::string, std::string>{{"id", "2"}, {"name", "x"}}));
    ASSERT_TRUE(sql.Exec("SELECT few;"));
    ASSERT_TRUE(sql.Next(row));
    EXPECT_EQ(row, (std::map<std::string, std::string>{{"a", "1"}, {"b", "2"}}));
    EXPECT_FALSE(sql.Next(row));
    EXPECT_EQ(row.size(), 2u) << "untouched at the end";
}

TEST_F(ClientTest, ResultsWithoutRowsAndWithErrors)
{
    StderrCapture err;
    Serve({Prepared(Then(Then(Answer("INSERT 1;", ""), Answer("SELECT none;", "a|b\n")),
                         Then(Answer("SELECT bad;", "Error: near \"bad\": syntax error\n"),
                              Then(Answer("SELECT T;", "\vError: no such table: T\n"),
                                   Answer("SELECT 2;", "v\n2\n")))))});
    SqlWrapper& sql = Sql();
    ASSERT_TRUE(sql.Exec("INSERT 1;"));
    EXPECT_TRUE(sql.Eof());
    EXPECT_TRUE(sql.GetHeaders().empty());
    EXPECT_FALSE(sql.Next());
    EXPECT_TRUE(sql.GetRV());

    ASSERT_TRUE(sql.Exec("SELECT none;"));
    EXPECT_EQ(sql.GetHeaders(), (std::vector<std::string>{"a", "b"}));
    EXPECT_FALSE(sql.Next());

    EXPECT_FALSE(sql.Exec("SELECT bad;"));
    EXPECT_EQ(sql.LastError(), "Error: near \"bad\": syntax error");

    EXPECT_FALSE(sql.Exec("SELECT T;"));
    EXPECT_TRUE(sql.GetRV());
    EXPECT_EQ(sql.LastError(), "Error: no such table: T");
    EXPECT_EQ(LogLines(err.Take()), "err  <SqlWrapper> Got prompt.\n");

    ASSERT_TRUE(sql.Exec("SELECT 2;"));
    EXPECT_EQ(Rows(), (std::vector<std::vector<std::string>>{{"2"}}));
    EXPECT_EQ(m_server->Accepted(), 1);
}

TEST_F(ClientTest, UndrainedResultIsFlushedBeforeTheNextStatement)
{
    Serve({Prepared(Then(Answer("SELECT a;", "a\n1\n2\n3\n"), Answer("SELECT b;", "b\n4\n")))});
    SqlWrapper& sql = Sql();
    ASSERT_TRUE(sql.Exec("SELECT a;"));
    ASSERT_TRUE(sql.Next());
    EXPECT_STREQ(sql.Line(), "1");
    ASSERT_TRUE(sql.Exec("SELECT b;"));
    EXPECT_EQ(Rows(), (std::vector<std::vector<std::string>>{{"4"}}));
}

TEST_F(ClientTest, LostConnectionInTheMiddleOfAResultThenAWorkingExec)
{
    Serve({Prepared({Expect("SELECT a;\r\n"), Send("a\n1\n"), Close()}), Prepared(Answer("SELECT 2;", "v\n2\n"))});
    SqlWrapper& sql = Sql();
    ASSERT_TRUE(sql.Exec("SELECT a;"));
    std::vector<std::string> row;
    ASSERT_TRUE(sql.Next(row));
    EXPECT_EQ(row, std::vector<std::string>{"1"});
    EXPECT_FALSE(sql.Next(row));
    EXPECT_TRUE(sql.GetRV());
    EXPECT_FALSE(sql.Next(row)) << "no second reconnect";
    EXPECT_EQ(m_server->Accepted(), 2);
    ASSERT_TRUE(sql.Exec("SELECT 2;"));
    EXPECT_EQ(Rows(), (std::vector<std::vector<std::string>>{{"2"}}));
    EXPECT_TRUE(m_server->WaitScriptsDone(ScaledMs(5000)));
}

TEST_F(ClientTest, OverlongStatementIsRetriedWithReconnectsUntilTheCountEnds)
{
    Serve({Prepared(), Prepared()});
    SqlWrapper& sql = Sql(1, 40);
    EXPECT_FALSE(sql.Exec("SELECT 'a statement longer than the line';"));
    EXPECT_TRUE(sql.GetRV());
    EXPECT_EQ(m_server->Accepted(), 2);
    EXPECT_TRUE(m_server->WaitScriptsDone(ScaledMs(5000)));
    EXPECT_EQ(m_server->Received(1), CommentLine("SQL Wrapper") + "shell \\ |\r\n.header on\r\n");
}

// ---- stops from another thread

class StopTest : public ClientTest {
protected:
    // Runs `work` on another thread, stops `client` once `ready` holds, and
    // returns the work's result; fails the test if the stop does not end it.
    template <class Work, class Ready>
    bool StopDuring(PrivateConnection& client, Work work, Ready ready)
    {
        return InterruptDuring([&] { client.Stop(); }, work, ready);
    }
    template <class Stopper, class Work, class Ready>
    bool InterruptDuring(Stopper stop, Work work, Ready ready)
    {
        auto result = std::async(std::launch::async, work);
        EXPECT_TRUE(WaitUntil(ready, ScaledMs(5000)));
        auto start = Clock::now();
        stop();
        EXPECT_EQ(result.wait_for(std::chrono::milliseconds(ScaledMs(5000))), std::future_status::ready);
        m_stopMs = MsSince(start);
        return result.get();
    }
    long m_stopMs = 0;
};

TEST_F(StopTest, StopEndsThePromptWaitAndConnectStillSucceeds)
{
    Serve({{Send("banner without prompt\n")}});
    PrivateConnection& connection = Connection();
    EXPECT_TRUE(StopDuring(connection, [&] { return connection.Connect(); },
                           [&] { return m_server->Accepted() == 1; }));
    std::cout << "prompt wait ended " << m_stopMs << " ms after Stop()\n";
}

TEST_F(StopTest, StopEndsTheRetrySleep)
{
    Serve({});
    SqlWrapper& sql = Sql(PrivateConnection::INFINITE_RETRY);
    EXPECT_FALSE(StopDuring(sql, [&] { return sql.Exec("SELECT 1;"); }, [&] { return m_server->Accepted() == 1; }));
    EXPECT_EQ(m_server->Accepted(), 1);
}

TEST_F(StopTest, StopEndsAReadOnASilentServerWithoutReconnecting)
{
    Serve({Prepared({Expect("SELECT a;\r\n"), Send("a\n")})});
    SqlWrapper& sql = Sql(PrivateConnection::INFINITE_RETRY);
    ASSERT_TRUE(sql.Exec("SELECT a;"));
    auto start = Clock::now();
    // Nothing to poll for a blocked read: give it a moment to block.
    EXPECT_FALSE(StopDuring(sql, [&] { return sql.Next(); }, [&] { return MsSince(start) > 100; }));
    EXPECT_TRUE(sql.GetRV());
    EXPECT_EQ(m_server->Accepted(), 1);
}

TEST_F(StopTest, CloseFromAnotherThreadWaitsForTheReadItEnds)
{
    Serve({Prepared({Expect("SELECT a;\r\n"), Send("a\n")})});
    SqlWrapper& sql = Sql(PrivateConnection::INFINITE_RETRY);
    ASSERT_TRUE(sql.Exec("SELECT a;"));
    auto start = Clock::now();
    EXPECT_FALSE(InterruptDuring([&] { sql.Close(); }, [&] { return sql.Next(); }, [&] { return MsSince(start) > 100; }));
    EXPECT_FALSE(sql.Connected());
    EXPECT_EQ(m_server->Accepted(), 1);
}

}  // namespace
