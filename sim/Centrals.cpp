#include "Centrals.h"

#include <arpa/inet.h>

#include <cctype>
#include <set>

#include "ShellLine.h"
#include "SimOptions.h"

namespace {

const char kPort[] = "/dev/ttyS1";
const char kNoAddress[] = "none";
const char kSampleCentrals[] =
    "1 3 3 02:a0:7c:00:04:12 10.0.0.21 online 02:a0:7c:00:00:01 3.2.1 CE-7710-0412\n"
    "2 4 7 02:a0:7c:00:04:13 10.0.0.22 online 02:a0:7c:00:00:02 3.2.1 CE-7710-0413\n"
    "3 8 none 02:a0:7c:00:05:01 0.0.0.0 unaddressed 00:00:00:00:00:00 3.1.0 CE-7710-0501\n";
// Largest index and HwID a file may give.
const long kMaxNumber = 999999999;
// Longest text of the state, version and serial columns.
const size_t kMaxWord = 32;
// Bytes of received text an answer echoes.
const size_t kShownMax = 40;

// "aa:bb:cc:dd:ee:ff" in either case, stored in lower case.
bool take_mac(const std::string& text, std::string& mac)
{
    if (text.size() != 17) return false;
    std::string lower;
    for (size_t i = 0; i < text.size(); i++) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (i % 3 == 2 ? c != ':' : !isxdigit(c)) return false;
        lower += static_cast<char>(tolower(c));
    }
    mac = lower;
    return true;
}

// Printable, no blank or comma (the central search splits at both), and
// nothing that would make the search skip the row as a header or rule.
bool take_word(const std::string& text, std::string& word)
{
    if (text.empty() || text.size() > kMaxWord) return false;
    for (char c : text)
        if (c <= ' ' || c > '~' || c == ',') return false;
    if (text.find("Version") != std::string::npos || text.find("------") != std::string::npos) return false;
    word = text;
    return true;
}

bool take_address(const std::string& text, long& address)
{
    if (text != kNoAddress) return sim_parse_number(text, kSimMinRs485, kSimMaxRs485, address);
    address = 0;
    return true;
}

bool take_ipv4(const std::string& text, std::string& ipv4)
{
    in_addr parsed;
    if (inet_pton(AF_INET, text.c_str(), &parsed) != 1) return false;
    ipv4 = text;
    return true;
}

// The columns of a row, in order: name, width in the table (a wider value
// still gets one blank), and how a file's text is taken.
struct Column {
    const char* name;
    size_t width;
    bool (*take)(const std::string& text, Central& central);
};
const Column kColumns[] = {
    {"Idx", 5, [](const std::string& t, Central& c) { return sim_parse_number(t, 1, kMaxNumber, c.index); }},
    {"HwID", 7, [](const std::string& t, Central& c) { return sim_parse_number(t, 0, kMaxNumber, c.hwId); }},
    {"Addr", 6, [](const std::string& t, Central& c) { return take_address(t, c.address); }},
    {"MAC", 19, [](const std::string& t, Central& c) { return take_mac(t, c.mac); }},
    {"IPv4", 17, [](const std::string& t, Central& c) { return take_ipv4(t, c.ipv4); }},
    {"State", 13, [](const std::string& t, Central& c) { return take_word(t, c.state); }},
    {"Master", 19, [](const std::string& t, Central& c) { return take_mac(t, c.masterMac); }},
    {"Version", 10, [](const std::string& t, Central& c) { return take_word(t, c.version); }},
    {"Serial", 0, [](const std::string& t, Central& c) { return take_word(t, c.serial); }},
};
const size_t kColumnCount = sizeof kColumns / sizeof kColumns[0];

// One row from a file line; the reason when it is not one.
bool parse_row(const std::string& line, Central& central, std::string& reason)
{
    std::vector<std::string> words = sim_split_words(line);
    if (words.size() != kColumnCount) {
        reason = "expected " + std::to_string(kColumnCount) + " columns, found " + std::to_string(words.size());
        return false;
    }
    for (size_t i = 0; i < kColumnCount; i++)
        if (!kColumns[i].take(words[i], central)) {
            reason = std::string("bad ") + kColumns[i].name + " '" + sim_printable(words[i]) + "'";
            return false;
        }
    return true;
}

bool unique_row(const Central& central, std::set<std::string>& macs, std::set<long>& addresses, std::string& reason)
{
    if (!macs.insert(central.mac).second) reason = "MAC " + central.mac + " given twice";
    else if (central.address && !addresses.insert(central.address).second)
        reason = "address " + std::to_string(central.address) + " given twice";
    return reason.empty();
}

bool room_for_row(size_t rows, std::string& reason)
{
    if (rows < kSimMaxCentrals) return true;
    reason = "more than " + std::to_string(kSimMaxCentrals) + " centrals";
    return false;
}

std::string address_text(long address) { return address ? std::to_string(address) : kNoAddress; }

void append_cell(std::string& out, const std::string& text, size_t width)
{
    out += text;
    if (width) out.append(width > text.size() ? width - text.size() : 1, ' ');
}

}  // namespace

CentralTable::CentralTable()
{
    std::string error;
    (void)Parse(kSampleCentrals, error);
}

bool CentralTable::Parse(const std::string& text, std::string& error)
{
    std::vector<Central> rows;
    std::set<std::string> macs;
    std::set<long> addresses;
    size_t number = 0;
    for (size_t at = 0; at < text.size(); number++) {
        size_t end = text.find('\n', at);
        std::string line = text.substr(at, end == std::string::npos ? std::string::npos : end - at);
        at = end == std::string::npos ? text.size() : end + 1;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        size_t first = line.find_first_not_of(" \t");
        if (first == std::string::npos || line[first] == '#') continue;
        Central central;
        std::string reason;
        if (!parse_row(line, central, reason) || !unique_row(central, macs, addresses, reason) ||
            !room_for_row(rows.size(), reason)) {
            error = "line " + std::to_string(number + 1) + ": " + reason;
            return false;
        }
        rows.push_back(central);
    }
    std::lock_guard<std::mutex> guard(m_lock);
    m_rows.swap(rows);
    return true;
}

std::string CentralTable::Enum() const
{
    std::string header;
    for (const Column& column : kColumns) append_cell(header, column.name, column.width);
    std::string out = std::string(kPort) + "\n" + header + "\n" + std::string(header.size(), '-') + "\n";
    std::lock_guard<std::mutex> guard(m_lock);
    out.reserve(out.size() + m_rows.size() * (header.size() + 16));
    for (const Central& c : m_rows) {
        // Numbers this short stay in the strings' own storage: no allocation per row.
        const std::string index = std::to_string(c.index), hwId = std::to_string(c.hwId);
        const std::string address = address_text(c.address);
        const std::string* cells[] = {&index, &hwId, &address, &c.mac, &c.ipv4, &c.state, &c.masterMac, &c.version, &c.serial};
        for (size_t i = 0; i < kColumnCount; i++) append_cell(out, *cells[i], kColumns[i].width);
        out += '\n';
    }
    return out;
}

std::string CentralTable::Set(const std::string& macText, const std::string& addressText)
{
    std::string mac;
    long address = 0;
    if (!take_mac(macText, mac)) return "Error: Invalid MAC address '" + sim_printable(macText) + "'.";
    if (!sim_parse_number(addressText, kSimMinRs485, kSimMaxRs485, address))
        return "Error: Invalid RS-485 address '" + sim_printable(addressText) + "' (1 to 254).";
    std::lock_guard<std::mutex> guard(m_lock);
    Central* target = nullptr;
    for (Central& c : m_rows) {
        if (c.mac == mac) target = &c;
        else if (c.address == address)
            return "Error: RS-485 address " + std::to_string(address) + " is taken by " + c.mac + ".";
    }
    if (!target) return "Error: No central with MAC " + mac + ".";
    std::string old = address_text(target->address);
    target->address = address;
    return "Central " + mac + " address " + old + " -> " + std::to_string(address) + ".";
}

std::string sim_printable(const std::string& text)
{
    std::string out;
    for (size_t i = 0; i < text.size() && i < kShownMax; i++) out += text[i] >= ' ' && text[i] <= '~' ? text[i] : '?';
    if (text.size() > kShownMax) out += "...";
    return out;
}
