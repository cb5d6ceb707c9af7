// Starting other programs without passing on this process's privileges,
// environment or open descriptors.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <list>
#include <string>
#include <vector>

#include "Mutex.hpp"

class Secure {
public:
    // An identity saved by DropPrivileges for RestorePrivileges.
    struct PRIVILEGES {
        gid_t gid;         // effective group id before the drop
        uid_t uid;         // effective user id before the drop
        int ngroups;       // supplementary groups saved
        gid_t groups[65536];
    };

    // One running child and the parent's ends of its three pipes.
    struct POPEN {
        FILE* fwrite;  // the child's standard input
        FILE* fread;   // the child's standard output
        FILE* ferr;    // the child's standard error
        pid_t pid;     // -1 when no child was started
    };

    Secure() = delete;

    // With `saved`: records the effective ids and supplementary groups, then
    // makes real, effective and saved ids all the real ones for good. With
    // null: only the effective ids become the real ones, for a later
    // RestorePrivileges. A change that fails or can be undone aborts.
    static void DropPrivileges(PRIVILEGES* saved);
    // Takes back the effective ids (and, for root, the groups) of `saved`;
    // aborts when that fails.
    static void RestorePrivileges(PRIVILEGES& saved);

    // Replaces the environment by the safe entries, TZ when set and the first
    // `count` of `names` (up to a null entry) that are set. The strings'
    // block is released while putenv still points at it: only for a child
    // that calls execve next without reading its environment first.
    static void SanitizeEnvironment(int count, char** names);
    static void SanitizeEnvironment(char** names);
    // The entries SanitizeEnvironment would set, in its order, as "NAME=value"
    // (a name given twice keeps its first place and its last value); for
    // building a child's envp without touching this process's environment.
    static void SafeEnvironment(int count, char* const* names, std::vector<std::string>& entries);

    // Closes descriptors 3 and up, except those in `keep` (ended by -1; null
    // means none), and reopens a closed 0, 1 or 2 on /dev/null. Aborts when
    // a standard descriptor cannot be checked or reopened.
    static void SanitizeFiles(const int* keep);
    // The last step of SanitizeFiles on its own: a closed 0, 1 or 2 is
    // reopened on /dev/null (0 for reading), so no file opened later takes
    // a standard number. Aborts as SanitizeFiles does.
    static void SanitizeStandardFiles();

    // ::fork(); the child gets the safe environment, no inherited descriptors
    // past 2 and its effective ids dropped to the real ones. Returns the pid
    // in the parent, 0 in the child, -1 when fork failed.
    static pid_t fork();

    // Starts `path` (no PATH search) with `argv` and `envp` (null: empty
    // environment) in "/tmp", its standard descriptors on pipes. Returns 0
    // with `child` filled, or -1 with nothing left open (child.pid -1).
    // envp must not be `environ`: the child clears that before execve.
    static int popen(const char* path, char* const* argv, char* const* envp, POPEN& child);
    // Splits `command` into at most 50 words, the first being the path, and
    // starts it with an empty environment. Same results.
    static int popen(const char* command, POPEN& child);
    // Closes the child's input, waits for it and closes the other streams.
    // Returns its exit status (0-255; 127: could not be executed), 0 when a
    // signal ended it, -1 when there was no child or the wait failed.
    // `waitStatus`, when given, receives waitpid's raw status on success.
    static int pclose(POPEN& child, int* waitStatus = nullptr);
    // Runs `command` as popen does, discarding its output; returns popen's
    // -1 or pclose's result.
    static int system(const char* command);

    // Copies inFd to the child's input and the child's output and error to
    // outFd and errFd as they arrive, until both outputs end. inFd -1 closes
    // the child's input at once; outFd or errFd -1 discards that stream.
    // When a destination refuses writes, the child's stream is closed so the
    // child sees a broken pipe; `outRefused`, when given, receives the errno
    // of outFd's refusal (0: none). Returns 0, or -errno when poll fails.
    static int Pump(POPEN& child, int inFd, int outFd, int errFd, int* outRefused = nullptr);

    // Stream form: mode "r" returns the child's output, "w" its input; any
    // other mode, or a failed start, returns null.
    static FILE* popen(const char* command, const char* mode);
    // Ends a child started by the stream form: its exit status as pclose
    // above, or -1 for a stream the stream form did not hand out.
    static int pclose(FILE* stream);

private:
    friend void secureInit();

    static Mutex m_popenLock;
    static std::list<POPEN*> m_popenList;
};

// Takes and releases the stream list lock once; call at program start,
// before threads use the stream form.
void secureInit();
