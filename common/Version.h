// A unit's replication version number: the count of database changes a
// unit holds ("/var/local/vantor.ver") or a peer has confirmed
// ("/var/local/vantor.ver.<HwID>"). One unsigned 64-bit number, stored as
// decimal text with an optional line end.
#pragma once

#include <time.h>

#include <cstdint>
#include <string>

class Version {
public:
    // Longest file ReadFile accepts, in bytes: room for 20 digits and a line
    // end with plenty to spare; anything longer is not a version file.
    static const size_t kMaxFileBytes = 64;

    Version() = default;
    explicit Version(uint64_t value) : m_value(value) {}

    uint64_t Value() const { return m_value; }
    // The canonical text: decimal digits, no line end.
    std::string Str() const;

    // Takes decimal digits only: no sign, blank or line end, no leading
    // zero except "0" itself, at most 18446744073709551615. Returns false
    // (the value unchanged) for anything else, null included.
    bool Parse(const char* text);

    // Reads a version file: the number, optionally followed by LF or CR LF.
    // Only a regular file is opened (a device or FIFO never is, so this never
    // blocks), and it is read again while a writer rewrites it. Returns 0
    // (with the file's modification time in *mtime when given), or:
    //   -EISDIR   the path is a directory
    //   -EINVAL   it is another kind of file that is not regular (FIFO,
    //             device, socket)
    //   -EBADMSG  the content is not a number and line end: empty, longer
    //             than kMaxFileBytes, a bare CR, anything else
    //   -EAGAIN   it kept changing over three reads
    //   another negated errno of stat, open or read (-ENOENT, -EACCES, ...)
    // The value and *mtime are unchanged on failure.
    int ReadFile(const char* path, timespec* mtime = nullptr);

    // Replaces `path` with "<number>\n" so that no reader ever sees part of
    // a number: a temporary file in the same directory (its name begins
    // with ".", never with the name of a version file), fsync, rename.
    // Returns 0 or a negated errno (the temporary is removed then).
    int WriteFile(const char* path) const;

    // How many changes `peer` lacks: this number minus the peer's, 0 when
    // the peer is level or ahead (never wraps).
    uint64_t BacklogOf(const Version& peer) const { return peer.m_value < m_value ? m_value - peer.m_value : 0; }

    bool operator==(const Version& other) const { return m_value == other.m_value; }
    bool operator!=(const Version& other) const { return m_value != other.m_value; }
    bool operator<(const Version& other) const { return m_value < other.m_value; }
    bool operator>(const Version& other) const { return m_value > other.m_value; }
    bool operator<=(const Version& other) const { return m_value <= other.m_value; }
    bool operator>=(const Version& other) const { return m_value >= other.m_value; }

private:
    uint64_t m_value = 0;
};
