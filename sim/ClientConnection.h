// One accepted client of the simulator, served on a thread of its own: a
// client that never reads blocks only that thread, never the others.
#pragma once

#include <pthread.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "CommandSession.h"
#include "ShellSession.h"

class Sock;

// Most change-line bytes queued for one subscriber; a subscriber that falls
// further behind is disconnected.
constexpr size_t kSimMaxQueuedPush = 4 * 1024 * 1024;

class ClientConnection : public AnswerSink, public MonitorSink {
public:
    // Takes over `link` (an accepted connection).
    ClientConnection(ShellShared& shared, Sock* link);
    // Ends and joins the thread if it runs, then closes the connection.
    ~ClientConnection() override;
    ClientConnection(const ClientConnection&) = delete;
    ClientConnection& operator=(const ClientConnection&) = delete;

    // Starts the serving thread; false (logged) when it cannot be started.
    bool Start();
    // Asks the thread to end: blocked reads and writes return at once.
    void Stop();
    // True when the thread has finished (the connection can be destroyed).
    bool Finished() const { return m_finished; }

    bool Write(const char* data, size_t len) override;
    void Push(const char* line, size_t len) override;

private:
    static void* ThreadEntry(void* self);
    void Serve();
    bool ServeReadable(ShellSession& session);
    bool HandleLine(ShellSession& session, const std::string& line);
    bool HandleTooLong(ShellSession& session);
    void BecomeCommandChannel();
    bool FlushPushed();
    bool Idle() const;
    void Interrupt();

    ShellShared& m_shared;
    std::unique_ptr<Sock> m_link;
    std::string m_peer;
    // A second descriptor of the same socket, open until the thread ends:
    // shutting it down from another thread wakes a blocked read or write
    // without racing the library's own close of m_link's descriptor.
    int m_wakeFd;
    std::mutex m_wakeLock;
    int m_signalFd;  // eventfd: change lines are waiting in m_pushed
    std::mutex m_pushLock;
    std::string m_pushed;
    size_t m_unsent = 0;  // bytes in m_pushed plus those being written
    bool m_overflow = false;
    LineAssembler m_lines;
    // Made by the first line unless that is a database shell line.
    std::unique_ptr<CommandSession> m_command;
    bool m_decided = false;
    long m_lastActivity;  // monotonic seconds of the last request or answer
    pthread_t m_thread{};
    bool m_started = false;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_finished{false};
};
