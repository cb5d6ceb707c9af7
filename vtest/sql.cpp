#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "ScriptReader.h"
#include "commands.h"
#include "db_limits.h"
#include "line_writer.h"
#include "server_option.h"
#include "sql_wrapper.h"
#include "timeout_option.h"

namespace {

struct SqlOptions {
    SockAddr server;
    bool serverGiven = false;
    bool pairs = false;
    bool stdinInput = false;
    bool isFile = false;
    int timeout = 0;  // seconds; 0: connect and greeting bounded by default, answers not
};

// Rows are fully buffered on a file or pipe: what is printed so far goes
// out first, so the tool's own messages keep their place among the rows.
void sql_error(const char* format, ...) __attribute__((format(printf, 1, 2)));
void sql_error(const char* format, ...)
{
    fflush(stdout);
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
}

int missing_statement(bool isFile)
{
    sql_error("Missing parameter: SQL statement%s.\n", isFile ? " file" : "");
    return -1;
}

// Cuts trailing blanks and tabs, never the statement's first character.
void cut_trailing_blanks(char* statement)
{
    size_t len = strlen(statement);
    while (len > 1 && (statement[len - 1] == ' ' || statement[len - 1] == '\t')) statement[--len] = '\0';
}

LineWriter g_out;

void print_plain_header(const std::vector<std::string>& names)
{
    g_out.Text("Line #");
    for (const std::string& name : names) g_out.Text("\t\"").Text(name).Char('"');
    g_out.End();
}

void print_plain_row(int n, const std::vector<std::string>& row)
{
    g_out.Int(n).Text(".\t");
    for (const std::string& value : row) g_out.Char('"').Text(value).Char('"').Char('\t');
    g_out.End();
}

void print_pairs_row(int n, const std::map<std::string, std::string>& row)
{
    if (n == 1) {
        g_out.Text("Line #");
        for (const auto& column : row) g_out.Text("\t\"").Text(column.first).Char('"');
        g_out.End();
    }
    g_out.Int(n).Text(".\t");
    for (const auto& column : row) g_out.Text(column.second).Char('\t');
    g_out.End();
}

// Plain mode prints the header as soon as rows are announced, in the
// server's order, values quoted; pairs mode prints it with the first row
// only, in sorted order, values bare. Scripts rely on both layouts. Every
// row gets a value per column: the server sends no separator for trailing
// empty values. The row containers live across rows so that their strings
// are reused. False when a fetch failed; the rows before it stay printed.
bool print_rows(SqlWrapper& sql, bool pairs)
{
    const std::vector<std::string>& names = sql.GetHeaders();
    std::map<std::string, std::string> pairsRow;
    std::vector<std::string> row;
    if (!pairs) print_plain_header(names);
    for (int n = 1;; n++) {
        if (pairs) {
            if (!sql.Next(pairsRow, 0)) break;
            for (const std::string& name : names) pairsRow.emplace(name, "");
            print_pairs_row(n, pairsRow);
        } else {
            if (!sql.Next(row, 0)) break;
            if (row.size() < names.size()) row.resize(names.size());
            print_plain_row(n, row);
        }
    }
    return sql.FailureReason().empty();
}

// Why the last statement failed.
std::string failure(const SqlWrapper& sql)
{
    return sql.FailureReason().empty() ? sql.LastError() : sql.FailureReason();
}

// Returns the index of the first non-option argument, or argc; -1 after a
// bad server address or time-out (already reported).
int scan_options(int argc, char** argv, SqlOptions& options)
{
    int i = 2;
    for (; i < argc; i++) {
        const char* arg = argv[i];
        if (strncmp(arg, "--server=", 9) == 0) {
            if (!parse_server_option(arg + 9, options.server)) return -1;
            options.serverGiven = true;
        } else if (strncmp(arg, "--timeout=", 10) == 0) {
            if (!parse_timeout_seconds(arg + 10, options.timeout)) {
                sql_error("Invalid timeout: %s.\n", arg + 10);
                return -1;
            }
        } else if (strcmp(arg, "--pairs") == 0) {
            options.pairs = true;
        } else if (strncmp(arg, "--stdin", 7) == 0) {
            options.stdinInput = true;
        } else {
            break;
        }
    }
    return i;
}

int run_arguments(SqlWrapper& sql, int first, int argc, char** argv, bool pairs)
{
    int rv = 0;
    for (int i = first; i < argc; i++) {
        if (i > first) puts("--------------- N e x t   q u e r y --------------");
        rv = exec_sql(sql, argv[i], pairs, true);
        if (rv != 0) return rv;
    }
    return rv;
}

// Runs each line of `fd`; a failing or refused line is reported with the
// input's own line number and the run goes on. Returns the last
// statement's result; a read error ends the run with -ENOENT.
int run_lines(SqlWrapper& sql, int fd, const char* name, bool pairs)
{
    ScriptReader reader(fd, static_cast<size_t>(sql.MaxStatementLen()));
    int rv = 0;
    for (;;) {
        ScriptReader::Result next = reader.Next();
        if (next == ScriptReader::kEnd) return rv;
        if (next == ScriptReader::kError) {
            sql_error("Unable to read %s: %s.\n", name, strerror(reader.Errno()));
            return -ENOENT;
        }
        if (next == ScriptReader::kRefused) {
            sql_error("%s:%d [%s] %s\n", name, reader.Number(), reader.Reason().c_str(), reader.Preview().c_str());
            rv = -ENOENT;
            continue;
        }
        std::string line = reader.Text();
        rv = exec_sql(sql, &line[0], pairs, false);
        if (rv != 0) sql_error("%s:%d [%s] %s\n", name, reader.Number(), failure(sql).c_str(), line.c_str());
    }
}

// The input of sql_file or --stdin, or -1 (reported). A directory is not an
// input; every other kind of file is read as it comes.
int open_input(const SqlOptions& options, const char* name)
{
    int fd = options.stdinInput ? STDIN_FILENO : open(name, O_RDONLY | O_CLOEXEC);
    struct stat st;
    if (fd >= 0 && fstat(fd, &st) == 0 && !S_ISDIR(st.st_mode)) return fd;
    if (fd > STDIN_FILENO) close(fd);
    // The name printed is the other source's: "stdin" for a file, the
    // file-name argument for standard input. Kept as the tool has always
    // printed it.
    sql_error("Unable to open file: %s\n", options.stdinInput ? name : "stdin");
    return -1;
}

}  // namespace

// Each statement's output is flushed when it ends.
int exec_sql(SqlWrapper& sql, char* statement, bool pairs, bool verbose)
{
    cut_trailing_blanks(statement);
    if (sql.Exec(statement) && (sql.Eof() || print_rows(sql, pairs))) {
        fflush(stdout);
        return 0;
    }
    if (verbose) {
        std::string why = failure(sql);
        sql_error("SqlWrapper:Exec() - failed (%s): %s.\n", why.c_str(), why.c_str());
    }
    return -ENOENT;
}

int main_sql(int argc, char** argv)
{
    stdout_buffer_fully();
    SqlOptions options;
    options.isFile = strcmp(argv[1], "sql_file") == 0;
    if (argc < 3) return missing_statement(options.isFile);
    int first = scan_options(argc, argv, options);
    if (first < 0) return -1;
    if (first == argc && !options.stdinInput) return missing_statement(options.isFile);

    SqlWrapper sql(options.serverGiven ? &options.server : nullptr, nullptr, kSqlLineLength, 0);
    int setup = options.timeout ? options.timeout : kDefaultConnectSeconds;
    sql.Bounds(setup, setup, options.timeout);
    sql.SetMaxColumns(SqlWrapper::MAX_COLUMNS);
    sql.WholeRows(true);
    if (!options.isFile && !options.stdinInput) return run_arguments(sql, first, argc, argv, options.pairs);

    const char* name = first < argc ? argv[first] : "stdin";
    int fd = open_input(options, name);
    if (fd < 0) return -ENOENT;
    int rv = run_lines(sql, fd, name, options.pairs);
    if (fd != STDIN_FILENO) close(fd);
    return rv;
}
