#include "SimDatabase.h"

#include <sys/stat.h>
#include <unistd.h>

#include "daemon.h"
#include "debugger.h"

namespace {

// The sample unit: two units, two RS-485 centrals and their devices, the
// users and event kinds the events refer to, and a day of events.
const char kSchema[] =
    "CREATE TABLE Hardware ("
    " HwID INTEGER PRIMARY KEY, HwName TEXT NOT NULL, HwType TEXT NOT NULL,"
    " HwAddress TEXT, HwSerial TEXT, HwParentID INTEGER);"
    "CREATE TABLE Users ("
    " UsrID INTEGER PRIMARY KEY, UsrName TEXT NOT NULL, UsrRole TEXT NOT NULL);"
    "CREATE TABLE EventDescriptions ("
    " EvntDscID INTEGER PRIMARY KEY, EvntDscText TEXT NOT NULL);"
    "CREATE TABLE Events ("
    " EvntID INTEGER PRIMARY KEY AUTOINCREMENT,"
    " EvntDateTime TEXT NOT NULL DEFAULT (datetime('now')),"
    " EvntDscID INTEGER, UsrID INTEGER, HwID INTEGER, EvntData TEXT);"
    "CREATE INDEX EventsByTime ON Events(EvntDateTime);";

const char kSampleRows[] =
    "INSERT INTO Hardware VALUES"
    " (1, 'vantor-01', 'unit', '10.0.0.5', 'VT-2231-0001', NULL),"
    " (2, 'vantor-02', 'unit', '10.0.0.6', 'VT-2231-0002', 1),"
    " (3, 'central-1', 'central', '3', 'CE-7710-0412', 1),"
    " (4, 'central-2', 'central', '7', 'CE-7710-0413', 2),"
    " (5, 'door-reader-1', 'reader', '3.1', 'RD-0310-1187', 3),"
    " (6, 'door-reader-2', 'reader', '7.1', 'RD-0310-1188', 4),"
    " (7, 'temp-sensor-1', 'sensor', '3.2', 'TS-0042-0090', 3);"
    "INSERT INTO Users VALUES"
    " (1, 'system', 'system'), (2, 'operator', 'operator'), (3, 'service', 'service');"
    "INSERT INTO EventDescriptions VALUES"
    " (1, 'System start'), (2, 'Door opened'), (3, 'Door closed'), (4, 'Access granted'),"
    " (5, 'Access denied'), (6, 'Central offline'), (7, 'Central online'), (8, 'Self-test');"
    "INSERT INTO Events (EvntDateTime, EvntDscID, UsrID, HwID, EvntData) VALUES"
    " ('2026-11-22 06:00:00', 1, 1, 1, 'boot 1.0.0'),"
    " ('2026-11-22 06:00:04', 7, 1, 3, 'address 3'),"
    " ('2026-11-22 06:00:05', 7, 1, 4, 'address 7'),"
    " ('2026-11-22 07:12:31', 4, 2, 5, 'card 0042'),"
    " ('2026-11-22 07:12:32', 2, 2, 5, NULL),"
    " ('2026-11-22 07:12:40', 3, 2, 5, NULL),"
    " ('2026-11-22 09:45:02', 5, 2, 6, 'card 0999'),"
    " ('2026-11-22 13:20:11', 6, 1, 4, 'no answer'),"
    " ('2026-11-22 13:20:41', 7, 1, 4, 'address 7'),"
    " ('2026-11-22 18:00:00', 8, 3, 1, 'ok');";

// Generated events, one a second from the start of the year, cycling
// through the sample kinds, users and devices.
const char kExtraEvents[] =
    "WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM n WHERE x < ?1)"
    " INSERT INTO Events (EvntDateTime, EvntDscID, UsrID, HwID, EvntData)"
    " SELECT datetime('2026-01-01', '+' || x || ' seconds'), 1 + x % 8, 1 + x % 3, 1 + x % 7,"
    " 'sample ' || x FROM n;";

bool db_exec(sqlite3* db, const char* sql)
{
    char* error = nullptr;
    if (sqlite3_exec(db, sql, nullptr, nullptr, &error) == SQLITE_OK) return true;
    syslog_safe(3, "<SimDatabase> \"%.60s...\" failed: %s.", sql, error ? error : "unknown error");
    sqlite3_free(error);
    return false;
}

bool db_seed_extra(sqlite3* db, long extraEvents)
{
    sqlite3_stmt* stmt = nullptr;
    bool ok = sqlite3_prepare_v2(db, kExtraEvents, -1, &stmt, nullptr) == SQLITE_OK &&
              sqlite3_bind_int64(stmt, 1, extraEvents) == SQLITE_OK && sqlite3_step(stmt) == SQLITE_DONE;
    if (!ok) syslog_safe(3, "<SimDatabase> Generating %ld events failed: %s.", extraEvents, sqlite3_errmsg(db));
    sqlite3_finalize(stmt);
    return ok;
}

// Lets a long statement end when the process is told to exit.
int db_progress(void*)
{
    return daemon_should_exit ? 1 : 0;
}

// A missing or empty file gets the sample content (mktemp leaves empty files).
bool file_needs_seed(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) != 0 || st.st_size == 0;
}

}  // namespace

bool sim_db_seed(sqlite3* db, long extraEvents)
{
    if (extraEvents < 0 || extraEvents > kSimMaxSeedEvents) {
        syslog_safe(3, "<SimDatabase> %ld extra events is out of range 0..%ld.", extraEvents, kSimMaxSeedEvents);
        return false;
    }
    if (!db_exec(db, "BEGIN;")) return false;
    bool ok = db_exec(db, kSchema) && db_exec(db, kSampleRows) && (extraEvents == 0 || db_seed_extra(db, extraEvents));
    return db_exec(db, ok ? "COMMIT;" : "ROLLBACK;") && ok;
}

bool sim_db_prepare(const std::string& path, long extraEvents)
{
    bool fresh = file_needs_seed(path);
    sqlite3* db = nullptr;
    int rc = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    bool ok = rc == SQLITE_OK;
    if (!ok) syslog_safe(3, "<SimDatabase> Unable to open \"%s\": %s.", path.c_str(), sqlite3_errstr(rc));
    ok = ok && db_exec(db, "PRAGMA journal_mode=WAL;");
    if (ok && fresh) ok = sim_db_seed(db, extraEvents);
    sqlite3_close(db);
    if (!ok && fresh) sim_db_remove(path);
    if (ok && fresh) syslog_safe(6, "<SimDatabase> Seeded \"%s\" (%ld extra events).", path.c_str(), extraEvents);
    return ok;
}

void sim_db_remove(const std::string& path)
{
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) (void)unlink((path + suffix).c_str());
}

sqlite3* sim_db_open(const std::string& path)
{
    sqlite3* db = nullptr;
    int rc = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc != SQLITE_OK) {
        syslog_safe(3, "<SimDatabase> Unable to open \"%s\": %s.", path.c_str(), sqlite3_errstr(rc));
        sqlite3_close(db);
        return nullptr;
    }
    // The tool's self-test writes its string values in double quotes.
    sqlite3_db_config(db, SQLITE_DBCONFIG_DQS_DML, 1, nullptr);
    sqlite3_db_config(db, SQLITE_DBCONFIG_DQS_DDL, 1, nullptr);
    sqlite3_busy_timeout(db, 5000);
    sqlite3_progress_handler(db, 10000, db_progress, nullptr);
    return db;
}
