#include <cstdio>
#include <cstring>

#include "commands.h"
#include "server_option.h"
#include "sql_wrapper.h"

namespace {

const int kLineLength = 2048;
const unsigned kStackSize = 2097152;

// Prints every change line; connection state changes print nothing.
class Monitor : public MonitorWrapper {
public:
    Monitor(const char* table, unsigned operations, const SockAddr* server)
        : MonitorWrapper(table, operations, server, nullptr, kLineLength, kStackSize)
    {
    }
    // The thread is stopped here, while Event still reaches this class: the
    // base destructor runs after this object's part is gone.
    ~Monitor() override { Stop(); }
    void StateChange(bool) override {}
    void Event(const char* text) override { puts(text); fflush(stdout); }
};

int missing_table()
{
    fputs("Missing parameter: table.\n", stderr);
    return -1;
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
    if (!parse_operations(tableAt + 1, argc, argv, mask)) return -1;

    Monitor monitor(argv[tableAt], mask, serverGiven ? &server : nullptr);
    if (!monitor.InitOK()) {
        fputs("Error starting monitor.\n", stderr);
        return 0;
    }
    puts("Press ENTER to stop.");
    fflush(stdout);
    (void)getchar();
    return 0;
}
