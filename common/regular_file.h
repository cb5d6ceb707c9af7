// Opening and reading files that must be regular files (version numbers,
// time-zone files, ELF files) without ever opening anything else: opening a
// device can act on it, and reading a FIFO can block for ever.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <string>

// Looks at `path` with stat, opens it read-only (O_CLOEXEC, O_NONBLOCK,
// O_NOCTTY) only when it is a regular file, and checks with fstat that the
// descriptor is a regular file still. Another regular file renamed over the
// path meanwhile is taken as it is: it is what the path names now. Returns
// the descriptor, with *st from fstat when st is given, or a negated errno:
// -EISDIR for a directory, -EINVAL for any other file that is not regular,
// or the error of stat, open or fstat.
int regular_file_open(const char* path, struct stat* st);

// Reads the whole of a regular file opened as above into `out`. A file
// that changed size or modification time while it was read (a writer
// rewriting it in place) is read again, three times at most; so is one
// whose length differs from the size fstat reports (procfs files).
// Returns 0 (with *st, when given, from the fstat after the read), or
// -EFBIG when it holds more than `cap` bytes, -EAGAIN when it kept
// changing, or a negated errno of regular_file_open or read. `out` and
// *st are left unchanged on failure.
int regular_file_read(const char* path, size_t cap, std::string& out, struct stat* st = nullptr);
