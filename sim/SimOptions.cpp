#include "SimOptions.h"

#include <arpa/inet.h>

#include <cstring>

#include "DiscoveryUnits.h"
#include "SimDatabase.h"
#include "utils.h"

const char kSimUsage[] =
    "usage: vantor-sim [--listen=ADDR] [--db=PATH] [--events=N] [--not-ready=N] [--max-clients=N]\n"
    "                 [--idle-timeout=SECONDS] [--centrals=FILE] [--discovery-units=N|FILE]\n"
    "                 [--setipv4-delay=SECONDS]\n"
    "                 [--replicas=N[,LAG]] [--version-dir=DIR] [--replica-stall=K]\n"
    "  --listen=ADDR      127.0.0.1:3543 (default), IPV6|PORT, or a Unix socket path\n"
    "  --db=PATH          database file; created and seeded when missing or empty\n"
    "                     (default: a fresh seeded database, removed at exit)\n"
    "  --events=N         extra generated Events rows in a newly seeded database (0..10000000)\n"
    "  --not-ready=N      answer the first N shell directives \"DB not ready\" (0..1000000)\n"
    "  --max-clients=N    connections served at once, 1..4096 (default 256)\n"
    "  --idle-timeout=S   drop a client silent for S seconds, unless it monitors a table;\n"
    "                     0 never drops (0..86400, default 60)\n"
    "  --centrals=FILE    RS-485 centrals for \"serial enum\": nine columns a line\n"
    "                     (default: three samples)\n"
    "  --discovery-units=N|FILE  also play N units (1..10000) or those of FILE on UDP\n"
    "                     port 3543: answer \"Hello\", obey \"SetIPv4\"\n"
    "  --setipv4-delay=S  a unit takes its new address S seconds late (0..3600, default 0)\n"
    "  --replicas=N[,LAG] keep version files: vantor.ver counts committed changes, and N peers\n"
    "                     (0..4096) confirm it minus LAG (default 0) once a second\n"
    "  --version-dir=DIR  where the version files are (default: the database path + .versions)\n"
    "  --replica-stall=K  peer K's file is written once, at start, and never again\n";

namespace {

bool parse_port(const std::string& text, in_port_t& port)
{
    long n = 0;
    if (!sim_parse_number(text, 0, 65535, n)) return false;
    port = htons(static_cast<uint16_t>(n));
    return true;
}

bool parse_inet(const std::string& text, SimListen& out)
{
    size_t colon = text.rfind(':');
    if (colon == std::string::npos) return false;
    out.family = AF_INET;
    out.in4.sin_family = AF_INET;
    return inet_pton(AF_INET, text.substr(0, colon).c_str(), &out.in4.sin_addr) == 1 &&
           parse_port(text.substr(colon + 1), out.in4.sin_port);
}

bool parse_inet6(const std::string& text, SimListen& out)
{
    size_t bar = text.find('|');
    out.family = AF_INET6;
    out.in6.sin6_family = AF_INET6;
    return inet_pton(AF_INET6, text.substr(0, bar).c_str(), &out.in6.sin6_addr) == 1 &&
           parse_port(text.substr(bar + 1), out.in6.sin6_port);
}

bool parse_unix(const std::string& text, SimListen& out)
{
    if (text.size() >= sizeof out.un.sun_path) return false;
    out.family = AF_UNIX;
    out.un.sun_family = AF_UNIX;
    memcpy(out.un.sun_path, text.c_str(), text.size() + 1);
    return true;
}

bool parse_path(const std::string& text, std::string& path)
{
    if (text.empty()) return false;
    path = text;
    return true;
}

// A unit count, or else the path of a units file.
bool parse_units(const std::string& text, SimOptions& o)
{
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return parse_path(text, o.unitsFile);
    return sim_parse_number(text, 1, kSimMaxUnits, o.discoveryUnits);
}

// "N" or "N,LAG".
bool parse_replicas(const std::string& text, SimReplicaOptions& replicas)
{
    size_t comma = text.find(',');
    replicas.enabled = true;
    return sim_parse_number(text.substr(0, comma), 0, kSimMaxReplicas, replicas.count) &&
           (comma == std::string::npos || sim_parse_number(text.substr(comma + 1), 0, kSimMaxReplicaLag, replicas.lag));
}

// "--name=value": true with `value` set when `arg` is that option.
bool option_value(const std::string& arg, const char* name, std::string& value)
{
    std::string prefix = std::string("--") + name + "=";
    if (arg.compare(0, prefix.size(), prefix) != 0) return false;
    value = arg.substr(prefix.size());
    return true;
}

bool parse_one(const std::string& arg, SimOptions& o, std::string& error)
{
    std::string value;
    bool ok = true;
    if (arg == "--help" || arg == "-h") o.help = true;
    else if (option_value(arg, "listen", value)) ok = sim_parse_listen(value, o.listen);
    else if (option_value(arg, "db", value)) ok = parse_path(value, o.db);
    else if (option_value(arg, "events", value)) ok = sim_parse_number(value, 0, kSimMaxSeedEvents, o.events);
    else if (option_value(arg, "not-ready", value)) ok = sim_parse_number(value, 0, kSimMaxNotReady, o.notReady);
    else if (option_value(arg, "max-clients", value)) ok = sim_parse_number(value, 1, kSimMaxClientsCap, o.maxClients);
    else if (option_value(arg, "idle-timeout", value)) ok = sim_parse_number(value, 0, kSimMaxIdleTimeout, o.idleTimeout);
    else if (option_value(arg, "centrals", value)) ok = parse_path(value, o.centrals);
    else if (option_value(arg, "discovery-units", value)) ok = parse_units(value, o);
    else if (option_value(arg, "setipv4-delay", value)) ok = sim_parse_number(value, 0, kSimMaxSetIPv4Delay, o.setIPv4Delay);
    else if (option_value(arg, "replicas", value)) ok = parse_replicas(value, o.replicas);
    else if (option_value(arg, "version-dir", value)) ok = o.replicas.enabled = parse_path(value, o.replicas.dir);
    else if (option_value(arg, "replica-stall", value)) ok = sim_parse_number(value, 1, kSimMaxReplicas, o.replicas.stall);
    else {
        error = "unknown option: " + arg;
        return false;
    }
    if (!ok) error = "invalid value: " + arg;
    return ok;
}

}  // namespace

bool sim_parse_number(const std::string& text, long low, long high, long& value)
{
    if (text.empty() || text.size() > 9 || (text.size() > 1 && text[0] == '0')) return false;
    long n = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        n = n * 10 + (c - '0');
    }
    if (n < low || n > high) return false;
    value = n;
    return true;
}

bool sim_parse_listen(const std::string& text, SimListen& listen)
{
    SimListen parsed;
    bool ok = false;
    if (!text.empty() && (text[0] == '/' || text[0] == '.')) ok = parse_unix(text, parsed);
    else if (text.find('|') != std::string::npos) ok = parse_inet6(text, parsed);
    else ok = parse_inet(text, parsed);
    if (ok) listen = parsed;
    return ok;
}

bool sim_parse_options(int argc, char** argv, SimOptions& options, std::string& error)
{
    SimOptions parsed;
    parsed.listen.in4.sin_family = AF_INET;
    parsed.listen.in4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    parsed.listen.in4.sin_port = htons(kServicePort);
    for (int i = 1; i < argc; ++i)
        if (!parse_one(argv[i], parsed, error)) return false;
    if (parsed.replicas.stall > parsed.replicas.count) {
        error = "--replica-stall names no peer of --replicas";
        return false;
    }
    options = parsed;
    return true;
}
