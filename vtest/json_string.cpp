#include "json_string.h"

#include <cstddef>
#include <cstdio>

namespace {

// The length of the valid UTF-8 sequence at `p` (RFC 3629: no overlong
// forms, surrogates or code points above U+10FFFF), 0 when it is not one.
size_t utf8_length(const unsigned char* p, size_t left)
{
    unsigned char c = p[0];
    if (c < 0x80) return 1;
    size_t n = c >= 0xc2 && c <= 0xdf ? 2 : c >= 0xe0 && c <= 0xef ? 3 : c >= 0xf0 && c <= 0xf4 ? 4 : 0;
    if (n == 0 || n > left) return 0;
    unsigned char low = c == 0xe0 ? 0xa0 : c == 0xf0 ? 0x90 : 0x80;
    unsigned char high = c == 0xed ? 0x9f : c == 0xf4 ? 0x8f : 0xbf;
    if (p[1] < low || p[1] > high) return 0;
    for (size_t i = 2; i < n; i++)
        if (p[i] < 0x80 || p[i] > 0xbf) return 0;
    return n;
}

}  // namespace

std::string json_string(const std::string& text)
{
    std::string out = "\"";
    const unsigned char* p = reinterpret_cast<const unsigned char*>(text.data());
    for (size_t at = 0; at < text.size();) {
        unsigned char c = p[at];
        size_t n = utf8_length(p + at, text.size() - at);
        if (n == 0) {
            out += "\\ufffd";
            at++;
            continue;
        }
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char escaped[7];
            snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
        } else {
            out.append(text, at, n);
        }
        at += n;
    }
    return out + "\"";
}
