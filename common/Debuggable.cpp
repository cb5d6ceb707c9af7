#include "Debuggable.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

#include "Sock.h"

Mutex Debuggable::m_listLock(true);
std::list<Debuggable*> Debuggable::m_list;

void Named::SetName(const char* format, va_list args)
{
    char buffer[400];
    vsnprintf(buffer, sizeof buffer, format, args);
    buffer[sizeof buffer - 1] = '\0';
    m_name = buffer;
}

void Named::Rename(const char* format, va_list args)
{
    SetName(format, args);
    NameUpdated();
}

void Named::Rename(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    Rename(format, args);
    va_end(args);
}

Debuggable::Debuggable(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    Register(format, args);
    va_end(args);
}

Debuggable::Debuggable(const char* format, va_list args) { Register(format, args); }

Debuggable::Debuggable(const Debuggable& other) : Named(other), m_debug(other.m_debug)
{
    safe_mem_object("Debuggable.cpp", __LINE__, "Debuggable", this);
    MUTEX_GUARD(m_listLock);
    m_list.push_back(this);
}

Debuggable& Debuggable::operator=(const Debuggable& other)
{
    if (this != &other) {
        Rename("%s", other.Name());
        Debug(other.m_debug);
    }
    return *this;
}

void Debuggable::Register(const char* format, va_list args)
{
    safe_mem_object("Debuggable.cpp", __LINE__, "Debuggable", this);
    // Virtual dispatch reaches only Named's hook while constructing.
    Rename(format, args);
    MUTEX_GUARD(m_listLock);
    m_list.push_back(this);
}

Debuggable::~Debuggable()
{
    safe_mem_object("Debuggable.cpp", __LINE__, "~Debuggable", this);
    MUTEX_GUARD(m_listLock);
    auto it = std::find(m_list.begin(), m_list.end(), this);
    if (it != m_list.end()) m_list.erase(it);
}

bool Debuggable::Debug(void* object, bool /*on*/)
{
    MUTEX_GUARD(m_listLock);
    auto it = std::find(m_list.begin(), m_list.end(), static_cast<Debuggable*>(object));
    bool found = it != m_list.end();
    if (found) m_list.erase(it);
    return found;
}

size_t Debuggable::Count()
{
    MUTEX_GUARD(m_listLock);
    return m_list.size();
}

// The address column is 8 hex digits: the low 32 bits on a 64-bit host.
void Debuggable::StatusReport(Sock* out)
{
    MUTEX_GUARD(m_listLock);
    out->printf("\nD e b u g g a b l e ( %d )\n", static_cast<int>(m_list.size()));
    out->printf("Ptr      Name\n");
    out->printf("--------------------------------------------------------\n");
    for (Debuggable* d : m_list)
        out->printf("%08x %s\n", static_cast<unsigned>(reinterpret_cast<uintptr_t>(d)), d->Name());
}
