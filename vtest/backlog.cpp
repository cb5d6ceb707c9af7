// backlog: how far each peer's confirmed version trails the unit's, as a
// table, JSON or one monitoring-plugin line; the exit status is the
// plugin's (0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN).
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "Backlog.h"
#include "commands.h"
#include "json_string.h"
#include "timeout_option.h"
#include "unit_listing.h"

namespace {

// --stale=SECONDS: whole seconds, up to a year.
const long long kMaxStaleSeconds = 365LL * 86400;
const double kMinIntervalSeconds = 0.1;
const double kMaxIntervalSeconds = 3600;

enum class Format { kText, kJson, kSummary };

struct BacklogOptions {
    BacklogLimits limits;
    double interval = 0;  // seconds between two readings; 0: one reading
    Format format = Format::kText;
    bool json = false, summary = false;
    std::string dir = kVersionDir;
};

// What the command saw: the (later) reading and its judgement.
struct BacklogView {
    const BacklogOptions& options;
    const BacklogReading& reading;
    const std::vector<PeerReport>& reports;
    BacklogStatus status;
    timespec now;
};

void usage_error(const char* program, const std::string& message)
{
    fprintf(stderr,
            "Error: %s\nUsage: %s backlog [--warn=N] [--crit=N] [--stale=SECONDS] [--interval=SECONDS]"
            " [--json | --summary] [--dir=DIR]\n",
            message.c_str(), program);
}

bool parse_count(const char* text, std::optional<uint64_t>& count)
{
    Version value;
    if (!value.Parse(text)) return false;
    count = value.Value();
    return true;
}

bool parse_warn(const char* text, BacklogOptions& o) { return parse_count(text, o.limits.warn); }
bool parse_crit(const char* text, BacklogOptions& o) { return parse_count(text, o.limits.crit); }

bool parse_stale(const char* text, BacklogOptions& o)
{
    Version value;
    if (!value.Parse(text) || value.Value() < 1 || value.Value() > static_cast<uint64_t>(kMaxStaleSeconds))
        return false;
    o.limits.staleSeconds = static_cast<long long>(value.Value());
    return true;
}

bool parse_interval(const char* text, BacklogOptions& o)
{
    return parse_decimal_seconds(text, kMinIntervalSeconds, kMaxIntervalSeconds, o.interval);
}

// Trailing slashes are cut so that messages name files plainly.
bool parse_dir(const char* text, BacklogOptions& o)
{
    std::string dir = text;
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
    if (dir.empty()) return false;
    o.dir = dir;
    return true;
}

struct ValueOption {
    const char* prefix;
    bool (*parse)(const char* text, BacklogOptions& options);
    std::string expected;
};

std::string seconds_range(double low, double high)
{
    char text[64];
    snprintf(text, sizeof text, "seconds from %.10g to %.10g", low, high);
    return text;
}

const ValueOption kValueOptions[] = {
    {"--warn=", parse_warn, "a whole number of changes"},
    {"--crit=", parse_crit, "a whole number of changes"},
    {"--stale=", parse_stale, "whole " + seconds_range(1, static_cast<double>(kMaxStaleSeconds))},
    {"--interval=", parse_interval, seconds_range(kMinIntervalSeconds, kMaxIntervalSeconds)},
    {"--dir=", parse_dir, "a directory"},
};

// One argument; false after reporting it.
bool parse_argument(const char* program, const char* arg, BacklogOptions& options)
{
    bool* flag = strcmp(arg, "--json") == 0 ? &options.json : strcmp(arg, "--summary") == 0 ? &options.summary : nullptr;
    if (flag) {
        *flag = true;
        return true;
    }
    for (const ValueOption& option : kValueOptions) {
        size_t length = strlen(option.prefix);
        if (strncmp(arg, option.prefix, length) != 0) continue;
        if (option.parse(arg + length, options)) return true;
        usage_error(program, std::string("invalid value in '") + arg + "': expected " + option.expected + ".");
        return false;
    }
    usage_error(program, std::string(strncmp(arg, "--", 2) == 0 ? "unknown option '" : "unexpected argument '") +
                             arg + "'.");
    return false;
}

// Options in any order, the last of a kind winning. False after reporting.
bool parse_options(int argc, char** argv, BacklogOptions& options)
{
    for (int i = 2; i < argc; i++)
        if (!parse_argument(argv[0], argv[i], options)) return false;
    if (options.json && options.summary) {
        usage_error(argv[0], "--json and --summary exclude each other.");
        return false;
    }
    const BacklogLimits& limits = options.limits;
    if (limits.warn && limits.crit && *limits.crit < *limits.warn) {
        usage_error(argv[0], "--crit is below --warn.");
        return false;
    }
    options.format = options.json ? Format::kJson : options.summary ? Format::kSummary : Format::kText;
    return true;
}

double monotonic_seconds()
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

// Write end of the pipe that SIGINT and SIGTERM write a byte to, so the
// wait between two readings ends at once (no race with a flag and a sleep).
int g_stopPipe = -1;

void on_stop_signal(int)
{
    int saved = errno;
    char byte = 0;
    ssize_t written = write(g_stopPipe, &byte, 1);  // a full pipe already wakes the wait
    (void)written;
    errno = saved;
}

// Catches SIGINT and SIGTERM for the rest of the run, so a second one cannot
// kill it before it reports. Returns the pipe's read end, or -1.
int catch_stop_signals()
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) return -1;
    g_stopPipe = fds[1];
    struct sigaction action = {};
    action.sa_handler = on_stop_signal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    return fds[0];
}

// Waits until `seconds` have passed since `start` (monotonic), or until
// `stop` (catch_stop_signals' pipe; -1 for none) is readable.
void wait_interval(int stop, double start, double seconds)
{
    for (;;) {
        double left = start + seconds - monotonic_seconds();
        if (left <= 0) return;
        pollfd wake = {stop, POLLIN, 0};
        if (poll(&wake, stop < 0 ? 0 : 1, static_cast<int>(std::ceil(left * 1000))) > 0) return;
    }
}

// One reading, or two with --interval (`elapsed` seconds apart); SIGINT and
// SIGTERM end the wait early.
bool take_readings(const BacklogOptions& options, BacklogReading& earlier, BacklogReading& later, double& elapsed,
                   std::string& unknown)
{
    if (options.interval == 0) return backlog_read(options.dir, later, unknown);
    int stop = catch_stop_signals();
    double start = monotonic_seconds();
    if (!backlog_read(options.dir, earlier, unknown)) return false;
    wait_interval(stop, start, options.interval);
    elapsed = monotonic_seconds() - start;
    return backlog_read(options.dir, later, unknown);
}

// ---- text

std::string age_cell(long long age)
{
    return age < 0 ? "future" : backlog_age_text(static_cast<double>(age));
}

std::string rate_cell(const PeerReport& r)
{
    if (!r.rated) return "-";
    char text[48];
    snprintf(text, sizeof text, "%.1f/s", r.rate);
    return text;
}

std::vector<std::string> text_row(const PeerReport& r, bool interval)
{
    std::vector<std::string> row = {std::to_string(r.id)};
    if (r.error == 0) {
        row.insert(row.end(), {r.version.Str(), std::to_string(r.backlog), age_cell(r.age)});
    } else {
        row.insert(row.end(), {"-", "-", "-"});
    }
    if (interval) row.insert(row.end(), {rate_cell(r), r.hasEta ? backlog_age_text(r.eta) : "-"});
    std::string state = backlog_state_word(r.state);
    row.push_back(r.error == 0 ? state : state + " (" + backlog_reason(r.error) + ")");
    return row;
}

// Left-aligned columns as wide as their widest cell, two blanks apart, no
// blanks at the end of a line.
void print_columns(const std::vector<std::vector<std::string>>& rows)
{
    std::vector<size_t> widths(rows[0].size(), 0);
    for (const auto& row : rows)
        for (size_t i = 0; i < row.size(); i++) widths[i] = std::max(widths[i], row[i].size());
    for (const auto& row : rows) {
        for (size_t i = 0; i + 1 < row.size(); i++) printf("%-*s  ", static_cast<int>(widths[i]), row[i].c_str());
        printf("%s\n", row.back().c_str());
    }
}

void print_text(const BacklogView& v)
{
    long long age = backlog_age(v.reading.unitMtime, v.now);
    if (age < 0) printf("unit %s updated in the future\n", v.reading.unit.Str().c_str());
    else printf("unit %s updated %s ago\n", v.reading.unit.Str().c_str(), age_cell(age).c_str());
    if (v.reports.empty()) {
        puts("no peers");
        return;
    }
    bool interval = v.options.interval > 0;
    std::vector<std::vector<std::string>> rows = {{"peer", "version", "backlog", "age"}};
    if (interval) rows[0].insert(rows[0].end(), {"rate", "eta"});
    rows[0].push_back("state");
    for (const PeerReport& r : v.reports) rows.push_back(text_row(r, interval));
    print_columns(rows);
}

// ---- JSON

// The time in whole Unix seconds and the age (0 when in the future).
void print_json_time(const timespec& mtime, const timespec& now)
{
    printf("\"age\":%lld,\"mtime\":%lld", std::max(backlog_age(mtime, now), 0LL), static_cast<long long>(mtime.tv_sec));
}

void print_json_peer(const PeerReport& r, const PeerReading& peer, const BacklogView& v)
{
    printf("{\"peer\":%d,", r.id);
    if (r.error == 0) {
        printf("\"version\":%" PRIu64 ",\"backlog\":%" PRIu64 ",", r.version.Value(), r.backlog);
        print_json_time(peer.mtime, v.now);
    } else {
        printf("\"version\":null,\"backlog\":null,\"age\":null,\"mtime\":null");
    }
    printf(",\"state\":\"%s\",\"reason\":%s", backlog_state_word(r.state),
           r.error == 0 ? "null" : json_string(backlog_reason(r.error)).c_str());
    if (v.options.interval > 0) {
        if (r.rated) printf(",\"rate\":%.3f", r.rate);
        else printf(",\"rate\":null");
        if (r.hasEta) printf(",\"eta\":%.0f}", std::floor(r.eta));
        else printf(",\"eta\":null}");
    } else {
        putchar('}');
    }
}

void print_json(const BacklogView& v)
{
    printf("{\"status\":\"%s\",\"unit\":{\"version\":%" PRIu64 ",", backlog_status_word(v.status),
           v.reading.unit.Value());
    print_json_time(v.reading.unitMtime, v.now);
    printf("},\"peers\":[");
    for (size_t i = 0; i < v.reports.size(); i++) {
        if (i > 0) putchar(',');
        print_json_peer(v.reports[i], v.reading.peers[i], v);
    }
    printf("]}\n");
}

// ---- monitoring-plugin line

std::string threshold(const std::optional<uint64_t>& limit)
{
    return limit ? std::to_string(*limit) : "";
}

// ", 2 stalled, 1 malformed": every state but ok that some peer is in.
std::string state_counts(const std::vector<PeerReport>& reports)
{
    std::string text;
    for (PeerState state = PeerState::kMalformed; state != PeerState::kOk;
         state = static_cast<PeerState>(static_cast<int>(state) + 1)) {
        size_t n = 0;
        for (const PeerReport& r : reports) n += r.state == state;
        if (n > 0) text += ", " + std::to_string(n) + " " + backlog_state_word(state);
    }
    return text;
}

// ", largest backlog 12 (peer 7)" over the readable peers; the lowest id wins a tie.
std::string largest_backlog(const std::vector<PeerReport>& reports)
{
    const PeerReport* largest = nullptr;
    for (const PeerReport& r : reports)
        if (r.error == 0 && (!largest || r.backlog > largest->backlog)) largest = &r;
    if (!largest) return "";
    return ", largest backlog " + std::to_string(largest->backlog) + " (peer " + std::to_string(largest->id) + ")";
}

void print_summary(const BacklogView& v)
{
    size_t n = v.reports.size();
    printf("BACKLOG %s - ", backlog_status_word(v.status));
    if (n == 0) {
        puts("no peers");
        return;
    }
    printf("%zu peer%s%s%s |", n, n == 1 ? "" : "s", largest_backlog(v.reports).c_str(),
           state_counts(v.reports).c_str());
    std::string limits = ";" + threshold(v.options.limits.warn) + ";" + threshold(v.options.limits.crit) + ";0";
    for (const PeerReport& r : v.reports)
        printf(" peer%d=%s%s", r.id, r.error == 0 ? std::to_string(r.backlog).c_str() : "U", limits.c_str());
    putchar('\n');
}

// ---- results

int report_unknown(const BacklogOptions& options, const std::string& reason)
{
    fprintf(stderr, "%s\n", reason.c_str());
    if (options.format == Format::kSummary) printf("BACKLOG UNKNOWN - %s\n", reason.c_str());
    if (options.format == Format::kJson) printf("{\"status\":\"UNKNOWN\",\"reason\":%s}\n", json_string(reason).c_str());
    return kBacklogUnknown;
}

void warn_ignored(const BacklogReading& reading)
{
    if (reading.ignoredCount == 0) return;
    std::string names;
    // Escaped, so that a name holding a line end cannot split the one line.
    for (const std::string& name : reading.ignored) names += (names.empty() ? "" : ", ") + listing_escape(name);
    if (reading.ignoredCount > reading.ignored.size())
        names += ", and " + std::to_string(reading.ignoredCount - reading.ignored.size()) + " more";
    fprintf(stderr, "ignoring files that are not peers: %s\n", names.c_str());
}

}  // namespace

int main_backlog(int argc, char** argv)
{
    BacklogOptions options;
    if (!parse_options(argc, argv, options)) return -1;
    BacklogReading earlier, later;
    double elapsed = 0;
    std::string unknown;
    if (!take_readings(options, earlier, later, elapsed, unknown)) return report_unknown(options, unknown);
    warn_ignored(later);
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    std::vector<PeerReport> reports =
        backlog_judge_all(later, options.interval > 0 ? &earlier : nullptr, elapsed, options.limits, now);
    BacklogView view{options, later, reports, backlog_status(reports), now};
    if (options.format == Format::kJson) print_json(view);
    else if (options.format == Format::kSummary) print_summary(view);
    else print_text(view);
    return view.status;
}
