#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <thread>

#include "Config.h"
#include "ControllerConf.h"
#include "QuillSsl.h"
#include "fixed_paths.h"
#include "process.h"

namespace {

using Pairs = std::map<std::string, std::string>;

const Config::DefaultEntry kDefaults[] = {{"a", "0"}, {"d", "dv"}, {nullptr, nullptr}};

Pairs All(const Config& cfg) { Pairs all; cfg.Get(all); return all; }

class ConfigFile : public ::testing::Test {
protected:
    void SetUp() override { m_path = MakeTempDir() + "/vantor.conf"; }
    void TearDown() override { RunProgram({"/bin/rm", "-rf", m_path.substr(0, m_path.rfind('/'))}); }
    std::string WithPath(std::string text) const  // "@" in a message stands for the file's path
    {
        for (size_t at; (at = text.find('@')) != std::string::npos;) text.replace(at, 1, m_path);
        return text;
    }
    std::string m_path;
};

// Valid keys: 0 any, 1 the list a, b, c; 2 the array a, "", c (ends at ""). Rows with valid keys load kDefaults.
TEST_F(ConfigFile, LinesGiveThesePairsAndMessages)
{
    const char* const array[] = {"a", "", "c", nullptr};
    const std::string longValue(1017, 'v');
    struct Case { int valid; std::string text; Pairs pairs; std::string log; } cases[] = {  // "@": the path
        {0, "key=value", {{"key", "value"}}, ""}, {0, "k\t=\t =x\n", {{"k", "x"}}, ""},
        {0, "=a b\n  \t x y\n", {{"=a", "b"}, {"x", "y"}}, ""},  // the first character after blanks is the key's
        {0, "a 1\nb 2\na 3\n", {{"a", "3"}, {"b", "2"}}, ""},
        {0, "v = inner  blanks # \"kept\" \t\r\n", {{"v", "inner  blanks # \"kept\" \t\r"}}, ""},
        {0, "\n \t\n==\nkey\nkey = \nk\t\n", {},  // blank lines count in the numbering
         "info Ignoring @:3.\ninfo Ignoring @:4.\ninfo Ignoring @:5.\ninfo Ignoring @:6.\n"},
        {0, "long " + longValue + "tail\nbad\nok 1\n", {{"long", longValue}, {"ok", "1"}},
         "info Ignoring @:2.\ninfo Ignoring @:3.\n"},  // a long line reads in two parts
        {1, "bad\na 1\nc 4\n", {{"a", "1"}, {"c", "4"}, {"d", "dv"}}, "info Ignoring @:1.\n"},
        {1, "a 1\nb 2\nzz 3\nc 4\n", {{"a", "1"}, {"b", "2"}, {"d", "dv"}}, "err  @:3: Unknown \"zz\".\n"},
        {1, "# note\na 1\n", {{"a", "0"}, {"d", "dv"}}, "err  @:1: Unknown \"#\".\n"},  // not a comment
        {2, "a 1\nc 2\n", {{"a", "1"}, {"d", "dv"}}, "err  @:2: Unknown \"c\".\n"},
    };
    for (const Case& c : cases) {
        ASSERT_TRUE(WriteFile(m_path, c.text));
        const std::list<std::string> list = c.valid ? std::list<std::string>{"a", "b", "c"} : std::list<std::string>{};
        StderrCapture capture;
        auto cfg = c.valid == 2 ? std::make_unique<Config>(m_path.c_str(), kDefaults, array)
                                : std::make_unique<Config>(m_path.c_str(), c.valid ? kDefaults : nullptr, list);
        EXPECT_EQ(LogLines(capture.Take()), WithPath(c.log)) << c.text;
        StderrCapture again;
        EXPECT_EQ(cfg->Reload(), c.log.rfind("err", 0) != 0) << c.text;
        EXPECT_EQ(All(*cfg), c.pairs) << c.text;
    }
}

TEST_F(ConfigFile, MissingReadOnlyOrNoFileGivesDefaultsAndNewDefaultsWaitForReload)
{
    StderrCapture capture;
    Config missing(m_path.c_str(), kDefaults, nullptr), none(nullptr, kDefaults, nullptr);
    EXPECT_EQ(LogLines(capture.Take()), WithPath("info No configuration file \"@\", using defaults.\n"
                                                 "info No configuration file, using defaults.\n"));
    ASSERT_TRUE(WriteFile(m_path, "x 1\n"));
    const Config::DefaultEntry other[] = {{"o", "1"}, {nullptr, nullptr}};
    missing.Defaults(other);
    EXPECT_STREQ(missing.GetStr("d", ""), "dv");
    auto reload = [&] { return missing.Reload() ? All(missing) : Pairs{{"reload", "failed"}}; };
    EXPECT_EQ(reload(), (Pairs{{"o", "1"}, {"x", "1"}}));
    missing.Defaults(nullptr);
    EXPECT_EQ(reload(), (Pairs{{"x", "1"}}));
    // Opened read-write on purpose: a file this process may not write is missing.
    if (std::string why = NamespacesUnavailableReason(CLONE_NEWNS); !why.empty()) GTEST_SKIP() << why;
    ASSERT_TRUE(WriteFile(m_path, "a 1\n"));
    EXPECT_EQ(RunInMountNamespace([&] {
        int rv = BindReadOnly(m_path.c_str());
        StderrCapture capture;
        Config cfg(m_path.c_str(), kDefaults, nullptr);
        return std::to_string(rv) + " " + cfg.GetStr("a", "?") + " " + LogLines(capture.Take());
    }), WithPath("0 0 info No configuration file \"@\", using defaults.\n"));
}

// Readers copy the whole board while reloads flip the file between two contents.
TEST_F(ConfigFile, ReadersNeverSeeHalfALoadedFile)
{
    std::string files[2];
    Pairs expected[2] = {{{"a", "0"}, {"d", "dv"}}, {{"a", "0"}, {"d", "dv"}}};
    for (int k = 0; k < 40; k++) {
        std::string key = "k" + std::to_string(k / 2), value = k % 2 ? "two" : "one";
        files[k % 2] += key + " " + value + "\n";
        expected[k % 2][key] = value;
    }
    ASSERT_TRUE(WriteFile(m_path, files[0]));
    Config cfg(m_path.c_str(), kDefaults, nullptr);
    std::atomic<bool> stop{false};
    std::atomic<int> copies{0}, torn{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 3; r++)
        readers.emplace_back([&] {
            for (Pairs all; !stop; copies++) torn += (all = All(cfg)) != expected[0] && all != expected[1];
        });
    const std::string staged = m_path + ".new";  // renamed over the file: each load sees one whole file
    bool reloaded = true;
    for (int i = 1; i <= 300 && reloaded; i++)
        reloaded = WriteFile(staged, files[i % 2]) && rename(staged.c_str(), m_path.c_str()) == 0 && cfg.Reload();
    stop = true;
    for (std::thread& t : readers) t.join();
    EXPECT_TRUE(reloaded && torn == 0 && copies > 0) << reloaded << ", " << torn << " torn of " << copies;
}

// The key ends at the blanks before the first "=" unless it is among the first two characters; old files rely on it.
TEST_F(ConfigFile, ControllerConfLinesGiveThesePairs)
{
    const std::string x194(194, 'x');
    const std::pair<std::string, Pairs> cases[] = {
        {"a  =   v\n", {{"a", "v"}}}, {"key=value\n", {{"key=value", "value"}}},
        {"key\t = value\n", {{"key\t", "value"}}}, {" = v\n", {{" = v", "v"}}}, {"   = v\n", {}}, {"#a = b\n", {}},
        {" # = x\n", {{" #", "x"}}}, {"no separator\n", {}}, {"k = \tv \r\n", {{"k", "\tv \r"}}},
        {"k = v = w", {{"k", "v = w"}}}, {"k = \n", {{"k", ""}}}, {"k = 1\nk = 2\n", {{"k", "2"}}},
        {"k = " + x194 + "rest = 1\n", {{"k", x194}, {"rest", "1"}}},  // a long line reads in two parts
    };
    for (const auto& [text, pairs] : cases) {
        Pairs read{{"stale", "x"}};
        EXPECT_TRUE(WriteFile(m_path, text) && controller_conf_read_file(m_path.c_str(), read)) << text;
        EXPECT_EQ(read, pairs) << text;
    }
}

// On the fixed file in a private mount namespace: a setup (0 when it worked), a write, its log and a read back.
TEST(ControllerConfFile, WriteKeepsABackupAndReportsFailures)
{
    if (std::string why = NamespacesUnavailableReason(CLONE_NEWNS); !why.empty()) GTEST_SKIP() << why;
    const std::string conf = quillConfigFile, old = conf + ".old";
    const std::string updated = " written info Updated /var/local/quill.conf.\n";
    const std::string failed = " failed warn Failed to update /var/local/quill.conf.\n";
    struct Case { const char* label; std::function<int()> setup; Pairs pairs; std::string report; } cases[] = {
        {"no file yet", [] { Pairs read{{"untouched", "1"}}; return ControllerConfRead(read) || !read.empty(); },
         {{"b", "2"}, {"a", "one word"}}, updated + "a = one word\nb = 2\n|<missing>|ok a=one word;b=2;"},
        {"old file to backup", [&] { return !WriteFile(old, "stale\n") || !WriteFile(conf, "x=1\n"); }, {},
         updated + "|x=1\n|ok "},
        {"read-only dir", [&] { return WriteFile(conf, "k = v\n") ? BindReadOnly("/var/local") : 1; }, {{"a", "1"}},
         failed + "k = v\n|<missing>|ok k=v;"},
        {"no space", [&] { return mount("tmpfs", "/var/local", "tmpfs", 0, "size=4k") || !WriteFile(conf, "k = v\n"); },
         {{"big", std::string(10000, 'b')}}, failed + "|k = v\n|ok "},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(RunInMountNamespace([&] {
            StderrCapture capture;
            std::string text = std::to_string(c.setup());  // before the write: + leaves the order open
            text += ControllerConfWrite(c.pairs) ? " written " : " failed ";
            text += LogLines(capture.Take());
            Pairs read{{"untouched", "1"}};
            text += ReadFile(conf) + "|" + ReadFile(old) + (ControllerConfRead(read) ? "|ok " : "|failed ");
            for (const auto& [key, value] : read) text += key + "=" + value + ";";
            return text;
        }), "0" + c.report) << c.label;
    }
}

// Each "-altbase" takes the next word, even "-altbase"; the last one wins.
TEST(QuillSsl, AltbaseScanLastOneWinsAndSslinitAlwaysExitsZero)
{
    const std::pair<std::vector<const char*>, const char*> cases[] = {
        {{"-altbase", "/a"}, "/a"}, {{"-altbase", "/a", "-altbase", "/b"}, "/b"}, {{"x", "-altbase", "/a", "y"}, "/a"},
        {{"-altbase", "/a", "-altbase"}, "/a"}, {{"-altbase", "-altbase", "/b"}, "-altbase"},
        {{"-Altbase", "/a", "altbase", "/b"}, "/etc/ssl"},
    };
    for (const auto& [args, baseDir] : cases) {
        Bbs cfg("ssl");
        cfg.Set("Ssl.BaseDir", "/etc/ssl");
        ssl_scan_args(cfg, static_cast<int>(args.size()), const_cast<char* const*>(args.data()));
        EXPECT_STREQ(cfg.GetStr("Ssl.BaseDir", "<none>"), baseDir) << args.size() << " words, first " << args[0];
    }
    // sslinit reads the fixed file (its absence only noted) and ends with status 0, whatever its arguments.
    if (std::string why = NamespacesUnavailableReason(CLONE_NEWNS); !why.empty()) GTEST_SKIP() << why;
    EXPECT_EQ(RunInMountNamespace([] {
        std::string report = unlink("/etc/vantor.conf") == 0 || errno == ENOENT ? "" : "cannot remove ";
        RunResult r = RunVtest({"sslinit", "x", "-altbase", "/a", "-altbase"});
        return report + std::to_string(r.status) + "|" + r.out + "|" + LogLines(r.err);
    }), "0||info No configuration file \"/etc/vantor.conf\", using defaults.\n"
                   "info SSL: Support not included.\n"
                   "info SSL: #################### Init check passed ####################\n");
}

}  // namespace
