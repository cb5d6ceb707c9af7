#include "regular_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace {

const int kReadTries = 3;

bool same_file(const struct stat& a, const struct stat& b) { return a.st_dev == b.st_dev && a.st_ino == b.st_ino; }

bool unchanged(const struct stat& a, const struct stat& b)
{
    return same_file(a, b) && a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
           a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

// Reads fd to its end, at most cap bytes: 0, -EFBIG or a negated errno.
int read_all(int fd, size_t cap, std::string& text)
{
    char chunk[65536];
    for (;;) {
        ssize_t n = read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -errno;
        if (n == 0) return 0;
        if (static_cast<size_t>(n) > cap - text.size()) return -EFBIG;
        text.append(chunk, static_cast<size_t>(n));
        // A short read of a regular file is its end (no extra read per small
        // file); regular_file_read's size check catches one that grew meanwhile.
        if (static_cast<size_t>(n) < sizeof chunk) return 0;
    }
}

}  // namespace

int regular_file_open(const char* path, struct stat* st)
{
    struct stat seen, opened;
    if (stat(path, &seen) != 0) return -errno;
    if (S_ISDIR(seen.st_mode)) return -EISDIR;
    if (!S_ISREG(seen.st_mode)) return -EINVAL;
    int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) return -errno;
    if (fstat(fd, &opened) != 0) {
        int err = errno;
        close(fd);
        return -err;
    }
    // The path may name another file by now (a writer renamed a new one over
    // it): any regular file is as good to read; anything else is refused.
    if (!S_ISREG(opened.st_mode)) {
        close(fd);
        return S_ISDIR(opened.st_mode) ? -EISDIR : -EINVAL;
    }
    if (st) *st = opened;
    return fd;
}

int regular_file_read(const char* path, size_t cap, std::string& out, struct stat* st)
{
    for (int attempt = 0; attempt < kReadTries; attempt++) {
        struct stat before, after;
        int fd = regular_file_open(path, &before);
        if (fd < 0) return fd;
        std::string text;
        int rv = read_all(fd, cap, text);
        if (rv == 0 && fstat(fd, &after) != 0) rv = -errno;
        close(fd);
        if (rv < 0) return rv;
        if (unchanged(before, after) && text.size() == static_cast<size_t>(after.st_size)) {
            out.swap(text);
            if (st) *st = after;
            return 0;
        }
    }
    return -EAGAIN;
}
