// TimeZone against hand-made TZif files, damaged ones, POSIX rules against glibc, and real zones against zdump,
// Python's zoneinfo and glibc; the time command end to end (exact lines, messages and exit statuses).
#include <gtest/gtest.h>

#include <array>
#include <ctime>
#include <fstream>
#include <functional>
#include <thread>
#include <tuple>

#include "TimeZone.h"
#include "process.h"

#if defined(__SANITIZE_ADDRESS__)
// A damaged count must be refused before anything is allocated by it.
extern "C" const char* __asan_default_options() { return "max_allocation_size_mb=16"; }
#endif

namespace {

// Hand-made TZif files (RFC 9636 layout) as descriptions that tests damage field by field.
struct Tzif {
    char version = '2';  // 0 for version 1
    std::vector<int64_t> times;
    std::vector<uint8_t> indices;
    std::vector<std::array<int32_t, 3>> types;  // utoff, isdst, abbreviation index
    std::string chars;
    std::vector<std::pair<int64_t, int32_t>> leaps{};
    std::vector<uint8_t> isstd{}, isut{};
    std::string footer{};  // between the footer's newlines

    // The version 1 block (times cut to 32 bits), then for later versions the 64-bit block and the footer.
    std::string Bytes() const { return version ? Block(4) + Block(8) + "\n" + footer + "\n" : Block(4); }

    // Berlin in brief: LMT, then CET and CEST with the two 2024 changes, then the rule.
    static Tzif Berlin()
    {
        return {'2', {-2000000000, 1711846800, 1729990800}, {1, 2, 1}, {{{3208, 0, 0}}, {{3600, 0, 4}}, {{7200, 1, 8}}},
                std::string("LMT\0CET\0CEST\0", 13), {}, {}, {}, "CET-1CEST,M3.5.0,M10.5.0/3"};
    }
    static Tzif Rule(const std::string& rule, int32_t utoff, const std::string& abbr)
    {
        return {'2', {}, {}, {{{utoff, 0, 0}}}, abbr + '\0', {}, {}, {}, rule};
    }

private:
    static void Put(std::string& s, uint64_t v, int bytes) { while (bytes--) s += static_cast<char>(v >> (8 * bytes)); }
    std::string Block(int timeBytes) const
    {
        std::string s = std::string("TZif") + version + std::string(15, '\0');
        for (size_t n : {isut.size(), isstd.size(), leaps.size(), times.size(), types.size(), chars.size()})
            Put(s, n, 4);
        for (int64_t t : times) Put(s, static_cast<uint64_t>(t), timeBytes);
        s.append(indices.begin(), indices.end());
        for (const auto& t : types)
            Put(s, static_cast<uint32_t>(t[0]), 4), s += static_cast<char>(t[1]), s += static_cast<char>(t[2]);
        s += chars;
        for (const auto& l : leaps)
            Put(s, static_cast<uint64_t>(l.first), timeBytes), Put(s, static_cast<uint32_t>(l.second), 4);
        return s.append(isstd.begin(), isstd.end()).append(isut.begin(), isut.end());
    }
};

const int64_t kSpring2024 = 1711846800;  // 2024-03-31T01:00:00Z, Berlin to summer time
const std::string kBerlinSpring = "2024-03-31T03:00:00 +7200 CEST 1";

// "2024-03-31T03:00:00 +7200 CEST 1", or "-" when out of range.
std::string Text(const LocalTime& l)
{
    char buf[320];
    snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d %+d %s %d", l.year, l.month, l.day, l.hour, l.minute,
             l.second, l.utoff, l.abbr, l.isdst);
    return buf;
}
std::string Show(const TimeZone& zone, int64_t t)
{
    LocalTime l;
    return zone.ToLocal(t, l) ? Text(l) : "-";
}

TimeZone Loaded(const std::string& bytes)
{
    TimeZone zone;
    EXPECT_TRUE(zone.LoadData(bytes.data(), bytes.size())) << zone.Error();
    return zone;
}

void Put32(std::string& b, size_t at, uint32_t v)
{
    for (int i = 0; i < 4; i++) b[at + i] = static_cast<char>(v >> (24 - 8 * i));
}

TEST(TimeZoneFiles, ReadsEveryVersionLeapTablesAndTypeZeroFirst)
{
    Tzif v1 = Tzif::Berlin(), v3 = Tzif::Rule("EST5EDT,M3.2.0/-1,M11.1.0", -18000, "EST"), dstFirst = Tzif::Berlin();
    Tzif leaps = Tzif::Rule("UTC0", 0, "UTC");  // cut to its last leap second, then expiring (an equal correction)
    v1.version = 0, v3.version = '3', leaps.version = '4', leaps.leaps = {{1483228826, 27}, {1719360027, 27}};
    dstFirst.types[0] = {{7200, 1, 8}};  // before the first transition: type 0, DST or not
    const struct { const char* label; Tzif file; int64_t t; std::string shows; } cases[] = {  // leap seconds as glibc
        {"v1 table", v1, kSpring2024, kBerlinSpring},
        {"v3 rule at -1h", v3, 1710043199, "2024-03-09T22:59:59 -18000 EST 0"},
        {"DST type 0", dstFirst, -3000000000, "1874-12-07T20:40:00 +7200 CEST 1"},
        {"255-byte footer", Tzif::Rule("<" + std::string(252, 'A') + ">0", 0, std::string(252, 'A')), 0,
         "1970-01-01T00:00:00 +0 " + std::string(252, 'A') + " 0"},
        {"cut table: no correction before", leaps, 1483228825, "2017-01-01T00:00:25 +0 UTC 0"},
        {"cut table: its leap second", leaps, 1483228826, "2016-12-31T23:59:60 +0 UTC 0"},
        {"expiry is no leap second", leaps, 1719360027, "2024-06-26T00:00:00 +0 UTC 0"},
    };
    for (const auto& c : cases) EXPECT_EQ(Show(Loaded(c.file.Bytes()), c.t), c.shows) << c.label;
}

TEST(TimeZoneFiles, RefusesDamagedFilesWithTheirReason)
{
    const size_t v2 = Tzif::Berlin().Bytes().find("TZif", 4) + 20;  // where the counts of the 64-bit header start
    const char* kAbbr = "type 2: abbreviation outside the characters or without its NUL";
    const char* kV3 = "footer needs version 3 (rule hours outside 0..24 or DST all year) in a version 2 file";
    using Edit = std::function<void(Tzif&)>;
    using Patch = std::function<void(std::string&)>;  // of the bytes, after the edit
    const struct { const char* label; Edit edit; Patch patch; std::string reason; } cases[] = {
        {"magic", nullptr, [](std::string& b) { b[0] = 'X'; }, "not a TZif file"},
        {"version", [](Tzif& z) { z.version = '5'; }, nullptr, "unknown TZif version byte 0x35"},
        {"no types", [](Tzif& z) { z.types.clear(); }, nullptr, "typecnt 0 (1 to 256)"},
        {"charcnt 0", [](Tzif& z) { z.chars.clear(); }, nullptr, "charcnt 0 (1 to 4096)"},
        {"isstdcnt", [](Tzif& z) { z.isstd = {0}; }, nullptr, "isstdcnt 1 (0 or typecnt)"},
        {"isutcnt", [](Tzif& z) { z.isstd = {0, 0, 0}, z.isut = {0}; }, nullptr, "isutcnt 1 (0 or typecnt)"},
        {"order", [](Tzif& z) { z.times[2] = z.times[1]; }, nullptr, "transition times not ascending at transition 3"},
        {"index", [](Tzif& z) { z.indices[1] = 3; }, nullptr, "transition 2 names a missing type"},
        {"utoff", [](Tzif& z) { z.types[0][0] = INT32_MIN; }, nullptr, "type 0: offset -2^31"},
        {"isdst", [](Tzif& z) { z.types[1][1] = 2; }, nullptr, "type 1: DST flag 2"},
        {"abbr index", [](Tzif& z) { z.types[2][2] = 13; }, nullptr, kAbbr},
        {"abbr NUL", [](Tzif& z) { z.chars.pop_back(); }, nullptr, kAbbr},  // in range, but its NUL is gone
        {"isstd 2", [](Tzif& z) { z.isstd = {2, 0, 0}; }, nullptr, "bad standard/wall or UT/local indicator of type 0"},
        {"isut alone", [](Tzif& z) { z.isstd = {0, 0, 0}, z.isut = {0, 1, 0}; }, nullptr,
         "bad standard/wall or UT/local indicator of type 1"},
        {"leap order", [](Tzif& z) { z.leaps = {{100, 1}, {100, 2}}; }, nullptr,
         "leap second record 2: not after the one before"},
        {"leap first", [](Tzif& z) { z.leaps = {{100, 2}}; }, nullptr,
         "leap second record 1: a table must start at or after 1970 with a correction of 1 or -1"},
        {"expiry inside", [](Tzif& z) { z.leaps = {{100, 1}, {200, 2}, {300, 2}, {400, 3}}, z.version = '4'; }, nullptr,
         "leap second record 3: correction does not change by 1"},
        {"no footer", nullptr, [](std::string& b) { b.resize(b.size() - 28); }, "no footer after the data block"},
        {"footer open", nullptr, [](std::string& b) { b.pop_back(); }, "footer without its closing newline"},
        {"footer NUL", [](Tzif& z) { z.footer[3] = '\0'; }, nullptr, "footer holds a NUL byte"},
        {"footer long", [](Tzif& z) { z.footer = std::string(256, 'A'); }, nullptr, "footer longer than 255 bytes"},
        {"footer rule", [](Tzif& z) { z.footer = "CET"; }, nullptr,
         "footer: expected an offset [+-]hh[:mm[:ss]], hours 0-24 at byte 4"},
        {"footer offset", [](Tzif& z) { z.footer = "CET-2CEST,M3.5.0,M10.5.0/3"; }, nullptr,
         "footer rule gives \"CET\" gmtoff=7200 isdst=0 at the last transition, the table \"CET\" gmtoff=3600 isdst=0"},
        {"v3 hours in v2", [](Tzif& z) { z = Tzif::Rule("EST5EDT,M3.2.0/-1,M11.1.0", -18000, "EST"); }, nullptr, kV3},
        {"all-year in v2", [](Tzif& z) { z = Tzif::Rule("AAA-12BBB12,0/0,J365/24", 43200, "AAA"); }, nullptr, kV3},
        {"trailing", nullptr, [](std::string& b) { b += "x"; }, "1 bytes after the footer"},
        {"v1 tail", [](Tzif& z) { z.version = 0; }, [](std::string& b) { b += 'x'; }, "1 bytes after the data block"},
        {"v1 counts", nullptr, [](std::string& b) { Put32(b, 32, ~0u); },
         "truncated version 1 data block (needs 21474836506 bytes, 176 left)"},
        {"second magic", nullptr, [&](std::string& b) { b[v2 - 20] = 'X'; }, "second header without \"TZif\""},
        {"second version", nullptr, [&](std::string& b) { b[v2 - 16] = '3'; }, "second header of another version"},
        {"typecnt cap", nullptr, [&](std::string& b) { Put32(b, v2 + 16, 257); }, "typecnt 257 (1 to 256)"},
        {"leapcnt cap", nullptr, [&](std::string& b) { Put32(b, v2 + 8, 1001); }, "leapcnt 1001 (at most 1000)"},
        {"timecnt cap", nullptr, [&](std::string& b) { Put32(b, v2 + 12, 50001); }, "timecnt 50001 (at most 50000)"},
        {"charcnt cap", nullptr, [&](std::string& b) { Put32(b, v2 + 20, 4097); }, "charcnt 4097 (1 to 4096)"},
        {"every count at its cap", nullptr, [&](std::string& b) {
             Put32(b, v2 + 8, 1000), Put32(b, v2 + 12, 50000), Put32(b, v2 + 16, 256), Put32(b, v2 + 20, 4096);
         }, "truncated data block (needs 467632 bytes, 86 left)"},
        {"cut", nullptr, [](std::string& b) { b.resize(100); }, "truncated second header (needs 44 bytes, 10 left)"},
        {"over 1 MiB", nullptr, [](std::string& b) { b.resize((1 << 20) + 1); }, "larger than 1048576 bytes"},
    };
    std::string dir = MakeTempDir(), path = dir + "/zone";
    for (const auto& c : cases) {
        Tzif file = Tzif::Berlin();
        if (c.edit) c.edit(file);
        std::string bytes = file.Bytes();
        if (c.patch) c.patch(bytes);
        TimeZone zone = Loaded(Tzif::Berlin().Bytes());
        std::ofstream(path, std::ios::binary) << bytes;
        EXPECT_FALSE(zone.LoadFile(path.c_str())) << c.label;
        EXPECT_EQ(zone.Error(), "\"" + path + "\": " + c.reason) << c.label;
        EXPECT_EQ(Show(zone, kSpring2024), kBerlinSpring) << c.label << ": zone kept";
    }
    RunProgram({"/bin/rm", "-rf", dir});
    Tzif leaps = Tzif::Berlin();
    leaps.leaps = {{78796800, 1}, {94694401, 2}};
    std::string whole = leaps.Bytes();
    for (size_t len = 0; len < whole.size(); len++) {
        std::string cut = whole.substr(0, len);  // its own allocation, so ASan sees a read past the cut
        EXPECT_FALSE(TimeZone().LoadData(cut.data(), cut.size())) << len;
    }
}

// glibc under TZ=<rule> is the reference from 1970 on; it takes each UTC year's changes alone and years before
// 1970 as 1970, so changes across New Year and before 1970 are hand rows.
std::string Glibc(int64_t t)
{
    time_t at = t;
    struct tm m;
    localtime_r(&at, &m);
    return Text({m.tm_year + 1900, m.tm_mon + 1, m.tm_mday, m.tm_hour, m.tm_min, m.tm_sec,
                 static_cast<int32_t>(m.tm_gmtoff), m.tm_isdst > 0, m.tm_zone});
}

TEST(TimeZoneRules, AgreeWithGlibcAroundEveryChange)
{
    const int64_t kGlibcEnd = sizeof(time_t) > 4 ? 13569465600 : INT32_MAX;
    const char* rules[] = {"IST-2IDT,M3.4.4/26,M10.5.0", "<-02>2<-01>,M3.5.0/-1,M10.5.0/0", "XXX3YYY,J60/0,J300",
                           "XXX3YYY,59/0,299", "AAA-5BBB,M3.1.0/167,M10.1.0/-167", "<-03>3<-02>,M10.1.0/0,M3.3.0/0",
                           "<+0513>-5:13:17<+0613>-6:13:17,M3.5.0/1:02:03,M10.5.0/3:04:05", "EST5EDT"};
    for (const char* rule : rules) {
        TimeZone zone;
        ASSERT_TRUE(zone.LoadRule(rule)) << rule << ": " << zone.Error();
        setenv("TZ", std::string(rule) == "EST5EDT" ? "EST5EDT,M3.2.0,M11.1.0" : rule, 1), tzset();  // not its file
        int changes = 0;  // each year's two from 1970 to 2400, or to 2038 where time_t has 32 bits (armhf)
        for (int64_t t = 0, next; zone.NextTransition(t, &next) && next < kGlibcEnd; t = next, changes++)
            for (int64_t at : {t + (next - t) / 2, next - 1, next}) ASSERT_EQ(Show(zone, at), Glibc(at)) << rule;
        EXPECT_EQ(changes, sizeof(time_t) > 4 ? 860 : 136) << rule;
    }
    unsetenv("TZ"), tzset();
    const struct { const char* rule; int64_t t; std::string shows; } hand[] = {  // a change at t: t-1, t
        {"IST-2IDT,M3.4.4/26,M10.5.0", -2107036800,
         "1903-03-27T01:59:59 +7200 IST 0, 1903-03-27T03:00:00 +10800 IDT 1"},
        {"<+13>-13<+14>,J1/1,M3.1.0/3", 1704024000,
         "2024-01-01T00:59:59 +46800 +13 0, 2024-01-01T02:00:00 +50400 +14 1"},
        {"EST5EDT,0/0,J365/25", 0, "1969-12-31T19:59:59 -14400 EDT 1, 1969-12-31T20:00:00 -14400 EDT 1"},  // all year
    };
    for (const auto& h : hand) {
        TimeZone zone;
        int64_t next = 0;
        ASSERT_TRUE(zone.LoadRule(h.rule)) << h.rule;
        EXPECT_EQ(Show(zone, h.t - 1) + ", " + Show(zone, h.t), h.shows) << h.rule;
        EXPECT_EQ(zone.NextTransition(h.t - 100000, &next) ? next : 0, h.t) << h.rule;
    }
}

TEST(TimeZoneRules, RefusesMalformedRules)
{
    std::string longest = "<" + std::string(251, 'A') + ">-1", over = "<" + std::string(252, 'A') + ">-1";
    const char* bad[] = {  // each a check of its own
        "", "ES5", "EST+", "EST25", "EST5:6", "EST5:60", "EST5:00:60", "<ES>5", "<EST5", "<E T>5", "EST5EDT,",
        "EST5EDT,M3.2.0", "EST5EDT,M3.2.0,", "EST5EDT,M3.2.0,M11.1.0x", "EST5EDT,M13.1.0,M11.1.0",
        "EST5EDT,M0.1.0,M11.1.0", "EST5EDT,M3.6.0,M11.1.0", "EST5EDT,M3.0.0,M11.1.0", "EST5EDT,M3.2.7,M11.1.0",
        "EST5EDT,J0,J100", "EST5EDT,J366,J100", "EST5EDT,366,J100", "EST5EDT,M3.2.0/168,M11.1.0",
        "EST5EDT,M3.2.0/-168,M11.1.0", "EST5EDT4x", "EST5 ", "EST5EDT,M3.2.0/,M11.1.0", over.c_str(),
    };
    TimeZone zone;
    ASSERT_TRUE(zone.LoadRule(longest.c_str()) && zone.LoadRule("UTC0"));
    for (const char* text : bad) EXPECT_FALSE(zone.LoadRule(text)) << text;
    EXPECT_EQ(Show(zone, 0), "1970-01-01T00:00:00 +0 UTC 0");
    EXPECT_FALSE(zone.LoadRule("EST5EDT,M3.2.0/2:60,M11.1.0"));
    EXPECT_EQ(zone.Error(), "not a POSIX TZ rule: expected a time [+-]hhh[:mm[:ss]], hours up to 167 at byte 16");
}

TEST(TimeZoneLoad, NamesPathsRulesAndTheirErrors)
{
    std::string dir = MakeTempDir(), saved = getenv("TZDIR") ? getenv("TZDIR") : "";
    RunProgram({"/bin/mkdir", dir + "/Test"});
    std::ofstream(dir + "/Test/Zone", std::ios::binary) << Tzif::Rule("<+0130>-1:30", 5400, "+0130").Bytes();
    setenv("TZDIR", dir.c_str(), 1);
    const std::string file = "1970-01-01T01:30:00 +5400 +0130 0";
    const std::string rule = "not a POSIX TZ rule: expected an offset [+-]hh[:mm[:ss]], hours 0-24 at byte ";
    const std::pair<std::string, std::string> cases[] = {  // zone, shows at @0 or the error; paths, rules: TimeCommand
        {"Test/Zone", file}, {":Test/Zone", file}, {"Test", "\"" + dir + "/Test\": Is a directory"},
        {"/dev/null", "\"/dev/null\": not a regular file"},
        {":Test/../Zone", "after \":\" a zone name or a file path is needed"}, {"Test/../Test/Zone", rule + "5"},
        {"Nowhere/Zone", "no file \"" + dir + "/Nowhere/Zone\", and " + rule + "8"},
    };
    for (const auto& c : cases) {
        TimeZone zone;
        EXPECT_EQ(zone.Load(c.first.c_str()) ? Show(zone, 0) : zone.Error(), c.second) << c.first;
    }
    saved.empty() ? unsetenv("TZDIR") : setenv("TZDIR", saved.c_str(), 1);
    RunProgram({"/bin/rm", "-rf", dir});
}

// Listings, instants and wall times under every --pick, installed and `zic -b slim` files, and the right/
// zones (leap seconds, against glibc); the full sweep does all zones.
TEST(TimeZoneReal, SampleZonesAgreeWithZdumpZoneinfoAndGlibc)
{
    std::string command;
    for (const std::string& word : TargetArgv(VTEST_BINARY)) command += "'" + word + "' ";
    const char* zones =
        "^(Europe/(Berlin|Dublin)|America/(Santiago|St_Johns)|Australia/Lord_Howe|Pacific/Apia|Asia/Tehran)$";
    RunResult r = RunProgram({"/usr/bin/python3", VTEST_SOURCE_DIR "/scripts/tz-sweep.py", command, zones}, "",
                             ScaledMs(120000));
    if (r.status != 0 && r.err.find("ModuleNotFoundError") != std::string::npos) GTEST_SKIP() << r.err;
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("installed: 7 zones"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("right/: 7 zones"), std::string::npos) << r.out;
}

// A loaded zone is read-only: threads sharing it (its table, then its rule) see what one thread alone sees.
TEST(TimeZone, ZonesServeParallelThreads)
{
    const TimeZone zone = Loaded(Tzif::Berlin().Bytes());
    auto run = [&zone](std::string& out) {
        LocalTime l;
        int64_t back[2];
        LocalKind kind;
        for (int64_t t = 1700000000; t < 1700000000 + 4000 * 9973; t += 9973)
            if (zone.ToLocal(t, l)) out += Text(l) + std::to_string(zone.FromLocal(l, back, &kind)) + ",";
    };
    std::string alone, first, second;
    run(alone);
    std::thread other(run, std::ref(first));
    run(second), other.join();
    EXPECT_EQ(first + second, alone + alone);
}

const std::string kNotATime = "not a time (@SECONDS, YYYY-MM-DD[ HH:MM[:SS]][Z|+HH:MM|-HH:MM] or now)\n";
const std::string kGap = "skipped by a change of offset (--pick=earlier or --pick=later picks an instant)\n";
const std::string kBerlin = "--tz=Europe/Berlin", kRange = " (<from>:<to>, years 1 <= from < to <= 10000).";
const std::string kSummer = "@1717236000 2024-06-01T10:00:00Z 2024-06-01T12:00:00+02:00 CEST isdst=1 gmtoff=7200\n";
const std::string kAt1 = "@1 1970-01-01T00:00:01Z 1970-01-01T01:00:01+01:00 CET isdst=0 gmtoff=3600\n";

TEST(TimeCommand, ConvertsListsAndRefusesTimesAndItsCommandLine)
{
    const std::string synopsis = std::string(VTEST_BINARY) +
                                 " time --tz=<timezone> [--pick=all|earlier|later|reject] (<time>)+ | --stdin\n" +
                                 VTEST_BINARY + " time --tz=<timezone> --transitions[=<from>:<to>]\n\tConvert time.\n";
    struct Case { std::vector<std::string> args; std::string input; int status; std::string out, err; };
    auto usage = [&](std::vector<std::string> args, const std::string& why) {  // refused with the synopsis
        args.insert(args.begin(), "time");
        return Case{args, "", 255, "", "Error: " + why + "\n" + synopsis};
    };
    const Tzif odd{'2', {0}, {1}, {{{0, 0, 0}}, {{3600, 1, 1}}}, std::string("\0a/b\x01\0", 6)};  // "" then "a/b\x01"
    std::string dir = MakeTempDir(), path = dir + "/odd", bad, badErr;
    std::ofstream(path, std::ios::binary) << odd.Bytes();
    int line = 0;
    for (const char* text : {"garbage", "2024-02-30", "2024-01-01T24:00", "2024-01-01T10:00+24:00", "@", "@1x",
                             "2024-1-01", "@+-5", "2024-01-01Z", "2024-01-01T10:00:00+01:0", "Now", "10000-01-01"})
        bad += text + std::string("\n"),
            badErr += "time: line " + std::to_string(++line) + ": \"" + text + "\": " + kNotATime;
    const Case cases[] = {
        {{"time", kBerlin, "2024-06-01T12:00:00+02:00", "2024-06-01 12:00+0200", "2024-06-01T10:00Z",
          "2024-06-01T12:00:00+02", "2024-06-01T06:30:00-03:30", "2024-06-01 12:00"},
         "", 0, kSummer + kSummer + kSummer + kSummer + kSummer + kSummer, ""},
        {{"time", kBerlin, "2024-03-31T02:30"}, "", 1, "", "time: \"2024-03-31T02:30\": " + kGap},
        {{"time", kBerlin, "--pick=earlier", "2024-03-31T02:30"}, "", 0,
         "@1711845000 2024-03-31T00:30:00Z 2024-03-31T01:30:00+01:00 CET isdst=0 gmtoff=3600 gap=earlier\n", ""},
        {{"time", "--pick=reject", kBerlin, "2024-10-27 02:30", "2024-03-31T02:30", "@1"}, "", 1, kAt1,
         "time: \"2024-10-27 02:30\": occurs twice (refused by --pick=reject)\n"
         "time: \"2024-03-31T02:30\": skipped by a change of offset\n"},
        {{"time", "--tz=<+0530>-5:30:15", "@-62135596800", "@253402300799", "0000-12-31", "@99999999999999999999"},
         "", 1, "@-62135596800 0001-01-01T00:00:00Z 0001-01-01T05:30:15+05:30:15 +0530 isdst=0 gmtoff=19815\n",
         "time: \"@253402300799\": outside the years 0001-9999\n"
         "time: \"0000-12-31\": outside the years 0001-9999\n"
         "time: \"@99999999999999999999\": outside the years 0001-9999\n"},
        {{"time", kBerlin, "--stdin"}, bad, 1, "", badErr},
        {{"time", "--stdin", kBerlin},
         "@1\n\n  @1\t\n# a comment\n" + std::string(65, '9') + "\n2024-10-27 02:30\r\nbad\n@1", 1,
         kAt1 + kAt1 +
             "@1729989000 2024-10-27T00:30:00Z 2024-10-27T02:30:00+02:00 CEST isdst=1 gmtoff=7200 fold=earlier\n"
             "@1729992600 2024-10-27T01:30:00Z 2024-10-27T02:30:00+01:00 CET isdst=0 gmtoff=3600 fold=later\n" + kAt1,
         "time: line 5: \"" + std::string(65, '9') + "\": line longer than 64 bytes\ntime: line 7: \"bad\": " +
             kNotATime},
        {{"time", "--tz=" + path, "--transitions"}, "", 0,
         "@-1 1969-12-31T23:59:59Z 1969-12-31T23:59:59+00:00 \"\" isdst=0 gmtoff=0\n"
         "@0 1970-01-01T00:00:00Z 1970-01-01T01:00:00+01:00 a\\x2fb\\x01 isdst=1 gmtoff=3600\n", ""},
        // A change whose second before lies locally in the year 0 is named, not dropped.
        {{"time", "--tz=<-01>1<+00>,J1/0,J365/23", "--transitions=1:2"}, "", 1,
         "@-62135593200 0001-01-01T01:00:00Z 0001-01-01T01:00:00+00:00 +00 isdst=1 gmtoff=0\n"
         "@-62104064401 0001-12-31T22:59:59Z 0001-12-31T22:59:59+00:00 +00 isdst=1 gmtoff=0\n"
         "@-62104064400 0001-12-31T23:00:00Z 0001-12-31T22:00:00-01:00 -01 isdst=0 gmtoff=-3600\n",
         "time: \"@-62135593201\": outside the years 0001-9999\n"},
        {{"time", "--tz=UTC0", "--transitions=1:10000"}, "", 0, "", ""},
        {{"time", "--tz=/dev/null\x01\"", "@1"}, "", 2, "",
         "time: cannot load time zone \"/dev/null\\x01\\x22\": \"/dev/null\\x01\\x22\": No such file or directory\n"},
        usage({"@1"}, "missing --tz=<timezone>."),
        usage({"--tz=", "@1"}, "empty --tz= value."),
        usage({kBerlin}, "give exactly one of <time>, --stdin and --transitions."),
        usage({kBerlin, "--pick=later", "--transitions"}, "--pick does not go with --transitions."),
        usage({kBerlin, "@1", kBerlin}, "option --tz given twice."),
        usage({kBerlin, "--transitions", "--transitions=1:2"}, "option --transitions given twice."),
        usage({kBerlin, "--stdin=x"}, "option --stdin takes no value."),
        usage({"--tz", "@1"}, "option --tz needs =<value>."),
        usage({kBerlin, "--pic=all", "@1"}, "unknown option \"--pic=all\"."),
        usage({kBerlin, "--pick=first", "@1"}, "unknown --pick value \"first\" (all, earlier, later or reject)."),
        usage({kBerlin, "--transitions=2000:2000"}, "bad --transitions range \"2000:2000\"" + kRange),
        usage({kBerlin, "--transitions=1:10001"}, "bad --transitions range \"1:10001\"" + kRange),
    };
    for (const auto& c : cases) {
        RunResult r = RunVtest(c.args, c.input);
        EXPECT_EQ(std::tie(r.status, r.out, r.err), std::tie(c.status, c.out, c.err))
            << c.args[1] + ' ' + c.args.back();
    }
    RunProgram({"/bin/rm", "-rf", dir});
}

}  // namespace
