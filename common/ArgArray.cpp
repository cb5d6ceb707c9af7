#include "ArgArray.h"

#include <cstring>

#include "debugger.h"
#include "utils.h"

ArgArray::ArgArray(int maxArgc) : m_maxArgc(maxArgc < 0 ? 0 : maxArgc), m_argc(0), m_argv(nullptr)
{
    AllocateSlots();
}

ArgArray::ArgArray(const char* line, int maxArgc) : ArgArray(maxArgc) { Parse(line); }

ArgArray::ArgArray(const std::string& line, int maxArgc) : ArgArray(maxArgc) { Parse(line.c_str()); }

ArgArray::ArgArray(const char** argv, int maxArgc) : ArgArray(maxArgc)
{
    for (int i = 0; argv && argv[i] && m_argc < m_maxArgc; i++)
        if (!Append(argv[i], strlen(argv[i]))) break;
}

ArgArray::ArgArray(const ArgArray& other) : ArgArray(other.m_maxArgc) { CopyFrom(other); }

ArgArray& ArgArray::operator=(const ArgArray& other)
{
    if (this == &other) return *this;
    Cleanup();
    if (m_maxArgc != other.m_maxArgc) {
        if (m_argv != m_emptyArgv) safe_mem_free(m_argv, "ArgArray.cpp", __LINE__);
        m_maxArgc = other.m_maxArgc;
        AllocateSlots();
    }
    CopyFrom(other);
    return *this;
}

ArgArray::~ArgArray()
{
    Cleanup();
    if (m_argv != m_emptyArgv) safe_mem_free(m_argv, "ArgArray.cpp", __LINE__);
}

void ArgArray::AllocateSlots()
{
    size_t bytes = (static_cast<size_t>(m_maxArgc) + 1) * sizeof(char*);
    m_argv = static_cast<char**>(safe_mem_zalloc(bytes, "ArgArray.cpp", __LINE__));
    if (!m_argv) {
        m_maxArgc = 0;
        m_argv = m_emptyArgv;
    }
}

void ArgArray::CopyFrom(const ArgArray& other)
{
    for (int i = 0; i < other.m_argc && m_argc < m_maxArgc; i++)
        if (!Append(other.m_argv[i], strlen(other.m_argv[i]))) break;
}

bool ArgArray::Append(const char* text, size_t length)
{
    char* copy = safe_mem_strndup(text, length, "ArgArray.cpp", __LINE__);
    if (!copy) return false;
    m_argv[m_argc++] = copy;
    m_argv[m_argc] = nullptr;
    return true;
}

void ArgArray::Cleanup()
{
    for (int i = 0; i < m_argc; i++) {
        safe_mem_free(m_argv[i], "ArgArray.cpp", __LINE__);
        m_argv[i] = nullptr;
    }
    m_argc = 0;
}

void ArgArray::Parse(const char* line)
{
    Cleanup();
    const char* at = line ? line : "";
    while (*at && m_argc < m_maxArgc) {
        if (*at == ' ' || *at == '\t') {
            at++;
        } else if (*at == '\'' || *at == '"') {
            const char* close = strchr(at + 1, *at);
            if (!close) {
                syslog_safe(4, "Ignoring unclosed argument: %s", at);
                break;
            }
            if (!Append(at + 1, static_cast<size_t>(close - at - 1))) break;
            at = close + 1;
        } else {
            size_t length = strcspn(at, " \t'\"");
            if (!Append(at, length)) break;
            at += length;
        }
    }
    m_argv[m_argc] = nullptr;
}
