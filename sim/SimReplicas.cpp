#include "SimReplicas.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "Backlog.h"
#include "debugger.h"

namespace {

// How often the peers confirm the unit's number.
const auto kPeerPeriod = std::chrono::seconds(1);

}  // namespace

SimReplicas::SimReplicas(const SimReplicaOptions& options, const std::string& dbPath)
    : m_options(options),
      m_dir(options.dir.empty() ? dbPath + ".versions" : options.dir),
      m_unitPath(m_dir + "/" + kUnitVersionFile)
{
}

SimReplicas::~SimReplicas()
{
    Stop();
}

bool SimReplicas::Start()
{
    if (mkdir(m_dir.c_str(), 0755) != 0 && errno != EEXIST) {
        syslog_safe(3, "<SimReplicas> Unable to make %s (%s).", m_dir.c_str(), strerror(errno));
        return false;
    }
    // A unit's number never goes back: carry on from an earlier run.
    int rv = m_unit.ReadFile(m_unitPath.c_str());
    if (rv != 0 && rv != -ENOENT)
        syslog_safe(4, "<SimReplicas> %s unreadable (%s); starting at 0.", m_unitPath.c_str(), backlog_reason(rv).c_str());
    rv = m_unit.WriteFile(m_unitPath.c_str());
    if (rv != 0) {
        syslog_safe(3, "<SimReplicas> Unable to write %s (%s).", m_unitPath.c_str(), strerror(-rv));
        return false;
    }
    WritePeers(true);
    rv = pthread_create(&m_thread, nullptr, ThreadEntry, this);
    if (rv != 0) {
        syslog_safe(3, "<SimReplicas> Unable to start a thread (%d).", rv);
        return false;
    }
    m_started = true;
    syslog_safe(6, "<SimReplicas> Version files in %s: unit at %s, %ld peers %ld behind.", m_dir.c_str(),
                m_unit.Str().c_str(), m_options.count, m_options.lag);
    return true;
}

void SimReplicas::Commit(uint64_t changes)
{
    std::lock_guard<std::mutex> hold(m_lock);
    uint64_t room = UINT64_MAX - m_unit.Value();
    m_unit = Version(m_unit.Value() + (changes < room ? changes : room));
    Write(m_unitPath, m_unit);
}

void SimReplicas::Stop()
{
    {
        std::lock_guard<std::mutex> hold(m_lock);
        m_stop = true;
    }
    m_wake.notify_all();
    if (m_started) pthread_join(m_thread, nullptr);
    m_started = false;
}

void SimReplicas::RemoveFiles()
{
    for (long peer = 1; peer <= m_options.count; peer++) (void)unlink(PeerPath(peer).c_str());
    (void)unlink(m_unitPath.c_str());
    (void)rmdir(m_dir.c_str());
}

void* SimReplicas::ThreadEntry(void* self)
{
    static_cast<SimReplicas*>(self)->Run();
    return nullptr;
}

void SimReplicas::Run()
{
    std::unique_lock<std::mutex> hold(m_lock);
    while (!m_wake.wait_for(hold, kPeerPeriod, [this] { return m_stop; })) {
        hold.unlock();
        WritePeers(false);
        hold.lock();
    }
}

void SimReplicas::WritePeers(bool all)
{
    uint64_t unit;
    {
        std::lock_guard<std::mutex> hold(m_lock);
        unit = m_unit.Value();
    }
    uint64_t lag = static_cast<uint64_t>(m_options.lag);
    Version confirmed(unit > lag ? unit - lag : 0);
    for (long peer = 1; peer <= m_options.count; peer++)
        if (all || peer != m_options.stall) Write(PeerPath(peer), confirmed);
}

void SimReplicas::Write(const std::string& path, const Version& version)
{
    int rv = version.WriteFile(path.c_str());
    if (rv != 0 && !m_failing.exchange(true))
        syslog_safe(4, "<SimReplicas> Unable to write %s (%s).", path.c_str(), strerror(-rv));
    if (rv == 0) m_failing = false;
}

std::string SimReplicas::PeerPath(long peer) const
{
    return m_dir + "/" + kPeerVersionPrefix + std::to_string(peer);
}
