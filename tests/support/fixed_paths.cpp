#include "fixed_paths.h"

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "process.h"

namespace {

// The whole file behind `fd`, from its start.
std::string ReadFd(int fd)
{
    std::string text;
    char buf[4096];
    ssize_t n;
    for (off_t at = 0; (n = pread(fd, buf, sizeof buf, at)) > 0; at += n) text.append(buf, static_cast<size_t>(n));
    return text;
}

}  // namespace

std::string RunInMountNamespace(const std::function<std::string()>& body)
{
    FILE* report = tmpfile();
    int rv = report ? RunInNamespaces(CLONE_NEWNS, [&] {
        std::string text = body();
        return write(fileno(report), text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1;
    }) : -1;
    std::string text = rv == 0 ? ReadFd(fileno(report)) : "namespace failed";
    if (report) fclose(report);
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
    FILE* file = tmpfile();
    m_file = file ? dup(fileno(file)) : -1;
    if (file) fclose(file);
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
