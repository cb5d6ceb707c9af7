#include "line_writer.h"

#include <unistd.h>

#include <cstdio>

namespace {

// Standard output's buffer when it is a file or a pipe.
const size_t kStdoutBuffer = 64 * 1024;

}  // namespace

LineWriter& LineWriter::Int(long long n, int width)
{
    char digits[24];
    char* at = digits + sizeof digits;
    unsigned long long magnitude =
        n < 0 ? 0ull - static_cast<unsigned long long>(n) : static_cast<unsigned long long>(n);
    do {
        *--at = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude > 0);
    while (digits + sizeof digits - at < width) *--at = '0';
    if (n < 0) *--at = '-';
    m_line.append(at, static_cast<size_t>(digits + sizeof digits - at));
    return *this;
}

// Only the main thread writes through here: stdout's lock is not taken.
void LineWriter::End()
{
    m_line.push_back('\n');
    (void)fwrite_unlocked(m_line.data(), 1, m_line.size(), stdout);
    m_line.clear();
}

// stdio ignores the size unless it is given the buffer too.
void stdout_buffer_fully()
{
    static char buffer[kStdoutBuffer];
    if (!isatty(STDOUT_FILENO)) (void)setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
}
