#include <gtest/gtest.h>

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

std::string ExpectedUsage()
{
    std::string text = kUsage, out;
    for (size_t at = 0;;) {
        size_t hit = text.find("%s", at);
        out += text.substr(at, hit - at);
        if (hit == std::string::npos) return out;
        out += VTEST_BINARY;
        at = hit + 2;
    }
}

TEST(Dispatch, UnknownOrMisplacedWordsPrintUsageAndExit255)
{
    const std::vector<std::vector<std::string>> cases = {
        {"FOO"}, {"SQL", "x"}, {"--server=1.2.3.4", "sql", "x"}, {"--server"}, {"--server=1.2.3.4", "x"}};
    for (const auto& args : cases) {
        RunResult r = RunVtest(args);
        EXPECT_EQ(r.status, 255) << args[0];
        EXPECT_EQ(r.err, ExpectedUsage()) << args[0];
        EXPECT_EQ(r.out, "") << args[0];
    }
}

TEST(Dispatch, UsbArgumentErrorsAreAsymmetric)
{
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string err;
    } cases[] = {
        {{"usb"}, 255, "Error: Missing command.\n"},
        {{"usb", "stop", "x"}, 255, "Error: Unknown USB command 'stop'.\n"},
        {{"usb", "reset"}, 1, "Error: Missing parameter - hub.\n\n"},
        {{"usb", "reset", "/nonexistent/hub"}, 1, "Error opening output file: No such file or directory\n"},
    };
    for (const Case& c : cases) {
        RunResult r = RunVtest(c.args);
        EXPECT_EQ(r.status, c.status) << c.args.back();
        EXPECT_EQ(r.err, c.err) << c.args.back();
    }
}

TEST(Dispatch, UsbResetOnNonUsbNodeReportsIoctlFailure)
{
    RunResult r = RunVtest({"usb", "reset", "/dev/null"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "Resetting USB device /dev/null\n");
    EXPECT_EQ(r.err, "Error in ioctl: Inappropriate ioctl for device\n");
}

}  // namespace

namespace {

// No arguments, or a lone "--server=" option, run the self-test, never the
// usage text.
TEST(Dispatch, BareRunAndLoneServerOptionReachTheSelfTest)
{
    for (const std::vector<std::string>& args : {std::vector<std::string>{}, {"--server=127.0.0.1:1"}}) {
        RunResult r = RunVtest(args);
        EXPECT_NE(r.status, 255);
        EXPECT_EQ(r.err.find("Run basic tests."), std::string::npos) << r.err;
    }
}

}  // namespace
