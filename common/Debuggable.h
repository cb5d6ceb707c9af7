// Named objects, and the process-wide registry of debuggable ones.
#pragma once

#include <cstdarg>
#include <list>
#include <string>

#include "Mutex.hpp"

class Sock;

class Named {
public:
    Named() = default;
    explicit Named(const char* name) : m_name(name ? name : "") {}
    Named(const Named&) = default;
    Named& operator=(const Named&) = default;
    virtual ~Named() = default;

    // printf-style; output past 399 characters is cut. Calls NameUpdated().
    void Rename(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void Rename(const char* format, va_list args);
    const char* Name() const { return m_name.c_str(); }
    // Called after every Rename(); subclasses react to their new name.
    virtual void NameUpdated() {}

protected:
    // Formats into the 400-byte name buffer and stores it, without the hook.
    void SetName(const char* format, va_list args);

    std::string m_name;
};

class Debuggable : public Named {
public:
    // The name is always a format: a literal '%' must be written "%%".
    explicit Debuggable(const char* format, ...) __attribute__((format(printf, 2, 3)));
    Debuggable(const char* format, va_list args);
    Debuggable(const Debuggable& other);
    Debuggable& operator=(const Debuggable& other);
    ~Debuggable() override;

    virtual void Debug(bool on) { m_debug = on; }
    bool Debug() const { return m_debug; }

    // Takes `object` out of the registry: true if it was there. `on` is not
    // used; this is how the registry has always behaved.
    static bool Debug(void* object, bool on);
    // Prints the registry as a table through out->printf.
    static void StatusReport(Sock* out);
    static size_t Count();

    static Mutex m_listLock;
    static std::list<Debuggable*> m_list;

private:
    void Register(const char* format, va_list args);

    bool m_debug = false;
};
