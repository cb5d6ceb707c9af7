#include "Bbs.h"

#include <cctype>
#include <climits>
#include <cstdio>
#include <cstring>

#include "utils.h"

Bbs* Bbs::m_global = nullptr;

namespace {

// scanf's "%<width>d" field: white space skipped (not counted), then at most
// `width` characters of sign and digits. False, number untouched, without a
// digit. 64 bits hold any ten-character field.
bool bbs_scan_number(const char* text, int width, long long& number)
{
    while (isspace(static_cast<unsigned char>(*text))) text++;
    const char* end = text + width;
    bool negative = *text == '-';
    if (*text == '-' || *text == '+') text++;
    long long value = 0;
    int digits = 0;
    for (; text < end && isdigit(static_cast<unsigned char>(*text)); text++, digits++)
        value = value * 10 + (*text - '0');
    if (digits == 0) return false;
    number = negative ? -value : value;
    return true;
}

const char* const kFalseWords[] = {"0", "no", "false", "off"};
const char* const kTrueWords[] = {"1", "yes", "true", "on"};

bool bbs_is_word(const char* text, const char* const (&words)[4])
{
    for (const char* word : words)
        if (strcmp(text, word) == 0) return true;
    return false;
}

}  // namespace

Bbs::Bbs(const char* name) : Named(name ? name : "bbs"), m_lock(true)
{
    safe_mem_object(__FILE__, __LINE__, "Bbs", this);
}

Bbs::~Bbs() { safe_mem_object(__FILE__, __LINE__, "~Bbs", this); }

Bbs* Bbs::Global()
{
    if (!m_global) m_global = new Bbs(nullptr);
    return m_global;
}

void Bbs::Fini()
{
    delete m_global;
    m_global = nullptr;
}

const char* Bbs::PrivGet(const char* key) const
{
    auto it = m_contents.find(key);
    return it == m_contents.end() ? nullptr : it->second.c_str();
}

void Bbs::Set(const char* key, const char* value)
{
    MUTEX_GUARD(m_lock);
    m_contents[key] = value;
}

void Bbs::Set(const char* key, int value)
{
    char text[16];
    snprintf(text, sizeof text, "%d", value);
    MUTEX_GUARD(m_lock);
    m_contents[key] = text;
}

void Bbs::Remove(const char* key)
{
    MUTEX_GUARD(m_lock);
    m_contents.erase(key);
}

bool Bbs::Get(const char* key) const
{
    MUTEX_GUARD(m_lock);
    return PrivGet(key) != nullptr;
}

bool Bbs::Get(const char* key, std::string& value) const
{
    MUTEX_GUARD(m_lock);
    const char* text = PrivGet(key);
    if (!text) return false;
    value = text;
    return true;
}

const char* Bbs::GetStr(const char* key, const char* defaultValue) const
{
    MUTEX_GUARD(m_lock);
    const char* text = PrivGet(key);
    return text ? text : defaultValue;
}

bool Bbs::Get(const char* key, int& value) const
{
    MUTEX_GUARD(m_lock);
    const char* text = PrivGet(key);
    long long number;
    if (!text || !bbs_scan_number(text, 10, number) || number < INT_MIN || number > INT_MAX) return false;
    value = static_cast<int>(number);
    return true;
}

int Bbs::GetInt(const char* key, int defaultValue) const
{
    MUTEX_GUARD(m_lock);
    int value = defaultValue;
    (void)Get(key, value);
    return value;
}

bool Bbs::Get(const char* key, short& value) const
{
    MUTEX_GUARD(m_lock);
    const char* text = PrivGet(key);
    long long number;
    if (!text || !bbs_scan_number(text, 5, number)) return false;
    // Five characters fit an int; the narrowing to 16 bits is the board's rule.
    value = static_cast<short>(static_cast<int>(number));
    return true;
}

short Bbs::GetShort(const char* key, short defaultValue) const
{
    MUTEX_GUARD(m_lock);
    short value = defaultValue;
    (void)Get(key, value);
    return value;
}

bool Bbs::Get(const char* key, bool& value) const
{
    MUTEX_GUARD(m_lock);
    const char* text = PrivGet(key);
    if (!text) return false;
    if (bbs_is_word(text, kFalseWords)) {
        value = false;
        return true;
    }
    if (bbs_is_word(text, kTrueWords)) {
        value = true;
        return true;
    }
    return false;
}

bool Bbs::GetBool(const char* key, bool defaultValue) const
{
    MUTEX_GUARD(m_lock);
    bool value = defaultValue;
    (void)Get(key, value);
    return value;
}

bool Bbs::Get(const char* key, std::list<std::string>& pieces, const char* separator) const
{
    MUTEX_GUARD(m_lock);
    const char* text = PrivGet(key);
    if (!text) return false;
    const std::string value = text;
    const size_t step = separator ? strlen(separator) : 0;
    if (step == 0) {
        if (!value.empty()) pieces.push_back(value);
        return true;
    }
    for (size_t at = 0; at < value.size();) {
        size_t cut = value.find(separator, at);
        if (cut == std::string::npos) cut = value.size();
        pieces.push_back(value.substr(at, cut - at));
        at = cut == value.size() ? cut : cut + step;
    }
    return true;
}

void Bbs::Get(std::map<std::string, std::string>& all) const
{
    MUTEX_GUARD(m_lock);
    all = m_contents;
}
