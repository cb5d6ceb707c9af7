// What discover and ipconfig share: their --timeout and --interface
// options, and the line that says why a request could not be sent.
#pragma once

#include <string>

class Discover;

// How long to listen, in seconds (a decimal number).
const double kDiscoverMinSeconds = 0.1;
const double kDiscoverMaxSeconds = 60;

struct DiscoveryOptions {
    double timeout;         // seconds to listen
    std::string interface;  // --interface=NAME, empty when not given
};

// Takes `arg` when it is --timeout=SECONDS or --interface=NAME (1 to 15
// characters): 1 taken, 0 not one of them, -1 a bad value (a line saying
// so is printed on standard error, prefixed with `command`).
int discovery_option(const char* command, const char* arg, DiscoveryOptions& options);

// Prints "<command>: cannot send: <cause>." for discovery.LastError(), with
// the interface in question named; returns the exit status for it (2).
int discovery_send_failed(const char* command, const Discover& discovery, const DiscoveryOptions& options);
