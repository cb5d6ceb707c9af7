// The man page and the bash completion are generated from the sources; these tests hold them to what the built
// tool really prints and accepts.
#include <gtest/gtest.h>

#include <regex>

#include "fixed_paths.h"
#include "process.h"

namespace {

// The usage text's synopsis lines, the program path shown as "vtest".
std::string UsageSynopses()
{
    std::string usage = std::regex_replace(RunVtest({"no-such-command"}).err, std::regex("\t[^\n]*\n"), "");
    return std::regex_replace(usage, std::regex("(^|\n)[^ \n]+"), "$1vtest");
}

TEST(CliDocs, ManPageShowsTheUsageSynopsesAndNamesEveryCommand)
{
    const std::string usage = UsageSynopses();
    ASSERT_EQ(CountOf(usage, "\n"), 13u);
    std::string page = std::regex_replace(ReadFile(VTEST_MAN_PAGE), std::regex(R"(\\f[BIR]|\\(?=-))"), "");
    size_t from = page.find(".SH SYNOPSIS\n.nf\n") + 17, to = page.find(".fi\n", from);
    EXPECT_EQ(page.substr(from, to - from), usage + "vtest sslinit [-altbase <dir>]\n");
    EXPECT_NE(std::regex_replace(page, std::regex("\n"), " ")
                  .find("Commands in this build: backlog, discover, ipconfig, sql, sql_file, monitor, elf, exec, mail, "
                        "time, sec-exec, usb, sslinit, and the self-test."),
              std::string::npos);
}

TEST(CliDocs, CompletionOffersCommandWordsAndEachCommandsOptions)
{
    const std::pair<const char*, const char*> cases[] = {  // the words after "vtest", what completion offers
        {"''", "backlog discover ipconfig sql sql_file monitor elf exec mail time sec-exec usb sslinit --server=\n"},
        {"s", "sql sql_file sec-exec sslinit\n"}, {"sql --", "--pairs --server= --stdin\n"},
        {"sql_file --p", "--pairs\n"}, {"monitor Hardware ''", "insert update delete\n"},
        {"exec --", "--server= --stdin --file\n"},
        {"mail --", "--user= --password= --debug\n"}, {"time --", "--tz=\n"}, {"usb r", "reset\n"},
        {"discover t", "tree\n"}, {"sslinit -", "-altbase\n"}, {"backlog --", "\n"},
    };
    for (const auto& [words, offered] : cases) {
        std::string script = "source '" VTEST_COMPLETION "'; COMP_WORDS=(vtest " + std::string(words) +
                             "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _vtest; echo \"${COMPREPLY[*]}\"";
        RunResult r = RunProgram({"/bin/bash", "-c", script});
        EXPECT_EQ(r.out + r.err, offered) << words;
    }
}

}  // namespace
