// The "--server=" option shared by the self-test and the sql commands.
#pragma once

#include "SockAddr.h"
#include "utils.h"

// Parses `text` (after "--server=") as an IPv4 address with optional port
// into `addr`, port 0 becoming kServicePort, and prints "Connecting to
// <addr:port>...". On failure prints "Invalid IPv4 address" to standard
// error and returns false.
bool parse_server_option(const char* text, SockAddr& addr);
