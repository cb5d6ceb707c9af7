// Test helpers: run a program with bounded time and captured output, and
// run a function in private namespaces so fixed system paths and network
// set-ups never touch the host.
#pragma once

#include <functional>
#include <string>
#include <vector>

struct RunResult {
    int status = -1;        // exit status, or 128 + signal; -1 when it could not run
    bool timedOut = false;  // killed after the time limit
    std::string out;
    std::string err;
};

// Runs argv[0] (a path) with the given standard input; kills it after
// timeoutMs milliseconds.
RunResult RunProgram(const std::vector<std::string>& argv, const std::string& input = "",
                     int timeoutMs = 20000);

// Runs the vtest binary of this build with the given arguments.
RunResult RunVtest(const std::vector<std::string>& args, const std::string& input = "",
                   int timeoutMs = 20000);

// Scales a time limit for slow hosts (emulators): VTEST_TIME_SCALE, default 1.
int ScaledMs(int ms);

// Runs `body` in a child process inside new namespaces (CLONE_NEWNS and/or
// CLONE_NEWNET flags). With CLONE_NEWNS, /var/local is a private tmpfs and
// /etc a copy-on-write overlay, so the real paths can be used and written.
// With CLONE_NEWNET, loopback is brought up.
// Returns the body's result, or -1 when the namespaces could not be made.
int RunInNamespaces(int flags, const std::function<int()>& body, int timeoutMs = 60000);

// Why namespaces cannot be used here, or empty when they can.
std::string NamespacesUnavailableReason(int flags);

// Fresh private directory under /tmp, removed by the caller's own choice.
std::string MakeTempDir();
