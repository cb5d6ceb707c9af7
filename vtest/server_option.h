// The "--server=" option shared by the self-test and the sql commands, and
// the wider one of exec and mail.
#pragma once

#include <string>

#include "SockAddr.h"
#include "utils.h"

// Parses `text` (after "--server=") as an IPv4 address with optional port
// into `addr`, port 0 becoming kServicePort, and prints "Connecting to
// <addr:port>...". On failure prints "Invalid IPv4 address" to standard
// error and returns false.
bool parse_server_option(const char* text, SockAddr& addr);

// Parses any server form into `addr`: an IPv4 address or host name with
// optional ":port"; an IPv6 address alone, "IPv6|port" or "[IPv6]:port";
// an absolute Unix socket path. No port means kServicePort. Dotted quads
// must be exact (no octet above 255) and ports plain decimal 1..65535.
// Host names are resolved here. Prints nothing: false with the reason in
// `reason` (addr untouched).
bool parse_server_address(const char* text, SockAddr& addr, std::string& reason);

// The same forms but the Unix path, split and not resolved: the host, the
// port (`defaultPort` when none is given), and whether the form names an
// IPv6 address. false with the reason (outputs then unspecified).
bool split_server_address(const std::string& text, unsigned short defaultPort, std::string& host,
                          unsigned short& port, bool& ipv6, std::string& reason);
