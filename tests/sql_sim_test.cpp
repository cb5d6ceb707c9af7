#include <gtest/gtest.h>
#include <sys/un.h>

#include <chrono>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "fixed_paths.h"
#include "process.h"
#include "recording_monitor.h"
#include "sim_runner.h"
#include "sql_wrapper.h"
#include "wait.h"

namespace {

using Rows = std::vector<std::vector<std::string>>;

SockAddr UnixAddr(const std::string& path)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    return SockAddr(addr);
}

// The client against the simulated unit: real statements on real SQLite.
class SimClientTest : public ::testing::Test {
protected:
    void Start(const SimRunner::Options& options = {})
    {
        m_sim = std::make_unique<SimRunner>(options);
        ASSERT_TRUE(m_sim->Running()) << m_sim->Log();
        m_addr = options.unixSocket ? UnixAddr(m_sim->Address())
                                    : SockAddr(AF_INET, 0x7F000001u, m_sim->Port());
    }
    void SetUp() override { Start(); }
    // Runs a statement and returns all its rows.
    Rows Query(SqlWrapper& sql, const std::string& statement)
    {
        Rows rows;
        EXPECT_TRUE(sql.Exec(statement)) << statement << ": " << sql.LastError();
        for (std::vector<std::string> row; sql.Next(row);) rows.push_back(row);
        return rows;
    }

    std::unique_ptr<SimRunner> m_sim;
    SockAddr m_addr;
};

TEST_F(SimClientTest, SelectsRowsWithTheirHeader)
{
    SqlWrapper sql(&m_addr, nullptr, 2048, 0);
    EXPECT_EQ(Query(sql, "SELECT HwID, HwName FROM Hardware ORDER BY HwID LIMIT 3;"),
              (Rows{{"1", "vantor-01"}, {"2", "vantor-02"}, {"3", "central-1"}}));
    EXPECT_EQ(sql.GetHeaders(), (std::vector<std::string>{"HwID", "HwName"}));
    EXPECT_EQ(Query(sql, "SELECT HwID FROM Hardware WHERE HwID > 100;"), Rows{});
    EXPECT_EQ(sql.GetHeaders(), std::vector<std::string>{"HwID"});
}

TEST_F(SimClientTest, InsertsWithParametersAndReadsSeparatorsBack)
{
    SqlWrapper sql(&m_addr, nullptr, 2048, 0);
    std::string insert =
        "INSERT INTO Events (EvntDateTime, EvntDscID, UsrID, HwID, EvntData) "
        "VALUES(:EvntDateTime, :EvntDscID, :UsrID, :HwID, :EvntData);";
    ASSERT_TRUE(sql.ReplaceParamWithStrValue(insert, "EvntDateTime", "2026-11-23 07:00:00"));
    ASSERT_TRUE(sql.ReplaceParamWithValue(insert, "EvntDscID", "8"));
    ASSERT_TRUE(sql.ReplaceParamWithValue(insert, "UsrID", "3"));
    ASSERT_TRUE(sql.ReplaceParamWithValue(insert, "HwID", "1"));
    ASSERT_TRUE(sql.ReplaceParamWithStrValue(insert, "EvntData", "a|b\\c \"q\""));
    ASSERT_TRUE(sql.Exec(insert)) << sql.LastError();
    EXPECT_TRUE(sql.Eof());
    EXPECT_EQ(Query(sql, "SELECT EvntData, HwID FROM Events WHERE EvntDateTime = '2026-11-23 07:00:00';"),
              (Rows{{"a|b\\c \"q\"", "1"}}));
}

TEST_F(SimClientTest, ServerErrorsFailTheStatementAndTheNextOneWorks)
{
    SqlWrapper sql(&m_addr, nullptr, 2048, 0);
    EXPECT_FALSE(sql.Exec("SELECT * FROM NoSuchTable;"));
    EXPECT_EQ(sql.LastError().compare(0, 7, "Error: "), 0) << sql.LastError();
    EXPECT_EQ(Query(sql, "SELECT count(*) FROM Users;"), Rows{{"3"}});
}

TEST_F(SimClientTest, WorksOverAUnixSocket)
{
    SimRunner::Options options;
    options.unixSocket = true;
    Start(options);
    SqlWrapper sql(&m_addr, nullptr, 2048, 0);
    EXPECT_EQ(Query(sql, "SELECT UsrName FROM Users WHERE UsrID = 2;"), Rows{{"operator"}});
}

TEST_F(SimClientTest, WaitsForADatabaseThatIsNotReadyYet)
{
    SimRunner::Options options;
    options.notReady = 2;
    Start(options);
    StderrCapture err;
    SqlWrapper sql(&m_addr, nullptr, 2048, 3);
    EXPECT_EQ(Query(sql, "SELECT count(*) FROM Users;"), Rows{{"3"}});
    EXPECT_EQ(LogLines(err.Take()), "warn <SqlWrapper> Retrying (DB not yet ready)...\n"
                                    "warn <SqlWrapper> Retrying (DB not yet ready)...\n");
}

TEST_F(SimClientTest, MonitorSeesAnInsertMadeThroughSqlWrapper)
{
    RecordingMonitor monitor(m_addr, MonitorWrapper::OPERATION_INSERT);
    ASSERT_TRUE(monitor.InitOK());
    ASSERT_TRUE(monitor.WaitForEntries(1)) << m_sim->Log();
    SqlWrapper sql(&m_addr, nullptr, 2048, 0);
    ASSERT_TRUE(sql.Exec("INSERT INTO Events (EvntDscID, UsrID, HwID) VALUES (2, 2, 5);")) << sql.LastError();
    Rows id = Query(sql, "SELECT max(EvntID) FROM Events;");
    ASSERT_EQ(id.size(), 1u);
    ASSERT_TRUE(monitor.WaitForEntries(2)) << m_sim->Log();
    EXPECT_EQ(monitor.Log(), (std::vector<std::string>{"up", "event:insert Events " + id[0][0]}));
    // Measured for the record, not asserted: the monitor command's ENTER.
    auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(monitor.Stop());
    std::cout << "monitor stop, subscribed to the simulator: " << MsSince(start) << " ms\n";
}

}  // namespace
