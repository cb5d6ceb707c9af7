// Hand-made TZif files (RFC 9636 layout) as descriptions that tests damage field by field.
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
    std::vector<std::pair<int64_t, int32_t>> leaps{};
    std::vector<uint8_t> isstd{}, isut{};
    std::string footer{};  // between the footer's newlines

    // The version 1 block (times cut to 32 bits), then for later versions the 64-bit block and the footer.
    std::string Bytes() const { return version ? Block(4) + Block(8) + "\n" + footer + "\n" : Block(4); }

    // Berlin in brief: LMT, then CET and CEST with the two 2024 changes, then the rule.
    static Tzif Berlin()
    {
        return {'2', {-2000000000, 1711846800, 1729990800}, {1, 2, 1}, {{{3208, 0, 0}}, {{3600, 0, 4}}, {{7200, 1, 8}}},
                std::string("LMT\0CET\0CEST\0", 13), {}, {}, {}, "CET-1CEST,M3.5.0,M10.5.0/3"};
    }
    static Tzif Rule(const std::string& rule, int32_t utoff, const std::string& abbr)
    {
        return {'2', {}, {}, {{{utoff, 0, 0}}}, abbr + '\0', {}, {}, {}, rule};
    }
    // Every count at its cap: 50,000 changes a minute apart over 256 types (offset = number, abbreviation "TTT"),
    // 1,000 leap seconds, 4,096 characters, a 255-byte footer.
    static Tzif AtTheCaps()
    {
        Tzif z{'4', {}, {}, {}, std::string("TTT\0", 4)};
        z.chars.resize(4096, '\0');
        for (int i = 0; i < 256; i++) z.types.push_back({{i, 0, 0}});
        for (int i = 0; i < 50000; i++) z.times.push_back(60 * i), z.indices.push_back(static_cast<uint8_t>(i % 256));
        for (int i = 0; i < 1000; i++) z.leaps.push_back({3000000 + 10 * i, i + 1});
        z.footer = "TTT-0:01:19<" + std::string(227, 'D') + ">,M3.2.0,M11.1.0";
        return z;
    }

private:
    static void Put(std::string& s, uint64_t v, int bytes)
    {
        for (int i = bytes - 1; i >= 0; i--) s += static_cast<char>(v >> (8 * i));
    }
    std::string Block(int timeBytes) const
    {
        std::string s = std::string("TZif") + version + std::string(15, '\0');
        for (size_t n : {isut.size(), isstd.size(), leaps.size(), times.size(), types.size(), chars.size()})
            Put(s, n, 4);
        for (int64_t t : times) Put(s, static_cast<uint64_t>(t), timeBytes);
        s.append(indices.begin(), indices.end());
        for (const auto& t : types)
            Put(s, static_cast<uint32_t>(t[0]), 4), s += static_cast<char>(t[1]), s += static_cast<char>(t[2]);
        s += chars;
        for (const auto& l : leaps)
            Put(s, static_cast<uint64_t>(l.first), timeBytes), Put(s, static_cast<uint32_t>(l.second), 4);
        return s.append(isstd.begin(), isstd.end()).append(isut.begin(), isut.end());
    }
};
