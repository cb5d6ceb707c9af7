#include "sql_wrapper.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "debugger.h"
#include "utils.h"

namespace {

const char kFile[] = "sql_wrapper.cpp";
const char kErrorPrefix[] = "Error: ";

std::string sql_rows_text(long n) { return std::to_string(n) + (n == 1 ? " row" : " rows"); }

}  // namespace

SqlWrapper::SqlWrapper(const SockAddr* addr, const char* comment, int maxLineLen, int retryCount)
    : PrivateConnection(addr, maxLineLen, comment ? comment : "SQL Wrapper")
{
    m_retryCount = retryCount;
    for (char stop : {m_escape, m_separator, '\n', '\0'}) m_columnStop[static_cast<unsigned char>(stop)] = true;
    safe_mem_object(kFile, __LINE__, "SqlWrapper", this);
}

SqlWrapper::~SqlWrapper()
{
    Close();
    safe_mem_object(kFile, __LINE__, "~SqlWrapper", this);
}

void SqlWrapper::Close()
{
    Stop();
    PrivateConnection::Close();
}

bool SqlWrapper::Failed(const std::string& reason)
{
    m_reason = reason;
    m_rv = true;
    return false;
}

// A set-up answer that timed out counts as a failed connect attempt.
bool SqlWrapper::ConnectCounted(int& count)
{
    for (;;) {
        PrivateConnection::Close();
        if (Connect()) {
            (void)Print("shell %c %c%s", m_escape, m_separator, NEWLINE);
            if (!SetupTimedOut(ReadLine())) return true;
        }
        if (!ShouldContinue(count)) {
            syslog_safe(3, "<SqlWrapper> Connect failed.");
            return Failed(ConnectFailure());
        }
        syslog_safe(4, "<SqlWrapper> Retrying (connect failed)...");
    }
}

bool SqlWrapper::Reconnect()
{
    // One count for every wait of this call: failed connects and "not
    // ready" answers together make at most Retries() attempts.
    int count = m_retryCount;
    Close();
    for (;;) {
        if (!ConnectCounted(count)) return false;
        if (!strstr(Line(), "not ready")) break;
        if (!ShouldContinue(count)) {
            syslog_safe(3, "<SqlWrapper> DB not ready.");
            // The refused set-up is not a connection to send statements on.
            PrivateConnection::Close();
            return Failed("DB not ready");
        }
        syslog_safe(4, "<SqlWrapper> Retrying (DB not yet ready)...");
    }
    // The rest of the shell answer, then the header switch and its answer.
    bool timedOut = false;
    for (int maxLen : {2, 9}) timedOut = SetupTimedOut(ReadIncompleteLine(maxLen, nullptr)) || timedOut;
    (void)Print(".header on%s", NEWLINE);
    for (int maxLen : {2, 9, 9, 9}) timedOut = SetupTimedOut(ReadIncompleteLine(maxLen, nullptr)) || timedOut;
    if (timedOut) {
        syslog_safe(3, "<SqlWrapper> Connect failed.");
        return Failed(ConnectFailure());
    }
    SetupDone();
    if (Debug()) syslog_safe(7, "DBG %s:%d Connected.", kFile, __LINE__);
    m_rv = false;
    m_eof = true;
    return true;
}

bool SqlWrapper::StatementOk(const char* statement)
{
    // The line break first: it would also hide a final ";" and split the log line.
    if (strpbrk(statement, "\r\n")) {
        syslog_safe(4, "<SqlWrapper> Statement holds a line break; not sent.");
        return Failed("statement holds a line break");
    }
    size_t len = strlen(statement);
    if (len == 0 || statement[len - 1] != ';') {
        syslog_safe(4, "<SqlWrapper> \"%s\" missing semicolon.", statement);
        return Failed("missing semicolon");
    }
    return true;
}

bool SqlWrapper::LineCut(int length)
{
    return m_wholeRows && length == MaxLineLen() - 1 && Line()[length] == '\0';
}

bool SqlWrapper::RowTooLong()
{
    PrivateConnection::Close();
    m_eof = true;
    m_haveLine = false;
    return Failed("row longer than " + std::to_string(MaxRowLen()) + " bytes");
}

bool SqlWrapper::ReadFailed(int result)
{
    if (result == -EIO) return Failed(m_rows ? m_lastError + " after " + sql_rows_text(m_rows) : m_lastError);
    m_eof = true;
    m_haveLine = false;
    if (result == -ETIMEDOUT) {
        PrivateConnection::Close();
        return Failed("no answer within " + std::to_string(AnswerSeconds()) + " s");
    }
    // The result is over either way; a broken connection is made again now
    // so that the next Exec finds it ready.
    if (!ShouldStop()) (void)Reconnect();
    return Failed(m_rows ? "connection lost after " + sql_rows_text(m_rows)
                         : "connection lost; the statement may have run");
}

bool SqlWrapper::ExecStatement(const char* statement)
{
    if (!StatementOk(statement)) return false;
    int count = m_retryCount;
    for (;;) {
        (void)Flush();
        m_reason.clear();
        m_rows = 0;
        // The server closed the idle connection: connect again first, or the
        // statement would be lost with it. Nothing was sent: no retry counted.
        // A stop (which also shuts the link) is no reason to connect again.
        if (Pending() == -EPIPE && (ShouldStop() || !Reconnect()))
            return ShouldStop() ? Failed("stopped before sending") : false;
        int r = Print("%s%s", statement, NEWLINE);
        if (r > 0) r = ReadLine();
        if (r > 0 && LineCut(r)) return RowTooLong();
        if (r > 0) {
            Line()[r] = '\0';
            m_eof = false;
            m_haveLine = true;
            m_rv = false;
            return true;
        }
        if (r == 0) {
            m_rv = false;
            return true;
        }
        if (r == -EIO) {
            syslog_safe(3, "<SqlWrapper> Got prompt.");
            return Failed(m_lastError);
        }
        // Sent and not answered in time: never sent again, the connection
        // goes (its late answer must not meet the next statement).
        if (r == -ETIMEDOUT) return ReadFailed(r);
        // A too long statement fails here on every round, each with a
        // reconnect, until the count runs out: kept as it always was.
        std::string why = r == -ENOSPC ? "statement longer than " + std::to_string(MaxStatementLen()) + " bytes"
                                       : "connection lost; the statement may have run";
        if (ShouldStop()) return Failed(why);
        (void)Reconnect();
        if (!ShouldContinue(count)) return Failed(why);
    }
}

bool SqlWrapper::Exec(const char* statement)
{
    m_reason.clear();
    m_column_names.clear();  // a statement without rows must not show the headers of the one before
    if (!StatementOk(statement)) return false;
    if (!Connected() && !Reconnect()) return false;
    if (!ExecStatement(statement)) return false;
    if (m_eof) return true;
    if (Debug()) syslog_safe(7, "DBG %s:%d Get header names.", kFile, __LINE__);
    if (!Next(m_column_names, 0)) return false;
    m_rows = 0;
    if (m_column_names.size() == 1 && m_column_names[0].compare(0, sizeof kErrorPrefix - 1, kErrorPrefix) == 0) {
        m_lastError = m_column_names[0];
        return Failed(m_lastError);
    }
    return true;
}

bool SqlWrapper::Next()
{
    if (m_eof) {
        m_rv = true;
        return false;
    }
    if (m_haveLine) {
        m_haveLine = false;
        m_rows++;
        return true;
    }
    int n = ReadLine();
    if (n < 0) return ReadFailed(n);
    if (m_eof) {
        m_rv = true;
        return false;
    }
    if (LineCut(n)) return RowTooLong();
    Line()[n] = '\0';
    m_rows++;
    m_rv = false;
    return true;
}

bool SqlWrapper::NextParsed(char** columns, int& columnCount)
{
    if (!Next()) return false;
    char* line = Line();
    const int len = static_cast<int>(strlen(line));
    const int capacity = columns ? columnCount : 0;
    int found = 0;
    int pos = 0;
    while (pos < len) {
        // The column's start moves right as escapes are removed; kept here
        // also for columns beyond the caller's capacity.
        char* start = line + pos;
        const int index = found++;
        if (index < capacity) columns[index] = start;
        for (;;) {
            while (!m_columnStop[static_cast<unsigned char>(line[pos])]) pos++;
            if (pos >= len) break;
            if (line[pos] == m_escape) {
                if (pos == len - 1) {
                    line[pos] = '\0';
                    columnCount = found;
                    return true;
                }
                memmove(start + 1, start, static_cast<size_t>(line + pos - start));
                start++;
                if (index < capacity) columns[index] = start;
                pos += 2;  // the escaped character stays as it is
                continue;
            }
            line[pos++] = '\0';  // a separator or a line feed
            break;
        }
    }
    columnCount = found;
    return true;
}

// Two uncontended locks per row remain, both for Close from another
// thread: this check's (the link may be going) and the line read's.
int SqlWrapper::TakeRow(int maxColumns)
{
    if (!Connected()) return -1;
    if (maxColumns <= 0) maxColumns = m_maxColCount;
    const int capacity = std::min(std::max(maxColumns, 1), MAX_COLUMNS);
    if (m_columns.size() < static_cast<size_t>(capacity)) m_columns.resize(static_cast<size_t>(capacity));
    int found = capacity;
    if (!NextParsed(m_columns.data(), found)) return -1;
    if (m_wholeRows && found > capacity) {
        (void)Failed("more than " + std::to_string(capacity) + " columns");
        return -1;
    }
    return std::min(found, capacity);
}

// The strings of the caller's previous row are overwritten, so a caller
// that keeps its vector allocates nothing after the first rows.
bool SqlWrapper::Next(std::vector<std::string>& row, int maxColumns)
{
    int taken = TakeRow(maxColumns);
    if (taken < 0) return false;
    row.assign(m_columns.begin(), m_columns.begin() + taken);
    return true;
}

// The map's nodes are taken out and refilled, keys and values assigned in
// place: the same map passed row after row allocates nothing once warm.
bool SqlWrapper::Next(std::map<std::string, std::string>& row, int maxColumns)
{
    int taken = TakeRow(maxColumns);
    if (taken < 0) return false;
    while (!row.empty()) m_spareNodes.push_back(row.extract(row.begin()));
    size_t named = std::min(static_cast<size_t>(taken), m_column_names.size());
    for (size_t i = 0; i < named; i++) {
        const std::string& name = m_column_names[i];
        auto it = row.find(name);
        if (it != row.end()) {
            it->second = m_columns[i];  // a later column of the same name wins
        } else if (m_spareNodes.empty()) {
            row.emplace(name, m_columns[i]);
        } else {
            auto node = std::move(m_spareNodes.back());
            m_spareNodes.pop_back();
            node.key() = name;
            node.mapped() = m_columns[i];
            row.insert(std::move(node));
        }
    }
    // A map that held more than a row (a caller's own entries) leaves its
    // surplus to be freed here rather than kept.
    if (m_spareNodes.size() > named)
        m_spareNodes.erase(m_spareNodes.begin() + static_cast<std::ptrdiff_t>(named), m_spareNodes.end());
    return true;
}

bool SqlWrapper::Flush()
{
    if (!Connected()) return false;
    while (Next()) {
    }
    return true;
}
