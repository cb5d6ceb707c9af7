#include "ShellSession.h"

#include <cstring>

#include "SimDatabase.h"
#include "SimReplicas.h"
#include "debugger.h"
#include "utils.h"

namespace {

// Closes every answer: the end marker, then a remainder the client's read
// of at most 8 bytes after the marker takes whole (the prompt and a line end).
const char kAnswerEnd[] = "\v#> \n";
const char kErrorLead[] = "\vError: ";
const char kNotReady[] = "DB not ready";
const char kBanner[] =
    "vantor-sim database shell, SQLite " SQLITE_VERSION "\n"
    "Enter SQL statements terminated with a \";\"\n";

bool is_line_byte(char c)
{
    return c == '\n' || c == '\r' || c == '\v' || c == '\0';
}

unsigned monitor_op(int sqliteOp)
{
    switch (sqliteOp) {
        case SQLITE_INSERT: return kMonitorInsert;
        case SQLITE_UPDATE: return kMonitorUpdate;
        default: return kMonitorDelete;
    }
}

}  // namespace

ShellSession::ShellSession(ShellShared& shared, AnswerSink& out, MonitorSink& monitor, const std::string& peer)
    : m_shared(shared), m_sink(out), m_monitor(monitor), m_peer(peer)
{
    m_out.reserve(kShellFlushBytes + kShellMaxLine + 64);
}

ShellSession::~ShellSession()
{
    m_shared.hub.Unsubscribe(&m_monitor);
    sqlite3_close(m_db);
}

bool ShellSession::Start()
{
    m_db = sim_db_open(m_shared.dbPath);
    if (!m_db) return false;
    sqlite3_update_hook(m_db, OnUpdate, this);
    sqlite3_rollback_hook(m_db, OnRollback, this);
    Append(kBanner);
    Append(strPrompt);
    return Flush();
}

ShellSession::Outcome ShellSession::HandleLine(const std::string& line)
{
    ShellCommand command;
    shell_parse_command(line, command);
    switch (command.kind) {
        case ShellCommand::kComment:
            syslog_safe(6, "<ShellSession> %s: %.200s", m_peer.c_str(), line.c_str());
            Append(strPrompt);
            break;
        case ShellCommand::kShell:
            m_notReady = TakeNotReadySlot();
            m_escape = command.escape;
            m_separator = command.separator;
            AnswerOk(m_notReady ? kNotReady : "OK");
            break;
        case ShellCommand::kHeader:
            m_header = command.header;
            AnswerOk("OK");
            break;
        case ShellCommand::kMonitor: Subscribe(command); break;
        case ShellCommand::kQuit: return kClose;
        case ShellCommand::kInvalid: AnswerError(command.error.c_str()); break;
        case ShellCommand::kSql:
            if (m_notReady) AnswerError(kNotReady);
            else ExecSql(line);
            break;
    }
    return Finish();
}

ShellSession::Outcome ShellSession::HandleTooLong()
{
    syslog_safe(4, "<ShellSession> %s: request line longer than %zu bytes dropped.", m_peer.c_str(), kShellMaxLine);
    AnswerError(("line longer than " + std::to_string(kShellMaxLine) + " bytes").c_str());
    return Finish();
}

ShellSession::Outcome ShellSession::Finish()
{
    return Flush() ? kContinue : kClose;
}

// A directive's answer: one short text line, then the end of the answer.
void ShellSession::AnswerOk(const char* text)
{
    Append(text);
    Append("\n");
    Append(kAnswerEnd);
}

// The marker and the "Error: " line, then a second marker line: the client
// reads that one to finish the error and finds itself at the answer's end.
void ShellSession::AnswerError(const char* message)
{
    Append(kErrorLead);
    size_t len = strnlen(message, kShellMaxErrorText);
    if (len == 0) Append("unknown error");
    for (size_t i = 0; i < len; ++i) m_out.push_back(is_line_byte(message[i]) ? ' ' : message[i]);
    Append("\n");
    Append(kAnswerEnd);
}

// The answer to a subscription is the bare prompt (the client reads three
// bytes and then takes every line as a change), or the error form for a
// table the database does not have.
void ShellSession::Subscribe(const ShellCommand& command)
{
    if (!HasTable(command.table)) return AnswerError(("no such table: " + command.table).c_str());
    if (m_shared.hub.Subscribe(&m_monitor, command.table, command.ops)) {
        m_subscribed = true;
        syslog_safe(6, "<ShellSession> %s: monitoring %s.", m_peer.c_str(), command.table.c_str());
    }
    Append(strPrompt);
}

// Tables and views, named without regard to case as subscriptions are.
bool ShellSession::HasTable(const std::string& table)
{
    sqlite3_stmt* stmt = nullptr;
    const char* sql = "SELECT 1 FROM sqlite_master WHERE type IN ('table', 'view') AND name = ?1 COLLATE NOCASE;";
    bool found = sqlite3_prepare_v2(m_db, sql, -1, &stmt, nullptr) == SQLITE_OK &&
                 sqlite3_bind_text(stmt, 1, table.c_str(), -1, SQLITE_TRANSIENT) == SQLITE_OK &&
                 sqlite3_step(stmt) == SQLITE_ROW;
    sqlite3_finalize(stmt);
    return found;
}

void ShellSession::ExecSql(const std::string& sql)
{
    // SQLite ends the text at a NUL byte; so does the server.
    const char* next = sql.c_str();
    const char* end = next + strlen(next);
    while (next < end && !m_peerGone) {
        sqlite3_stmt* stmt = nullptr;
        const char* tail = end;
        int rc = sqlite3_prepare_v2(m_db, next, static_cast<int>(end - next), &stmt, &tail);
        if (rc != SQLITE_OK) return AnswerError(sqlite3_errmsg(m_db));
        if (!stmt && tail <= next) break;  // nothing more SQLite can take
        next = tail;
        if (!stmt) continue;  // only blanks or a comment
        bool ok = RunStatement(stmt);
        sqlite3_finalize(stmt);
        PublishCommitted();
        if (!ok) return;
    }
    Append(kAnswerEnd);
}

// Streams the statement's rows; false when it failed (answered) or the
// peer went away.
bool ShellSession::RunStatement(sqlite3_stmt* stmt)
{
    size_t pendingBefore = m_pending.size();
    sqlite3_int64 changesBefore = sqlite3_total_changes64(m_db);
    int columns = sqlite3_column_count(stmt);
    // The header comes even when no row follows: the client reads it first.
    if (columns > 0 && m_header) AppendHeader(stmt, columns);
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW && !m_peerGone) AppendRow(stmt, columns);
    if (m_peerGone) return false;
    if (rc == SQLITE_DONE) {
        m_uncommitted += static_cast<uint64_t>(sqlite3_total_changes64(m_db) - changesBefore);
        return true;
    }
    // The failed statement's own changes were undone.
    if (m_pending.size() > pendingBefore) m_pending.erase(m_pending.begin() + pendingBefore, m_pending.end());
    AnswerError(sqlite3_errmsg(m_db));
    return false;
}

void ShellSession::AppendHeader(sqlite3_stmt* stmt, int columns)
{
    for (int i = 0; i < columns; ++i) {
        if (i > 0) m_out.push_back(m_separator);
        const char* name = sqlite3_column_name(stmt, i);
        if (name) AppendField(name, strlen(name));
    }
    m_out.push_back('\n');
}

void ShellSession::AppendRow(sqlite3_stmt* stmt, int columns)
{
    for (int i = 0; i < columns; ++i) {
        if (i > 0) m_out.push_back(m_separator);
        int type = sqlite3_column_type(stmt, i);
        if (type == SQLITE_NULL) continue;
        if (type == SQLITE_BLOB) {
            const void* bytes = sqlite3_column_blob(stmt, i);
            AppendBlob(static_cast<const unsigned char*>(bytes), static_cast<size_t>(sqlite3_column_bytes(stmt, i)));
            continue;
        }
        const unsigned char* text = sqlite3_column_text(stmt, i);
        if (text) AppendField(reinterpret_cast<const char*>(text), static_cast<size_t>(sqlite3_column_bytes(stmt, i)));
    }
    m_out.push_back('\n');
    if (m_out.size() >= kShellFlushBytes) (void)Flush();
}

// Escapes the separator and the escape character; line-end bytes, which
// would end the row on the client, become blanks.
void ShellSession::AppendField(const char* text, size_t len)
{
    for (size_t i = 0; i < len; ++i) {
        char c = text[i];
        if (c == m_separator || c == m_escape) m_out.push_back(m_escape);
        m_out.push_back(is_line_byte(c) ? ' ' : c);
    }
}

// Blobs are shown as SQL hexadecimal literals, X'0A1B'.
void ShellSession::AppendBlob(const unsigned char* bytes, size_t len)
{
    static const char digits[] = "0123456789ABCDEF";
    Append("X'");
    for (size_t i = 0; i < len; ++i) {
        m_out.push_back(digits[bytes[i] >> 4]);
        m_out.push_back(digits[bytes[i] & 15]);
    }
    Append("'");
}

void ShellSession::Append(const char* text, size_t len)
{
    m_out.append(text, len);
}

void ShellSession::Append(const char* text)
{
    m_out.append(text);
}

bool ShellSession::Flush()
{
    if (!m_peerGone && !m_out.empty() && !m_sink.Write(m_out.data(), m_out.size())) m_peerGone = true;
    m_out.clear();
    return !m_peerGone;
}

// Subscribers hear of changes only once they are committed: in autocommit
// mode after each statement, inside a transaction at its COMMIT.
void ShellSession::PublishCommitted()
{
    if (!sqlite3_get_autocommit(m_db)) return;
    if (m_uncommitted > 0 && m_shared.replicas) m_shared.replicas->Commit(m_uncommitted);
    m_uncommitted = 0;
    m_pendingOverflow = false;
    if (m_pending.empty()) return;
    m_shared.hub.Publish(m_pending);
    m_pending.clear();
}

bool ShellSession::TakeNotReadySlot()
{
    long left = m_shared.notReadyLeft.load();
    while (left > 0)
        if (m_shared.notReadyLeft.compare_exchange_weak(left, left - 1)) return true;
    return false;
}

void ShellSession::OnUpdate(void* self, int op, const char*, const char* table, sqlite3_int64 rowid)
{
    ShellSession& session = *static_cast<ShellSession*>(self);
    if (!session.m_shared.hub.Watched(table)) return;
    if (session.m_pending.size() >= kShellMaxPendingChanges) {
        if (!session.m_pendingOverflow)
            syslog_safe(4, "<ShellSession> %s: more than %zu changes in one transaction; the rest is not monitored.",
                        session.m_peer.c_str(), kShellMaxPendingChanges);
        session.m_pendingOverflow = true;
        return;
    }
    session.m_pending.push_back(MonitorChange{monitor_op(op), table, rowid});
}

void ShellSession::OnRollback(void* self)
{
    static_cast<ShellSession*>(self)->m_pending.clear();
    static_cast<ShellSession*>(self)->m_uncommitted = 0;
}
