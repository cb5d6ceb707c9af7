// The man page and the bash completion are generated from the sources; these tests hold them to what the built
// tool really prints and accepts.
#include <gtest/gtest.h>

#include <regex>
#include <sstream>

#include "fixed_paths.h"
#include "process.h"

namespace {

// The usage text's synopsis lines, the program path shown as "vtest".
std::string UsageSynopses()
{
    std::istringstream in(RunVtest({"no-such-command"}).err);
    std::string lines;
    for (std::string line; std::getline(in, line);)
        if (line.rfind(VTEST_BINARY, 0) == 0) lines += "vtest" + line.substr(strlen(VTEST_BINARY)) + "\n";
    return lines;
}

TEST(CliDocs, ManPageShowsTheUsageSynopsesAndNamesEveryCommand)
{
    const std::string usage = UsageSynopses();
    ASSERT_EQ(CountOf(usage, "\n"), 13u);
    std::string page = std::regex_replace(ReadFile(VTEST_MAN_PAGE), std::regex(R"(\\f[BIR])"), "");
    page = std::regex_replace(page, std::regex(R"(\\-)"), "-");
    size_t from = page.find(".SH SYNOPSIS\n.nf\n") + 17, to = page.find(".fi\n", from);
    EXPECT_EQ(page.substr(from, to - from), usage + "vtest sslinit [-altbase <dir>]\n");
    EXPECT_NE(std::regex_replace(page, std::regex("\n"), " ")
                  .find("Commands in this build: backlog, discover, ipconfig, sql, sql_file, monitor, elf, exec, mail, "
                        "time, sec-exec, usb, sslinit, and the self-test."),
              std::string::npos);
}

TEST(CliDocs, CompletionOffersCommandWordsAndEachCommandsOptions)
{
    const std::pair<const char*, const char*> cases[] = {
        {"vtest ''", "backlog discover ipconfig sql sql_file monitor elf exec mail time sec-exec usb sslinit --server=\n"},
        {"vtest s", "sql sql_file sec-exec sslinit\n"}, {"vtest sql --", "--pairs --server= --stdin\n"},
        {"vtest sql_file --p", "--pairs\n"}, {"vtest monitor Hardware ''", "insert update delete\n"},
        {"vtest exec --", "--server= --stdin --file\n"}, {"vtest mail --", "--user= --password= --debug\n"},
        {"vtest time --", "--tz=\n"}, {"vtest usb r", "reset\n"}, {"vtest discover t", "tree\n"},
        {"vtest sslinit -", "-altbase\n"}, {"vtest backlog --", "\n"},
    };
    for (const auto& [words, offered] : cases) {
        std::string script = "source '" VTEST_COMPLETION "'; COMP_WORDS=(" + std::string(words) +
                             "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _vtest; echo \"${COMPREPLY[*]}\"";
        RunResult r = RunProgram({"/bin/bash", "-c", script});
        EXPECT_EQ(r.out + r.err, offered) << words;
    }
}

}  // namespace
