// Process-wide state owned by the daemon lifecycle. The tool never
// daemonises, so both stay false there; tests may raise them.
#pragma once

#include <atomic>

// Polled by every wait: raised when the process is asked to exit.
extern std::atomic<bool> daemon_should_exit;
// True when running as a daemon: the logger then writes to syslog.
extern std::atomic<bool> daemon_is_on;
