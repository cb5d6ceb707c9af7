// time: converts instants and wall times in one time zone, or lists the
// zone's changes.
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "ScriptReader.h"
#include "TimeZone.h"
#include "commands.h"
#include "exit_status.h"
#include "line_writer.h"

namespace {

const int kExitUnconverted = 1;  // some <time> was not converted
const int kExitNoZone = 2;       // the zone cannot be loaded
// Longest --stdin line taken, in bytes; longer ones are refused unread.
const size_t kMaxInputLine = 64;
const int kDefaultFrom = 1800, kDefaultTo = 2100, kLastYearEnd = 10000;

const char kSynopsis[] =
    "%s time --tz=<timezone> [--pick=all|earlier|later|reject] (<time>)+ | --stdin\n"
    "%s time --tz=<timezone> --transitions[=<from>:<to>]\n\tConvert time.\n";
const char kNotATime[] = "not a time (@SECONDS, YYYY-MM-DD[ HH:MM[:SS]][Z|+HH:MM|-HH:MM] or now)";
const char kOutOfRange[] = "outside the years 0001-9999";

enum class Pick { All, Earlier, Later, Reject };

struct TimeOptions {
    const char* zone = nullptr;
    const char* pick = nullptr;
    const char* range = nullptr;
    bool readStdin = false, transitions = false;
    std::vector<const char*> times;
    Pick picked = Pick::All;
    int from = kDefaultFrom, to = kDefaultTo;
};

std::string quoted(const char* text) { return tz_quoted(text, strlen(text)); }

// A year of a --transitions range: digits only, 1..10000.
bool parse_year(const char* p, const char* end, int& year)
{
    auto r = std::from_chars(p, end, year);
    return p < end && *p != '-' && r.ptr == end && r.ec == std::errc() && year >= 1 && year <= kLastYearEnd;
}

bool parse_range(const char* text, TimeOptions& o)
{
    const char* colon = strchr(text, ':');
    return colon && parse_year(text, colon, o.from) && parse_year(colon + 1, colon + strlen(colon), o.to) &&
           o.from < o.to;
}

bool parse_pick(const char* text, Pick& pick)
{
    static const char* const kNames[] = {"all", "earlier", "later", "reject"};
    for (int i = 0; i < 4; i++) {
        if (strcmp(text, kNames[i]) != 0) continue;
        pick = static_cast<Pick>(i);
        return true;
    }
    return false;
}

// Options are "--name" or "--name=value", each at most once, anywhere.
bool parse_option(const char* arg, TimeOptions& o, std::string& error)
{
    struct Option {
        const char* name;
        const char** value;  // null: takes no value
        bool* flag;          // null: needs a value
    } options[] = {
        {"--tz", &o.zone, nullptr},
        {"--pick", &o.pick, nullptr},
        {"--stdin", nullptr, &o.readStdin},
        {"--transitions", &o.range, &o.transitions},
    };
    const char* eq = strchr(arg, '=');
    size_t nameLen = eq ? static_cast<size_t>(eq - arg) : strlen(arg);
    for (Option& opt : options) {
        if (strlen(opt.name) != nameLen || strncmp(arg, opt.name, nameLen) != 0) continue;
        if (eq && !opt.value) error = std::string("option ") + opt.name + " takes no value.";
        else if (!eq && !opt.flag) error = std::string("option ") + opt.name + " needs =<value>.";
        else if ((opt.flag && *opt.flag) || (opt.value && *opt.value))
            error = std::string("option ") + opt.name + " given twice.";
        if (!error.empty()) return false;
        if (opt.flag) *opt.flag = true;
        if (eq) *opt.value = eq + 1;
        return true;
    }
    error = "unknown option " + quoted(arg) + ".";
    return false;
}

bool time_parse(int argc, char** argv, TimeOptions& o, std::string& error)
{
    for (int i = 2; i < argc; i++) {
        if (strncmp(argv[i], "--", 2) != 0) o.times.push_back(argv[i]);
        else if (!parse_option(argv[i], o, error)) return false;
    }
    int modes = !o.times.empty() + o.readStdin + o.transitions;
    if (!o.zone) error = "missing --tz=<timezone>.";
    else if (!*o.zone) error = "empty --tz= value.";
    else if (modes != 1) error = "give exactly one of <time>, --stdin and --transitions.";
    else if (o.pick && o.transitions) error = "--pick does not go with --transitions.";
    else if (o.pick && !parse_pick(o.pick, o.picked))
        error = "unknown --pick value " + quoted(o.pick) + " (all, earlier, later or reject).";
    else if (o.range && !parse_range(o.range, o))
        error = "bad --transitions range " + quoted(o.range) + " (<from>:<to>, years 1 <= from < to <= 10000).";
    return error.empty();
}

int time_usage(const char* program, const std::string& error)
{
    fprintf(stderr, "Error: %s\n", error.c_str());
    fprintf(stderr, kSynopsis, program, program);
    return -1;
}

// ---- reading a <time>

enum class Parsed { Instant, Wall, Bad, OutOfRange };

struct Scanner {
    const char* p;
    const char* end;

    bool AtEnd() const { return p == end; }
    bool Accept(char c)
    {
        if (p == end || *p != c) return false;
        p++;
        return true;
    }
    // Exactly n digits.
    bool Digits(int n, int& out)
    {
        out = 0;
        for (int i = 0; i < n; i++, p++) {
            if (p == end || *p < '0' || *p > '9') return false;
            out = out * 10 + (*p - '0');
        }
        return true;
    }
};

// SECONDS after the "@": an optional sign, then digits.
Parsed parse_seconds(Scanner s, int64_t& instant)
{
    bool plus = s.Accept('+');
    if (s.AtEnd() || (plus && *s.p == '-')) return Parsed::Bad;
    auto r = std::from_chars(s.p, s.end, instant);
    if (r.ptr != s.end) return Parsed::Bad;
    if (r.ec == std::errc::result_out_of_range) return Parsed::OutOfRange;
    return r.ec == std::errc() ? Parsed::Instant : Parsed::Bad;
}

// YYYY-MM-DD[( |T)HH:MM[:SS]], a real date and time of day; the year may be 0.
bool parse_wall(Scanner& s, LocalTime& wall)
{
    wall = LocalTime();
    if (!s.Digits(4, wall.year) || !s.Accept('-') || !s.Digits(2, wall.month) || !s.Accept('-') ||
        !s.Digits(2, wall.day))
        return false;
    if (!s.AtEnd() && (!(s.Accept(' ') || s.Accept('T')) || !s.Digits(2, wall.hour) || !s.Accept(':') ||
                       !s.Digits(2, wall.minute) || (s.Accept(':') && !s.Digits(2, wall.second))))
        return false;
    return wall.month >= 1 && wall.month <= 12 && wall.day >= 1 && wall.day <= tz_month_length(wall.year, wall.month) &&
           wall.hour <= 23 && wall.minute <= 59 && wall.second <= 59;
}

// Z, +HH, +HHMM or +HH:MM (or -), below 24 hours: seconds east of UTC.
bool parse_offset(Scanner& s, int& offset)
{
    if (s.Accept('Z')) return true;
    int sign = s.Accept('+') ? 1 : s.Accept('-') ? -1 : 0, hours = 0, minutes = 0;
    if (!sign || !s.Digits(2, hours) || hours > 23) return false;
    if (!s.AtEnd() && ((void)s.Accept(':'), !s.Digits(2, minutes) || minutes > 59)) return false;
    offset = sign * (hours * 3600 + minutes * 60);
    return true;
}

// ---- one conversion after another, into one output buffer

class TimeConverter {
public:
    TimeConverter(const TimeZone& zone, Pick pick) : m_zone(zone), m_pick(pick) {}

    void Convert(const char* text, size_t len);
    void ReadStdin();
    void List(int fromYear, int toYear);
    int Status() const { return m_status; }

private:
    Parsed Parse(const char* text, size_t len, int64_t& instant, LocalTime& wall);
    bool Print(int64_t t, const char* tag);
    // `subject` is the refused text, quoted, or empty.
    void Refuse(const std::string& subject, const std::string& why);

    const TimeZone& m_zone;
    Pick m_pick;
    int m_status = kExitOk;
    int m_line = 0;  // line of standard input, 0 for arguments
    bool m_haveNow = false;
    int64_t m_now = 0;
    LineWriter m_out;
    std::string m_abbr;  // the escaped abbreviation, its room kept from line to line
};

Parsed TimeConverter::Parse(const char* text, size_t len, int64_t& instant, LocalTime& wall)
{
    Scanner s{text, text + len};
    if (len == 3 && memcmp(text, "now", 3) == 0) {
        if (!m_haveNow) m_now = static_cast<int64_t>(time(nullptr)), m_haveNow = true;
        instant = m_now;
        return Parsed::Instant;
    }
    if (s.Accept('@')) return parse_seconds(s, instant);
    int offset = 0;
    if (!parse_wall(s, wall)) return Parsed::Bad;
    bool hasOffset = !s.AtEnd();
    if ((hasOffset && !parse_offset(s, offset)) || !s.AtEnd()) return Parsed::Bad;
    if (wall.year < 1) return Parsed::OutOfRange;
    if (!hasOffset) return Parsed::Wall;
    int64_t posix = tz_days_from_civil(wall.year, wall.month, wall.day) * kSecondsPerDay + wall.hour * 3600 +
                    wall.minute * 60 + wall.second;
    instant = m_zone.FromPosix(posix - offset);
    return Parsed::Instant;
}

void TimeConverter::Convert(const char* text, size_t len)
{
    int64_t t = 0, out[2];
    LocalTime wall;
    switch (Parse(text, len, t, wall)) {
    case Parsed::Bad:
        return Refuse(tz_quoted(text, len), kNotATime);
    case Parsed::OutOfRange:
        return Refuse(tz_quoted(text, len), kOutOfRange);
    case Parsed::Instant:
        if (!Print(t, "")) Refuse(tz_quoted(text, len), kOutOfRange);
        return;
    case Parsed::Wall:
        break;
    }
    LocalKind kind;
    (void)m_zone.FromLocal(wall, out, &kind);
    bool fold = kind == LocalKind::Fold;
    if (kind == LocalKind::OutOfRange) return Refuse(tz_quoted(text, len), kOutOfRange);
    if (kind == LocalKind::Unique) {
        (void)Print(out[0], "");
    } else if (m_pick == Pick::Earlier) {
        (void)Print(out[0], fold ? " fold=earlier" : " gap=earlier");
    } else if (m_pick == Pick::Later) {
        (void)Print(out[1], fold ? " fold=later" : " gap=later");
    } else if (fold && m_pick == Pick::All) {
        (void)Print(out[0], " fold=earlier");
        (void)Print(out[1], " fold=later");
    } else if (fold) {
        Refuse(tz_quoted(text, len), "occurs twice (refused by --pick=reject)");
    } else {
        Refuse(tz_quoted(text, len),
               m_pick == Pick::All ? "skipped by a change of offset (--pick=earlier or --pick=later picks an instant)"
                                   : "skipped by a change of offset");
    }
}

void TimeConverter::ReadStdin()
{
    ScriptReader reader(STDIN_FILENO, kMaxInputLine);
    for (;;) {
        ScriptReader::Result r = reader.Next();
        m_line = reader.Number();
        if (r == ScriptReader::kLine) Convert(reader.Text().data(), reader.Text().size());
        else if (r == ScriptReader::kRefused) Refuse("\"" + reader.Preview() + "\"", reader.Reason());
        else if (r == ScriptReader::kError)
            return Refuse("", std::string("reading standard input: ") + strerror(reader.Errno()));
        else return;
    }
}

void TimeConverter::List(int fromYear, int toYear)
{
    int64_t from = m_zone.FromPosix(tz_days_from_civil(fromYear, 1, 1) * kSecondsPerDay);
    int64_t to = m_zone.FromPosix(tz_days_from_civil(toYear, 1, 1) * kSecondsPerDay);
    int64_t next = 0;
    for (int64_t t = from - 1; m_zone.NextTransition(t, &next) && next < to; t = next) {
        for (int64_t at : {next - 1, next}) {
            if (!Print(at, "")) Refuse("\"@" + std::to_string(at) + "\"", kOutOfRange);
        }
    }
}

// ---- output

// YYYY-MM-DDTHH:MM:SS
void put_fields(LineWriter& w, const LocalTime& t)
{
    w.Int(t.year, 4).Char('-').Int(t.month, 2).Char('-').Int(t.day, 2);
    w.Char('T').Int(t.hour, 2).Char(':').Int(t.minute, 2).Char(':').Int(t.second, 2);
}

// +HH:MM, or +HH:MM:SS when the offset has seconds (local mean time).
void put_offset(LineWriter& w, int32_t utoff)
{
    long long abs = utoff < 0 ? -static_cast<long long>(utoff) : utoff;
    w.Char(utoff < 0 ? '-' : '+').Int(abs / 3600, 2).Char(':').Int(abs / 60 % 60, 2);
    if (abs % 60) w.Char(':').Int(abs % 60, 2);
}

// An abbreviation: bytes other than A-Z a-z 0-9 + - as \xNN, an empty one as "".
void put_abbr(std::string& s, const char* abbr)
{
    if (!*abbr) s += "\"\"";
    tz_escape(s, abbr, strlen(abbr), [](unsigned char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '-';
    });
}

// The UTC fields of a local time; a leap second stays second 60.
LocalTime utc_of(const LocalTime& local)
{
    int64_t wall = tz_days_from_civil(local.year, local.month, local.day) * kSecondsPerDay + local.hour * 3600 +
                   local.minute * 60 + (local.second == 60 ? 59 : local.second);
    int64_t utc = wall - local.utoff;
    int64_t days = utc / kSecondsPerDay - (utc % kSecondsPerDay < 0), second = utc - days * kSecondsPerDay, year;
    LocalTime out;
    tz_civil_from_days(days, year, out.month, out.day);
    out.year = static_cast<int>(year);
    out.hour = static_cast<int>(second / 3600), out.minute = static_cast<int>(second / 60 % 60);
    out.second = static_cast<int>(second % 60) + (local.second == 60);
    return out;
}

// @EPOCH UTC LOCAL ABBR isdst=0|1 gmtoff=SECONDS[tag]
bool TimeConverter::Print(int64_t t, const char* tag)
{
    LocalTime local;
    if (!m_zone.ToLocal(t, local)) return false;
    m_out.Char('@').Int(t, 0).Char(' ');
    put_fields(m_out, utc_of(local));
    m_out.Text("Z ");
    put_fields(m_out, local);
    put_offset(m_out, local.utoff);
    m_abbr.clear();
    put_abbr(m_abbr, local.abbr);
    m_out.Char(' ').Text(m_abbr).Text(local.isdst ? " isdst=1 gmtoff=" : " isdst=0 gmtoff=").Int(local.utoff);
    m_out.Text(tag).End();
    return true;
}

// One line on standard error, after what came before it on standard output.
void TimeConverter::Refuse(const std::string& subject, const std::string& why)
{
    fflush(stdout);
    std::string where = m_line ? "line " + std::to_string(m_line) + ": " : "";
    if (!subject.empty()) where += subject + ": ";
    fprintf(stderr, "time: %s%s\n", where.c_str(), why.c_str());
    m_status = kExitUnconverted;
}

}  // namespace

int main_time(int argc, char** argv)
{
    TimeOptions options;
    std::string error;
    if (!time_parse(argc, argv, options, error)) return time_usage(argv[0], error);
    TimeZone zone;
    if (!zone.Load(options.zone)) {
        fprintf(stderr, "time: cannot load time zone %s: %s\n", quoted(options.zone).c_str(), zone.Error().c_str());
        return kExitNoZone;
    }
    stdout_buffer_fully();
    TimeConverter converter(zone, options.picked);
    if (options.transitions) converter.List(options.from, options.to);
    else if (options.readStdin) converter.ReadStdin();
    else
        for (const char* text : options.times) converter.Convert(text, strlen(text));
    return converter.Status();
}
