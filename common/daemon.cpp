#include "daemon.h"

std::atomic<bool> daemon_should_exit{false};
std::atomic<bool> daemon_is_on{false};
