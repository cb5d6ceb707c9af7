#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "commands.h"
#include "line_writer.h"
#include "server_option.h"
#include "sql_wrapper.h"

namespace {

const int kLineLength = 2048;
const int kInputBuffer = 4000;

struct SqlOptions {
    SockAddr server;
    bool serverGiven = false;
    bool pairs = false;
    bool stdinInput = false;
    bool isFile = false;
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
// only, in sorted order, values bare. Scripts rely on both layouts.
// The row containers live across rows so that their strings are reused.
void print_rows(SqlWrapper& sql, bool pairs)
{
    std::map<std::string, std::string> pairsRow;
    std::vector<std::string> row;
    for (int n = 1;; n++) {
        if (pairs) {
            if (sql.Next(pairsRow, 0)) print_pairs_row(n, pairsRow);
        } else {
            if (n == 1) print_plain_header(sql.GetHeaders());
            if (sql.Next(row, 0)) print_plain_row(n, row);
        }
        if (sql.Eof()) return;
    }
}

// Returns the index of the first non-option argument, or argc; -1 after a
// bad server address (already reported).
int scan_options(int argc, char** argv, SqlOptions& options)
{
    int i = 2;
    for (; i < argc; i++) {
        const char* arg = argv[i];
        if (strncmp(arg, "--server=", 9) == 0) {
            if (!parse_server_option(arg + 9, options.server)) return -1;
            options.serverGiven = true;
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

// Runs each line of `input`; a failing line is reported with the input's
// own line number and the run goes on. Returns the last statement's result.
int run_lines(SqlWrapper& sql, FILE* input, const char* name, bool pairs)
{
    char line[kInputBuffer];
    int rv = 0;
    for (int number = 1; fgets(line, sizeof line, input); number++) {
        line[strcspn(line, "\n")] = '\0';
        line[strcspn(line, "\r")] = '\0';
        if (line[0] == '\0' || line[0] == '#') continue;
        rv = exec_sql(sql, line, pairs, false);
        if (rv != 0) sql_error("%s:%d [%s] %s\n", name, number, sql.LastError().c_str(), line);
    }
    return rv;
}

}  // namespace

// Each statement's output is flushed when it ends.
int exec_sql(SqlWrapper& sql, char* statement, bool pairs, bool verbose)
{
    cut_trailing_blanks(statement);
    if (!sql.Exec(statement)) {
        if (verbose)
            sql_error("SqlWrapper:Exec() - failed (%s): %s.\n", sql.LastError().c_str(), sql.LastError().c_str());
        return -ENOENT;
    }
    if (!sql.Eof()) print_rows(sql, pairs);
    fflush(stdout);
    return 0;
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

    SqlWrapper sql(options.serverGiven ? &options.server : nullptr, nullptr, kLineLength, 0);
    if (!options.isFile && !options.stdinInput) return run_arguments(sql, first, argc, argv, options.pairs);

    // The name printed when an input cannot be opened is the other source's:
    // "stdin" for a file, the file-name argument for standard input. Kept as
    // the tool has always printed it.
    // With --stdin and nothing after the options, glibc printed the missing
    // argument as "(null)"; scripts may match it, so keep that text.
    const char* name = first < argc ? argv[first] : "(null)";
    FILE* input = options.stdinInput ? fdopen(0, "r") : fopen(name, "r");
    if (!input) {
        sql_error("Unable to open file: %s\n", options.stdinInput ? name : "stdin");
        return -ENOENT;
    }
    int rv = run_lines(sql, input, name, options.pairs);
    fclose(input);
    return rv;
}
