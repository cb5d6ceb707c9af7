// Simulated replication: the unit's version file "vantor.ver", counted up
// by every committed change of the database, and simulated peers whose
// files "vantor.ver.1" to "vantor.ver.N" confirm the unit's number once a
// second, so `vtest backlog` can be tried against a running unit.
#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

#include "Version.h"

// Caps of --replicas=N,LAG.
constexpr long kSimMaxReplicas = 4096;
constexpr long kSimMaxReplicaLag = 999999999;

struct SimReplicaOptions {
    bool enabled = false;  // --replicas or --version-dir given
    long count = 0;        // peers 1..count
    long lag = 0;          // changes each peer stays behind the unit (never below 0)
    long stall = 0;        // the peer whose file is written once, at start; 0: none
    std::string dir;       // empty: "<database>.versions"
};

class SimReplicas {
public:
    SimReplicas(const SimReplicaOptions& options, const std::string& dbPath);
    // Stops the peers' thread.
    ~SimReplicas();
    SimReplicas(const SimReplicas&) = delete;
    SimReplicas& operator=(const SimReplicas&) = delete;

    // Makes the directory when missing, continues the unit's number from
    // its file (0 when there is none), writes every file once and starts
    // the thread that keeps the peers' files. False (logged) on failure.
    bool Start();
    // Adds `changes` committed changes to the unit's number and rewrites its
    // file. Called by the sessions' threads.
    void Commit(uint64_t changes);
    // Removes the files written here and the directory when it is empty
    // (for a temporary database). Call after the destructor's stop, or Stop.
    void RemoveFiles();
    void Stop();
    const std::string& Dir() const { return m_dir; }

private:
    static void* ThreadEntry(void* self);
    void Run();
    // Sets every peer's file (the stalled one only when `all`) to the unit's
    // number minus the lag.
    void WritePeers(bool all);
    void Write(const std::string& path, const Version& version);
    std::string PeerPath(long peer) const;

    SimReplicaOptions m_options;
    std::string m_dir;
    std::string m_unitPath;
    std::mutex m_lock;  // m_unit and its file, m_stop
    std::condition_variable m_wake;
    Version m_unit;
    bool m_stop = false;
    std::atomic<bool> m_failing{false};  // the last write failed: log only the first of a run
    pthread_t m_thread{};
    bool m_started = false;
};
