// Runs a program and reports what it alone cost, for the whole-process
// benchmarks: "<cpu s> <wall s> <peak RSS KiB>" on standard error, CPU
// being user + system time with microsecond resolution. Exists because
// Linux keeps a process's peak RSS across exec: a child forked from a
// large driver (Python) would report the driver's size, this one's is small.
// Usage: run_measured program [arguments...]; exit status: the program's.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>

namespace {

double seconds(const timeval& tv) { return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6; }

double now()
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        fprintf(stderr, "usage: %s program [arguments...]\n", argv[0]);
        return 2;
    }
    double start = now();
    pid_t pid = fork();
    if (pid < 0) return 2;
    if (pid == 0) {
        execvp(argv[1], argv + 1);
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    if (wait4(pid, &status, 0, &usage) != pid) return 2;
    fprintf(stderr, "%.6f %.6f %ld\n", seconds(usage.ru_utime) + seconds(usage.ru_stime), now() - start,
            usage.ru_maxrss);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
