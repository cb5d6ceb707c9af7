#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "commands.h"
#include "db_limits.h"
#include "server_option.h"
#include "sql_wrapper.h"

namespace {

// Fixed values of the self-test's event, so its rows are easy to find and
// to clean up: description 9001 "tool self-test", user 0 (the system).
const char* const kEventDescription = "9001";
const char* const kEventUser = "0";

const char* const kSelectHardware = "SELECT HwID FROM Hardware LIMIT 3;";
const char* const kInsertEvent =
    "INSERT INTO Events (EvntDateTime, EvntDscID, UsrID, HwID, EvntData) "
    "VALUES(:EvntDateTime, :EvntDscID, :UsrID, :HwID, :EvntData);";
const char* const kReadBack =
    "SELECT EvntID, EvntDateTime, EvntDscID, UsrID, HwID, EvntData FROM Events "
    "WHERE EvntData = :EvntData ORDER BY EvntID DESC LIMIT 1;";

struct SelfTest {
    SqlWrapper& sql;
    std::string server;
    int failures = 0;

    bool Report(int step, const char* what, bool ok, const std::string& seen)
    {
        printf("step %d %s: %s -> %s\n", step, ok ? "PASS" : "FAIL", what, seen.c_str());
        if (!ok) failures++;
        return ok;
    }
    std::string Failure()
    {
        if (!sql.LastError().empty()) return sql.LastError();
        return sql.Connected() ? "no answer" : "no connection to the database server at " + server;
    }

    // Step 1: the first HwID of the Hardware table, or "" on failure.
    std::string SelectHardware()
    {
        std::vector<std::string> ids, row;
        if (!sql.Exec(kSelectHardware)) return Report(1, kSelectHardware, false, Failure()), "";
        while (!sql.Eof() && sql.Next(row, 0))
            if (!row.empty()) ids.push_back(row[0]);
        std::string seen = std::to_string(ids.size()) + " row(s): HwID";
        for (const std::string& id : ids) seen += " " + id;
        Report(1, kSelectHardware, !ids.empty(), ids.empty() ? "no rows in Hardware" : seen);
        return ids.empty() ? "" : ids[0];
    }

    // Step 2: inserts the event; returns its filled-in statement text.
    bool InsertEvent(const std::string& hwId, const std::string& stamp, const std::string& data)
    {
        std::string statement = kInsertEvent;
        sql.ReplaceParamWithStrValue(statement, "EvntDateTime", stamp);
        sql.ReplaceParamWithValue(statement, "EvntDscID", kEventDescription);
        sql.ReplaceParamWithValue(statement, "UsrID", kEventUser);
        sql.ReplaceParamWithValue(statement, "HwID", hwId);
        sql.ReplaceParamWithStrValue(statement, "EvntData", data);
        bool ok = sql.Exec(statement);
        return Report(2, "INSERT INTO Events", ok, ok ? statement : Failure());
    }

    // Step 3: the row just inserted, with every value as written.
    void ReadBack(const std::string& hwId, const std::string& stamp, const std::string& data)
    {
        std::string statement = kReadBack;
        sql.ReplaceParamWithStrValue(statement, "EvntData", data);
        std::map<std::string, std::string> row;
        if (!sql.Exec(statement)) return (void)Report(3, "read back", false, Failure());
        bool found = !sql.Eof() && sql.Next(row, 0);
        sql.Flush();
        if (!found) return (void)Report(3, "read back", false, "the new event is not in Events");
        bool same = row["EvntDateTime"] == stamp && row["EvntDscID"] == kEventDescription &&
                    row["UsrID"] == kEventUser && row["HwID"] == hwId && row["EvntData"] == data;
        std::string seen = "EvntID " + row["EvntID"] + ": EvntDateTime=" + row["EvntDateTime"] +
                           " EvntDscID=" + row["EvntDscID"] + " UsrID=" + row["UsrID"] + " HwID=" + row["HwID"] +
                           " EvntData=" + row["EvntData"];
        Report(3, "read back", same, same ? seen : "values differ: " + seen);
    }
};

std::string now_text()
{
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

}  // namespace

int main_test(int argc, char** argv)
{
    SockAddr server;
    bool serverGiven = argc == 2;
    if (serverGiven && !parse_server_option(argv[1] + 9, server)) return -1;

    SqlWrapper sql(serverGiven ? &server : nullptr, nullptr, kShortLineLength, 0);
    sql.Bounds(kDefaultConnectSeconds, kDefaultConnectSeconds, 0);
    char where[SockAddr::m_strLen];
    SelfTest test{sql, sql.Address().Str(where, true)};
    std::string hwId = test.SelectHardware();
    if (!hwId.empty()) {
        std::string stamp = now_text();
        std::string data = "vtest self-test, pid " + std::to_string(getpid()) + " at " + stamp;
        if (test.InsertEvent(hwId, stamp, data)) test.ReadBack(hwId, stamp, data);
    }
    bool passed = !hwId.empty() && test.failures == 0;
    if (passed)
        puts("Self-test passed.");
    else
        fputs("Self-test FAILED.\n", stderr);
    return passed ? 0 : 1;
}
