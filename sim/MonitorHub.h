// Table-change subscriptions of all clients, and the fan-out of committed
// changes to them as protocol lines.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

// Operation bits of a subscription, named by the words of a monitor request.
enum : unsigned {
    kMonitorInsert = 1,
    kMonitorUpdate = 2,
    kMonitorDelete = 4,
    kMonitorSelect = 8,  // accepted; SQLite reports no reads, so it never fires
    kMonitorChanges = kMonitorInsert | kMonitorUpdate | kMonitorDelete,
};

// Most subscriptions one connection may hold.
constexpr size_t kMonitorMaxPerSink = 64;

// Where a connection's change lines go.
class MonitorSink {
public:
    virtual ~MonitorSink() = default;
    // Takes one complete change line, end byte included. Called with the
    // hub's lock held, on the thread of the client whose statement made the
    // change: it must only queue, never block or call back into the hub.
    virtual void Push(const char* line, size_t len) = 0;
};

// One committed row change, as SQLite's update hook reports it.
struct MonitorChange {
    unsigned op;  // kMonitorInsert, kMonitorUpdate or kMonitorDelete
    std::string table;
    int64_t rowid;
};

class MonitorHub {
public:
    // Adds `ops` for `table` (compared without regard to ASCII case) to the
    // sink's subscriptions and marks the sink's next line as the first after a
    // subscription. Returns false (logged) when the sink already holds
    // kMonitorMaxPerSink other tables.
    bool Subscribe(MonitorSink* sink, const std::string& table, unsigned ops);
    // Drops every subscription of `sink`; it receives nothing afterwards.
    void Unsubscribe(MonitorSink* sink);
    // True when some subscription names `table`: changes to other tables
    // need not be collected.
    bool Watched(const char* table) const;
    // Sends every change to each sink subscribed to its table and operation,
    // in order, one line each (format in docs/protocol.md).
    void Publish(const std::vector<MonitorChange>& changes);

private:
    struct SinkState {
        std::map<std::string, unsigned> tables;  // lower-case name -> operation bits
        bool firstLine = true;                   // next line carries the lead
    };
    void Deliver(MonitorSink* sink, SinkState& state, const MonitorChange& change);

    mutable std::mutex m_lock;
    std::map<MonitorSink*, SinkState> m_sinks;
    std::string m_line;  // formatting buffer, reused under m_lock
};

// ASCII lower-case copy, the key of a table name.
std::string monitor_table_key(const char* table);
