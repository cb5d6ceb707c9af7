// vtest mail against the scripted peer (exact bytes, a refusal and a close
// at every step, malformed, silent and trickling servers) and against
// Debian's aiosmtpd (delivery as received).
#include <gtest/gtest.h>

#include <fstream>
#include <regex>

#include "process.h"
#include "smtp_script.h"
#include "utils.h"

namespace {

const char kEntry[] =
    " mail <smtpServer> [--user=<user> [--password=<pwd>]] [--debug] <from> <recipient> <subject> <file>\n"
    "\tSend test mail to recipient. File can be -- for stdin.\n";
const std::string kPassword60(60, 'p');

// Date and Message-Id change from run to run; their forms are checked once.
std::string Normalised(const std::string& data)
{
    return std::regex_replace(data, std::regex("(Date|Message-Id): [^\r\n]*"), "$1: *");
}

std::string Header(const std::string& eol, const std::string& subject = "Hi", const std::string& to = "b@y")
{
    return "From: a@x" + eol + "To: " + to + eol + "Subject: " + subject + eol + "Date: *" + eol + "Message-Id: *" + eol;
}

std::string Base64(const std::string& text)
{
    char* encoded = base64(text.data(), text.size());
    std::string out = encoded;
    safe_mem_free(encoded, __FILE__, __LINE__);
    return out;
}

class MailCommand : public ::testing::Test {
protected:
    void TearDown() override { RunProgram({"/bin/rm", "-rf", m_dir}); }

    std::string WriteFile(const std::string& name, const std::string& text)
    {
        std::string path = m_dir + "/" + name;
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }
    // vtest mail <server> <options> a@x <to> <subject> <file with body, or "-" and body as input>
    RunResult Mail(const std::string& server, std::vector<std::string> options, const std::string& body,
                   const std::string& subject = "Hi", const std::string& to = "b@y", bool viaStdin = false)
    {
        options.insert(options.begin(), {"mail", server});
        options.insert(options.end(), {"a@x", to, subject, viaStdin ? "-" : WriteFile("message", body)});
        return RunVtest(options, viaStdin ? body : "");
    }
    static std::string At(const ScriptedServer& server, const char* form = "127.0.0.1:%d")
    {
        char text[64];
        snprintf(text, sizeof text, form, server.Addr().GetPort());
        return text;
    }

    std::string m_dir = MakeTempDir();
};

TEST_F(MailCommand, SendsTheExactBytes)
{
    const std::string pwFile = WriteFile("password", kPassword60 + "\r\nnot this line\n");
    const std::string subject998(998, 's');
    const SmtpReply cut = [](const std::string& reply) { return Trickle(reply, 1, 1); };
    struct Case {
        const char* label;
        std::vector<std::string> options;
        std::string body;
        std::string data;  // as the server must read it
        std::string err;
        const char* server = "127.0.0.1:%d";
        std::string subject = "Hi";
        SmtpReply reply = SmtpSend;
        bool viaStdin = false;
    } cases[] = {
        {"login, leading dots", {"--user=user", "--password=pass"}, ".lead\nmid\n.\nend",
         Header("\n") + "\n..lead\nmid\n..\nend\r\n.\r\n", ""},
        {"no login, 8-bit body", {}, "Gr\xc3\xbc\xc3\x9f" "e\n",
         Header("\n") + "MIME-Version: 1.0\nContent-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: 8bit\n"
                        "\nGr\xc3\xbc\xc3\x9f" "e\n\r\n.\r\n", ""},
        {"--crlf", {"--crlf"}, "a\nb\r\nc\rd\n.e\n", Header("\r\n") + "\r\na\r\nb\r\nc\r\nd\r\n..e\r\n.\r\n", ""},
        {"--crlf, no final line break", {"--crlf"}, ".", Header("\r\n") + "\r\n..\r\n.\r\n", ""},
        {"replies cut at every byte", {"--user=user", "--password=pass"}, "m", Header("\n") + "\nm\r\n.\r\n", "",
         "127.0.0.1:%d", "Hi", cut},
        {"60-byte password from a file, body from standard input", {"--user=user", "--password-file=" + pwFile}, "m",
         Header("\n") + "\nm\r\n.\r\n", "", "127.0.0.1:%d", "Hi", SmtpSend, true},
        {"--user alone", {"--user=user"}, "m", Header("\n") + "\nm\r\n.\r\n",
         "Warning: --user without a password: no login.\n"},
        {"998-byte subject", {}, "m", Header("\n", subject998) + "\nm\r\n.\r\n", "", "127.0.0.1:%d", subject998},
        {"localhost", {}, "m", Header("\n") + "\nm\r\n.\r\n", "", "localhost:%d"},
        {"[IPv6]:port", {}, "m", Header("\n") + "\nm\r\n.\r\n", "", "[::1]:%d"},
        {"IPv6|port", {}, "m", Header("\n") + "\nm\r\n.\r\n", "", "::1|%d"},
    };
    auto has = [](const std::vector<std::string>& options, const char* prefix) {
        return std::any_of(options.begin(), options.end(), [&](const std::string& o) { return o.rfind(prefix, 0) == 0; });
    };
    for (const Case& c : cases) {
        const std::vector<SmtpTurn> turns = SmtpTurns(has(c.options, "--password"), has(c.options, "--crlf") ? "\r\n" : "\n",
                                                      has(c.options, "--password-file") ? Base64(kPassword60) : "cGFzcw==");
        const bool v6 = strstr(c.server, "::1");
        ScriptedServer used({SmtpScript(turns, 99, {}, c.reply)},
                            v6 ? SockAddr(AF_INET6, &in6addr_loopback, 0) : SockAddr(AF_INET, 0x7F000001u, 0));
        if (v6 && !used.Failures().empty()) continue;  // no IPv6 loopback here
        RunResult r = Mail(At(used, c.server), c.options, c.body, c.subject, "b@y", c.viaStdin);
        EXPECT_EQ(r.status, 0) << c.label << "\n" << r.err;
        EXPECT_EQ(r.out, "Mail accepted: 250 queued as 7\n") << c.label;
        EXPECT_EQ(OperatorErrors(r.err), c.err) << c.label;
        ASSERT_TRUE(used.WaitClosed(1, ScaledMs(10000))) << c.label;
        EXPECT_TRUE(used.Failures().empty()) << c.label << ": " << used.Failures()[0];
        std::string expected;
        for (const SmtpTurn& turn : turns) expected += turn.client == kSmtpDataEnd ? c.data : turn.client;
        EXPECT_EQ(Normalised(used.Received(0)), expected) << c.label;
        EXPECT_TRUE(std::regex_search(used.Received(0),
                                      std::regex("\nDate: (Mon|Tue|Wed|Thu|Fri|Sat|Sun), [0-3][0-9] "
                                                 "(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) 2[0-9]{3} "
                                                 "[0-2][0-9]:[0-5][0-9]:[0-6][0-9] [+-][0-9]{4}\r?\n"
                                                 "Message-Id: <[0-9]+\\.[0-9]+\\.[0-9a-f]{8}@[^>]+>\r?\n")))
            << c.label;
    }
}

TEST_F(MailCommand, DebugShowsTheDialogueButNoCredentials)
{
    ScriptedServer server({SmtpScript(SmtpTurns(true), 99)});
    RunResult r = Mail(At(server), {"--debug", "--user=user", "--password=pass"}, "m");
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.err.find("DBG SmtpClient.cpp:"), std::string::npos);
    EXPECT_NE(r.err.find(" EHLO brix_smtp_client\n"), std::string::npos);
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '*'), 10) << r.err;
    for (const char* secret : {"dXNlcg==", "cGFzcw==", "pass"}) EXPECT_EQ(r.err.find(secret), std::string::npos);
}

TEST_F(MailCommand, ARefusalOrACloseAtEveryStepHasItsStatus)
{
    const char* const steps[] = {"greeting", "EHLO",      "AUTH LOGIN", "AUTH LOGIN",  "AUTH LOGIN",
                                 "MAIL FROM", "RCPT TO", "DATA",       "end of data", "QUIT"};
    const int statuses[] = {5, 5, 6, 6, 6, 7, 7, 8, 8, 0};
    for (const char* how : {"refusal", "refusal --crlf", "close"}) {
        const bool refuse = how[0] == 'r', crlf = strstr(how, "crlf");
        const std::string eol = crlf ? "\r\n" : "\n";
        const std::vector<SmtpTurn> turns = SmtpTurns(true, eol);
        for (size_t k = 0; k < turns.size(); k++) {
            const bool quit = k + 1 == turns.size();
            Script tail = {Close()};
            if (refuse) tail = quit ? Script{Send("554 no\r\n")} : Script{Send("554 no\r\n"), Expect("QUIT" + eol), Send("221 bye\r\n")};
            ScriptedServer server({SmtpScript(turns, k, tail)});
            std::vector<std::string> options = {"--user=user", "--password=pass"};
            if (crlf) options.push_back("--crlf");
            RunResult r = Mail(At(server), options, "m");
            const std::string label = std::string(how) + " at " + steps[k];
            const std::string why = std::string(steps[k]) + ": " + (refuse ? "554 no" : "connection closed") + "\n";
            EXPECT_EQ(r.status, refuse || quit ? statuses[k] : 4) << label;
            EXPECT_EQ(OperatorErrors(r.err), (quit ? "Warning: " : "Error: ") + why) << label;
            EXPECT_EQ(r.out, quit ? "Mail accepted: 250 queued as 7\n" : "") << label;
            ASSERT_TRUE(server.WaitClosed(1, ScaledMs(10000))) << label;
            EXPECT_TRUE(server.Failures().empty()) << label << ": " << server.Failures()[0];
            // QUIT alone after a refusal; nothing after a close.
            const std::string sent = server.Received(0);
            size_t quits = 0;
            for (size_t at = sent.find("QUIT"); at != std::string::npos; at = sent.find("QUIT", at + 1)) quits++;
            EXPECT_EQ(quits, refuse || quit ? 1u : 0u) << label;
        }
    }
    // A close during the body: the writes fail, the process lives on.
    const std::vector<SmtpTurn> turns = SmtpTurns(false);
    ScriptedServer server({SmtpScript(turns, 4, {Send("354 go\r\n"), Close()})});
    RunResult r = Mail(At(server), {}, std::string(4 << 20, 'x'));
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(OperatorErrors(r.err).rfind("Error: message: ", 0), 0u) << r.err;
}

TEST_F(MailCommand, MalformedSilentAndTricklingServers)
{
    const std::vector<SmtpTurn> plain = SmtpTurns(false);
    std::vector<SmtpTurn> loginLast = SmtpTurns(true);
    loginLast[1].server = "250-mx\r\n250 auth cram-md5 login\r\n";  // the last line, in lower case
    std::string endless;
    for (int i = 0; i < 101; i++) endless += "250-x\r\n";
    const Script quit = {Expect("QUIT\n"), Send("221 bye\r\n")};
    auto then = [](Script first, const Script& rest) {
        first.insert(first.end(), rest.begin(), rest.end());
        return first;
    };
    std::vector<SmtpTurn> long7998 = plain;
    long7998[1].server = "250-" + std::string(7994, 'x') + "\r\n250 ok\r\n";
    struct Case {
        const char* label;
        Script script;
        std::vector<std::string> options;
        int status;
        std::string err;
        bool quits;
    } cases[] = {
        {"7,998-byte line", SmtpScript(long7998, 99), {}, 0, "", true},
        {"7,999-byte line", SmtpScript(plain, 1, {Send("250-" + std::string(7995, 'x') + "\r\n250 ok\r\n"), Expect("QUIT\n")}),
         {}, 5, "Error: EHLO: malformed reply\n", true},
        {"endless reply", SmtpScript(plain, 1, {Send(endless + "250 end\r\n"), Expect("QUIT\n")}), {}, 5,
         "Error: EHLO: malformed reply: 250-x\n", true},
        {"bare code, then silence", SmtpScript(plain, 0, then({Send("220\r\n")}, quit)), {}, 5,
         "Error: greeting: malformed reply: 220\n", true},
        {"silence", {}, {}, 3, "Error: greeting: timed out after 1 s\n", false},
        {"trickle", Trickle("220 " + std::string(9, 't') + "\r\n", 1, 100), {}, 3,
         "Error: greeting: timed out after 1 s\n", false},
        {"QUIT unanswered", SmtpScript(plain, 1, {Send("554 no\r\n"), Expect("QUIT\n")}), {}, 5,
         "Error: EHLO: 554 no\n", true},
        {"no AUTH offered", SmtpScript(plain, 1, then({Send("250-mx\r\n250 8BITMIME\r\n")}, quit)),
         {"--user=user", "--password=pass"}, 6, "Error: AUTH LOGIN: AUTH LOGIN not offered by the server\n", true},
        {"no LOGIN offered", SmtpScript(plain, 1, then({Send("250-mx\r\n250-AUTH PLAIN CRAM-MD5\r\n250 ok\r\n")}, quit)),
         {"--user=user", "--password=pass"}, 6, "Error: AUTH LOGIN: AUTH LOGIN not offered by the server\n", true},
        {"LOGIN on the last line", SmtpScript(loginLast, 99), {"--user=user", "--password=pass"}, 0, "", true},
    };
    for (const Case& c : cases) {
        ScriptedServer server({c.script});
        std::vector<std::string> options = c.options;
        options.push_back("--timeout=1");
        RunResult r = Mail(At(server), options, "m");
        EXPECT_EQ(r.status, c.status) << c.label << "\n" << r.err;
        EXPECT_EQ(OperatorErrors(r.err), c.err) << c.label;
        ASSERT_TRUE(server.WaitClosed(1, ScaledMs(10000))) << c.label;
        EXPECT_EQ(server.Received(0).find("QUIT") != std::string::npos, c.quits) << c.label;
    }
    BlackHole hole;
    char addr[64];
    RunResult r = Mail(hole.Addr().Str(addr, true), {"--timeout=1"}, "m");
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(OperatorErrors(r.err), "Error: connect: timed out after 1 s\n");
}

TEST_F(MailCommand, UsageErrorsAndUnreadableInputSendNothing)
{
    const std::string file = WriteFile("message", "m");
    const std::string withNul = WriteFile("nul", std::string("a\0b", 3));
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string err;
    } cases[] = {
        {{"127.0.0.1:1", "a@x", "b@y", file}, 255, "expected <smtpServer> <from> <recipient> <subject> <file>, got 4 word(s)"},
        {{"127.0.0.1:1", "a@x", "b@y", "Hi", file, "--bogus"}, 255, "unknown option '--bogus'"},
        {{"--password=x", "127.0.0.1:1", "a@x", "b@y", "Hi", file}, 255, "a password needs --user"},
        {{"--user=u", "--password=x", "--password-file=" + file, "127.0.0.1:1", "a@x", "b@y", "Hi", file}, 255,
         "--password and --password-file exclude each other"},
        {{"127.0.0.1:0", "a@x", "b@y", "Hi", file}, 255, "invalid port in server '127.0.0.1:0'"},
        {{"[::1]:65536", "a@x", "b@y", "Hi", file}, 255, "invalid port in server '[::1]:65536'"},
        {{"[::1", "a@x", "b@y", "Hi", file}, 255, "invalid server '[::1'"},
        {{"--timeout=0", "127.0.0.1:1", "a@x", "b@y", "Hi", file}, 255, "invalid --timeout '0' (whole seconds, 1 to 3600)"},
        {{"127.0.0.1:1", "a@x\r", "b@y", "Hi", file}, 255, "from contains CR or LF"},
        {{"127.0.0.1:1", "a@x", "b@y", "Hi\nBcc: c@z", file}, 255, "subject contains CR or LF"},
        {{"127.0.0.1:1", "a@x", std::string(999, 'r'), "Hi", file}, 255, "recipient is longer than 998 bytes"},
        {{"127.0.0.1:1", "a@x", "b@y", "Hi", m_dir + "/none"}, 1,
         "cannot use the message '" + m_dir + "/none': No such file or directory"},
        {{"127.0.0.1:1", "a@x", "b@y", "Hi", withNul}, 1, "cannot use the message '" + withNul + "': it holds a NUL byte"},
        {{"--user=u", "--password-file=" + m_dir, "127.0.0.1:1", "a@x", "b@y", "Hi", file}, 1,
         "cannot use the password file '" + m_dir + "': Is a directory"},
    };
    for (const Case& c : cases) {
        std::vector<std::string> args = c.args;
        args.insert(args.begin(), "mail");
        RunResult r = RunVtest(args);
        EXPECT_EQ(r.status, c.status) << c.err;
        EXPECT_EQ(r.err, "Error: " + c.err + "\n" + (c.status == 255 ? VTEST_BINARY + std::string(kEntry) : ""));
    }
}

// Debian's aiosmtpd on 127.0.0.1, with AUTH LOGIN without TLS and without AUTH.
TEST_F(MailCommand, DeliversThroughARealServer)
{
    const std::string sink = VTEST_SOURCE_DIR "/tests/support/smtp_sink.py";
    ChildProcess withAuth({"/usr/bin/python3", sink, "user:secret"}), noAuth({"/usr/bin/python3", sink});
    ChildProcess* servers[] = {&withAuth, &noAuth};
    std::string at[2];
    for (int i = 0; i < 2; i++) {
        ASSERT_TRUE(servers[i]->WaitForOutput("\n", 20000)) << "python3-aiosmtpd missing? " << servers[i]->Output();
        at[i] = "127.0.0.1:" + servers[i]->Output().substr(5, servers[i]->Output().find('\n') - 5);
    }
    std::string longBody;
    for (int i = 0; i < 40; i++) longBody += "line " + std::to_string(i) + " of a message over 1000 bytes\n";
    const std::string plainHead = Header("\n", "Hi", "r0@y") + "\n";
    struct Case {
        int server;
        std::vector<std::string> options;
        std::string body;
        int status;
        std::string err;
        std::string delivered;  // what the server's message holds; empty: no delivery
    } cases[] = {
        {0, {"--user=user", "--password=secret"}, "Hello\n.dot\n", 0, "", plainHead + "Hello\n..dot\n\r\n"},
        {0, {"--user=user", "--password=wrong"}, "m", 6, "Error: AUTH LOGIN: 535 5.7.8 Authentication credentials invalid\n", ""},
        {1, {}, "Hello\n", 0, "", plainHead + "Hello\n\r\n"},
        {1, {"--user=user", "--password=secret"}, "m", 6, "Error: AUTH LOGIN: AUTH LOGIN not offered by the server\n", ""},
        {1, {}, longBody, 8, "Error: end of data: 500 Line too long (see RFC5321 4.5.3.1.6)\n", ""},
        {1, {"--crlf"}, longBody + ".dot\n", 0, "",
         Header("\r\n", "Hi", "r0@y") + "\r\n" + std::regex_replace(longBody, std::regex("\n"), "\r\n") + ".dot\r\n"},
    };
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; i++) {
        const Case& c = cases[i];
        const std::string to = "r" + std::to_string(i) + "@y";
        RunResult r = Mail(at[c.server], c.options, c.body, "Hi", to);
        EXPECT_EQ(r.status, c.status) << i << r.err;
        EXPECT_EQ(OperatorErrors(r.err), c.err) << i;
        if (c.delivered.empty()) continue;
        EXPECT_EQ(r.out, "Mail accepted: 250 OK delivered\n") << i;
        ChildProcess& s = *servers[c.server];
        ASSERT_TRUE(s.WaitForOutput(" from a@x to " + to + "\n", 10000)) << i;
        size_t end = s.Output().find(" from a@x to " + to + "\n"), start = s.Output().rfind('\n', end) + 1;
        std::string data;
        for (size_t at = start; at + 1 < end; at += 2) data += static_cast<char>(std::stoi(s.Output().substr(at, 2), nullptr, 16));
        EXPECT_EQ(Normalised(data), std::regex_replace(c.delivered, std::regex("r0@y"), to)) << i;
    }
}

}  // namespace
