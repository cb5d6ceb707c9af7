// Helpers for tests of fixed system paths: run a body in a private mount
// namespace and bring back its observations, make a file read-only for
// real, read and write whole files, capture the logger's lines.
#pragma once

#include <functional>
#include <string>
#include <vector>

// Runs `body` through RunInNamespaces(CLONE_NEWNS, ...) and returns the text
// it returned, or "namespace failed" when the child did not finish.
std::string RunInMountNamespace(const std::function<std::string()>& body);

// Bind-mounts `path` read-only onto itself, so even root gets EROFS when
// opening it for writing. Use only inside a private mount namespace.
// Returns 0 or -errno.
int BindReadOnly(const char* path);

// Whole-file helpers: true on success; ReadFile gives "<missing>" when the
// file cannot be opened.
bool WriteFile(const std::string& path, const std::string& text);
std::string ReadFile(const std::string& path);

// Redirects standard error (descriptor 2) to a temporary file until Take().
class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture();
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;
    // Restores standard error and returns what was written meanwhile.
    std::string Take();

private:
    int m_saved = -1;
    int m_file = -1;
};

// The logger's lines without their "SS.uuuuuu [tid] " prefix, one string
// per line ending in "\n", e.g. "info Updated /x.\n".
std::string LogLines(const std::string& err);
