#include <syslog.h>

#include <cstring>

#include "commands.h"
#include "debugger.h"

namespace {

struct Command {
    const char* word;
    int (*handler)(int, char**);
};

// Matched whole and case-sensitively, first match wins.
const Command kCommands[] = {
    {"backlog", main_backlog}, {"discover", main_discover}, {"ipconfig", main_ipconfig},
    {"sql", main_sql},         {"sql_file", main_sql},      {"monitor", main_monitor},
    {"elf", main_elf},         {"exec", main_exec},         {"mail", main_mail},
    {"time", main_time},       {"sec-exec", main_secExec},  {"usb", main_usb},
    {"sslinit", main_init},
};

int dispatch(int argc, char** argv)
{
    if (argc <= 1) return main_test(argc, argv);
    if (argc == 2 && strncmp(argv[1], "--server=", 9) == 0) return main_test(argc, argv);
    for (const Command& c : kCommands)
        if (strcmp(argv[1], c.word) == 0) return c.handler(argc, argv);
    return usage(argv[0]);
}

}  // namespace

int main(int argc, char** argv)
{
    openlog(nullptr, LOG_PID | LOG_NDELAY, LOG_LOCAL5);
    dbg_init("vtest");
    int rv = dispatch(argc, argv);
    dbg_fini();
    closelog();
    return rv;
}
