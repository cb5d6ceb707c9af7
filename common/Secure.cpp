#include "Secure.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "ArgArray.h"
#include "debugger.h"
#include "utils.h"

Mutex Secure::m_popenLock(false);
std::list<Secure::POPEN*> Secure::m_popenList;

namespace {

const char* const kSafeEnvironment[] = {"IFS= \t\n", "PATH=/usr/bin:/bin:/usr/sbin:/sbin"};
const char* const kKeptVariables[] = {"TZ"};
// Words of a command line given to popen; the rest is dropped.
const int kMaxArguments = 50;
const int kMaxGroups = 65536;

// Running on with an unexpected identity or descriptors is never allowed.
[[noreturn]] void secure_abort(const char* what)
{
    syslog_safe(3, "<Secure> %s failed (errno %d); aborting.", what, errno);
    abort();
}

// Calls add(name, value) for every entry of the sanitised environment in
// order; value is null for a safe entry, which `name` holds whole.
template <class Add>
void secure_env_each(int count, char* const* names, Add add)
{
    for (const char* entry : kSafeEnvironment) add(entry, nullptr);
    for (const char* name : kKeptVariables)
        if (const char* value = getenv(name)) add(name, value);
    for (int i = 0; names && i < count && names[i]; i++)
        if (const char* value = getenv(names[i])) add(names[i], value);
}

void secure_close_stream(FILE*& stream)
{
    if (stream) (void)fclose(stream);
    stream = nullptr;
}

// Closes descriptors first..last, in one system call where the kernel has it.
void secure_close_range(int first, int last)
{
    if (first > last) return;
#ifdef SYS_close_range
    if (syscall(SYS_close_range, first, last, 0) == 0) return;
#endif
    for (int fd = first; fd <= last; fd++) (void)close(fd);
}

// The smallest descriptor in `keep` (ended by -1) at or above `from`, or `limit`.
int secure_next_kept(const int* keep, int from, int limit)
{
    int next = limit;
    for (int i = 0; keep && keep[i] != -1; i++)
        if (keep[i] >= from && keep[i] < next) next = keep[i];
    return next;
}

// The child's side of popen: pipe ends onto 0, 1 and 2, then the program.
// Takes no lock and reads no environment between SanitizeEnvironment and
// execve; _exit keeps the parent's stdio buffers and exit handlers out.
[[noreturn]] void secure_exec_child(const char* path, char* const* argv, char* const* envp, int ends[3])
{
    // An end sitting on another end's target number is lifted first, so the
    // dup2 calls below cannot clobber each other.
    for (int i = 0; i < 3; i++)
        if (ends[i] <= 2 && ends[i] != i && (ends[i] = fcntl(ends[i], F_DUPFD_CLOEXEC, 3)) < 0) _exit(127);
    for (int i = 0; i < 3; i++) {
        int rv = ends[i] == i ? fcntl(i, F_SETFD, 0) : dup2(ends[i], i);
        if (rv < 0) _exit(127);
    }
    // The program starts with default signal handling, whatever ours is.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGPIPE, SIG_DFL);
    Secure::SanitizeEnvironment(nullptr);
    Secure::SanitizeFiles(nullptr);
    // Staying put when even "/" is refused leaves nothing worse than before.
    if (chdir("/tmp") != 0 && chdir("/") != 0) errno = 0;
    static char* const kNoEnvironment[] = {nullptr};
    execve(path, argv, envp ? envp : kNoEnvironment);
    _exit(127);
}

// Blocks SIGPIPE in this thread for a scope, so a write to a closed pipe
// fails with EPIPE; a SIGPIPE raised meanwhile is taken off again.
class SigpipeBlock {
public:
    SigpipeBlock()
    {
        sigemptyset(&m_pipe);
        sigaddset(&m_pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &m_pipe, &m_old);
        m_wasPending = Pending();
    }
    ~SigpipeBlock()
    {
        const timespec now = {0, 0};
        if (!m_wasPending && Pending()) (void)sigtimedwait(&m_pipe, nullptr, &now);
        pthread_sigmask(SIG_SETMASK, &m_old, nullptr);
    }

private:
    static bool Pending()
    {
        sigset_t pending;
        return sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
    }

    sigset_t m_pipe;
    sigset_t m_old;
    bool m_wasPending;
};

// Writes all of buf to fd (-1: discards): 0, or the errno of the refusal.
int secure_write_all(int fd, const char* buf, size_t length)
{
    while (fd >= 0 && length > 0) {
        ssize_t n = write(fd, buf, length);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return n < 0 ? errno : EIO;
        buf += n;
        length -= static_cast<size_t>(n);
    }
    return 0;
}

// Moves what is readable on `stream` to `to`; closes the stream at its end.
// When `to` refuses the bytes, their errno goes to *refused, when given, and
// what follows is dropped; without `refused` the stream is closed then.
void secure_pump_output(FILE*& stream, int to, int* refused)
{
    char buf[16384];
    ssize_t n = read(fileno(stream), buf, sizeof buf);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) return;
    // After a refused write the rest is read and dropped: closing the pipe
    // would kill the child with SIGPIPE and blame it for our output.
    bool dropping = refused && *refused;
    int err = n > 0 && !dropping ? secure_write_all(to, buf, static_cast<size_t>(n)) : 0;
    if (err && refused) *refused = err;
    if (n <= 0 || (err && !refused)) secure_close_stream(stream);
}

// Input waiting to go to the child: read from `from` only when the last
// chunk has been taken, so a child that does not read never blocks us.
struct PumpInput {
    int from;
    char buf[16384];
    size_t length = 0;
    size_t offset = 0;

    short Events() const { return length ? POLLOUT : POLLIN; }
    int PollFd(FILE* to) const { return !to ? -1 : length ? fileno(to) : from; }

    void Move(FILE*& to)
    {
        if (!length) {
            ssize_t n = read(from, buf, sizeof buf);
            if (n < 0 && (errno == EINTR || errno == EAGAIN)) return;
            if (n <= 0) return secure_close_stream(to);
            length = static_cast<size_t>(n);
            offset = 0;
            return;
        }
        ssize_t n = write(fileno(to), buf + offset, length - offset);
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) return;
        if (n < 0) return secure_close_stream(to);
        offset += static_cast<size_t>(n);
        if (offset == length) length = 0;
    }
};

}  // namespace

void Secure::DropPrivileges(PRIVILEGES* saved)
{
    gid_t rgid = getgid(), egid = getegid();
    uid_t ruid = getuid(), euid = geteuid();
    if (saved) {
        int n = getgroups(kMaxGroups, saved->groups);
        if (n < 0) secure_abort("getgroups");
        saved->gid = egid;
        saved->uid = euid;
        saved->ngroups = n;
    }
    if (euid == 0 && setgroups(1, &rgid) != 0) secure_abort("setgroups");
    if (saved) {
        // setresgid/setresuid also replace the saved ids, which setuid leaves
        // alone once the effective uid is not 0.
        if (setresgid(rgid, rgid, rgid) != 0) secure_abort("setresgid");
        if (setresuid(ruid, ruid, ruid) != 0) secure_abort("setresuid");
        if (egid != rgid && (setegid(egid) == 0 || getegid() != rgid)) secure_abort("dropping the gid for good");
        if (euid != ruid && (seteuid(euid) == 0 || geteuid() != ruid)) secure_abort("dropping the uid for good");
        uid_t ru, eu, su;
        gid_t rg, eg, sg;
        if (getresuid(&ru, &eu, &su) != 0 || getresgid(&rg, &eg, &sg) != 0) secure_abort("getresuid");
        if (ru != ruid || eu != ruid || su != ruid || rg != rgid || eg != rgid || sg != rgid)
            secure_abort("dropping the saved ids");
        return;
    }
    if (egid != rgid && setregid(static_cast<gid_t>(-1), rgid) != 0) secure_abort("setregid");
    if (euid != ruid && seteuid(ruid) != 0) secure_abort("seteuid");
    if (getegid() != rgid || geteuid() != ruid) secure_abort("dropping the effective ids");
}

void Secure::RestorePrivileges(PRIVILEGES& saved)
{
    if (geteuid() != saved.uid && (seteuid(saved.uid) != 0 || geteuid() != saved.uid))
        secure_abort("restoring the effective uid");
    if (getegid() != saved.gid && (setegid(saved.gid) != 0 || getegid() != saved.gid))
        secure_abort("restoring the effective gid");
    if (saved.uid != 0) return;
    if (saved.ngroups < 0 || saved.ngroups > kMaxGroups) {
        errno = EINVAL;
        secure_abort("restoring the groups");
    }
    if (setgroups(static_cast<size_t>(saved.ngroups), saved.groups) != 0) secure_abort("setgroups");
}

void Secure::SanitizeEnvironment(int count, char** names)
{
    size_t entries = 0, bytes = 0;
    secure_env_each(count, names, [&](const char* name, const char* value) {
        entries++;
        bytes += strlen(name) + (value ? strlen(value) + 1 : 0) + 1;
    });
    size_t arrayBytes = (entries + 1) * sizeof(char*);
    char** block = static_cast<char**>(safe_mem_malloc(arrayBytes + bytes, "Secure.cpp", __LINE__));
    if (!block) secure_abort("allocating the environment");
    char* text = reinterpret_cast<char*>(block) + arrayBytes;
    size_t at = 0;
    secure_env_each(count, names, [&](const char* name, const char* value) {
        block[at++] = text;
        text += (value ? sprintf(text, "%s=%s", name, value) : sprintf(text, "%s", name)) + 1;
    });
    block[at] = nullptr;
    clearenv();
    for (char** entry = block; *entry; entry++) putenv(*entry);
    // putenv keeps these pointers: the caller's next step is execve.
    safe_mem_free(block, "Secure.cpp", __LINE__);
}

void Secure::SanitizeEnvironment(char** names)
{
    int count = 0;
    while (names && names[count]) count++;
    SanitizeEnvironment(count, names);
}

void Secure::SafeEnvironment(int count, char* const* names, std::vector<std::string>& entries)
{
    std::vector<std::string> result;
    secure_env_each(count, names, [&](const char* name, const char* value) {
        std::string entry = value ? std::string(name) + "=" + value : name;
        size_t nameLength = entry.find('=') + 1;
        for (std::string& old : result)
            if (old.compare(0, nameLength, entry, 0, nameLength) == 0) {
                old = entry;
                return;
            }
        result.push_back(entry);
    });
    entries.swap(result);
}

void Secure::SanitizeFiles(const int* keep)
{
    int limit = getdtablesize();
    if (limit <= 0) limit = 256;
    for (int fd = 3; fd < limit;) {
        int next = secure_next_kept(keep, fd, limit);
        secure_close_range(fd, next - 1);
        fd = next + 1;
    }
    SanitizeStandardFiles();
}

void Secure::SanitizeStandardFiles()
{
    FILE* const streams[3] = {stdin, stdout, stderr};
    for (int fd = 0; fd < 3; fd++) {
        struct stat st;
        if (fstat(fd, &st) == 0) continue;
        if (errno != EBADF) secure_abort("checking a standard descriptor");
        FILE* reopened = freopen("/dev/null", fd == 0 ? "rb" : "wb", streams[fd]);
        if (!reopened || fileno(reopened) != fd) secure_abort("reopening a standard descriptor");
    }
}

pid_t Secure::fork()
{
    pid_t pid = ::fork();
    if (pid != 0) return pid;
    SanitizeEnvironment(nullptr);
    SanitizeFiles(nullptr);
    DropPrivileges(nullptr);
    return 0;
}

int Secure::popen(const char* path, char* const* argv, char* const* envp, POPEN& child)
{
    child = POPEN{nullptr, nullptr, nullptr, -1};
    // Close-on-exec keeps these ends out of children that other threads start.
    int in[2] = {-1, -1}, out[2] = {-1, -1}, err[2] = {-1, -1};
    bool ok = pipe2(in, O_CLOEXEC) == 0 && pipe2(out, O_CLOEXEC) == 0 && pipe2(err, O_CLOEXEC) == 0;
    if (ok) {
        child.fwrite = fdopen(in[1], "w");
        child.fread = fdopen(out[0], "r");
        child.ferr = fdopen(err[0], "r");
        ok = child.fwrite && child.fread && child.ferr;
    }
    pid_t pid = ok ? ::fork() : -1;
    if (pid == 0) {
        int ends[3] = {in[0], out[1], err[1]};
        secure_exec_child(path, argv, envp, ends);
    }
    int errorNumber = errno;
    for (int fd : {in[0], out[1], err[1], child.fwrite ? -1 : in[1], child.fread ? -1 : out[0],
                   child.ferr ? -1 : err[0]})
        if (fd >= 0) (void)close(fd);
    if (pid > 0) {
        child.pid = pid;
        return 0;
    }
    secure_close_stream(child.fwrite);
    secure_close_stream(child.fread);
    secure_close_stream(child.ferr);
    syslog_safe(3, "<Secure> Cannot start %s: %s.", path, strerror(errorNumber));
    return -1;
}

int Secure::popen(const char* command, POPEN& child)
{
    ArgArray args(command, kMaxArguments);
    if (args.Argc() == 0) {
        child = POPEN{nullptr, nullptr, nullptr, -1};
        syslog_safe(3, "<Secure> Cannot start an empty command.");
        return -1;
    }
    return popen(args.Argv()[0], args.Argv(), nullptr, child);
}

int Secure::pclose(POPEN& child, int* waitStatus)
{
    // The input goes first: a child reading it to its end could not finish.
    secure_close_stream(child.fwrite);
    int status = 0;
    pid_t waited = -1;
    if (child.pid != -1) {
        while ((waited = waitpid(child.pid, &status, 0)) < 0 && errno == EINTR) {
        }
        if (waited < 0) syslog_safe(3, "<Secure> Waiting for child %d failed: %s.", child.pid, strerror(errno));
    }
    child.pid = -1;
    secure_close_stream(child.fread);
    secure_close_stream(child.ferr);
    if (waited < 0) return -1;
    if (waitStatus) *waitStatus = status;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 0;
}

int Secure::system(const char* command)
{
    POPEN child;
    int rv = popen(command, child);
    if (rv < 0) return rv;
    // Drained, so that a child writing more than a pipe holds still ends.
    (void)Pump(child, -1, -1, -1);
    return pclose(child);
}

int Secure::Pump(POPEN& child, int inFd, int outFd, int errFd, int* outRefused)
{
    if (outRefused) *outRefused = 0;
    if (inFd < 0) secure_close_stream(child.fwrite);
    if (child.fwrite) (void)fcntl(fileno(child.fwrite), F_SETFL, O_NONBLOCK);
    SigpipeBlock noSigpipe;
    PumpInput input;
    input.from = inFd;
    while (child.fread || child.ferr) {
        pollfd fds[3] = {{child.fread ? fileno(child.fread) : -1, POLLIN, 0},
                         {child.ferr ? fileno(child.ferr) : -1, POLLIN, 0},
                         {input.PollFd(child.fwrite), input.Events(), 0}};
        if (poll(fds, 3, -1) < 0) {
            if (errno == EINTR) continue;
            int rv = -errno;
            syslog_safe(3, "<Secure> Waiting for the child's output failed: %s.", strerror(errno));
            return rv;
        }
        if (fds[0].revents) secure_pump_output(child.fread, outFd, outRefused);
        if (fds[1].revents) secure_pump_output(child.ferr, errFd, nullptr);
        if (fds[2].revents) input.Move(child.fwrite);
    }
    return 0;
}

FILE* Secure::popen(const char* command, const char* mode)
{
    bool reading = mode && strcmp(mode, "r") == 0;
    if (!reading && !(mode && strcmp(mode, "w") == 0)) {
        syslog_safe(3, "<Secure> popen mode must be \"r\" or \"w\".");
        return nullptr;
    }
    POPEN* record = static_cast<POPEN*>(safe_mem_malloc(sizeof(POPEN), "Secure.cpp", __LINE__));
    if (!record) return nullptr;
    if (popen(command, *record) < 0) {
        safe_mem_free(record, "Secure.cpp", __LINE__);
        return nullptr;
    }
    // A reader's child sees the end of its input at once; the error stream
    // (and a writer's output) stays open until pclose, so the child can
    // still write to it.
    if (reading) secure_close_stream(record->fwrite);
    {
        MUTEX_GUARD(m_popenLock);
        m_popenList.push_back(record);
    }
    return reading ? record->fread : record->fwrite;
}

int Secure::pclose(FILE* stream)
{
    POPEN* record = nullptr;
    {
        MUTEX_GUARD(m_popenLock);
        for (POPEN* candidate : m_popenList)
            if (stream && (candidate->fread == stream || candidate->fwrite == stream)) record = candidate;
        m_popenList.remove(record);
    }
    if (!record) {
        syslog_safe(3, "<Secure> pclose of a stream popen did not hand out.");
        return -1;
    }
    // Waited for outside the lock: other threads' children go on meanwhile.
    int rv = pclose(*record);
    safe_mem_free(record, "Secure.cpp", __LINE__);
    return rv;
}

void secureInit()
{
    MUTEX_GUARD(Secure::m_popenLock);
}
