// The database client family: SqlWrapper runs one statement at a time
// through the database shell and walks its result; MonitorWrapper watches a
// table; both stand on PrivateConnection.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "ListedObj.hpp"
#include "MonitorWrapper.h"
#include "PrivateConnection.h"
#include "sql_params.h"

class SqlWrapper : public PrivateConnection, public ListedObj<SqlWrapper> {
public:
    // Columns a row may be split into at most, whatever a caller asks for.
    static constexpr int MAX_COLUMNS = 1024;

    // addr null: 127.0.0.1 port 3543; comment null: "SQL Wrapper". Connects
    // lazily, on the first Exec.
    SqlWrapper(const SockAddr* addr = nullptr, const char* comment = nullptr, int maxLineLen = 2048,
               int retryCount = INFINITE_RETRY);
    ~SqlWrapper() override;

    // Runs one statement (it must end in ";" and hold no CR or LF: the wire
    // takes one line per request; both are checked before connecting) and,
    // when it returns rows, reads the header row into GetHeaders() (else it
    // is left empty). False when the statement is refused, fails (server
    // text in LastError()) or the connection cannot be made within
    // Retries(); FailureReason() then says why.
    bool Exec(const char* statement);
    bool Exec(const std::string& statement) { return Exec(statement.c_str()); }
    // The next row, one string per column, at most maxColumns (0: the
    // GetMaxColumns() default). False, row untouched, at the end of the
    // result or on an error.
    bool Next(std::vector<std::string>& row, int maxColumns = 0);
    // The next row as header name to value (a later equal name wins; extra
    // columns without a name are dropped). False, row untouched, as above.
    bool Next(std::map<std::string, std::string>& row, int maxColumns = 0);
    // Splits the next row in place in Line(): columns[i] for the first
    // columnCount (capacity in) columns; columnCount out is the number of
    // columns found, which may exceed the capacity. Escapes are removed.
    bool NextParsed(char** columns, int& columnCount);
    // The next raw row in Line(). False at the end marker, on a server
    // error, or when the connection broke (it is then made again at once,
    // unless stopped) or cannot be read; FailureReason() is empty only at
    // the end marker. A time-out of AnswerSeconds() closes the connection
    // instead (a late answer must not become the next statement's).
    bool Next();
    // Discards the rest of the current result; false without a connection.
    bool Flush();
    // Sends a statement that ends in ";" and reads the first answer line;
    // retries broken connections within Retries(). A connection the server
    // has closed meanwhile is made again before sending, uncounted.
    bool ExecStatement(const char* statement);
    // Connects within Retries() attempts in all (failed connects and "not
    // ready" answers count alike) and sets the server's output format.
    bool Reconnect() override;
    // Stops any wait and closes the link; safe from any thread.
    void Close();

    bool ReplaceParamWithValue(std::string& query, const std::string& name, const std::string& value) const
    {
        return sql_param_replace(query, name, value);
    }
    bool ReplaceParamWithStrValue(std::string& query, const std::string& name, const std::string& value) const
    {
        return sql_param_replace_str(query, name, value);
    }
    bool ReplaceMultipleParamsWithValue(std::string& query, const std::string& name, const std::string& value,
                                        bool parenthesis) const
    {
        return sql_param_replace_all(query, name, value, parenthesis);
    }

    // True after a failed statement or reconnect, or a fetch that found no
    // row; false after an accepted statement and each delivered row.
    bool GetRV() const { return m_rv; }
    // Why the last Exec, or a row fetch of its result, failed, in an
    // operator's words (the server's text for its refusals; see
    // docs/database-client.md); cleared when a statement starts. LastError()
    // keeps the server's last error line as before.
    const std::string& FailureReason() const { return m_reason; }
    // Addition: with it on, a row (or header) longer than MaxRowLen() or
    // wider than the columns asked for fails its fetch instead of coming in
    // pieces or cut short; a too long row closes the connection.
    void WholeRows(bool on) { m_wholeRows = on; }
    // The longest statement and row the line length takes, in bytes: a
    // statement goes out with CR LF, a row comes with its terminator.
    int MaxStatementLen() const { return MaxLineLen() - 3; }
    int MaxRowLen() const { return MaxLineLen() - 2; }
    const std::vector<std::string>& GetHeaders() const { return m_column_names; }
    int GetMaxColumns() const { return m_maxColCount; }
    void SetMaxColumns(int count) { m_maxColCount = count; }

private:
    // Connect attempts within the shared count, with their messages.
    bool ConnectCounted(int& count);
    // Splits the next row into m_columns: how many columns it took (the
    // first ones found, at most maxColumns), or -1 when no row came (or,
    // with whole rows asked for, the row had more columns than that).
    int TakeRow(int maxColumns);
    // The statement rules checked before anything is sent.
    bool StatementOk(const char* statement);
    // Records why the statement failed; false.
    bool Failed(const std::string& reason);
    // A failed read of an answer (-EIO, a time-out or a lost connection).
    bool ReadFailed(int result);
    // A row that did not fit the line buffer: the rest is dropped with the
    // connection.
    bool RowTooLong();
    bool LineCut(int length);

    char m_escape = '\\';
    char m_separator = '|';
    bool m_haveLine = false;
    std::vector<std::string> m_column_names;
    int m_maxColCount = 30;
    bool m_rv = false;
    std::string m_reason;
    // Rows handed out since the header of the current result.
    long m_rows = 0;
    bool m_wholeRows = false;
    // The bytes that end a run of plain column text: escape, separator,
    // line feed and the line's end.
    bool m_columnStop[256] = {};
    // Kept from row to row so that taking a row allocates nothing.
    std::vector<char*> m_columns;
    std::vector<std::map<std::string, std::string>::node_type> m_spareNodes;
};
