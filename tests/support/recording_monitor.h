// A table monitor for tests: records its callbacks as "up", "down", "event:<text>" and "refused:<text>",
// in order, for the test to wait on.
#pragma once

#include <unistd.h>

#include <mutex>
#include <string>
#include <vector>

#include "MonitorWrapper.h"
#include "process.h"
#include "wait.h"

class RecordingMonitor : public MonitorWrapper {
public:
    RecordingMonitor(const SockAddr& addr, unsigned operations, const char* table = "Events")
        : MonitorWrapper(table, MonitorWrapper::OPERATION_ALL, &addr, nullptr, 2048, 1 << 20)
    {
        m_operations = operations;
    }
    ~RecordingMonitor() override { Stop(); }  // before this part goes: the thread must not call into it later

    void Event(const char* line) override
    {
        Record(std::string("event:") + line);
        usleep(200);  // paces a flood of events, so that a stop comes in the middle
    }
    void StateChange(bool connected) override { Record(connected ? "up" : "down"); }
    void Refused(const char* text) override { Record(std::string("refused:") + text); }

    std::vector<std::string> Log() const { std::lock_guard<std::mutex> guard(m_lock); return m_log; }
    bool WaitForEntries(size_t n) const { return WaitUntil([&] { return Log().size() >= n; }, ScaledMs(15000)); }

private:
    void Record(const std::string& entry) { std::lock_guard<std::mutex> guard(m_lock); m_log.push_back(entry); }

    mutable std::mutex m_lock;
    std::vector<std::string> m_log;
};
