// Command-line options of vantor-sim.
#pragma once

#include <netinet/in.h>
#include <sys/un.h>

#include <string>

#include "SimReplicas.h"

// Caps of the numeric options.
constexpr long kSimMaxNotReady = 1000000;
constexpr long kSimMaxClientsCap = 4096;
constexpr long kSimMaxIdleTimeout = 86400;
constexpr long kSimMaxSetIPv4Delay = 3600;

// Where the server listens: exactly one of the records is used, by family.
struct SimListen {
    sa_family_t family = AF_INET;
    sockaddr_in in4{};
    sockaddr_in6 in6{};
    sockaddr_un un{};
};

struct SimOptions {
    SimListen listen;          // default 127.0.0.1 port 3543
    std::string db;            // empty: a fresh seeded database in a temporary directory
    long events = 0;           // extra generated Events rows in a fresh database
    long notReady = 0;         // shell directives answered "DB not ready" first
    long maxClients = 256;     // connections served at once; more are closed at accept
    long idleTimeout = 60;     // seconds a non-subscribed client may stay silent; 0: for ever
    long discoveryUnits = 0;   // generated units answering on UDP 3543 (0: none) ...
    std::string unitsFile;     // ... or the units of this file
    long setIPv4Delay = 0;     // seconds before a unit takes a new address
    std::string centrals;      // file of RS-485 centrals; empty: three samples
    SimReplicaOptions replicas;  // version files and simulated peers
    bool help = false;
};

extern const char kSimUsage[];

// Parses the arguments after the program name into `options`. Returns true,
// or false with the reason in `error` (options then untouched).
bool sim_parse_options(int argc, char** argv, SimOptions& options, std::string& error);

// Strict decimal: digits only (at most 9), no sign, no leading zero,
// within [low, high]. Returns false (value untouched) otherwise.
bool sim_parse_number(const std::string& text, long low, long high, long& value);

// Parses "A.B.C.D:PORT", "IPV6|PORT" or a Unix socket path (starting with
// "/" or "."). Ports are 0..65535, decimal, without sign or leading zeros;
// 0 lets the system choose. Returns false (listen untouched) otherwise.
bool sim_parse_listen(const std::string& text, SimListen& listen);
