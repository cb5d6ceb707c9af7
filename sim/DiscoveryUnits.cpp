#include "DiscoveryUnits.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <sstream>

#include "SockAddr.h"

namespace {

const long kGroupSize = 10;  // a master and its nine slaves

std::string mac_text(long i)
{
    char text[18];
    snprintf(text, sizeof text, "02:56:54:00:%02lx:%02lx", (i >> 8) & 0xff, i & 0xff);
    return text;
}

std::string hostname(long i)
{
    char text[32];
    snprintf(text, sizeof text, "unit-%04ld", i);
    return text;
}

// Unit i's master: none for unit 1, unit 1 for each group head, else the head.
long master_of(long i)
{
    if (i == 1) return 0;
    long head = (i - 1) / kGroupSize * kGroupSize + 1;
    return head == i ? 1 : head;
}

std::vector<std::string> words(const std::string& line)
{
    std::istringstream in(line);
    std::vector<std::string> out;
    for (std::string word; in >> word;) out.push_back(word);
    return out;
}

bool parse_mac(const std::string& text, unsigned char* mac)
{
    SockAddr addr;
    if (text.size() != 17 || addr.GetMAC(text.c_str()) != 0) return false;
    memcpy(mac, addr.Get().mac.mac, 6);
    return true;
}

bool parse_quad(const std::string& text, in_addr& address) { return inet_pton(AF_INET, text.c_str(), &address) == 1; }

// One units-file line into `unit`; false with the reason.
bool parse_unit(const std::string& line, SimUnit& unit, std::string& error)
{
    bool mac = false, ipv4 = false;
    for (const std::string& word : words(line)) {
        size_t eq = word.find('=');
        if (eq == 0 || eq == std::string::npos) {
            error = "not key=value: " + word;
            return false;
        }
        std::string key = word.substr(0, eq), value = word.substr(eq + 1);
        if (key == "mac" && !(mac = parse_mac(value, unit.mac))) error = "bad mac: " + value;
        if (key == "ipv4" && !(ipv4 = parse_quad(value, unit.ipv4))) error = "bad ipv4: " + value;
        if (!error.empty()) return false;
        unit.fields.emplace_back(key, value);
    }
    if (!mac || !ipv4) error = "a unit needs mac= and ipv4=";
    return error.empty();
}

}  // namespace

std::string SimUnit::Answer() const
{
    std::string text;
    for (const auto& field : fields) text += field.first + "=" + field.second + "\n";
    return text;
}

void SimUnit::MoveTo(in_addr address)
{
    ipv4 = address;
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &address, text, sizeof text);
    for (auto& field : fields)
        if (field.first == "ipv4") field.second = text;
}

std::vector<SimUnit> sim_units_generate(long n)
{
    std::vector<SimUnit> units(static_cast<size_t>(n));
    for (long i = 1; i <= n; i++) {
        SimUnit& unit = units[static_cast<size_t>(i - 1)];
        char address[32];
        snprintf(address, sizeof address, "10.77.%ld.%ld", i / 250, i % 250 + 2);
        unit.fields = {{"mac", mac_text(i)}, {"hwid", std::to_string(100 + i)}, {"ipv4", address},
                       {"version", "3.2." + std::to_string(i % 10)}, {"sslMode", "0"}};
        if (long master = master_of(i)) {
            unit.fields.emplace_back("master", hostname(master));
            unit.fields.emplace_back("masterMac", mac_text(master));
        }
        unit.fields.emplace_back("hostname", hostname(i));
        parse_mac(mac_text(i), unit.mac);
        parse_quad(address, unit.ipv4);
    }
    return units;
}

bool sim_units_parse(const std::string& text, std::vector<SimUnit>& units, std::string& error)
{
    std::vector<SimUnit> parsed;
    std::istringstream in(text);
    int number = 0;
    for (std::string line; std::getline(in, line);) {
        number++;
        std::string why;
        SimUnit unit;
        if (line.size() > kSimUnitsLineMax)
            why = "longer than " + std::to_string(kSimUnitsLineMax) + " bytes";
        else if (words(line).empty() || line[0] == '#')
            continue;
        else if (static_cast<long>(parsed.size()) == kSimMaxUnits)
            why = "more than " + std::to_string(kSimMaxUnits) + " units";
        else if (parse_unit(line, unit, why)) {
            parsed.push_back(std::move(unit));
            continue;
        }
        error = "line " + std::to_string(number) + ": " + why;
        return false;
    }
    if (parsed.empty()) {
        error = "no units";
        return false;
    }
    units = std::move(parsed);
    return true;
}

bool sim_parse_set_ipv4(const std::string& datagram, SetIPv4Request& request)
{
    std::string first = datagram.substr(0, datagram.find_first_of(std::string("\n\0", 2)));
    std::vector<std::string> w = words(first);
    if (w.size() < 6 || w.size() > 7 || w[0] != "SetIPv4" || w[1].compare(0, 4, "mac:") != 0) return false;
    SetIPv4Request parsed;
    if (!parse_mac(w[1].substr(4), parsed.mac) || !parse_quad(w[2], parsed.address)) return false;
    if (w.back() != "permanent" && w.back() != "temporary") return false;
    parsed.permanent = w.back() == "permanent";
    request = parsed;
    return true;
}
