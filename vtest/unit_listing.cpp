#include "unit_listing.h"

#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <unordered_map>
#include <utility>
#include <vector>

#include "json_string.h"

namespace {

const size_t kLevelIndent = 4;
const char kAbsent[] = "-";

const std::string* field(const DiscoverRecord& record, const char* key)
{
    auto it = record.find(key);
    return it == record.end() || it->second.empty() ? nullptr : &it->second;
}

std::string shown(const std::string* value) { return value ? listing_escape(*value) : kAbsent; }

std::string left_in(const std::string& text, size_t width)
{
    return text.size() < width ? text + std::string(width - text.size(), ' ') : text;
}

std::string right_in(const std::string& text, size_t width)
{
    return text.size() < width ? std::string(width - text.size(), ' ') + text : text;
}

std::string lower(const std::string& text)
{
    std::string out = text;
    std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return static_cast<char>(tolower(c)); });
    return out;
}

// The walk of the tree layout: each record's slaves in list order.
class Tree {
public:
    Tree(const std::list<DiscoverRecord>& records, bool full);
    std::string Print();

private:
    void Link();
    void printForMaster(size_t top);

    std::vector<const DiscoverRecord*> m_records;
    std::vector<std::vector<size_t>> m_slaves;
    std::vector<bool> m_root;
    std::vector<bool> m_printed;
    bool m_full;
    std::string m_out;
};

Tree::Tree(const std::list<DiscoverRecord>& records, bool full) : m_full(full)
{
    for (const DiscoverRecord& record : records) m_records.push_back(&record);
    m_slaves.resize(m_records.size());
    m_root.assign(m_records.size(), true);
    m_printed.assign(m_records.size(), false);
    Link();
}

void Tree::Link()
{
    std::unordered_map<std::string, size_t> firstWithMac;
    for (size_t i = 0; i < m_records.size(); i++)
        if (const std::string* mac = field(*m_records[i], "mac")) firstWithMac.emplace(lower(*mac), i);
    for (size_t i = 0; i < m_records.size(); i++) {
        const std::string* master = field(*m_records[i], "masterMac");
        const std::string* own = field(*m_records[i], "mac");
        if (!master || (own && strcasecmp(own->c_str(), master->c_str()) == 0)) continue;
        auto it = firstWithMac.find(lower(*master));
        if (it == firstWithMac.end()) continue;
        m_root[i] = false;
        m_slaves[it->second].push_back(i);
    }
}

// `top` and everything below it not printed yet, depth first; an explicit
// stack, so a long chain of masters cannot exhaust the call stack.
void Tree::printForMaster(size_t top)
{
    std::vector<std::pair<size_t, size_t>> stack = {{top, 0}};
    while (!stack.empty()) {
        auto [node, depth] = stack.back();
        stack.pop_back();
        if (m_printed[node]) continue;
        m_printed[node] = true;
        m_out += printNode(*m_records[node], m_full, depth * kLevelIndent);
        const std::vector<size_t>& slaves = m_slaves[node];
        for (auto it = slaves.rbegin(); it != slaves.rend(); ++it)
            if (!m_printed[*it]) stack.emplace_back(*it, depth + 1);
    }
}

std::string Tree::Print()
{
    for (size_t i = 0; i < m_records.size(); i++)
        if (m_root[i]) printForMaster(i);
    for (size_t i = 0; i < m_records.size(); i++)
        if (!m_printed[i]) printForMaster(i);
    return m_out;
}

}  // namespace

std::string listing_escape(const std::string& text)
{
    std::string out;
    out.reserve(text.size());
    for (unsigned char c : text) {
        if (c < 0x20 || c == 0x7f) {
            char hex[5];
            snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        } else {
            if (c == '\\') out += '\\';
            out += static_cast<char>(c);
        }
    }
    return out;
}

std::string record_address(const DiscoverRecord& record)
{
    const std::string* remote = field(record, "remote");
    return remote ? remote->substr(0, remote->rfind(':')) : std::string();
}

std::string printNode(const DiscoverRecord& record, bool full, size_t indent)
{
    std::string address = record_address(record);
    std::string pad(indent, ' ');
    // "%-17s %-15s %6s %-16s %-10s %s\n", without a limit on the values.
    std::string out = pad + left_in(shown(field(record, "mac")), 17) + " " +
                      left_in(shown(address.empty() ? nullptr : &address), 15) + " " +
                      right_in(shown(field(record, "hwid")), 6) + " " + left_in(shown(field(record, "hostname")), 16) +
                      " " + left_in(shown(field(record, "version")), 10) + " " + shown(field(record, "masterMac")) + "\n";
    if (!full) return out;
    for (const auto& [key, value] : record) out += pad + "    " + listing_escape(key) + "=" + listing_escape(value) + "\n";
    return out;
}

std::string listing_flat(const std::list<DiscoverRecord>& records, bool full)
{
    std::string out;
    for (const DiscoverRecord& record : records) out += printNode(record, full, 0);
    return out;
}

std::string listing_tree(const std::list<DiscoverRecord>& records, bool full) { return Tree(records, full).Print(); }

std::string listing_json(const std::list<DiscoverRecord>& records)
{
    if (records.empty()) return "[]\n";
    std::string out = "[";
    const char* separator = "\n";
    for (const DiscoverRecord& record : records) {
        out += separator;
        out += "  {";
        const char* comma = "";
        for (const auto& [key, value] : record) {
            out += comma + json_string(key) + ": " + json_string(value);
            comma = ", ";
        }
        out += "}";
        separator = ",\n";
    }
    return out + "\n]\n";
}
