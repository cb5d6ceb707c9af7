#include "fixed_paths.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "process.h"

std::string RunInMountNamespace(const std::function<std::string()>& body)
{
    FILE* report = tmpfile();
    if (!report) return "namespace failed";
    int rv = RunInNamespaces(CLONE_NEWNS, [&] {
        std::string text = body();
        return fwrite(text.data(), 1, text.size(), report) == text.size() && fflush(report) == 0 ? 0 : 1;
    });
    std::string text;
    if (rv == 0) {
        rewind(report);
        char buf[4096];
        for (size_t n; (n = fread(buf, 1, sizeof buf, report)) > 0;) text.append(buf, n);
    }
    fclose(report);
    return rv == 0 ? text : "namespace failed";
}

int BindReadOnly(const char* path)
{
    if (mount(path, path, nullptr, MS_BIND, nullptr) != 0) return -errno;
    if (mount(nullptr, path, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0) return -errno;
    return 0;
}

bool WriteFile(const std::string& path, const std::string& text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    return static_cast<bool>(out.flush());
}

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) return "<missing>";
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
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

StderrCapture::~StderrCapture() { (void)Take(); }

std::string StderrCapture::Take()
{
    if (m_saved < 0) return "";
    fflush(stderr);
    dup2(m_saved, 2);
    close(m_saved);
    m_saved = -1;
    std::string text;
    char buf[4096];
    ssize_t n;
    for (off_t at = 0; (n = pread(m_file, buf, sizeof buf, at)) > 0; at += n) text.append(buf, static_cast<size_t>(n));
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
        out += (end == std::string::npos ? line : line.substr(end + 2)) + "\n";
    }
    return out;
}
