// The dispatch table: the fixed usage text for every word it does not know, and the usb command's asymmetric
// argument errors.
#include <gtest/gtest.h>

#include <regex>
#include <tuple>

#include "process.h"

namespace {

const char* const kUsage =
    "%s [--server=<server>]\n\tRun basic tests.\n"
    "%s backlog\n\tCheck vantor backlogs.\n"
    "%s discover [full] [tree]\n\tDiscover neighbor vantors.\n"
    "%s ipconfig <addrType> <addr> <ipv4Address> <ipv4Mask> <ipv4Gateway> <dnsList> [temporary]\n"
    "\tSet IPv4 network parameters of remote host.\n"
    "%s sql [--pairs] [--server=<server>] [--stdin] (<SQL statement>)+\n\tExecute SQL statement(s).\n"
    "%s sql_file [--pairs] [--server=<server>] <file>\n\tExecute SQL statements from file.\n"
    "%s monitor [--server=<server>] <table> [insert] [update] [delete]\n"
    "\tStart monitoring any combination of listed commands.\n"
    "%s elf\n\tPrint ELF file information.\n"
    "%s exec [--server=<server>] (<command>)+ | --stdin | --file <file>\n\tExecute one or more commands.\n"
    "%s mail <smtpServer> [--user=<user> [--password=<pwd>]] [--debug] <from> <recipient> <subject> <file>\n"
    "\tSend test mail to recipient. File can be -- for stdin.\n"
    "%s time --tz=<timezone> <time>\n\tConvert time.\n"
    "%s sec-exec <params>\n\tSecure exec (same as from daemon).\n"
    "%s usb reset <hub>\n\tReset USB hub.\n";

TEST(Dispatch, EachWordReachesItsHandlerOrTheUsageText)
{
    const std::string usage = std::regex_replace(kUsage, std::regex("%s"), VTEST_BINARY);
    const struct { std::vector<std::string> args; int status; std::string out, err; } cases[] = {
        // -1: the self-test ran (any status but 255, no usage text)
        {{}, -1, "", ""}, {{"--server=127.0.0.1:1"}, -1, "", ""}, {{"--server"}, 255, "", usage},
        {{"SQL", "x"}, 255, "", usage}, {{"--server=1.2.3.4", "sql", "x"}, 255, "", usage},
        {{"usb"}, 255, "", "Error: Missing command.\n"},
        {{"usb", "reset"}, 1, "", "Error: Missing parameter - hub.\n\n"},
        {{"usb", "stop", "x"}, 255, "", "Error: Unknown USB command 'stop'.\n"},
        {{"usb", "reset", "/nonexistent/hub"}, 1, "", "Error opening output file: No such file or directory\n"},
        {{"usb", "reset", "/dev/null"}, 1, "Resetting USB device /dev/null\n",
         "Error in ioctl: Inappropriate ioctl for device\n"},
    };
    for (const auto& c : cases) {
        RunResult r = RunVtest(c.args);
        std::string label = c.args.empty() ? "(none)" : c.args.back();
        if (c.status == -1)
            EXPECT_TRUE(r.status != 255 && r.err.find("Run basic tests.") == std::string::npos) << label << r.err;
        else
            EXPECT_EQ(std::make_tuple(r.status, r.out, r.err), std::make_tuple(c.status, c.out, c.err)) << label;
    }
}

}  // namespace
