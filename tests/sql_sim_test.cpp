// The SQL client against the simulated unit over a Unix socket (the tool's runs cover TCP): real statements
// on real SQLite, behind a database that is not ready at first.
#include <gtest/gtest.h>
#include <sys/un.h>

#include <cstring>
#include <string>
#include <vector>

#include "fixed_paths.h"
#include "sim_runner.h"
#include "sql_wrapper.h"

namespace {

using Rows = std::vector<std::vector<std::string>>;

TEST(SimClient, QueriesParametersAndErrorsOverUnixAfterNotReady)
{
    SimRunner sim({true, 0, 2, {}});
    ASSERT_TRUE(sim.Running()) << sim.Log();
    sockaddr_un un{};
    un.sun_family = AF_UNIX;
    strncpy(un.sun_path, sim.Address().c_str(), sizeof un.sun_path - 1);
    SockAddr addr(un);
    auto query = [](SqlWrapper& sql, const std::string& statement) {
        Rows rows;
        EXPECT_TRUE(sql.Exec(statement)) << statement << ": " << sql.LastError();
        for (std::vector<std::string> row; sql.Next(row);) rows.push_back(row);
        return rows;
    };
    StderrCapture err;
    SqlWrapper sql(&addr, nullptr, 2048, 3);
    EXPECT_EQ(query(sql, "SELECT HwID, HwName FROM Hardware ORDER BY HwID LIMIT 3;"),
              (Rows{{"1", "vantor-01"}, {"2", "vantor-02"}, {"3", "central-1"}}));
    EXPECT_EQ(LogLines(err.Take()), "warn <SqlWrapper> Retrying (DB not yet ready)...\n"
                                    "warn <SqlWrapper> Retrying (DB not yet ready)...\n");
    EXPECT_EQ(sql.GetHeaders(), (std::vector<std::string>{"HwID", "HwName"}));
    EXPECT_EQ(query(sql, "SELECT HwID FROM Hardware WHERE HwID > 100;"), Rows{});
    EXPECT_EQ(sql.GetHeaders(), std::vector<std::string>{"HwID"}) << "an empty result still has its header";
    EXPECT_FALSE(sql.Exec("SELECT * FROM NoSuchTable;"));
    EXPECT_EQ(sql.LastError(), "Error: no such table: NoSuchTable");
    // Separators, escapes and quotes in a value survive the round trip.
    std::string insert = "INSERT INTO Events (EvntDscID, HwID, EvntData) VALUES(:EvntDscID, :HwID, :EvntData);";
    ASSERT_TRUE(sql.ReplaceParamWithValue(insert, "EvntDscID", "8") && sql.ReplaceParamWithValue(insert, "HwID", "1"));
    ASSERT_TRUE(sql.ReplaceParamWithStrValue(insert, "EvntData", "a|b\\c \"q\""));
    ASSERT_TRUE(sql.Exec(insert)) << sql.LastError();
    EXPECT_EQ(query(sql, "SELECT EvntData, HwID FROM Events ORDER BY EvntID DESC LIMIT 1;"),
              (Rows{{"a|b\\c \"q\"", "1"}}));
}

}  // namespace
