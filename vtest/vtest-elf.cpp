// vtest-elf FILE...: the report of `vtest elf` for any files, since `vtest
// elf` itself reads only the tool and ignores its arguments.
#include <syslog.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Elf.h"
#include "debugger.h"
#include "exit_status.h"

namespace {

// Status 0 when every file printed, 1 when any could not be read.
int ReportFiles(int argc, char** argv)
{
    int status = kExitOk;
    bool first = true;
    for (int i = 1; i < argc; i++) {
        Elf elf;
        std::string name = elf_escape(argv[i]);
        if (!elf.Open(argv[i])) {
            fprintf(stderr, "vtest-elf: %s: %s\n", name.c_str(), elf.OpenError().c_str());
            status = kExitRefused;
            continue;
        }
        printf("%sFile: %s\n", first ? "" : "\n", name.c_str());
        first = false;
        elf.PrintAll(stdout);
    }
    return status;
}

}  // namespace

int main(int argc, char** argv)
{
    openlog(nullptr, LOG_PID | LOG_NDELAY, LOG_LOCAL5);
    dbg_init("vtest-elf");
    int status = kExitUsage;
    if (argc < 2)
        fprintf(stderr, "Usage: %s FILE...\n", argv[0]);
    else
        status = ReportFiles(argc, argv);
    if (fflush(stdout) != 0 || ferror(stdout)) {
        fprintf(stderr, "vtest-elf: cannot write the report: %s\n", strerror(errno));
        status = kExitWriteError;
    }
    dbg_fini();
    closelog();
    return status;
}
