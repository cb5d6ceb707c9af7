// A board of string settings that any thread may set and read. Values are
// stored as text; typed setters format and typed getters parse it.
#pragma once

#include <list>
#include <map>
#include <string>

#include "Debuggable.h"
#include "ListedObj.hpp"
#include "Mutex.hpp"

class Bbs : public Named, public ListedObj<Bbs> {
public:
    // A null name gives "bbs".
    explicit Bbs(const char* name);
    ~Bbs() override;
    Bbs(const Bbs&) = delete;
    Bbs& operator=(const Bbs&) = delete;

    // The process-wide board, created on first call. Global and Fini take
    // no lock: call Global first on one thread, Fini after the others stop.
    static Bbs* Global();
    // Deletes the process-wide board; the next Global() makes a new one.
    static void Fini();

    // Every call below holds the board's lock for its whole duration, so a
    // single call is atomic; sequences of calls are not.

    // Inserts or replaces; key and value must not be null.
    void Set(const char* key, const char* value);
    // Stores the number as "%d" text.
    void Set(const char* key, int value);
    // Erases the key; nothing happens when it is absent.
    void Remove(const char* key);

    // True when the key is present.
    bool Get(const char* key) const;
    // True and the value copied when present; false, value untouched, when absent.
    bool Get(const char* key, std::string& value) const;
    // The stored text, valid only until the key is set again or removed;
    // defaultValue when absent.
    const char* GetStr(const char* key, const char* defaultValue) const;

    // Numbers are scanned like scanf's "%10d": leading white space skipped,
    // an optional sign, digits up to ten characters in all; text after the
    // number is ignored ("12abc" is 12). False, value untouched, when the key
    // is absent, no digit is found or the number does not fit an int.
    bool Get(const char* key, int& value) const;
    int GetInt(const char* key, int defaultValue) const;
    // As for int with a five-character field ("%5d": "123456" is 12345), the
    // number then narrowed to 16 bits (so "99999" is -31073).
    bool Get(const char* key, short& value) const;
    short GetShort(const char* key, short defaultValue) const;

    // "0", "no", "false", "off" are false; "1", "yes", "true", "on" are true;
    // compared exactly, so "TRUE" and "" are not truth values. False, value
    // untouched, for any other text or an absent key.
    bool Get(const char* key, bool& value) const;
    bool GetBool(const char* key, bool defaultValue) const;

    // Appends to `pieces` the value's parts between occurrences of the whole
    // separator string: inner empty parts are kept, a separator at the very
    // end adds no empty part, a value without separator is one part, an empty
    // value none. A null or empty separator takes the value as one part.
    // False, pieces untouched, when the key is absent.
    bool Get(const char* key, std::list<std::string>& pieces, const char* separator = ",") const;
    // Replaces `all` with a copy of the whole board.
    void Get(std::map<std::string, std::string>& all) const;

protected:
    mutable Mutex m_lock;
    std::map<std::string, std::string> m_contents;

private:
    // The stored text or null; the caller holds m_lock.
    const char* PrivGet(const char* key) const;

    static Bbs* m_global;
};

