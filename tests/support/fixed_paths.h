// For tests of fixed system paths: a body in a private mount namespace,
// read-only files for real, whole files, and the logger's lines.
#pragma once

#include <functional>
#include <string>
#include <vector>

// Runs `body` through RunInNamespaces(CLONE_NEWNS, ...) and returns its text,
// or "namespace failed" when the child did not finish.
std::string RunInMountNamespace(const std::function<std::string()>& body);
// Bind-mounts `path` read-only onto itself, so even root gets EROFS writing
// it; only inside a private mount namespace. 0 or -errno.
int BindReadOnly(const char* path);
bool WriteFile(const std::string& path, const std::string& text);
// The file's bytes, or "<missing>" when it cannot be opened.
std::string ReadFile(const std::string& path);

// Redirects descriptor 2 to a temporary file until Take() (which restores it
// and returns what was written meanwhile).
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

// The logger's lines without their "SS.uuuuuu [tid] " prefix, each ending in
// "\n", e.g. "info Updated /x.\n".
std::string LogLines(const std::string& err);
