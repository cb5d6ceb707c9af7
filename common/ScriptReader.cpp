#include "ScriptReader.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

const size_t kPreviewLen = 80;
const unsigned char kBom[] = {0xef, 0xbb, 0xbf};

bool is_blank(int c) { return c == ' ' || c == '\t'; }

}  // namespace

ScriptReader::ScriptReader(int fd, size_t cap) : m_fd(fd), m_cap(cap) {}

// Appends what the descriptor has to the buffer: false at the end of
// input or on an error (m_errno).
bool ScriptReader::Fill()
{
    for (;;) {
        ssize_t n = read(m_fd, m_buf + m_end, sizeof m_buf - m_end);
        if (n > 0) {
            m_end += static_cast<size_t>(n);
            return true;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            // A descriptor left non-blocking by whoever gave it to us.
            pollfd pfd = {m_fd, POLLIN, 0};
            (void)poll(&pfd, 1, -1);
            continue;
        }
        if (n < 0) m_errno = errno;
        m_eof = true;
        return false;
    }
}

int ScriptReader::Get()
{
    if (m_pos == m_end) {
        m_pos = m_end = 0;
        if (m_eof || !Fill()) return -1;
    }
    return static_cast<unsigned char>(m_buf[m_pos++]);
}

// Only a whole mark at the very start is dropped; its first bytes alone are
// line text.
void ScriptReader::DropByteOrderMark()
{
    while (m_end < sizeof kBom && memcmp(m_buf, kBom, m_end) == 0)
        if (!Fill()) break;
    if (m_end >= sizeof kBom && memcmp(m_buf, kBom, sizeof kBom) == 0) m_pos = sizeof kBom;
}

ScriptReader::Result ScriptReader::Next()
{
    if (m_atStart) {
        m_atStart = false;
        DropByteOrderMark();
    }
    for (;;) {
        m_text.clear();
        m_head.clear();
        m_headCut = false;
        bool any = false, nul = false, loneCr = false, overCap = false;
        int first = -1;  // the first byte that is not a blank, -1 for none
        for (;;) {
            int c = Get();
            if (c < 0) break;
            any = true;
            if (c == '\n') break;
            if (c == '\r') {
                int next = Get();
                if (next == '\n') break;
                if (next >= 0) Unget();
                loneCr = true;
            }
            if (c == '\0') nul = true;
            if (first < 0 && !is_blank(c)) first = c;
            if (m_head.size() < kPreviewLen) m_head += static_cast<char>(c);
            else m_headCut = true;
            if (overCap) continue;
            if (m_text.size() < m_cap) m_text += static_cast<char>(c);
            else overCap = true;
        }
        if (m_errno) return kError;
        if (!any) return kEnd;
        m_number++;
        if (first < 0 || first == '#') continue;
        if (nul) m_reason = "line holds a NUL byte";
        else if (loneCr) m_reason = "line holds a lone carriage return";
        else if (overCap) m_reason = "line longer than " + std::to_string(m_cap) + " bytes";
        else break;
        return kRefused;
    }
    size_t begin = m_text.find_first_not_of(" \t");
    size_t end = m_text.find_last_not_of(" \t");
    m_text = m_text.substr(begin, end - begin + 1);
    return kLine;
}

std::string ScriptReader::Preview() const
{
    std::string out;
    for (unsigned char c : m_head) {
        if (c < 0x20 || c >= 0x7f) {
            char hex[5];
            snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    if (m_headCut) out += "...";
    return out;
}
