// For tests of fixed system paths: a body in a private mount namespace, read-only files for real, whole files,
// and the logger's lines.
#pragma once

#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>

#include <cerrno>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

#include "process.h"
#include "wait.h"

// Runs `body` through RunInNamespaces(CLONE_NEWNS, ...): its text, or "namespace failed" when it did not finish.
inline std::string RunInMountNamespace(const std::function<std::string()>& body)
{
    int report = memfd_create("report", MFD_CLOEXEC);
    auto child = [&] {
        std::string text = body();
        return write(report, text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1;
    };
    std::string text = report >= 0 && RunInNamespaces(CLONE_NEWNS, child) == 0 ? ReadFd(report) : "namespace failed";
    if (report >= 0) close(report);
    return text;
}

// Bind-mounts `path` read-only onto itself (root too gets EROFS), in a private mount namespace: 0 or -errno.
inline int BindReadOnly(const char* path)
{
    bool ok = mount(path, path, nullptr, MS_BIND, nullptr) == 0 &&
              mount(nullptr, path, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0;
    return ok ? 0 : -errno;
}

inline bool WriteFile(const std::string& path, const std::string& text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    return static_cast<bool>(out << text << std::flush);
}

// The file's bytes, or "<missing>" when it cannot be opened.
inline std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return in ? text.str() : "<missing>";
}

// Redirects descriptor 2 to a temporary file until Take(), which restores it and returns what was written.
class StderrCapture {
public:
    StderrCapture() : m_saved((fflush(stderr), dup(2))), m_file(memfd_create("stderr", MFD_CLOEXEC))
    {
        if (m_file >= 0) dup2(m_file, 2);
    }
    ~StderrCapture() { (void)Take(); }
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;
    std::string Take()
    {
        if (m_saved < 0) return "";
        fflush(stderr);
        dup2(m_saved, 2);
        close(m_saved);
        std::string text = ReadFd(m_file);
        close(m_file);
        m_saved = m_file = -1;
        return text;
    }

private:
    int m_saved = -1, m_file = -1;
};

// The logger's lines without their "SS.uuuuuu [tid] " prefix, each ending in "\n", e.g. "info Updated /x.\n".
inline std::string LogLines(const std::string& err)
{
    std::istringstream in(err);
    std::string out;
    for (std::string line; std::getline(in, line);) {
        size_t end = line.find("] ");
        out += line.substr(end == std::string::npos ? 0 : end + 2) + "\n";
    }
    return out;
}
