#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "commands.h"
#include "db_limits.h"
#include "server_option.h"
#include "sql_wrapper.h"

namespace {

const unsigned kStackSize = 2097152;

// Prints every change line on standard output and the connection's state
// changes on standard error; hands a refused subscription to the main
// thread through an eventfd.
class Monitor : public MonitorWrapper {
public:
    Monitor(const char* table, unsigned operations, const SockAddr* server)
        : MonitorWrapper(table, operations, server, nullptr, kShortLineLength, kStackSize),
          m_table(table),
          m_refusalFd(eventfd(0, EFD_CLOEXEC))
    {
        char where[SockAddr::m_strLen];
        m_where = Address().Str(where, true);
        Bounds(kDefaultConnectSeconds, kDefaultConnectSeconds, 0);
    }
    // The thread is stopped here, while the callbacks still reach this
    // class: the base destructor runs after this object's part is gone.
    ~Monitor() override
    {
        Stop();
        if (m_refusalFd >= 0) close(m_refusalFd);
    }
    void StateChange(bool connected) override
    {
        if (connected)
            fprintf(stderr, "Monitoring %s on %s.\n", m_table.c_str(), m_where.c_str());
        else
            fprintf(stderr, "Connection to %s lost; retrying every second.\n", m_where.c_str());
    }
    void Event(const char* text) override
    {
        puts(text);
        fflush(stdout);
    }
    void Refused(const char* text) override
    {
        {
            MUTEX_GUARD(m_refusalLock);
            m_refusal = text;
        }
        uint64_t one = 1;
        if (write(m_refusalFd, &one, sizeof one) < 0) return;
    }

    const std::string& Where() const { return m_where; }
    int RefusalFd() const { return m_refusalFd; }
    std::string Refusal()
    {
        MUTEX_GUARD(m_refusalLock);
        return m_refusal;
    }

private:
    std::string m_table;
    std::string m_where;
    int m_refusalFd;
    Mutex m_refusalLock{false};
    std::string m_refusal;
};

int missing_table()
{
    fputs("Missing parameter: table.\n", stderr);
    return -1;
}

// A name goes into the one-line request as it is: empty, or holding a
// blank or a control byte, it would make another request or none.
bool check_table(const char* name)
{
    bool ok = *name != '\0';
    std::string shown;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(name); *p; p++) {
        bool control = *p < 0x20 || *p == 0x7f;
        ok = ok && !control && *p != ' ';
        char hex[5];
        snprintf(hex, sizeof hex, "\\x%02x", *p);
        shown += control ? hex : std::string(1, static_cast<char>(*p));
    }
    if (!ok) fprintf(stderr, "Invalid table: %s.\n", shown.c_str());
    return ok;
}

// ORs the words' bits into `mask`; false after an unknown word (reported).
bool parse_operations(int first, int argc, char** argv, unsigned& mask)
{
    for (int i = first; i < argc; i++) {
        if (strcmp(argv[i], "insert") == 0) {
            mask |= MonitorWrapper::OPERATION_INSERT;
        } else if (strcmp(argv[i], "update") == 0) {
            mask |= MonitorWrapper::OPERATION_UPDATE;
        } else if (strcmp(argv[i], "delete") == 0) {
            mask |= MonitorWrapper::OPERATION_DELETE;
        } else {
            fprintf(stderr, "Invalid operation: %s.\n", argv[i]);
            return false;
        }
    }
    return true;
}

// Waits for ENTER (one character, or the end of standard input) and for a
// refusal together: true when the server refused.
bool await_enter_or_refusal(int refusalFd)
{
    pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {refusalFd, POLLIN, 0}};
    while (poll(fds, 2, -1) < 0)
        if (errno != EINTR) break;
    if (fds[1].revents & POLLIN) return true;
    (void)getchar();
    return false;
}

}  // namespace

int main_monitor(int argc, char** argv)
{
    if (argc < 3) return missing_table();
    // Only a lone table gets the full mask; with a server option and no
    // words the mask stays 0. The request never carries the mask anyway.
    unsigned mask = argc == 3 ? MonitorWrapper::OPERATION_ALL : 0;
    SockAddr server;
    bool serverGiven = strncmp(argv[2], "--server=", 9) == 0;
    if (serverGiven && !parse_server_option(argv[2] + 9, server)) return -1;
    int tableAt = serverGiven ? 3 : 2;
    if (tableAt >= argc) return missing_table();
    if (!check_table(argv[tableAt])) return -1;
    if (!parse_operations(tableAt + 1, argc, argv, mask)) return -1;

    Monitor monitor(argv[tableAt], mask, serverGiven ? &server : nullptr);
    if (!monitor.InitOK()) {
        fputs("Error starting monitor.\n", stderr);
        return 0;
    }
    puts("Press ENTER to stop.");
    fflush(stdout);
    fprintf(stderr, "Waiting for %s ...\n", monitor.Where().c_str());
    if (!await_enter_or_refusal(monitor.RefusalFd())) return 0;
    fprintf(stderr, "Cannot monitor %s: %s.\n", argv[tableAt], monitor.Refusal().c_str());
    return 1;
}
