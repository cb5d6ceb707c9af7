// sec-exec: runs one command line the way the daemon runs commands.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "ArgArray.h"
#include "Secure.h"
#include "commands.h"
#include "debugger.h"
#include "output.h"

namespace {

// Words the command line is split into, as the daemon does; the rest is dropped.
const int kMaxArguments = 50;
// --keep-env options accepted at most.
const int kMaxKeptNames = 64;
const char kKeepEnv[] = "--keep-env=";

struct SecExecOptions {
    std::vector<char*> keptNames;
    std::string command;
};

int secexec_usage(const char* program)
{
    fprintf(stderr, "Usage: %s sec-exec [--keep-env=<name>]... <command> [<argument>]...\n", program);
    return -1;
}

// Reads the options and joins the remaining words with single blanks.
// Returns false after printing why the words are not usable.
bool secexec_parse(int argc, char** argv, SecExecOptions& options)
{
    int at = 2;
    for (; at < argc && strncmp(argv[at], "--", 2) == 0; at++) {
        if (strcmp(argv[at], "--") == 0) {
            at++;
            break;
        }
        const char* name = argv[at] + strlen(kKeepEnv);
        if (strncmp(argv[at], kKeepEnv, strlen(kKeepEnv)) != 0 || !*name || strchr(name, '=')) {
            fprintf(stderr, "sec-exec: unknown option '%s'.\n", argv[at]);
            return false;
        }
        if (options.keptNames.size() == kMaxKeptNames) {
            fprintf(stderr, "sec-exec: more than %d --keep-env options.\n", kMaxKeptNames);
            return false;
        }
        options.keptNames.push_back(argv[at] + strlen(kKeepEnv));
    }
    for (; at < argc; at++) options.command += (options.command.empty() ? "" : " ") + std::string(argv[at]);
    return true;
}

// An installed set-user-id or set-group-id tool gives its ids up for good.
void secexec_drop_privileges()
{
    if (getuid() == geteuid() && getgid() == getegid()) return;
    auto saved = std::make_unique<Secure::PRIVILEGES>();
    Secure::DropPrivileges(saved.get());
}

// Why execve of `path` fails, found from here (the child only exits 127):
// 0 for an executable regular file, whose own status 127 is then its own.
int secexec_exec_errno(const char* path)
{
    struct stat st;
    if (access(path, X_OK) != 0) return errno;
    if (stat(path, &st) != 0) return errno;
    if (S_ISDIR(st.st_mode)) return EISDIR;
    return S_ISREG(st.st_mode) ? 0 : EACCES;
}

// The child's exit status; a signal becomes 128 plus its number, with a line
// saying so, so that it never reads as success.
int secexec_status(const char* path, int waitStatus)
{
    if (WIFSIGNALED(waitStatus)) {
        int sig = WTERMSIG(waitStatus);
        fprintf(stderr, "sec-exec: %s killed by signal %d (%s).\n", path, sig, strsignal(sig));
        return 128 + sig;
    }
    int status = WEXITSTATUS(waitStatus);
    int why = status == 127 ? secexec_exec_errno(path) : 0;
    if (why)
        fprintf(stderr, "sec-exec: cannot execute %s: %s (no PATH search: give the full path).\n", path,
                strerror(why));
    return status;
}

}  // namespace

int main_secExec(int argc, char** argv)
{
    SecExecOptions options;
    if (!secexec_parse(argc, argv, options)) return secexec_usage(argv[0]);
    ArgArray args(options.command, kMaxArguments);
    if (args.Argc() == 0) return secexec_usage(argv[0]);
    secexec_drop_privileges();

    // The child's environment is built here: environ itself is cleared in the
    // child before execve.
    std::vector<std::string> entries;
    Secure::SafeEnvironment(static_cast<int>(options.keptNames.size()), options.keptNames.data(), entries);
    std::vector<char*> envp;
    for (std::string& entry : entries) envp.push_back(&entry[0]);
    envp.push_back(nullptr);

    Secure::POPEN child;
    if (Secure::popen(args.Argv()[0], args.Argv(), envp.data(), child) < 0) {
        fprintf(stderr, "sec-exec: cannot start %s.\n", args.Argv()[0]);
        return 127;
    }
    fflush(stdout);
    int refused = 0;
    (void)Secure::Pump(child, STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, &refused);
    if (refused) output_write_failed(refused);
    int waitStatus = 0;
    if (Secure::pclose(child, &waitStatus) < 0) {
        fprintf(stderr, "sec-exec: lost track of %s.\n", args.Argv()[0]);
        return 1;
    }
    return secexec_status(args.Argv()[0], waitStatus);
}
