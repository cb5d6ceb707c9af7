#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Socket.h"
#include "sql_wrapper.h"

// Arbitrary server bytes, then the end of the stream, through a socket pair
// into a statement's answer: header, rows in every form, markers and error
// lines. The address is unusable, so a lost connection is not made again.
// The first byte picks whole rows (bit 0) and a line long enough for the
// line buffer to grow (bit 1).
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    int fds[2];
    if (size < 1 || size > 65536 || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return 0;
    const uint8_t mode = *data++;
    size--;
    if (write(fds[1], data, size) == static_cast<ssize_t>(size) && shutdown(fds[1], SHUT_WR) == 0) {
        const SockAddr nowhere;
        SqlWrapper sql(&nowhere, "fuzz", mode & 2 ? 9000 : 64, 0);
        sql.WholeRows(mode & 1);
        if (sql.Adopt(new Socket(fds[0], nowhere)) && sql.Exec("SELECT 1;")) {
            std::vector<std::string> row;
            std::map<std::string, std::string> named;
            char* columns[4];
            for (int round = 0, count = 4;; round++, count = 4) {
                bool more = round % 3 == 0   ? sql.Next(row, 3)
                            : round % 3 == 1 ? sql.Next(named)
                                             : sql.NextParsed(columns, count);
                if (!more) break;
            }
        }
    }
    close(fds[1]);
    return 0;
}
