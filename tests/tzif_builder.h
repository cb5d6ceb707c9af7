// Hand-made TZif files for the time-zone tests: a description that tests
// edit field by field (to damage it), written out in the RFC 9636 layout.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

struct Tzif {
    char version = '2';  // 0 for version 1
    std::vector<int64_t> times;
    std::vector<uint8_t> indices;
    std::vector<std::array<int32_t, 3>> types;  // utoff, isdst, abbreviation index
    std::string chars;
    std::vector<std::pair<int64_t, int32_t>> leaps;
    std::vector<uint8_t> isstd, isut;
    std::string footer;  // between the footer's newlines

    // Version 1 data (times cut to 32 bits), then for later versions the
    // 64-bit data and the footer.
    std::string Bytes() const
    {
        std::string out = Block(4);
        return version == 0 ? out : out + Block(8) + "\n" + footer + "\n";
    }

    // Berlin in brief: LMT, then CET and CEST with two 2024 changes and the
    // rule after them.
    static Tzif Berlin()
    {
        Tzif z;
        z.chars = std::string("LMT\0CET\0CEST\0", 13);
        z.types = {{{3208, 0, 0}}, {{3600, 0, 4}}, {{7200, 1, 8}}};
        z.times = {-2000000000, 1711846800, 1729990800};
        z.indices = {1, 2, 1};
        z.footer = "CET-1CEST,M3.5.0,M10.5.0/3";
        return z;
    }

    // No transitions: one standard type named and offset as the rule's.
    static Tzif Rule(const std::string& rule)
    {
        Tzif z;
        size_t end = rule.find('>') != std::string::npos ? rule.find('>') + 1 : rule.find_first_of("+-0123456789");
        std::string name = rule[0] == '<' ? rule.substr(1, end - 2) : rule.substr(0, end);
        int sign = rule[end] == '-' ? 1 : -1, hours = 0, minutes = 0;
        sscanf(rule.c_str() + end + (rule[end] == '-' || rule[end] == '+'), "%d:%d", &hours, &minutes);
        z.chars = name + '\0';
        z.types = {{{sign * (hours * 3600 + minutes * 60), 0, 0}}};
        z.footer = rule;
        return z;
    }

    // UTC with a leap-second table.
    static Tzif Leaps(char version, std::vector<std::pair<int64_t, int32_t>> leaps)
    {
        Tzif z;
        z.version = version;
        z.chars = std::string("UTC\0", 4);
        z.types = {{{0, 0, 0}}};
        z.leaps = std::move(leaps);
        z.footer = "UTC0";
        return z;
    }

    // Every count at its cap: 50,000 transitions a minute apart over 256
    // types (offset = number, abbreviation "T" and the number modulo 64: an
    // index is one byte), 1,000 leap seconds, 4,096 characters, a 255-byte
    // footer.
    static Tzif AtTheCaps()
    {
        Tzif z;
        z.version = '4';
        std::vector<int32_t> abbr;
        for (int i = 0; i < 64; i++) abbr.push_back(static_cast<int32_t>(z.chars.size())), z.chars += "T" + std::to_string(i) + '\0';
        for (int i = 0; i < 256; i++) z.types.push_back({{i, 0, abbr[i % 64]}});
        z.chars.resize(4096, '\0');
        for (int i = 0; i < 50000; i++) z.times.push_back(60 * i), z.indices.push_back(static_cast<uint8_t>(i % 256));
        for (int i = 0; i < 1000; i++) z.leaps.push_back({3000000 + 10 * i, i + 1});
        z.footer = "<T15>-0:01:19<" + std::string(224, 'D') + ">,M3.2.0,M11.1.0";
        return z;
    }

    // Offset of the 64-bit header in `bytes`.
    static size_t SecondHeader(const std::string& bytes)
    {
        auto count = [&](int field) { return Count(bytes, 0, field); };
        return 44 + count(3) * 5 + count(4) * 6 + count(5) + count(2) * 8 + count(1) + count(0);
    }
    // Count `field` (0 isutcnt, 1 isstdcnt, 2 leapcnt, 3 timecnt, 4 typecnt,
    // 5 charcnt) of header 0 (32-bit) or 1 (64-bit).
    static uint64_t Count(const std::string& bytes, int header, int field)
    {
        size_t at = (header ? SecondHeader(bytes) : 0) + 20 + 4 * field;
        uint64_t v = 0;
        for (int i = 0; i < 4; i++) v = v << 8 | static_cast<uint8_t>(bytes[at + i]);
        return v;
    }
    static void SetCount(std::string& bytes, int header, int field, uint32_t value)
    {
        size_t at = (header ? SecondHeader(bytes) : 0) + 20 + 4 * field;
        for (int i = 0; i < 4; i++) bytes[at + i] = static_cast<char>(value >> (24 - 8 * i));
    }

private:
    static void Put(std::string& s, uint64_t v, int bytes)
    {
        for (int i = bytes - 1; i >= 0; i--) s += static_cast<char>(v >> (8 * i));
    }
    std::string Block(int timeBytes) const
    {
        std::string s = "TZif";
        s += version;
        s.append(15, '\0');
        for (size_t n : {isut.size(), isstd.size(), leaps.size(), times.size(), types.size(), chars.size()}) Put(s, n, 4);
        for (int64_t t : times) Put(s, static_cast<uint64_t>(t), timeBytes);
        s.append(indices.begin(), indices.end());
        for (const auto& t : types) Put(s, static_cast<uint32_t>(t[0]), 4), s += static_cast<char>(t[1]), s += static_cast<char>(t[2]);
        s += chars;
        for (const auto& l : leaps) Put(s, static_cast<uint64_t>(l.first), timeBytes), Put(s, static_cast<uint32_t>(l.second), 4);
        s.append(isstd.begin(), isstd.end());
        return s.append(isut.begin(), isut.end());
    }
};
