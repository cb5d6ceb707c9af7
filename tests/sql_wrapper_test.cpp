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
using Map = std::map<std::string, std::string>;

// A scripted server and the clients under test; the clients go first, so the server sees their connections close.
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
        Script script = Prepared();
        for (const auto& [statement, answer] : answers) script = Then(script, Answer(statement, answer));
        Serve({script});
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

TEST_F(ClientTest, ConnectSkipsBannerLinesAndAnnouncesItselfOnce)
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
        EXPECT_FALSE(connection.Connect()) << "a second link while connected";
        connection.Close();
        EXPECT_FALSE(connection.Connected());
    }
    ExpectScriptsDone();
    SockAddr none;
    PrivateConnection foreign(&none, 2048, "x");
    EXPECT_FALSE(foreign.Connect());
    EXPECT_EQ(foreign.ReadLine(), -EINVAL);
    EXPECT_EQ(foreign.Print("x"), -EINVAL);
}

// A full print is refused; a long read comes in pieces; only the bare marker ends a result; an error line is consumed.
TEST_F(ClientTest, LinesAgainstTheLineLimitAndTheMarker)
{
    const std::string shorter(39, 'y');
    const std::string sent = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVW\n12345678\n123456789\n1234567890\n"
                             "\v\n\vError: no such table: T\nconsumed\nafter\r";
    Serve({Then(Greeting("t"), {Expect(shorter), Send(sent)})});
    PrivateConnection& connection = Connection("t", 40);
    ASSERT_TRUE(connection.Connect());
    EXPECT_EQ(connection.Print("%s", std::string(40, 'x').c_str()), -ENOSPC);
    EXPECT_EQ(connection.Print("%s", shorter.c_str()), 39);
    const std::vector<std::pair<int, const char*>> lines = {
        {39, "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLM"}, {10, "NOPQRSTUVW"}, {8, "12345678"}, {9, "123456789"},
        {10, "1234567890"}, {0, ""}, {-EIO, nullptr}, {5, "after"}};
    for (auto [result, text] : lines) {
        int n = connection.ReadLine();
        ASSERT_EQ(n, result) << text;
        EXPECT_EQ(connection.Eof(), n == 0) << n;
        if (text) {
            EXPECT_EQ(std::string(connection.Line(), static_cast<size_t>(n)), text);
        }
    }
    EXPECT_EQ(connection.LastError(), "Error: no such table: T");
    EXPECT_EQ(m_server->Received(0), CommentLine("t") + shorter);
}

// Connect failures and "not ready" answers share the retry count: 0 and 1 make one attempt, 3 make three, a
// second apart, with the retry message before each further one and the final one once.
TEST_F(ClientTest, RetriesCountConnectFailuresAndNotReadyAnswers)
{
    const Script notReady = Then(Greeting("SQL Wrapper"), {Expect("shell \\ |\r\n"), Send("DB not ready\n")});
    for (bool ready : {false, true})
        for (auto [count, attempts] : std::vector<std::pair<int, int>>{{0, 1}, {1, 1}, {3, 3}}) {
            StderrCapture err;
            Serve(ready ? std::vector<Script>(static_cast<size_t>(attempts), notReady) : std::vector<Script>{});
            SqlWrapper& sql = Sql(count);
            auto start = Clock::now();
            EXPECT_FALSE(sql.Reconnect());
            if (count == 0) {
                EXPECT_LT(MsSince(start), 1000) << "no sleep at count 0";
            }
            EXPECT_EQ(m_server->Accepted(), attempts) << count;
            auto times = m_server->AcceptTimes();
            for (size_t i = 1; i < times.size(); i++)
                EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(times[i] - times[i - 1]).count(), 900);
            EXPECT_TRUE(sql.GetRV());
            std::string expected, why = ready ? "DB not yet ready" : "connect failed";
            for (int i = 1; i < attempts; i++) expected += "warn <SqlWrapper> Retrying (" + why + ")...\n";
            expected += ready ? "err  <SqlWrapper> DB not ready.\n" : "err  <SqlWrapper> Connect failed.\n";
            EXPECT_EQ(LogLines(err.Take()), expected) << count << ready;
        }
    Serve({});
    PrivateConnection& connection = Connection();
    connection.Retries(3);
    EXPECT_FALSE(connection.Reconnect());
    EXPECT_EQ(m_server->Accepted(), 3) << "the base class keeps its own loop";
}

// Vector rows stop at 30 columns unless asked for more; map rows pair values with names, the last duplicate wins.
TEST_F(ClientTest, VectorAndMapRows)
{
    std::string header = "c1", row = "1";
    for (int i = 2; i <= 35; i++) header += "|c" + std::to_string(i), row += "|" + std::to_string(i);
    SqlWrapper& sql = Answering({{"SELECT *;", header + "\n" + row + "\n" + row + "\n"},
                                 {"SELECT dup;", "id|name|id\n1|x|2\n"},
                                 {"SELECT few;", "a|b\n1|2|3\n"},
                                 {"SELECT short;", "a|b\n5|6\n7\n"}});
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
    Map map;
    ASSERT_TRUE(sql.Exec("SELECT dup;") && sql.Next(map));
    EXPECT_EQ(map, (Map{{"id", "2"}, {"name", "x"}}));
    ASSERT_TRUE(sql.Exec("SELECT few;") && sql.Next(map));
    EXPECT_EQ(map, (Map{{"a", "1"}, {"b", "2"}}));
    EXPECT_FALSE(sql.Next(map));
    EXPECT_EQ(map.size(), 2u) << "untouched at the end";
    ASSERT_TRUE(sql.Exec("SELECT short;") && sql.Next(map) && sql.Next(map));
    EXPECT_EQ(map, (Map{{"a", "7"}})) << "nothing kept of the row before";
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

// A statement without its final ";" never reaches the server (the script would see it in place of the next).
TEST_F(ClientTest, StatementsWithoutSemicolonsRowsOrSuccessAndUndrainedResults)
{
    StderrCapture err;
    SqlWrapper& sql = Answering({{"INSERT 1;", ""}, {"SELECT bad;", "Error: near \"bad\": syntax error\n"},
                                 {"SELECT T;", "\vError: no such table: T\n"}, {"SELECT a;", "a\n1\n2\n3\n"},
                                 {"SELECT 2;", "v\n2\n"}});
    EXPECT_FALSE(sql.Exec("SELECT 1"));
    EXPECT_TRUE(sql.GetRV());
    EXPECT_FALSE(sql.Exec(""));
    ASSERT_TRUE(sql.Exec("INSERT 1;"));
    EXPECT_TRUE(sql.Eof() && sql.GetHeaders().empty());
    EXPECT_FALSE(sql.Next());
    EXPECT_TRUE(sql.GetRV());
    EXPECT_FALSE(sql.Exec("SELECT bad;"));
    EXPECT_EQ(sql.LastError(), "Error: near \"bad\": syntax error");
    EXPECT_FALSE(sql.Exec("SELECT T;"));
    EXPECT_TRUE(sql.GetRV());
    EXPECT_EQ(sql.LastError(), "Error: no such table: T");
    EXPECT_EQ(LogLines(err.Take()), "warn <SqlWrapper> \"SELECT 1\" missing semicolon.\n"
                                    "warn <SqlWrapper> \"\" missing semicolon.\nerr  <SqlWrapper> Got prompt.\n");
    ASSERT_TRUE(sql.Exec("SELECT a;") && sql.Next());
    EXPECT_STREQ(sql.Line(), "1");
    ASSERT_TRUE(sql.Exec("SELECT 2;")) << "the rest of the last result flushed";
    EXPECT_EQ(Rest(), (Rows{{"2"}}));
    EXPECT_EQ(m_server->Accepted(), 1);
    ExpectScriptsDone();
}

// A lost result reconnects once and ends; an over-long statement is retried with reconnects until the count ends.
TEST_F(ClientTest, LostResultsAndOverlongStatements)
{
    Serve({Prepared({Expect("SELECT a;\r\n"), Send("a\n1\n"), Close()}), Prepared(Answer("SELECT 2;", "v\n2\n"))});
    SqlWrapper& sql = Sql();
    ASSERT_TRUE(sql.Exec("SELECT a;"));
    EXPECT_EQ(Rest(), (Rows{{"1"}}));
    EXPECT_TRUE(sql.GetRV());
    EXPECT_FALSE(sql.Next()) << "no second reconnect";
    EXPECT_EQ(m_server->Accepted(), 2);
    ASSERT_TRUE(sql.Exec("SELECT 2;"));
    EXPECT_EQ(Rest(), (Rows{{"2"}}));
    ExpectScriptsDone();

    Serve({Prepared(), Prepared()});
    EXPECT_FALSE(Sql(1, 40).Exec("SELECT 'a statement longer than the line';"));
    EXPECT_TRUE(m_sql->GetRV());
    EXPECT_EQ(m_server->Accepted(), 2);
    ExpectScriptsDone();
    EXPECT_EQ(m_server->Received(1), CommentLine("SQL Wrapper") + "shell \\ |\r\n.header on\r\n");
}

// Runs `work` on another thread, calls `stop` once `ready` holds, and returns the work's result; fails the
// test if the stop does not end it.
template <class Stopper, class Work, class Ready>
bool InterruptDuring(Stopper stop, Work work, Ready ready)
{
    auto result = std::async(std::launch::async, work);
    EXPECT_TRUE(WaitUntil(ready, ScaledMs(5000)));
    stop();
    EXPECT_EQ(result.wait_for(std::chrono::milliseconds(ScaledMs(5000))), std::future_status::ready);
    return result.get();
}

TEST_F(ClientTest, StopEndsThePromptWaitTheRetrySleepAndAReadAsCloseDoes)
{
    auto accepted = [&] { return m_server->Accepted() == 1; };
    Serve({{Send("banner without prompt\n")}});
    PrivateConnection& connection = Connection();
    EXPECT_TRUE(InterruptDuring([&] { connection.Stop(); }, [&] { return connection.Connect(); }, accepted));
    Serve({});
    SqlWrapper& retrying = Sql(PrivateConnection::INFINITE_RETRY);
    EXPECT_FALSE(InterruptDuring([&] { retrying.Stop(); }, [&] { return retrying.Exec("SELECT 1;"); }, accepted));
    EXPECT_EQ(m_server->Accepted(), 1);
    // A read on a silent server ends without a reconnect.
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
