// Watches one table: a thread of its own holds a connection to the database
// shell, subscribes with a "monitor" request and hands every pushed line to
// Event; it reconnects and subscribes again, one second apart, for ever.
// Only the first failed connect after the start or after a change is
// logged: the others would repeat it once a second.
#pragma once

#include <atomic>
#include <string>

#include "Mutex.hpp"
#include "PrivateConnection.h"
#include "Thread.h"

class MonitorWrapper : public Thread, public PrivateConnection {
public:
    static constexpr unsigned OPERATION_INSERT = 1;
    static constexpr unsigned OPERATION_UPDATE = 2;
    static constexpr unsigned OPERATION_DELETE = 4;
    static constexpr unsigned OPERATION_SELECT = 8;
    static constexpr unsigned OPERATION_ALL = 15;

    // The thread starts on the first InitOK() (or an explicit Start()), once
    // the derived object is complete: a thread started here could call its
    // Event before its constructor has run. The first connection is tried a
    // second after the start. `operations` is accepted and not stored (the
    // request names m_operations, 0 unless a derived class sets it). name
    // null: "SQL monitor", the thread's name and the connection's comment.
    MonitorWrapper(const char* table, unsigned operations, const SockAddr* addr = nullptr,
                   const char* name = nullptr, int maxLineLen = 2048, unsigned stackSize = m_defaultStackSize);
    // No callback starts once this begins; the thread is stopped and joined.
    // A derived class calls Stop() in its own destructor, so that no
    // callback reaches its half destroyed part.
    ~MonitorWrapper() override;

    // Ends the monitor for good: wakes the thread out of any read, connect
    // or retry sleep and, unless noWait, joins it (within about a second).
    // True when the thread has ended or noWait.
    bool Stop(bool noWait = false) override;
    // Starts the thread (once): whether it was started by this call.
    bool Start(bool noWait = false) override;
    // Starts the thread unless that was tried before: true when it runs
    // (or ran). Call it right after construction.
    bool InitOK();

    // One change line, on the monitor thread.
    virtual void Event(const char* line) = 0;
    // Added after Event: the server refused the subscription with an error
    // line, given without its marker ("Error: ..."); on the monitor thread,
    // never before the first subscription succeeded or failed. The thread
    // drops the link and tries again a second later, as after a loss (no
    // StateChange: it was never subscribed); an owner that gives up stops it.
    virtual void Refused(const char* /*text*/) {}

protected:
    void* ThreadMain() override;

    // Operation bits named in the subscription; set before the thread
    // subscribes (it reads them at each subscription).
    std::atomic<unsigned> m_operations{0};

private:
    // Waits a second, reconnects and subscribes until the server takes the
    // subscription; false when stopped.
    bool Subscribe(int& retry);
    // Sends the request and reads its answer: true when it is the prompt.
    bool Request();
    void Notify(bool connected);
    void Deliver(const char* line);
    void DeliverRefusal(const char* text);

    bool m_startTried = false;
    bool m_initOK = false;
    std::atomic<bool> m_destructor{false};
    std::string m_table;
    bool m_first = false;
    // The last connect failed: the next failures are not logged.
    bool m_failing = false;
    // Held around every callback and while m_destructor is set: once the
    // destructor has it, no callback is running or will start.
    Mutex m_callbackLock{true};
};
