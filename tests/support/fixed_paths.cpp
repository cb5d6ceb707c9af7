#include "fixed_paths.h"

#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>

#include <cerrno>
#include <fstream>
#include <sstream>

#include "process.h"
#include "wait.h"

std::string RunInMountNamespace(const std::function<std::string()>& body)
{
    int report = memfd_create("report", MFD_CLOEXEC);
    int rv = report >= 0 ? RunInNamespaces(CLONE_NEWNS, [&] {
        std::string text = body();
        return write(report, text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1;
    }) : -1;
    std::string text = rv == 0 ? ReadFd(report) : "namespace failed";
    if (report >= 0) close(report);
    return text;
}

int BindReadOnly(const char* path)
{
    bool ok = mount(path, path, nullptr, MS_BIND, nullptr) == 0 &&
              mount(nullptr, path, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0;
    return ok ? 0 : -errno;
}

bool WriteFile(const std::string& path, const std::string& text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    return static_cast<bool>(out << text << std::flush);
}

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return in ? text.str() : "<missing>";
}

StderrCapture::StderrCapture()
{
    fflush(stderr);
    m_file = memfd_create("stderr", MFD_CLOEXEC);
    m_saved = dup(2);
    if (m_file >= 0) dup2(m_file, 2);
}

std::string StderrCapture::Take()
{
    if (m_saved < 0) return "";
    fflush(stderr);
    dup2(m_saved, 2);
    close(m_saved);
    m_saved = -1;
    std::string text = ReadFd(m_file);
    close(m_file);
    m_file = -1;
    return text;
}

std::string LogLines(const std::string& err)
{
    std::istringstream in(err);
    std::string out;
    for (std::string line; std::getline(in, line);) {
        size_t end = line.find("] ");
        out += line.substr(end == std::string::npos ? 0 : end + 2) + "\n";
    }
    return out;
}
