#include <syslog.h>

#include <cstring>

#include "Secure.h"
#include "commands.h"
#include "debugger.h"
#include "output.h"

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
    // First of all: a closed 0, 1 or 2 would be taken by the next file
    // opened (the log's socket, a database connection), and then printed
    // results would go to the server and statements come from it.
    Secure::SanitizeStandardFiles();
    output_watch();
    openlog(nullptr, LOG_PID | LOG_NDELAY, LOG_LOCAL5);
    dbg_init("vtest");
    int rv = output_finish(dispatch(argc, argv));
    dbg_fini();
    closelog();
    return rv;
}
