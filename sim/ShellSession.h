// The protocol engine of one client connection: takes request lines, runs
// them against the client's own SQLite connection and produces the answer
// bytes exactly as the client's fixed reads consume them (docs/protocol.md).
#pragma once

#include <sqlite3.h>

#include <atomic>
#include <cstddef>
#include <string>
#include <vector>

#include "Centrals.h"
#include "MonitorHub.h"
#include "ShellLine.h"
#include "TimeSpan.h"

class SimReplicas;

// State every session of one server shares (command channel sessions too).
struct ShellShared {
    std::string dbPath;                     // prepared with sim_db_prepare
    MonitorHub hub;                         // subscriptions of all sessions
    std::atomic<long> notReadyLeft{0};      // shell directives still to answer "not ready"
    CentralTable centrals;                  // the RS-485 bus of "serial enum" and "serial set"
    TimeSpan started;                       // for "uptime"
    SimReplicas* replicas = nullptr;        // counts committed changes, when kept
};

// Receives a session's answer bytes.
class AnswerSink {
public:
    virtual ~AnswerSink() = default;
    // Sends all `len` bytes; false when the peer is gone.
    virtual bool Write(const char* data, size_t len) = 0;
};

// Answer bytes are sent in blocks of about this size (a long result streams).
constexpr size_t kShellFlushBytes = 65536;
// Most uncommitted changes one transaction collects for subscribers; the
// rest of a larger transaction reaches nobody (logged once).
constexpr size_t kShellMaxPendingChanges = 1000000;
// Longest error text an "Error: " answer carries, in bytes.
constexpr size_t kShellMaxErrorText = 200;

class ShellSession {
public:
    enum Outcome {
        kContinue,  // the answer has been sent; wait for the next line
        kClose,     // the client asked to quit or is gone: close the connection
    };

    // `peer` names the client in log lines; `monitor` receives the change
    // lines of this session's subscriptions (it is unsubscribed on destruction).
    ShellSession(ShellShared& shared, AnswerSink& out, MonitorSink& monitor, const std::string& peer);
    ~ShellSession();
    ShellSession(const ShellSession&) = delete;
    ShellSession& operator=(const ShellSession&) = delete;

    // Opens the session's database connection and sends the banner and the
    // first prompt. Returns false (logged) when either fails.
    bool Start();
    // Answers one request line (without its line end).
    Outcome HandleLine(const std::string& line);
    // Answers a request line that was longer than kShellMaxLine.
    Outcome HandleTooLong();
    // True once the client has subscribed to a table: it may stay silent.
    bool Subscribed() const { return m_subscribed; }

private:
    Outcome Finish();
    void AnswerOk(const char* text);
    void AnswerError(const char* message);
    void Subscribe(const ShellCommand& command);
    bool HasTable(const std::string& table);
    void ExecSql(const std::string& sql);
    bool RunStatement(sqlite3_stmt* stmt);
    void AppendHeader(sqlite3_stmt* stmt, int columns);
    void AppendRow(sqlite3_stmt* stmt, int columns);
    void AppendField(const char* text, size_t len);
    void AppendBlob(const unsigned char* bytes, size_t len);
    void Append(const char* text, size_t len);
    void Append(const char* text);
    bool Flush();
    void PublishCommitted();
    bool TakeNotReadySlot();

    static void OnUpdate(void* self, int op, const char* database, const char* table, sqlite3_int64 rowid);
    static void OnRollback(void* self);

    ShellShared& m_shared;
    AnswerSink& m_sink;
    MonitorSink& m_monitor;
    std::string m_peer;
    sqlite3* m_db = nullptr;
    std::string m_out;  // answer bytes not yet sent; capacity kept between answers
    bool m_peerGone = false;
    char m_escape = '\\';
    char m_separator = '|';
    bool m_header = false;
    bool m_notReady = false;
    bool m_subscribed = false;
    std::vector<MonitorChange> m_pending;  // changes of the open transaction
    bool m_pendingOverflow = false;
    uint64_t m_uncommitted = 0;  // rows changed in the open transaction, any table
};
