// A counted, null-terminated argument vector of the form execv expects,
// parsed from one command line or copied from another vector.
#pragma once

#include <string>

class ArgArray {
public:
    // Empty array with room for maxArgc arguments (a negative capacity counts
    // as 0); Argv() is a valid empty vector until the first parse or copy.
    explicit ArgArray(int maxArgc);
    ArgArray(const char* line, int maxArgc);
    ArgArray(const std::string& line, int maxArgc);
    // Copies argv's strings in order until maxArgc are held or a null entry.
    ArgArray(const char** argv, int maxArgc);
    // Deep copies with the source's capacity; self-assignment does nothing.
    ArgArray(const ArgArray& other);
    ArgArray& operator=(const ArgArray& other);
    ~ArgArray();

    // Replaces the contents with the words of `line` (null counts as empty).
    // Blanks and tabs separate, '...' or "..." group (possibly empty), a
    // quote also ends an unquoted word, and nothing is escaped. An unclosed
    // quote is logged (level 4) and ends the parse, keeping the words before
    // it. Words past the capacity are dropped silently.
    void Parse(const char* line);
    // Releases every held string; the slot array and capacity stay.
    void Cleanup();

    int Argc() const { return m_argc; }
    // Never null: entry Argc() is the terminator, ready for execv.
    char** Argv() const { return m_argv; }

private:
    // Allocates the zeroed slot array for m_maxArgc arguments; a failed
    // allocation leaves a capacity of 0 and the spare one-slot array.
    void AllocateSlots();
    // Appends a copy of text[0..length); false when it cannot be copied.
    bool Append(const char* text, size_t length);
    void CopyFrom(const ArgArray& other);

    int m_maxArgc;
    int m_argc;
    char** m_argv;
    // Stands in for the slot array when that cannot be allocated, so that
    // Argv() always holds a terminator.
    char* m_emptyArgv[1] = {nullptr};
};
