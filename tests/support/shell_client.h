// Clients of the simulator for its tests: the system's own database client, and a plain socket for raw bytes.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <memory>

#include "sim_runner.h"
#include "sql_wrapper.h"
#include "wait.h"

inline SockAddr SimAddr(const SimRunner& sim) { return SockAddr(AF_INET, 0x7F000001u, sim.Port()); }

// One connect attempt per call; every wait bounded (a minute, scaled).
inline std::unique_ptr<SqlWrapper> SimShell(const SimRunner& sim)
{
    const SockAddr addr = SimAddr(sim);
    auto shell = std::make_unique<SqlWrapper>(&addr, nullptr, 2048, 0);
    const int seconds = ScaledMs(60000) / 1000;
    shell->Bounds(seconds, seconds, seconds);
    return shell;
}

// The header and rows of a one-column result as raw lines, then "?<reason>" when it failed and "+<n>" when
// Pending() is not 0 after it (bytes left unread; -32 when only a close or no link is left).
inline std::vector<std::string> SimRun(SqlWrapper& shell, const std::string& statement)
{
    std::vector<std::string> lines;
    if (shell.Exec(statement) && !shell.Eof()) lines = shell.GetHeaders();
    while (shell.Next()) lines.push_back(shell.Line());
    if (!shell.FailureReason().empty()) lines.push_back("?" + shell.FailureReason());
    if (int left = shell.Pending()) lines.push_back("+" + std::to_string(left));
    return lines;
}

// A plain connection, closed on destruction; what it reads collects in `got`.
struct RawLink {
    explicit RawLink(int fd) : fd(fd) {}
    ~RawLink() { if (fd >= 0) close(fd); }
    RawLink(const RawLink&) = delete;

    bool Send(const std::string& b) { return send(fd, b.data(), b.size(), MSG_NOSIGNAL) == ssize_t(b.size()); }
    // Reads on until `got` ends with `end`; false after waitMs (scaled) or at the peer's close.
    bool ReadUntil(const std::string& end, int waitMs = 5000)
    {
        const auto ended = [&] { return got.size() >= end.size() && got.rfind(end) == got.size() - end.size(); };
        return WaitUntil([&] { return ended() || ReadWithin(fd, got, 50) < 0; }, ScaledMs(waitMs)) && ended();
    }
    // No byte and no close arrive within ms (scaled).
    bool Quiet(int ms) { return ReadWithin(fd, got, ScaledMs(ms)) == 0; }

    const int fd;
    std::string got;
};
