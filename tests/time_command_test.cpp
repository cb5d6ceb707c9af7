// The time command end to end: exact output lines, tags, messages and exit statuses.
#include <gtest/gtest.h>

#include <fstream>
#include <tuple>

#include "process.h"
#include "tzif_builder.h"

namespace {

const std::string kNotATime = "not a time (@SECONDS, YYYY-MM-DD[ HH:MM[:SS]][Z|+HH:MM|-HH:MM] or now)\n";
const std::string kGap = "skipped by a change of offset (--pick=earlier or --pick=later picks an instant)\n";
const std::string kBerlin = "--tz=Europe/Berlin", kRange = " (<from>:<to>, years 1 <= from < to <= 10000).";
const std::string kSummer = "@1717236000 2024-06-01T10:00:00Z 2024-06-01T12:00:00+02:00 CEST isdst=1 gmtoff=7200\n";
const std::string kAt1 = "@1 1970-01-01T00:00:01Z 1970-01-01T01:00:01+01:00 CET isdst=0 gmtoff=3600\n";

struct Case { std::vector<std::string> args; std::string input; int status; std::string out, err; };

void Check(const Case& c)
{
    RunResult r = RunVtest(c.args, c.input);
    EXPECT_EQ(std::tie(r.status, r.out, r.err), std::tie(c.status, c.out, c.err)) << c.args[1] + " " + c.args.back();
}

TEST(TimeCommand, ConvertsListsAndRefusesTimes)
{
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
        {{"time", kBerlin, "@-2422054409"}, "", 0,
         "@-2422054409 1893-03-31T23:06:31Z 1893-03-31T23:59:59+00:53:28 LMT isdst=0 gmtoff=3208\n", ""},
        {{"time", kBerlin, "2024-03-31T02:30"}, "", 1, "", "time: \"2024-03-31T02:30\": " + kGap},
        {{"time", kBerlin, "--pick=earlier", "2024-03-31T02:30"}, "", 0,
         "@1711845000 2024-03-31T00:30:00Z 2024-03-31T01:30:00+01:00 CET isdst=0 gmtoff=3600 gap=earlier\n", ""},
        {{"time", "--pick=reject", kBerlin, "2024-10-27 02:30", "2024-03-31T02:30", "@1"}, "", 1, kAt1,
         "time: \"2024-10-27 02:30\": occurs twice (refused by --pick=reject)\n"
         "time: \"2024-03-31T02:30\": skipped by a change of offset\n"},
        {{"time", "--tz=<+0530>-5:30", "@-62135596800", "@253402300799", "0000-12-31", "@99999999999999999999"}, "", 1,
         "@-62135596800 0001-01-01T00:00:00Z 0001-01-01T05:30:00+05:30 +0530 isdst=0 gmtoff=19800\n",
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
    };
    for (const Case& c : cases) Check(c);
    RunProgram({"/bin/rm", "-rf", dir});
}

TEST(TimeCommand, CommandLineErrorsShowTheSynopsis)
{
    std::string synopsis = std::string(VTEST_BINARY) +
                           " time --tz=<timezone> [--pick=all|earlier|later|reject] (<time>)+ | --stdin\n" +
                           VTEST_BINARY + " time --tz=<timezone> --transitions[=<from>:<to>]\n\tConvert time.\n";
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"time", "@1"}, "missing --tz=<timezone>."},
        {{"time", "--tz=", "@1"}, "empty --tz= value."},
        {{"time", kBerlin}, "give exactly one of <time>, --stdin and --transitions."},
        {{"time", kBerlin, "--pick=later", "--transitions"}, "--pick does not go with --transitions."},
        {{"time", kBerlin, "@1", kBerlin}, "option --tz given twice."},
        {{"time", kBerlin, "--transitions", "--transitions=1:2"}, "option --transitions given twice."},
        {{"time", kBerlin, "--stdin=x"}, "option --stdin takes no value."},
        {{"time", "--tz", "@1"}, "option --tz needs =<value>."},
        {{"time", kBerlin, "--pic=all", "@1"}, "unknown option \"--pic=all\"."},
        {{"time", kBerlin, "--pick=first", "@1"}, "unknown --pick value \"first\" (all, earlier, later or reject)."},
        {{"time", kBerlin, "--transitions=2000:2000"}, "bad --transitions range \"2000:2000\"" + kRange},
        {{"time", kBerlin, "--transitions=1:10001"}, "bad --transitions range \"1:10001\"" + kRange},
    };
    for (const auto& c : cases) Check({c.first, "", 255, "", "Error: " + c.second + "\n" + synopsis});
}

}  // namespace
