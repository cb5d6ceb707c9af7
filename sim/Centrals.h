// The RS-485 centrals of the simulated unit's bus "/dev/ttyS1": what the
// command channel's "serial enum" lists and "serial set" readdresses.
// Shared by every connection (one lock).
#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

// Most centrals a --centrals file may list, and its largest size in bytes.
constexpr size_t kSimMaxCentrals = 200000;
constexpr size_t kSimMaxCentralsFile = 32 * 1024 * 1024;
// The RS-485 addresses a central can be given.
constexpr long kSimMinRs485 = 1;
constexpr long kSimMaxRs485 = 254;

struct Central {
    long index = 0;
    long hwId = 0;
    long address = 0;  // 0: none given yet
    std::string mac;   // lower case, as every MAC here
    std::string ipv4;
    std::string state;
    std::string masterMac;
    std::string version;
    std::string serial;
};

class CentralTable {
public:
    // Three sample centrals: two of the sample database's (HwID 3 and 4,
    // addresses 3 and 7) and one without an address.
    CentralTable();

    // Replaces the table with the rows of a --centrals file: nine blank-
    // separated columns per line (index, HwID, address or "none", MAC,
    // IPv4, state, master MAC, version, serial number); empty lines and
    // lines starting with "#" are skipped. Returns false with "line N:
    // <reason>" in `error` (table unchanged) for a bad line, a MAC or
    // address given twice, or more than kSimMaxCentrals rows.
    bool Parse(const std::string& text, std::string& error);
    // The "serial enum" output: the port line, a header naming the columns,
    // a rule of dashes, one row per central; every line ends in "\n".
    std::string Enum() const;
    // Gives the central with `mac` the RS-485 address `address` (text as
    // received). Returns the answer line: "Central <mac> address <old> ->
    // <new>." or an "Error: ..." line.
    std::string Set(const std::string& mac, const std::string& address);

private:
    mutable std::mutex m_lock;
    std::vector<Central> m_rows;
};

// `text` made safe to echo in an answer line: at most 40 bytes (then
// "..."), bytes outside printable ASCII as "?".
std::string sim_printable(const std::string& text);
