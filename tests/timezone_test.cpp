// TimeZone against hand-made TZif files, damaged ones, POSIX rules checked
// against a small model of their own, and real zones checked against zdump,
// Python's zoneinfo and glibc as they run on this machine.
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>

#include "TimeZone.h"
#include "process.h"
#include "tzif_builder.h"

namespace {

const int64_t kSpring2024 = 1711846800;  // 2024-03-31T01:00:00Z, Europe/Berlin to summer time
const int64_t kAutumn2024 = 1729990800;  // 2024-10-27T01:00:00Z, back to winter time
// A version 4 table cut to its last leap second (2016-12-31T23:59:60Z),
// then expiring in 2024 (an equal correction: no leap second).
const std::vector<std::pair<int64_t, int32_t>> kTruncatedLeaps = {{1483228826, 27}, {1719360027, 27}};

// "2024-03-31T03:00:00 +7200 CEST 1", or "-" when out of range.
std::string Show(const TimeZone& zone, int64_t t)
{
    LocalTime l;
    if (!zone.ToLocal(t, l)) return "-";
    char buf[96];
    snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d %+d %s %d", l.year, l.month, l.day, l.hour, l.minute,
             l.second, l.utoff, l.abbr, l.isdst);
    return buf;
}

TimeZone Loaded(const std::string& bytes)
{
    TimeZone zone;
    EXPECT_TRUE(zone.LoadData(bytes.data(), bytes.size())) << zone.Error();
    return zone;
}

TEST(TimeZoneFiles, ReadsEveryVersionTheCapsAndTypeZeroFirst)
{
    Tzif v1 = Tzif::Berlin();
    v1.version = 0;
    Tzif v3 = Tzif::Rule("EST5EDT,M3.2.0/-1,M11.1.0");  // negative hours: version 3
    v3.version = '3';
    Tzif dstFirst = Tzif::Berlin();
    dstFirst.types[0] = {7200, 1, 8};  // before the first transition: type 0, DST or not
    Tzif leaps = Tzif::Leaps('4', kTruncatedLeaps);
    Tzif caps = Tzif::AtTheCaps();
    struct Case {
        const char* label;
        Tzif file;
        int64_t t;
        const char* shows;
    } cases[] = {
        {"v1 table", v1, kSpring2024, "2024-03-31T03:00:00 +7200 CEST 1"},
        {"v1 no footer", v1, 1900000000, "2030-03-17T18:46:40 +3600 CET 0"},
        {"v2 footer", Tzif::Berlin(), 1910000000, "2030-07-11T13:33:20 +7200 CEST 1"},
        {"v2 before first", Tzif::Berlin(), -3000000000, "1874-12-07T19:33:28 +3208 LMT 0"},
        {"v3 rule at -1h", v3, 1710043199, "2024-03-09T22:59:59 -18000 EST 0"},
        {"v3 rule changed", v3, 1710043200, "2024-03-10T00:00:00 -14400 EDT 1"},
        {"DST type 0", dstFirst, -3000000000, "1874-12-07T20:40:00 +7200 CEST 1"},
        {"v4 before a cut table", leaps, 1483228825, "2017-01-01T00:00:25 +0 UTC 0"},
        {"v4 leap second", leaps, 1483228826, "2016-12-31T23:59:60 +0 UTC 0"},
        {"v4 after leap", leaps, 1483228827, "2017-01-01T00:00:00 +0 UTC 0"},
        {"v4 expiry is no leap", leaps, 1719360027, "2024-06-26T00:00:00 +0 UTC 0"},
        {"caps first", caps, 10, "1970-01-01T00:00:10 +0 T0 0"},
        {"caps last type", caps, 2999941, "1970-02-04T17:20:20 +79 T15 0"},
        {"caps leaps, footer", caps, 3009995, "1970-02-04T19:51:14 +79 T15 0"},
    };
    for (const Case& c : cases) {
        TimeZone zone = Loaded(c.file.Bytes());
        EXPECT_EQ(Show(zone, c.t), c.shows) << c.label;
    }
}

TEST(TimeZoneFiles, RefusesDamagedFilesWithTheirReason)
{
    using Edit = std::function<void(Tzif&)>;
    using Patch = std::function<void(std::string&)>;
    struct Case {
        const char* label;
        Edit edit;
        Patch patch;
        const char* reason;
    } cases[] = {
        {"magic", nullptr, [](std::string& b) { b[0] = 'X'; }, "not a TZif file"},
        {"version", [](Tzif& z) { z.version = '5'; }, nullptr, "unknown TZif version byte 53"},
        {"typecnt 0", [](Tzif& z) { z.types.clear(), z.times.clear(), z.indices.clear(); }, nullptr, "typecnt 0 (1 to 256)"},
        {"charcnt 0", [](Tzif& z) { z.chars.clear(); }, nullptr, "charcnt 0 (1 to 4096)"},
        {"isstdcnt", [](Tzif& z) { z.isstd = {0}; }, nullptr, "isstdcnt 1 (0 or typecnt)"},
        {"isutcnt", [](Tzif& z) { z.isstd = {0, 0, 0}, z.isut = {0}; }, nullptr, "isutcnt 1 (0 or typecnt)"},
        {"unsorted", [](Tzif& z) { z.times[2] = z.times[1]; }, nullptr, "transition times not ascending at transition 3"},
        {"index", [](Tzif& z) { z.indices[1] = 3; }, nullptr, "transition 2 names a missing type"},
        {"utoff", [](Tzif& z) { z.types[0][0] = INT32_MIN; }, nullptr, "type 0: offset -2^31"},
        {"isdst", [](Tzif& z) { z.types[1][1] = 2; }, nullptr, "type 1: DST flag 2"},
        {"abbr index", [](Tzif& z) { z.types[2][2] = 13; }, nullptr, "type 2: abbreviation outside the characters or without its NUL"},
        {"abbr NUL", [](Tzif& z) { z.chars.pop_back(); }, nullptr, "type 2: abbreviation outside the characters or without its NUL"},
        {"isstd 2", [](Tzif& z) { z.isstd = {2, 0, 0}; }, nullptr, "bad standard/wall or UT/local indicator of type 0"},
        {"isut alone", [](Tzif& z) { z.isstd = {0, 0, 0}, z.isut = {0, 1, 0}; }, nullptr, "bad standard/wall or UT/local indicator of type 1"},
        {"leap order", [](Tzif& z) { z.leaps = {{100, 1}, {100, 2}}; }, nullptr, "leap second record 2: not after the one before"},
        {"leap first", [](Tzif& z) { z.leaps = {{100, 2}}; }, nullptr, "leap second record 1: a table must start at or after 1970 with a correction of 1 or -1"},
        {"leap negative", [](Tzif& z) { z.leaps = {{-5, 1}}, z.version = '3'; }, nullptr, "leap second record 1: a table must start at or after 1970 with a correction of 1 or -1"},
        {"leap jump", [](Tzif& z) { z.leaps = {{100, 1}, {200, 3}}; }, nullptr, "leap second record 2: correction does not change by 1"},
        {"expiry v3", [](Tzif& z) { z.leaps = {{100, 1}, {200, 1}}, z.version = '3'; }, nullptr, "leap second record 2: correction does not change by 1"},
        {"expiry inside", [](Tzif& z) { z.leaps = {{100, 1}, {200, 1}, {300, 2}}, z.version = '4'; }, nullptr, "leap second record 2: correction does not change by 1"},
        {"no footer", nullptr, [](std::string& b) { b.resize(b.size() - 28); }, "no footer after the data block"},
        {"footer open", nullptr, [](std::string& b) { b.pop_back(); }, "footer without its closing newline"},
        {"footer NUL", [](Tzif& z) { z.footer[3] = '\0'; }, nullptr, "footer holds a NUL byte"},
        {"footer long", [](Tzif& z) { z.footer = "<" + std::string(253, 'A') + ">1"; }, nullptr, "footer longer than 255 bytes"},
        {"footer rule", [](Tzif& z) { z.footer = "CET"; }, nullptr, "footer: expected an offset [+-]hh[:mm[:ss]], hours 0-24 at byte 4"},
        {"footer offset", [](Tzif& z) { z.footer = "CET-2CEST,M3.5.0,M10.5.0/3"; }, nullptr, "footer rule gives \"CET\" gmtoff=7200 isdst=0 at the last transition, the table \"CET\" gmtoff=3600 isdst=0"},
        {"footer abbr", [](Tzif& z) { z.footer = "MEZ-1MESZ,M3.5.0,M10.5.0/3"; }, nullptr, "footer rule gives \"MEZ\" gmtoff=3600 isdst=0 at the last transition, the table \"CET\" gmtoff=3600 isdst=0"},
        {"v3 hours in v2", [](Tzif& z) { z = Tzif::Rule("EST5EDT,M3.2.0/-1,M11.1.0"); }, nullptr, "footer needs version 3 (rule hours outside 0..24 or DST all year) in a version 2 file"},
        {"all-year in v2", [](Tzif& z) { z = Tzif::Rule("AAA-12BBB12,0/0,J365/24"); }, nullptr, "footer needs version 3 (rule hours outside 0..24 or DST all year) in a version 2 file"},
        {"trailing", nullptr, [](std::string& b) { b += "x"; }, "1 bytes after the footer"},
        {"v1 trailing", [](Tzif& z) { z.version = 0; }, [](std::string& b) { b += "x"; }, "1 bytes after the data block"},
        {"v1 counts", nullptr, [](std::string& b) { Tzif::SetCount(b, 0, 3, 0xffffffff); }, "truncated version 1 data block (needs 21474836506 bytes, 176 left)"},
        {"second magic", nullptr, [](std::string& b) { b[Tzif::SecondHeader(b)] = 'X'; }, "second header without \"TZif\""},
        {"second version", nullptr, [](std::string& b) { b[Tzif::SecondHeader(b) + 4] = '3'; }, "second header of another version"},
        {"typecnt cap", nullptr, [](std::string& b) { Tzif::SetCount(b, 1, 4, 257); }, "typecnt 257 (1 to 256)"},
        {"timecnt cap", nullptr, [](std::string& b) { Tzif::SetCount(b, 1, 3, 50001); }, "timecnt 50001 (at most 50000)"},
        {"leapcnt cap", nullptr, [](std::string& b) { Tzif::SetCount(b, 1, 2, 1001); }, "leapcnt 1001 (at most 1000)"},
        {"charcnt cap", nullptr, [](std::string& b) { Tzif::SetCount(b, 1, 5, 4097); }, "charcnt 4097 (1 to 4096)"},
        {"huge count", nullptr, [](std::string& b) { Tzif::SetCount(b, 1, 3, 40000); }, "truncated data block (needs 360031 bytes, 86 left)"},
        {"timecnt +1", nullptr, [](std::string& b) { Tzif::SetCount(b, 1, 3, 4); }, "transition 4 names a missing type"},
        {"charcnt -1", nullptr, [](std::string& b) { Tzif::SetCount(b, 1, 5, 12); }, "type 2: abbreviation outside the characters or without its NUL"},
    };
    for (const Case& c : cases) {
        Tzif file = Tzif::Berlin();
        if (c.edit) c.edit(file);
        std::string bytes = file.Bytes();
        if (c.patch) c.patch(bytes);
        TimeZone zone = Loaded(Tzif::Berlin().Bytes());
        EXPECT_FALSE(zone.LoadData(bytes.data(), bytes.size())) << c.label;
        EXPECT_EQ(zone.Error(), c.reason) << c.label;
        EXPECT_EQ(Show(zone, kSpring2024), "2024-03-31T03:00:00 +7200 CEST 1") << c.label << ": zone kept";
    }
    // Cut anywhere, a file is refused without reading past its end.
    std::string whole = Tzif::Leaps('4', {{78796827, 27}, {94694428, 28}}).Bytes();
    for (size_t len = 0; len < whole.size(); len++) {
        std::string cut = whole.substr(0, len);  // its own allocation, so ASan sees an over-read
        TimeZone zone;
        EXPECT_FALSE(zone.LoadData(cut.data(), cut.size())) << len;
    }
}

// argv run with its memory limited, so an allocation sized by a damaged
// count fails the run: by ASan's own cap in a sanitizer build, else by the
// address-space limit (not under an emulator, which maps much more).
std::vector<std::string> MemoryLimited(std::vector<std::string> argv)
{
#ifdef __SANITIZE_ADDRESS__
    const char* options = getenv("ASAN_OPTIONS");
    setenv("ASAN_OPTIONS", (std::string(options ? options : "") + ":max_allocation_size_mb=16").c_str(), 1);
    return argv;
#else
    if (argv[0] != VTEST_BINARY) return argv;
    argv.insert(argv.begin(), {"/bin/sh", "-c", "ulimit -v 262144 && exec \"$@\"", "sh"});
    return argv;
#endif
}

TEST(TimeZoneFiles, CommandRefusesDamagedFilesWithStatus2UnderAMemoryLimit)
{
    std::string dir = MakeTempDir(), path = dir + "/zone";
    std::string good = Tzif::Berlin().Bytes();
    // Counts that would ask for gigabytes, a file over the size cap, a cut file.
    std::string huge = good;
    Tzif::SetCount(huge, 0, 3, 0xffffffff);
    const std::string files[] = {huge, std::string(TimeZone::kMaxFileBytes + 1, 'x'), good.substr(0, 100)};
    const char* reasons[] = {"truncated version 1 data block (needs 21474836506 bytes, 176 left)",
                             "larger than 1048576 bytes", "truncated second header (needs 44 bytes, 10 left)"};
    for (size_t i = 0; i < 3; i++) {
        std::ofstream(path, std::ios::binary) << files[i];
        RunResult r = RunProgram(MemoryLimited(TargetArgv(VTEST_BINARY, {"time", "--tz=" + path, "now"})));
        EXPECT_EQ(r.status, 2) << i << r.err;
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, "time: cannot load time zone \"" + path + "\": \"" + path + "\": " + reasons[i] + "\n");
    }
    RunProgram({"/bin/rm", "-rf", dir});
}

// ---- POSIX rules against a model that finds each change by walking the
// calendar with the C library (years 1902..2037 fit a 32-bit time_t).

struct Day {
    char kind;  // 'J', 'n' or 'M'
    int a, b, c;
};
struct RuleCase {
    const char* text;
    int32_t stdOff, dstOff;  // east of UTC
    Day start;
    int32_t startTime;
    Day end;
    int32_t endTime;
};

time_t ModelMidnight(int year, const Day& d)
{
    struct tm tm = {};
    tm.tm_year = year - 1900;
    bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    if (d.kind != 'M') {
        tm.tm_mday = d.kind == 'J' ? d.a + (leap && d.a >= 60) : d.a + 1;  // days of January run on
        return timegm(&tm);
    }
    tm.tm_mon = d.a - 1;
    time_t found = 0;
    for (int day = 1, seen = 0; day <= 31; day++) {
        struct tm probe = tm;
        probe.tm_mday = day;
        time_t t = timegm(&probe);
        if (probe.tm_mon != d.a - 1) break;
        if (probe.tm_wday == d.c) found = t, seen++;
        if (seen == d.b) break;  // else the month's last such day
    }
    return found;
}

// DST at t by the model: the latest change at or before t.
bool ModelDst(const RuleCase& r, int64_t t, int year)
{
    int64_t best = INT64_MIN;
    bool dst = false;
    for (int y = year - 1; y <= year + 1; y++) {
        int64_t on = ModelMidnight(y, r.start) + r.startTime - r.stdOff;
        int64_t off = ModelMidnight(y, r.end) + r.endTime - r.dstOff;
        if (on <= t && on > best) best = on, dst = true;
        if (off <= t && off > best) best = off, dst = false;
    }
    return dst;
}

TEST(TimeZoneRules, AgreeWithTheModelAroundEveryChange)
{
    const int32_t h = 3600;
    const RuleCase cases[] = {
        {"IST-2IDT,M3.4.4/26,M10.5.0", 2 * h, 3 * h, {'M', 3, 4, 4}, 26 * h, {'M', 10, 5, 0}, 2 * h},
        {"<-02>2<-01>,M3.5.0/-1,M10.5.0/0", -2 * h, -h, {'M', 3, 5, 0}, -h, {'M', 10, 5, 0}, 0},
        {"IST-1GMT0,M10.5.0,M3.5.0/1", h, 0, {'M', 10, 5, 0}, 2 * h, {'M', 3, 5, 0}, h},
        {"XXX3YYY,J60/0,J300", -3 * h, -2 * h, {'J', 60, 0, 0}, 0, {'J', 300, 0, 0}, 2 * h},
        {"XXX3YYY,59/0,299", -3 * h, -2 * h, {'n', 59, 0, 0}, 0, {'n', 299, 0, 0}, 2 * h},
        {"AAA-5BBB,M3.1.0/167,M10.1.0/-167", 5 * h, 6 * h, {'M', 3, 1, 0}, 167 * h, {'M', 10, 1, 0}, -167 * h},
        {"<+0513>-5:13:17<+0613>-6:13:17,M3.5.0/1:02:03,M10.5.0/3:04:05", 18797, 22397, {'M', 3, 5, 0}, 3723,
         {'M', 10, 5, 0}, 11045},
        {"AEST-10AEDT,M10.1.0,M4.1.0/3", 10 * h, 11 * h, {'M', 10, 1, 0}, 2 * h, {'M', 4, 1, 0}, 3 * h},
        {"EST5EDT", -5 * h, -4 * h, {'M', 3, 2, 0}, 2 * h, {'M', 11, 1, 0}, 2 * h},
        {"<+13>-13<+14>,J1/1,M3.1.0/3", 13 * h, 14 * h, {'J', 1, 0, 0}, h, {'M', 3, 1, 0}, 3 * h},
        {"<-11>11<-10>,M10.1.0,J365/23", -11 * h, -10 * h, {'M', 10, 1, 0}, 2 * h, {'J', 365, 0, 0}, 23 * h},
    };
    for (const RuleCase& r : cases) {
        TimeZone zone;
        ASSERT_TRUE(zone.LoadRule(r.text)) << r.text << ": " << zone.Error();
        for (int year = 1902; year <= 2036; year += year < 1975 ? 7 : 1) {
            for (int64_t change : {int64_t(ModelMidnight(year, r.start)) + r.startTime - r.stdOff,
                                   int64_t(ModelMidnight(year, r.end)) + r.endTime - r.dstOff}) {
                for (int64_t t : {change - 1, change, change + 40000}) {
                    LocalTime l;
                    ASSERT_TRUE(zone.ToLocal(t, l));
                    bool dst = ModelDst(r, t, year);
                    ASSERT_EQ(l.isdst, dst) << r.text << " @" << t;
                    ASSERT_EQ(l.utoff, dst ? r.dstOff : r.stdOff) << r.text << " @" << t;
                }
                int64_t next = 0;
                ASSERT_TRUE(zone.NextTransition(change - 1, &next));
                ASSERT_EQ(next, change) << r.text << " year " << year;
            }
        }
    }
    TimeZone allYear;  // the whole-year trick: DST and no change, ever
    ASSERT_TRUE(allYear.LoadRule("EST5EDT,0/0,J365/25"));
    int64_t next;
    EXPECT_EQ(Show(allYear, 1719835200), "2024-07-01T08:00:00 -14400 EDT 1");
    EXPECT_EQ(Show(allYear, 1704085200), "2024-01-01T01:00:00 -14400 EDT 1");
    EXPECT_FALSE(allYear.NextTransition(0, &next));
}

TEST(TimeZoneRules, RefusesMalformedRules)
{
    const char* bad[] = {
        "", "EST", "ES5", "E5T5", "EST+", "EST25", "EST5:6", "EST5:60", "EST5:00:60", "<ES>5", "<EST5", "<E T>5",
        "EST5EDT,", "EST5EDT,M3.2.0", "EST5EDT,M3.2.0,", "EST5EDT,M13.1.0,M11.1.0", "EST5EDT,M0.1.0,M11.1.0",
        "EST5EDT,M3.6.0,M11.1.0", "EST5EDT,M3.0.0,M11.1.0", "EST5EDT,M3.2.7,M11.1.0", "EST5EDT,J0,J100",
        "EST5EDT,J366,J100", "EST5EDT,366,J100", "EST5EDT,M3.2.0/168,M11.1.0", "EST5EDT,M3.2.0/-168,M11.1.0",
        "EST5EDT,M3.2.0/2:60,M11.1.0", "EST5EDT,M3.2.0,M11.1.0x", "EST5EDT4x", "EST5 ", "EST5EDT,M3.2.0/,M11.1.0",
    };
    for (const char* text : bad) {
        TimeZone zone;
        ASSERT_TRUE(zone.LoadRule("UTC0"));
        EXPECT_FALSE(zone.LoadRule(text)) << text;
        EXPECT_EQ(Show(zone, 0), "1970-01-01T00:00:00 +0 UTC 0") << text;
    }
    std::string longest = "<" + std::string(251, 'A') + ">-1", over = "<" + std::string(252, 'A') + ">-1";
    TimeZone zone;
    EXPECT_TRUE(zone.LoadRule(longest.c_str()));
    EXPECT_FALSE(zone.LoadRule(over.c_str()));
    EXPECT_EQ(zone.Error(), "not a POSIX TZ rule: longer than 255 bytes");
    EXPECT_FALSE(zone.LoadRule("EST5EDT,M3.2.0/2:60,M11.1.0"));
    EXPECT_EQ(zone.Error(), "not a POSIX TZ rule: expected a time [+-]hhh[:mm[:ss]], hours up to 167 at byte 16");
}

// ---- zone values

TEST(TimeZoneLoad, NamesPathsRulesAndTheirErrors)
{
    std::string dir = MakeTempDir();
    RunProgram({"/bin/mkdir", "-p", dir + "/Test"});
    std::ofstream(dir + "/Test/Zone", std::ios::binary) << Tzif::Rule("<+0130>-1:30").Bytes();
    const char* tzdir = getenv("TZDIR");
    std::string saved = tzdir ? tzdir : "";
    setenv("TZDIR", dir.c_str(), 1);
    struct Case {
        std::string zone;
        std::string shows;  // at @0, or the error
    } cases[] = {
        {"Test/Zone", "1970-01-01T01:30:00 +5400 +0130 0"},
        {":Test/Zone", "1970-01-01T01:30:00 +5400 +0130 0"},
        {dir + "/Test/Zone", "1970-01-01T01:30:00 +5400 +0130 0"},
        {"EST5", "1969-12-31T19:00:00 -18000 EST 0"},
        {"<+03>-3", "1970-01-01T03:00:00 +10800 +03 0"},
        {":EST5", "\"" + dir + "/EST5\": No such file or directory"},
        {":Test/../Zone", "after \":\" a zone name or a file path is needed"},
        {"Test", "\"" + dir + "/Test\": Is a directory"},
        {"Test/../Test/Zone", "not a POSIX TZ rule: expected an offset [+-]hh[:mm[:ss]], hours 0-24 at byte 5"},
        {"Nowhere/Zone", "no file \"" + dir + "/Nowhere/Zone\", and not a POSIX TZ rule: expected an offset "
                         "[+-]hh[:mm[:ss]], hours 0-24 at byte 8"},
    };
    for (const Case& c : cases) {
        TimeZone zone;
        std::string got = zone.Load(c.zone.c_str()) ? Show(zone, 0) : zone.Error();
        EXPECT_EQ(got, c.shows) << c.zone;
    }
    saved.empty() ? unsetenv("TZDIR") : setenv("TZDIR", saved.c_str(), 1);
    RunProgram({"/bin/rm", "-rf", dir});
}

// ---- real zones, against the readers installed here

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

const char* const kSampleZones[] = {"Europe/Berlin", "America/Santiago", "Australia/Lord_Howe", "Europe/Dublin",
                                    "Pacific/Apia", "America/St_Johns", "Asia/Tehran"};

TEST(TimeZoneReal, ListingsEqualZdump)
{
    std::vector<std::string> args = {"/usr/bin/zdump", "-v", "-c", "1900,2040"};
    args.insert(args.end(), std::begin(kSampleZones), std::end(kSampleZones));
    RunResult zdump = RunProgram(args);
    if (zdump.status != 0) GTEST_SKIP() << "zdump cannot run: " << zdump.err;
    std::vector<std::string> dumped = Lines(zdump.out);
    for (const char* name : kSampleZones) {
        // zdump: "Zone  Sun Mar 31 01:00:00 2024 UT = Sun Mar 31 03:00:00 2024 CEST isdst=1 gmtoff=7200"
        std::vector<std::string> want, got;
        for (const std::string& line : dumped) {
            char zone[64], wd[4], mon[4], abbr[32];
            int day, h, m, s, year, isdst;
            long off;
            if (sscanf(line.c_str(), "%63s %3s %3s %d %d:%d:%d %d UT = %*s %*s %*d %*d:%*d:%*d %*d %31s isdst=%d gmtoff=%ld",
                       zone, wd, mon, &day, &h, &m, &s, &year, abbr, &isdst, &off) == 11 && strcmp(zone, name) == 0) {
                struct tm tm = {};
                strptime(mon, "%b", &tm);
                char when[40];
                snprintf(when, sizeof when, "%04d-%02d-%02dT%02d:%02d:%02dZ", year, tm.tm_mon + 1, day, h, m, s);
                want.push_back(std::string(when) + " " + abbr + " isdst=" + std::to_string(isdst) + " gmtoff=" + std::to_string(off));
            }
        }
        RunResult ours = RunVtest({"time", std::string("--tz=") + name, "--transitions=1900:2040"});
        for (const std::string& line : Lines(ours.out)) {
            std::istringstream f(line);
            std::string at, utc, local, abbr, isdst, off;
            f >> at >> utc >> local >> abbr >> isdst >> off;
            got.push_back(utc + " " + abbr + " " + isdst + " " + off);
        }
        EXPECT_GT(want.size(), 10u) << name;
        EXPECT_EQ(got, want) << name;
    }
}

TEST(TimeZoneReal, InstantsEqualZoneinfo)
{
    std::vector<int64_t> instants = {-2208988800, -1000000000, 0, 1000000000, kSpring2024 - 1, kSpring2024,
                                     2000000000, 4102444800, 32503680000, 253402200000};
    std::string script = "import sys, datetime, zoneinfo\n"
                         "for z in sys.argv[1:]:\n"
                         "  for t in (" + [&] { std::string s; for (int64_t t : instants) s += std::to_string(t) + ","; return s; }() + "):\n"
                         "    d = datetime.datetime.fromtimestamp(t, zoneinfo.ZoneInfo(z))\n"
                         "    print(f'{d:%Y-%m-%dT%H:%M:%S} {int(d.utcoffset().total_seconds()):+d} {d.tzname()} {int(bool(d.dst()))}')\n";
    std::vector<std::string> args = {"/usr/bin/python3", "-c", script};
    args.insert(args.end(), std::begin(kSampleZones), std::end(kSampleZones));
    RunResult python = RunProgram(args);
    if (python.status != 0) GTEST_SKIP() << "python3 with zoneinfo cannot run: " << python.err;
    std::vector<std::string> want = Lines(python.out), got;
    for (const char* name : kSampleZones) {
        TimeZone zone;
        ASSERT_TRUE(zone.Load(name)) << zone.Error();
        for (int64_t t : instants) got.push_back(Show(zone, t));
    }
    EXPECT_EQ(got, want);
}

TEST(TimeZoneReal, LeapSecondsEqualGlibc)
{
    std::string dir = MakeTempDir();
    std::string truncated = dir + "/truncated";
    std::ofstream(truncated, std::ios::binary) << Tzif::Leaps('4', kTruncatedLeaps).Bytes();
    struct Case {
        std::string zone;
        std::vector<int64_t> instants;
    } cases[] = {
        {truncated, {1483228825, 1483228826, 1483228827, 1719360026, 1719360027, 1719360028}},
        {"/usr/share/zoneinfo/right/Europe/Berlin", {78796799, 78796800, 78796801, 1483228825, 1483228826, 1483228827}},
    };
    for (const Case& c : cases) {
        std::string input;
        for (int64_t t : c.instants) input += "@" + std::to_string(t) + "\n";
        RunResult glibc = RunProgram({"/usr/bin/env", "TZ=" + c.zone, "/bin/date", "-f", "-", "+%Y-%m-%dT%H:%M:%S %z %Z"}, input);
        if (glibc.status != 0) GTEST_SKIP() << "date cannot run: " << glibc.err;
        TimeZone zone;
        ASSERT_TRUE(zone.Load(c.zone.c_str())) << zone.Error();
        std::string ours;
        for (int64_t t : c.instants) {
            LocalTime l;
            ASSERT_TRUE(zone.ToLocal(t, l));
            char buf[64];
            snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d %+03d%02d %s\n", l.year, l.month, l.day, l.hour,
                     l.minute, l.second, l.utoff / 3600, l.utoff / 60 % 60, l.abbr);
            ours += buf;
        }
        EXPECT_EQ(ours, glibc.out) << c.zone;
    }
    RunProgram({"/bin/rm", "-rf", dir});
}

TEST(TimeZone, ZonesServeParallelThreads)
{
    TimeZone berlin, rule;
    ASSERT_TRUE(berlin.LoadData(Tzif::Berlin().Bytes().data(), Tzif::Berlin().Bytes().size()));
    ASSERT_TRUE(rule.LoadRule("AEST-10AEDT,M10.1.0,M4.1.0/3"));
    auto run = [](const TimeZone& zone, std::string& out) {
        for (int64_t t = 1600000000; t < 1600000000 + 4000 * 9973; t += 9973) {
            LocalTime l;
            int64_t back[2];
            LocalKind kind;
            if (zone.ToLocal(t, l)) out += Show(zone, t) + " " + std::to_string(zone.FromLocal(l, back, &kind)) + ",";
        }
    };
    std::string alone[2], together[4];
    run(berlin, alone[0]), run(rule, alone[1]);
    std::thread threads[] = {std::thread(run, std::cref(berlin), std::ref(together[0])),
                             std::thread(run, std::cref(rule), std::ref(together[1])),
                             std::thread(run, std::cref(berlin), std::ref(together[2])),
                             std::thread(run, std::cref(rule), std::ref(together[3]))};
    for (std::thread& t : threads) t.join();
    for (int i = 0; i < 4; i++) EXPECT_EQ(together[i], alone[i % 2]) << i;
}

}  // namespace
