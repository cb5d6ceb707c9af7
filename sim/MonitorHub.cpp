#include "MonitorHub.h"

#include <cinttypes>
#include <cstdio>

#include "debugger.h"

namespace {

// Starts the first line after each subscription; the monitor client skips
// exactly these six characters.
const char kFirstLineLead[] = "event ";

const char* monitor_op_word(unsigned op)
{
    switch (op) {
        case kMonitorInsert: return "insert";
        case kMonitorUpdate: return "update";
        default: return "delete";
    }
}

}  // namespace

std::string monitor_table_key(const char* table)
{
    std::string key(table);
    for (char& c : key)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return key;
}

bool MonitorHub::Subscribe(MonitorSink* sink, const std::string& table, unsigned ops)
{
    std::string key = monitor_table_key(table.c_str());
    std::lock_guard<std::mutex> guard(m_lock);
    SinkState& state = m_sinks[sink];
    if (state.tables.size() >= kMonitorMaxPerSink && state.tables.count(key) == 0) {
        syslog_safe(4, "<MonitorHub> Subscription to %s refused: %zu tables already watched.", table.c_str(),
                    state.tables.size());
        return false;
    }
    state.tables[key] |= ops;
    state.firstLine = true;
    return true;
}

void MonitorHub::Unsubscribe(MonitorSink* sink)
{
    std::lock_guard<std::mutex> guard(m_lock);
    m_sinks.erase(sink);
}

bool MonitorHub::Watched(const char* table) const
{
    std::string key = monitor_table_key(table);
    std::lock_guard<std::mutex> guard(m_lock);
    for (const auto& entry : m_sinks)
        if (entry.second.tables.count(key)) return true;
    return false;
}

void MonitorHub::Publish(const std::vector<MonitorChange>& changes)
{
    std::lock_guard<std::mutex> guard(m_lock);
    for (const MonitorChange& change : changes) {
        std::string key = monitor_table_key(change.table.c_str());
        for (auto& entry : m_sinks) {
            auto hit = entry.second.tables.find(key);
            if (hit != entry.second.tables.end() && (hit->second & change.op)) Deliver(entry.first, entry.second, change);
        }
    }
}

void MonitorHub::Deliver(MonitorSink* sink, SinkState& state, const MonitorChange& change)
{
    char tail[40];
    // The ";" is the one character the monitor client cuts from every line.
    snprintf(tail, sizeof tail, " %" PRId64 ";\n", change.rowid);
    m_line.assign(state.firstLine ? kFirstLineLead : "");
    m_line.append(monitor_op_word(change.op)).append(" ").append(change.table).append(tail);
    // A quoted table name may hold line ends; they must not split the line.
    for (size_t i = 0; i + 1 < m_line.size(); ++i)
        if (m_line[i] == '\n' || m_line[i] == '\r' || m_line[i] == '\v') m_line[i] = ' ';
    state.firstLine = false;
    sink->Push(m_line.data(), m_line.size());
}
