#include "Version.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "regular_file.h"

namespace {

// Cuts one LF or CR LF; false when the text then still holds a CR.
bool cut_line_end(std::string& text)
{
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
        if (!text.empty() && text.back() == '\r') text.pop_back();
    }
    return text.find('\r') == std::string::npos;
}

// Writes all of `text` to fd: 0 or a negated errno.
int write_all(int fd, const std::string& text)
{
    for (size_t done = 0; done < text.size();) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -errno;
        done += static_cast<size_t>(n);
    }
    return 0;
}

// "<dir>/.<name>.XXXXXX" beside `path`, for mkstemp.
std::string temporary_name(const std::string& path)
{
    size_t slash = path.rfind('/');
    size_t base = slash == std::string::npos ? 0 : slash + 1;
    return path.substr(0, base) + "." + path.substr(base) + ".XXXXXX";
}

}  // namespace

std::string Version::Str() const
{
    return std::to_string(m_value);
}

bool Version::Parse(const char* text)
{
    if (!text || text[0] < '0' || text[0] > '9' || (text[0] == '0' && text[1] != '\0')) return false;
    uint64_t value = 0;
    size_t i = 0;
    for (; text[i] >= '0' && text[i] <= '9'; i++) {
        uint64_t digit = static_cast<uint64_t>(text[i] - '0');
        if (value > (UINT64_MAX - digit) / 10) return false;
        value = value * 10 + digit;
    }
    if (text[i] != '\0') return false;
    m_value = value;
    return true;
}

int Version::ReadFile(const char* path, timespec* mtime)
{
    std::string text;
    struct stat st;
    int rv = regular_file_read(path, kMaxFileBytes, text, &st);
    if (rv == -EFBIG) return -EBADMSG;
    if (rv < 0) return rv;
    if (!cut_line_end(text) || text.find('\0') != std::string::npos || !Parse(text.c_str())) return -EBADMSG;
    if (mtime) *mtime = st.st_mtim;
    return 0;
}

int Version::WriteFile(const char* path) const
{
    std::string name = temporary_name(path);
    int fd = mkstemp(&name[0]);
    if (fd < 0) return -errno;
    int rv = write_all(fd, Str() + "\n");
    // mkstemp makes the file private; version files are read by other users.
    if (rv == 0 && fchmod(fd, 0644) != 0) rv = -errno;
    if (rv == 0 && fsync(fd) != 0) rv = -errno;
    if (close(fd) != 0 && rv == 0) rv = -errno;
    if (rv == 0 && rename(name.c_str(), path) != 0) rv = -errno;
    if (rv != 0) (void)unlink(name.c_str());
    return rv;
}
