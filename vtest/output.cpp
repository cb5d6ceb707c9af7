#include "output.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "exit_status.h"

namespace {

// Written by whichever thread flushes (the monitor prints from its own).
std::atomic<int> g_writeErrno{0};

void output_remember(int err)
{
    int none = 0;
    (void)g_writeErrno.compare_exchange_strong(none, err);
}

// stdio cannot say why an earlier flush failed (it empties the buffer and
// keeps only its error flag), so every write goes through here.
ssize_t output_write(void*, const char* buf, size_t size)
{
    size_t done = 0;
    while (done < size) {
        ssize_t n = write(STDOUT_FILENO, buf + done, size - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            output_remember(n < 0 ? errno : EIO);
            return 0;  // stdio's "nothing written": the stream's error flag
        }
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(size);
}

}  // namespace

void output_watch()
{
    cookie_io_functions_t io = {nullptr, output_write, nullptr, nullptr};
    FILE* watched = fopencookie(nullptr, "w", io);
    if (!watched) return;  // stdout stays as it was; its errors then go unnamed
    (void)setvbuf(watched, nullptr, isatty(STDOUT_FILENO) ? _IOLBF : _IOFBF, BUFSIZ);
    stdout = watched;
}

void output_write_failed(int err) { output_remember(err); }

int output_finish(int status)
{
    errno = 0;
    bool failed = fflush(stdout) != 0 || ferror(stdout);
    int err = g_writeErrno.load();
    if (!failed && err == 0) return status;
    if (err == 0) err = errno ? errno : EIO;
    if (err == EPIPE) return status;
    fprintf(stderr, "vtest: write error: %s\n", strerror(err));
    return status == 0 ? kExitWriteError : status;
}
