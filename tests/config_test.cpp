#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <cstdio>
#include <thread>

#include "Config.h"
#include "fixed_paths.h"
#include "process.h"

namespace {

using Pairs = std::map<std::string, std::string>;

const Config::DefaultEntry kDefaults[] = {{"a", "0"}, {"d", "dv"}, {nullptr, nullptr}};

// Replaces "@" in a message by the file's path.
std::string WithPath(std::string text, const std::string& path)
{
    for (size_t at; (at = text.find('@')) != std::string::npos;) text.replace(at, 1, path);
    return text;
}

class ConfigFile : public ::testing::Test {
protected:
    void SetUp() override { m_path = MakeTempDir() + "/vantor.conf"; }
    void TearDown() override
    {
        (void)remove(m_path.c_str());
        (void)remove(m_path.substr(0, m_path.rfind('/')).c_str());
    }

    // Loads `text` as the file; returns the board and fills m_log with the
    // construction's log lines and m_result with a second Reload's result.
    Pairs Load(const std::string& text, const Config::DefaultEntry* defaults = nullptr,
               const std::list<std::string>& valid = {})
    {
        EXPECT_TRUE(WriteFile(m_path, text));
        StderrCapture capture;
        Config cfg(m_path.c_str(), defaults, valid);
        m_log = LogLines(capture.Take());
        StderrCapture again;
        m_result = cfg.Reload();
        Pairs all;
        cfg.Get(all);
        return all;
    }

    std::string m_path;
    std::string m_log;
    bool m_result = false;
};

TEST_F(ConfigFile, LinesGiveThesePairsAndMessages)
{
    const std::string longValue(1017, 'v');
    struct Case {
        std::string text;
        Pairs pairs;
        std::string log;  // "@" stands for the path
    } cases[] = {
        {"Ssl.BaseDir = /var/ssl\n", {{"Ssl.BaseDir", "/var/ssl"}}, ""},
        {"key=value", {{"key", "value"}}, ""},
        {"key== value\n", {{"key", "value"}}, ""},
        {"k\t=\t =x\n", {{"k", "x"}}, ""},
        {"=a b\n", {{"=a", "b"}}, ""},
        {"==\n", {}, "info Ignoring @:1.\n"},
        {"  \t x y\n", {{"x", "y"}}, ""},
        {"\n\n\t\t\n   \n \t \n", {}, ""},
        {"a 1\nb 2\na 3\n", {{"a", "3"}, {"b", "2"}}, ""},
        {"v = inner  blanks # kept \t\n", {{"v", "inner  blanks # kept \t"}}, ""},
        {"# note\n", {{"#", "note"}}, ""},
        {"q \"x y\"\r\n", {{"q", "\"x y\"\r"}}, ""},
        {"key\nx\nkey = \nk\t\n", {}, "info Ignoring @:1.\ninfo Ignoring @:2.\ninfo Ignoring @:3.\ninfo Ignoring @:4.\n"},
        {"long " + longValue + "tail\nbad\nok 1\n", {{"long", longValue}, {"ok", "1"}},
         "info Ignoring @:2.\ninfo Ignoring @:3.\n"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Load(c.text), c.pairs) << c.text;
        EXPECT_EQ(m_log, WithPath(c.log, m_path)) << c.text;
        EXPECT_TRUE(m_result) << c.text;
    }
}

TEST_F(ConfigFile, FileOverridesDefaults)
{
    EXPECT_EQ(Load("a 1\nn new\n", kDefaults), (Pairs{{"a", "1"}, {"d", "dv"}, {"n", "new"}}));
    EXPECT_EQ(Load("\t\t\n\n", kDefaults), (Pairs{{"a", "0"}, {"d", "dv"}}));
    EXPECT_EQ(m_log, "");
}

TEST_F(ConfigFile, UnknownKeyStopsLoadingAfterEarlierLines)
{
    struct Case {
        std::string text;
        Pairs pairs;
        std::string log;
    } cases[] = {
        {"a 1\nb 2\nzz 3\nc 4\n", {{"a", "1"}, {"b", "2"}, {"d", "dv"}}, "err  @:3: Unknown \"zz\".\n"},
        {"# note\na 1\n", {{"a", "0"}, {"d", "dv"}}, "err  @:1: Unknown \"#\".\n"},
        {"A 1\n", {{"a", "0"}, {"d", "dv"}}, "err  @:1: Unknown \"A\".\n"},
        {"bad\nc 4\n", {{"a", "0"}, {"c", "4"}, {"d", "dv"}}, "info Ignoring @:1.\n"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Load(c.text, kDefaults, {"a", "b", "c"}), c.pairs) << c.text;
        EXPECT_EQ(m_log, WithPath(c.log, m_path)) << c.text;
        EXPECT_EQ(m_result, c.log.rfind("err", 0) != 0) << c.text;
    }
}

TEST_F(ConfigFile, KeyArrayEndsAtFirstEmptyString)
{
    const char* const valid[] = {"a", "", "c", nullptr};
    ASSERT_TRUE(WriteFile(m_path, "a 1\nc 2\n"));
    StderrCapture capture;
    Config cfg(m_path.c_str(), nullptr, valid);
    EXPECT_EQ(LogLines(capture.Take()), WithPath("err  @:2: Unknown \"c\".\n", m_path));
    EXPECT_STREQ(cfg.Name(), "Config");
    EXPECT_STREQ(cfg.GetStr("a", ""), "1");
    EXPECT_FALSE(cfg.Get("c"));
}

TEST_F(ConfigFile, MissingFileOrNoPathGivesDefaults)
{
    StderrCapture capture;
    Config missing(m_path.c_str(), kDefaults, nullptr);
    Config none(nullptr, kDefaults, nullptr);
    EXPECT_EQ(LogLines(capture.Take()),
              WithPath("info No configuration file \"@\", using defaults.\n"
                       "info No configuration file, using defaults.\n",
                       m_path));
    for (Config* cfg : {&missing, &none}) {
        Pairs all;
        cfg->Get(all);
        EXPECT_EQ(all, (Pairs{{"a", "0"}, {"d", "dv"}}));
    }
}

TEST_F(ConfigFile, DefaultsApplyAtNextReload)
{
    ASSERT_TRUE(WriteFile(m_path, "x 1\n"));
    Config cfg(m_path.c_str(), kDefaults, nullptr);
    const Config::DefaultEntry other[] = {{"o", "1"}, {nullptr, nullptr}};
    cfg.Defaults(other);
    EXPECT_STREQ(cfg.GetStr("d", ""), "dv");
    EXPECT_TRUE(cfg.Reload());
    Pairs all;
    cfg.Get(all);
    EXPECT_EQ(all, (Pairs{{"o", "1"}, {"x", "1"}}));
    cfg.Defaults(nullptr);
    EXPECT_TRUE(cfg.Reload());
    cfg.Get(all);
    EXPECT_EQ(all, (Pairs{{"x", "1"}}));
}

TEST_F(ConfigFile, ReadOnlyFileCountsAsMissing)
{
    std::string reason = NamespacesUnavailableReason(CLONE_NEWNS);
    if (!reason.empty()) GTEST_SKIP() << reason;
    ASSERT_TRUE(WriteFile(m_path, "a 1\n"));
    std::string report = RunInMountNamespace([&] {
        int rv = BindReadOnly(m_path.c_str());
        StderrCapture capture;
        Config cfg(m_path.c_str(), kDefaults, nullptr);
        return std::to_string(rv) + " " + cfg.GetStr("a", "?") + " " + LogLines(capture.Take());
    });
    EXPECT_EQ(report, WithPath("0 0 info No configuration file \"@\", using defaults.\n", m_path));
}

// Readers take whole-board copies while the file flips between two
// contents and is reloaded; each copy must be one file over the defaults.
TEST_F(ConfigFile, ReadersNeverSeeHalfALoadedFile)
{
    std::string files[2];
    Pairs expected[2];
    std::vector<Config::DefaultEntry> defaults;
    static const char* const kKeys[] = {"k0", "k1", "k2", "k3", "k4", "k5", "k6", "k7", "k8", "k9"};
    for (const char* key : kKeys) defaults.push_back({key, "default"});
    defaults.push_back({nullptr, nullptr});
    for (int f = 0; f < 2; f++) {
        std::string value = f ? "second" : "first";
        for (const char* key : kKeys) {
            files[f] += std::string(key) + " = " + value + "\n";
            expected[f][key] = value;
        }
        files[f] += "only" + value + " 1\n";
        expected[f]["only" + value] = "1";
    }
    ASSERT_TRUE(WriteFile(m_path, files[0]));
    Config cfg(m_path.c_str(), defaults.data(), nullptr);

    std::atomic<bool> stop{false};
    std::atomic<int> copies{0}, torn{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 3; r++)
        readers.emplace_back([&] {
            while (!stop) {
                Pairs all;
                cfg.Get(all);
                if (all != expected[0] && all != expected[1]) torn++;
                copies++;
            }
        });
    const std::string staged = m_path + ".new";
    for (int i = 1; i <= 300; i++) {
        ASSERT_TRUE(WriteFile(staged, files[i % 2]));
        ASSERT_EQ(rename(staged.c_str(), m_path.c_str()), 0);
        ASSERT_TRUE(cfg.Reload());
    }
    stop = true;
    for (std::thread& t : readers) t.join();
    EXPECT_EQ(torn, 0);
    EXPECT_GT(copies, 0);
}

}  // namespace
