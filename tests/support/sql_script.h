// Scripts of a database shell server for the client tests: the greeting, the set-up of SqlWrapper and the
// monitor subscription, as byte-exact steps.
#pragma once

#include <unistd.h>

#include <regex>
#include <string>

#include "scripted_server.h"

// What the client sends to introduce itself.
inline std::string CommentLine(const std::string& comment)
{
    return "comment [pid=" + std::to_string(getpid()) + "]" + (comment.empty() ? "" : " " + comment) + "\r\n";
}
// Banner, prompt, the comment and the prompt that answers it.
inline Script Greeting(const std::string& comment, const std::string& banner = "")
{
    return {Send(banner + "#> "), Expect(CommentLine(comment)), Send("#> ")};
}
// The statement, and the answer with the server's end of every answer: the marker, the prompt, a line end.
inline Script Answer(const std::string& statement, const std::string& answer)
{
    return {Expect(statement + "\r\n"), Send(answer + "\v#> \n")};
}
// A SqlWrapper's set-up: greeting, "shell" and ".header on" (whose answers it reads in fixed pieces).
inline Script Prepared(const Script& more = {}, const std::string& comment = "SQL Wrapper")
{
    return Then(Then(Greeting(comment), Then(Answer("shell \\ |", "OK\n"), Answer(".header on", "OK\n"))), more);
}
// For a client in another process (vtest), whose comment line carries its own process id: taken unchecked.
inline Script FromChild(Script script)
{
    for (ScriptStep& step : script)
        if (step.kind == ScriptStep::Expect && step.bytes.compare(0, 13, "comment [pid=") == 0)
            step = ExpectUntil("\r\n");
    return script;
}
// Received bytes with every process id as "N".
inline std::string AnyPid(const std::string& s) { return std::regex_replace(s, std::regex("pid=[0-9]+"), "pid=N"); }
// What a client following the script sends, and nothing else (as AnyPid).
inline std::string Expected(const Script& script)
{
    std::string bytes;
    for (const ScriptStep& step : script) bytes += step.kind == ScriptStep::Expect ? step.bytes : "";
    return AnyPid(bytes);
}
// vtest's line for a statement that failed on the command line.
inline std::string ExecFailed(const std::string& w) { return "SqlWrapper:Exec() - failed (" + w + "): " + w + ".\n"; }
inline std::string ServerOption(const ScriptedServer& server)
{
    char text[SockAddr::m_strLen];
    return std::string("--server=") + server.Addr().Str(text, true);
}
