// The units the simulator plays on the discovery port: what each answers to
// "Hello", and the "SetIPv4" requests that move them.
#pragma once

#include <netinet/in.h>

#include <string>
#include <utility>
#include <vector>

// Most units one simulator plays (generated or from a file).
constexpr long kSimMaxUnits = 10000;
// Longest line of a units file.
constexpr size_t kSimUnitsLineMax = 4096;

struct SimUnit {
    // The answer's "key=value" lines in order; "mac" and "ipv4" are among them.
    std::vector<std::pair<std::string, std::string>> fields;
    unsigned char mac[6] = {};
    in_addr ipv4 = {};

    // "key=value\n" for every field, no NUL.
    std::string Answer() const;
    // Takes the new address (its "ipv4" field too).
    void MoveTo(in_addr address);
};

// Units 1..n: MAC 02:56:54:00:HH:LL and address 10.77.(i / 250).(i % 250 + 2)
// for unit i; unit 1 is the root, every tenth unit (11, 21, ...) a master
// under it, and the nine after each such head its slaves.
std::vector<SimUnit> sim_units_generate(long n);

// A units file: one unit a line as blank-separated key=value words, with a
// valid "mac" and a dotted-quad "ipv4" among them; empty lines and lines
// starting with "#" are skipped. False with the reason in `error`.
bool sim_units_parse(const std::string& text, std::vector<SimUnit>& units, std::string& error);

// A "SetIPv4 mac:<mac> <address> <mask> <gateway> [<dns>] permanent|temporary"
// request (only its first line counts; the rest is the optional part).
struct SetIPv4Request {
    unsigned char mac[6] = {};
    in_addr address = {};
    bool permanent = true;
};
// False for anything else (another request, another target type, a bad
// address or word count).
bool sim_parse_set_ipv4(const std::string& datagram, SetIPv4Request& request);
