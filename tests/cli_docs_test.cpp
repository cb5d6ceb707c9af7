// The man page and the bash completion are generated from the sources; these
// tests hold them to what the built tool really prints and accepts.
#include <gtest/gtest.h>

#include <regex>
#include <sstream>

#include "fixed_paths.h"
#include "process.h"

namespace {

// The synopsis lines of the usage text, with the program path as "vtest".
std::vector<std::string> UsageSynopses()
{
    RunResult r = RunVtest({"no-such-command"});
    std::vector<std::string> lines;
    std::istringstream text(r.err);
    for (std::string line; std::getline(text, line);)
        if (line.rfind(VTEST_BINARY, 0) == 0) lines.push_back("vtest" + line.substr(strlen(VTEST_BINARY)));
    return lines;
}

// The SYNOPSIS block of the man page as a reader sees it.
std::vector<std::string> ManSynopses()
{
    std::string page = ReadFile(VTEST_MAN_PAGE);
    size_t from = page.find(".SH SYNOPSIS\n.nf\n"), to = page.find(".fi\n", from);
    std::istringstream block(page.substr(from + 17, to - from - 17));
    std::vector<std::string> lines;
    for (std::string line; std::getline(block, line);) {
        line = std::regex_replace(line, std::regex(R"(\\f[BIR])"), "");
        lines.push_back(std::regex_replace(line, std::regex(R"(\\-)"), "-"));
    }
    return lines;
}

TEST(CliDocs, ManSynopsisIsTheUsageTextPlusSslinit)
{
    std::vector<std::string> expected = UsageSynopses();
    ASSERT_EQ(expected.size(), 13u);
    expected.push_back("vtest sslinit [-altbase <dir>]");
    EXPECT_EQ(ManSynopses(), expected);
}

// The man page names the commands this build lacks; each of them must say
// so when run, and the page must name at least the built sql command.
TEST(CliDocs, ManPageTellsWhichCommandsAreBuilt)
{
    std::string page = std::regex_replace(ReadFile(VTEST_MAN_PAGE), std::regex("\\\\-|\n"), " ");
    std::smatch lists;
    const std::regex sentence("Commands in this build: ([^.]*)\\.( Not in this build yet[^:]*: ([^.]*)\\.)?");
    ASSERT_TRUE(std::regex_search(page, lists, sentence)) << page.substr(0, 2000);
    EXPECT_NE(lists[1].str().find("sql,"), std::string::npos);
    std::istringstream missing(std::regex_replace(lists[3].str(), std::regex(","), " "));
    for (std::string word; missing >> word;) {
        RunResult r = RunVtest({word});
        EXPECT_EQ(r.status, 1) << word;
        EXPECT_EQ(r.err, "vtest: the '" + word + "' command is not available in this build.\n") << word;
    }
}

// What the completion offers for a command line whose last word is being typed.
std::string Complete(const std::string& words)
{
    std::string script = "source '" VTEST_COMPLETION "'; COMP_WORDS=(" + words +
                         "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _vtest; echo \"${COMPREPLY[*]}\"";
    RunResult r = RunProgram({"/bin/bash", "-c", script});
    EXPECT_EQ(r.status, 0) << r.err;
    return r.out;
}

TEST(CliDocs, CompletionOffersCommandWordsAndEachCommandsOptions)
{
    const std::pair<const char*, const char*> cases[] = {
        {"vtest ''", "backlog discover ipconfig sql sql_file monitor elf exec mail time sec-exec usb sslinit --server=\n"},
        {"vtest s", "sql sql_file sec-exec sslinit\n"}, {"vtest sql --", "--pairs --server= --stdin\n"},
        {"vtest sql_file --p", "--pairs\n"}, {"vtest monitor --", "--server=\n"},
        {"vtest monitor Hardware ''", "insert update delete\n"}, {"vtest exec --", "--server= --stdin --file\n"},
        {"vtest mail --", "--user= --password= --debug\n"}, {"vtest time --", "--tz=\n"}, {"vtest usb r", "reset\n"},
        {"vtest discover t", "tree\n"}, {"vtest sslinit -", "-altbase\n"}, {"vtest backlog --", "\n"},
    };
    for (const auto& [words, offered] : cases) EXPECT_EQ(Complete(words), offered) << words;
}

}  // namespace
