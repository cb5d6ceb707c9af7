// For tests of fixed system paths: a body in a private mount namespace, read-only files for real, whole files,
// and the logger's lines.
#pragma once

#include <functional>
#include <string>

// Runs `body` through RunInNamespaces(CLONE_NEWNS, ...): its text, or "namespace failed" when it did not finish.
std::string RunInMountNamespace(const std::function<std::string()>& body);
// Bind-mounts `path` read-only onto itself (even root gets EROFS writing it); only in a private mount namespace.
// 0 or -errno.
int BindReadOnly(const char* path);
bool WriteFile(const std::string& path, const std::string& text);
// The file's bytes, or "<missing>" when it cannot be opened.
std::string ReadFile(const std::string& path);

// Redirects descriptor 2 to a temporary file until Take(), which restores it and returns what was written.
class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture() { (void)Take(); }
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;
    std::string Take();

private:
    int m_saved = -1;
    int m_file = -1;
};

// The logger's lines without their "SS.uuuuuu [tid] " prefix, each ending in "\n", e.g. "info Updated /x.\n".
std::string LogLines(const std::string& err);
