// The backlog judge as a table, then `vtest backlog` end to end: every form and state, /var/local in a private
// mount namespace, --interval cut short by a signal, the simulator's replicas.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <regex>

#include "Backlog.h"
#include "fixed_paths.h"
#include "process.h"
#include "sim_runner.h"
#include "wait.h"

namespace {

// The unit is at 1000; before -1: no earlier reading. The plain thresholds, a peer level with the unit and a
// time in the future are in the end-to-end table.
TEST(BacklogJudge, TakesTheFirstStateThatAppliesAndRoundsAgesDown)
{
    const timespec now = {1000000, 0};
    const BacklogLimits stale = {{}, {}, 3600}, warn = {10, {}, {}};
    const struct {
        const char* label; uint64_t peer; long long before; double elapsed; BacklogLimits limits; long long age;
        std::string result;
    } cases[] = {
        {"unchanged for --stale", 999, -1, 0, stale, 3600, "stale CRITICAL"},
        {"a second short of --stale", 999, -1, 0, stale, 3599, "ok OK"},
        {"stalled at --warn", 990, 990, 1, warn, 0, "stalled WARNING"},
        {"went back", 900, 950, 1, {}, 0, "stalled WARNING"},
        {"moving above --crit alone", 800, 790, 1, {{}, 100, {}}, 0, "moving WARNING"},
        {"advancing within --warn", 995, 990, 1, warn, 0, "ok OK"},
        {"advanced: never stale", 995, 990, 1, {{}, {}, 60}, 99999, "ok OK"},
        {"too short to rate", 989, 989, 0.09, warn, 0, "behind WARNING"},
        {"new since the first reading", 989, -1, 1, warn, 0, "behind WARNING"},
    };
    for (const auto& c : cases) {
        PeerReading peer{1, 0, Version(c.peer), {static_cast<time_t>(now.tv_sec - c.age), 0}};
        PeerReading before{1, 0, Version(static_cast<uint64_t>(c.before)), {}};
        PeerReport r = backlog_judge(Version(1000), peer, c.before < 0 ? nullptr : &before, c.elapsed, c.limits, now);
        EXPECT_EQ(backlog_state_word(r.state) + std::string(" ") + backlog_status_word(r.status), c.result) << c.label;
    }
    PeerReading later{1, 0, Version(990), now}, earlier{1, 0, Version(980), now};
    PeerReport rated = backlog_judge(Version(1000), later, &earlier, 2, {}, now);
    EXPECT_TRUE(rated.rate == 5 && rated.hasEta && rated.eta == 2);  // 10 changes in 2 s, 10 to go
    const std::pair<double, const char*> ages[] = {{119.9, "119s"}, {120, "2m"}, {7199, "119m"}, {7200, "2h"},
                                                   {172799, "47h"}, {172800, "2d"}, {1e22, "115740740740740736d"}};
    for (const auto& [seconds, text] : ages) EXPECT_EQ(backlog_age_text(seconds), text) << seconds;
}

// The JSON's ages, file times and a moving peer's rate and time to go change from run to run.
std::string Masked(const std::string& out)
{
    static const std::regex kVaried("\"(age)\":[0-9]+,\"mtime\":[0-9]+|\"(rate)\":[0-9.]+,\"eta\":[0-9]+");
    return std::regex_replace(out, kVaried, "\"$1$2\":*");
}

struct File { std::string name, content; long ageSeconds = 1800; };  // content "<dir>" and "<fifo>" make those

struct BacklogRun : ::testing::Test {
    ~BacklogRun() override { std::filesystem::remove_all(m_dir); }
    // Empties the directory, then makes `files` there.
    void Files(const std::vector<File>& files) const
    {
        std::filesystem::remove_all(m_dir);
        ASSERT_EQ(mkdir(m_dir.c_str(), 0700), 0);
        for (const File& f : files) {
            const std::string path = m_dir + "/" + f.name;
            if (f.content == "<dir>") ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
            else if (f.content == "<fifo>") ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
            else ASSERT_TRUE(WriteFile(path, f.content));
            timespec times[2] = {{0, UTIME_OMIT}, {time(nullptr) - f.ageSeconds, 0}};
            ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
        }
    }
    const std::string m_dir = MakeTempDir();
};

TEST_F(BacklogRun, PrintsEachFormWithItsStatus)
{
    const File unit = {"vantor.ver", "1200\n"};
    const std::string missing = m_dir + "/vantor.ver: missing";
    const std::string synopsis = std::string("Usage: ") + VTEST_BINARY + " backlog [--warn=N] [--crit=N] "
                                 "[--stale=SECONDS] [--interval=SECONDS] [--json | --summary] [--dir=DIR]\n";
    const struct {
        const char* label; std::vector<File> files; std::vector<std::string> args; std::string out, err; int status;
    } cases[] = {
        {"no peers", {unit}, {}, "unit 1200 updated 30m ago\nno peers\n", "", 0},
        {"every state, odd names",
         {unit, {"vantor.ver.1", "1200", 7200}, {"vantor.ver.2", "1300"}, {"vantor.ver.3", "1190\r\n", -3600},
          {"vantor.ver.4", "1189"}, {"vantor.ver.5", "1100"}, {"vantor.ver.6", "1099"}, {"vantor.ver.7", "1195", 7200},
          {"vantor.ver.8", "<dir>"}, {"vantor.ver.9", "12x"}, {"vantor.ver.10", "<fifo>"},
          {"vantor.ver.2147483647", "1200"}, {"vantor.ver.2147483648", "1"}, {"vantor.ver.007", "1"},
          {"vantor.ver.-1", "1"}, {"vantor.ver.\n", "1"}, {"vantor.ver.tmp", "1"}, {".vantor.ver.x1Yz", "1"},
          {"quill.conf", ""}},
         {"--crit=100", "--stale=3600", "--warn=10"},
         "unit 1200 updated 30m ago\n"
         "peer        version  backlog  age     state\n"
         "1           1200     0        2h      ok\n"
         "2           1300     0        30m     ahead\n"
         "3           1190     10       future  ok\n"
         "4           1189     11       30m     behind\n"
         "5           1100     100      30m     behind\n"
         "6           1099     101      30m     critical\n"
         "7           1195     5        2h      stale\n"
         "8           -        -        -       malformed (a directory)\n"
         "9           -        -        -       malformed (not a version number)\n"
         "10          -        -        -       malformed (not a regular file)\n"
         "2147483647  1200     0        30m     ok\n",
         "ignoring files that are not peers: vantor.ver.\\x0a, vantor.ver.-1, vantor.ver.007, vantor.ver.2147483648, "
         "vantor.ver.tmp\n",
         2},
        {"summary, one peer, malformed", {unit, {"vantor.ver.4", ""}}, {"--summary"},
         "BACKLOG WARNING - 1 peer, 1 malformed | peer4=U;;;0\n", "", 1},
        {"summary, malformed and ahead", {unit, {"vantor.ver.4", ""}, {"vantor.ver.5", "1201"}, {"vantor.ver.6", "98"}},
         {"--summary", "--warn=3", "--crit=9"}, "BACKLOG CRITICAL - 3 peers, largest backlog 1102 (peer 6), "
         "1 malformed, 1 critical, 1 ahead | peer4=U;3;9;0 peer5=0;3;9;0 peer6=1102;3;9;0\n", "", 2},
        {"summary, no peers", {unit}, {"--summary"}, "BACKLOG OK - no peers\n", "", 0},
        {"summary, unit missing", {}, {"--summary"}, "BACKLOG UNKNOWN - " + missing + "\n", missing + "\n", 3},
        {"json, numbers up to 2^64 - 1",
         {{"vantor.ver", "18446744073709551615"}, {"vantor.ver.1", "0"}, {"vantor.ver.2", "<dir>"}},
         {"--json", "--warn=5"}, R"({"status":"WARNING","unit":{"version":18446744073709551615,"age":*},"peers":[)"
         R"({"peer":1,"version":0,"backlog":18446744073709551615,"age":*,"state":"behind","reason":null},{"peer":2,)"
         R"("version":null,"backlog":null,"age":null,"mtime":null,"state":"malformed","reason":"a directory"}]})" "\n",
         "", 1},
        {"json, a later --dir not UTF-8", {}, {"--json", "--dir=" + m_dir + "/\xff"},
         R"({"status":"UNKNOWN","reason":")" + m_dir + R"(/\ufffd/vantor.ver: missing"})" "\n",
         m_dir + "/\xff/vantor.ver: missing\n", 3},
        {"--crit below --warn", {unit}, {"--warn=10", "--crit=9"}, "", "Error: --crit is below --warn.\n", 255},
        {"--json with --summary", {unit}, {"--json", "--summary"}, "",
         "Error: --json and --summary exclude each other.\n", 255},
        {"interval too short", {unit}, {"--interval=0.09"}, "",
         "Error: invalid value in '--interval=0.09': expected seconds from 0.1 to 3600.\n", 255},
        {"stray word", {unit}, {"all"}, "", "Error: unexpected argument 'all'.\n", 255},
    };
    for (const auto& c : cases) {
        Files(c.files);
        std::vector<std::string> args = c.args;
        args.insert(args.begin(), {"backlog", "--dir=" + m_dir});
        RunResult r = RunVtest(args);
        EXPECT_EQ(Masked(r.out), c.out) << c.label;
        EXPECT_EQ(r.err, c.err + (c.status == 255 ? synopsis : "")) << c.label;
        EXPECT_EQ(r.status, c.status) << c.label;
    }
}

// In /var/local of a private mount namespace (a tmpfs, where 4097 files are made quickly).
TEST(BacklogFixedPath, ReadsVarLocalByDefaultAndAtMost4096Peers)
{
    if (std::string why = NamespacesUnavailableReason(CLONE_NEWNS); !why.empty()) GTEST_SKIP() << why;
    std::string seen = RunInMountNamespace([] {
        WriteFile("/var/local/vantor.ver", "20\n");
        for (int id = 3; id <= 4098; id++)
            WriteFile("/var/local/vantor.ver." + std::to_string(id), id == 3 ? "8" : "20");
        RunResult r = RunVtest({"backlog", "--summary"});
        std::string seen = r.out.substr(0, r.out.find(" |")) + r.err + std::to_string(r.status) + "\n";
        WriteFile("/var/local/vantor.ver.1", "20");
        r = RunVtest({"backlog"});
        return seen + r.out + r.err + std::to_string(r.status);
    });
    EXPECT_EQ(seen, "BACKLOG OK - 4096 peers, largest backlog 12 (peer 3)0\n"
                    "more than 4096 peer files in /var/local\n3");
}

// One peer advances and one stalls between the readings; the signal ends an hour's wait at once, and rates
// use the time that really passed. inotify tells when the first reading has read the last peer.
TEST_F(BacklogRun, IntervalEndsEarlyOnSignalWithRates)
{
    for (int signal : {SIGINT, SIGTERM}) {
        Files({{"vantor.ver", "100"}, {"vantor.ver.1", "90"}, {"vantor.ver.2", "80"}});
        const int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        ASSERT_GE(inotify_add_watch(watch, (m_dir + "/vantor.ver.2").c_str(), IN_CLOSE_NOWRITE), 0);
        ChildProcess child(
            TargetArgv(VTEST_BINARY, {"backlog", "--dir=" + m_dir, "--interval=3600", "--warn=5", "--json"}));
        alignas(inotify_event) char event[4096];
        ASSERT_TRUE(WaitUntil([&] { return read(watch, event, sizeof event) > 0; }, ScaledMs(10000)));
        close(watch);
        const auto firstReading = std::chrono::steady_clock::now();
        ASSERT_EQ(Version(93).WriteFile((m_dir + "/vantor.ver.1").c_str()), 0);
        WaitUntil([&] { return MsSince(firstReading) >= 200; }, 1000);  // long enough to be rated
        ASSERT_TRUE(child.Signal(signal));
        EXPECT_TRUE(child.WaitForOutput("]}\n", 10000)) << signal;
        EXPECT_EQ(child.Wait(10000), 2) << signal;
        EXPECT_EQ(Masked(child.Output()),
                  R"({"status":"CRITICAL","unit":{"version":100,"age":*},"peers":[{"peer":1,"version":93,"backlog":7,)"
                  R"("age":*,"state":"moving","reason":null,"rate":*},{"peer":2,"version":80,"backlog":20,"age":*,)"
                  R"("state":"stalled","reason":null,"rate":0.000,"eta":null}]})" "\n") << signal;
    }
}

// Peers 1 and 2 trail by two committed changes, peer 3 stalls from the start.
TEST_F(BacklogRun, SimulatedReplicasFollowCommittedChanges)
{
    SimRunner sim({false, 0, 0, {"--replicas=3,2", "--replica-stall=3", "--version-dir=" + m_dir}});
    ASSERT_TRUE(sim.Running()) << sim.Log();
    const std::pair<const char*, const char*> steps[] = {
        {"INSERT INTO Events (EvntDscID) SELECT EvntDscID FROM Events;", "10\n"},  // ten rows
        {"BEGIN; DELETE FROM Events; ROLLBACK;", "10\n"},
        {"BEGIN; UPDATE Users SET UsrRole = 'x'; INSERT INTO Users VALUES (9, 'a', 'b'); COMMIT;", "14\n"},
        {"UPDATE Hardware SET HwName = HwName WHERE HwID <= 2;", "16\n"},
    };
    for (const auto& [sql, unit] : steps) {
        RunResult r = RunVtest({"sql", "--server=" + sim.Address(), sql});
        EXPECT_EQ(r.status, 0) << sql << r.err;
        EXPECT_EQ(ReadFile(m_dir + "/vantor.ver"), unit) << sql;
    }
    EXPECT_TRUE(WaitUntil([&] { return ReadFile(m_dir + "/vantor.ver.2") == "14\n"; }, ScaledMs(5000)));
    EXPECT_EQ(ReadFile(m_dir + "/vantor.ver.1") + ReadFile(m_dir + "/vantor.ver.3"), "14\n0\n");
}

}  // namespace
