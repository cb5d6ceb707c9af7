// vtest mail against the scripted peer (exact bytes, odd servers, every step failing) and Debian's aiosmtpd.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "fixed_paths.h"
#include "process.h"
#include "smtp_script.h"

namespace {

// Date and Message-Id change from run to run: a value of the right form is masked, any other stays and fails.
std::string Masked(const std::string& data)
{
    static const std::regex kVaried("(Date): (?:Mon|Tue|Wed|Thu|Fri|Sat|Sun), [0-3][0-9] (?:Jan|Feb|Mar|Apr|May|Jun|"
                                    "Jul|Aug|Sep|Oct|Nov|Dec) 2[0-9]{3} [0-2][0-9]:[0-5][0-9]:[0-6][0-9] [+-][0-9]{4}|"
                                    "(Message-Id): <[0-9]+\\.[0-9]+\\.[0-9a-f]{8}@[^>\r\n]+>");
    return std::regex_replace(data, kVaried, "$1$2: *");
}

std::string Header(const std::string& eol, const std::string& more = "", const std::string& subject = "Hi")
{
    return "From: a@x" + eol + "To: b@y" + eol + "Subject: " + subject + eol + "Date: *" + eol + "Message-Id: *" + eol +
           more + eol;
}

// All the client sends in `turns`, `data` standing for the data.
std::string Sent(const std::vector<SmtpTurn>& turns, const std::string& data)
{
    std::string sent;
    for (const SmtpTurn& turn : turns) sent += turn.client == kSmtpDataEnd ? data : turn.client;
    return sent;
}

// err: the operator's lines of standard error; sentEnd: how what the client sent ends (masked), all its QUITs in it.
struct Case {
    std::string label; std::vector<std::string> options; Script script; int status;
    std::string err, sentEnd, body = "m", server = "127.0.0.1:%d", subject = "Hi";
};

struct MailCommand : ::testing::Test {
    ~MailCommand() override { std::filesystem::remove_all(m_dir); }
    std::string Put(const std::string& name, const std::string& text)
    {
        EXPECT_TRUE(WriteFile(m_dir + "/" + name, text));
        return m_dir + "/" + name;
    }
    // The message goes in a file, or on standard input when `file` is "-".
    RunResult Mail(const std::string& server, std::vector<std::string> args, const std::string& body,
                   const std::string& subject = "Hi", const std::string& file = "")
    {
        args.insert(args.begin(), {"mail", server});
        args.insert(args.end(), {"a@x", "b@y", subject, file.empty() ? Put("message", body) : file});
        return RunVtest(args, file.empty() ? "" : body);
    }
    // The scripted rows send the message on standard input.
    void Check(const Case& c)
    {
        const bool v6 = c.server[0] == ':';
        ScriptedServer server({c.script},
                              v6 ? SockAddr(AF_INET6, &in6addr_loopback, 0) : SockAddr(AF_INET, 0x7F000001u, 0));
        if (v6 && !server.Failures().empty()) return;  // no IPv6 loopback here
        char at[64];
        snprintf(at, sizeof at, c.server.c_str(), server.Addr().GetPort());
        RunResult r = Mail(at, c.options, c.body, c.subject, "-");
        EXPECT_EQ(r.status, c.status) << c.label << "\n" << r.err;
        EXPECT_EQ(r.out, c.status == 0 ? "Mail accepted: 250 queued as 7\n" : "") << c.label;
        EXPECT_EQ(OperatorErrors(r.err), c.err) << c.label;
        const size_t debug = std::count(c.options.begin(), c.options.end(), "--debug");
        EXPECT_EQ(CountOf(r.err, " *****\n"), 2 * debug) << c.label;  // never the credentials
        ASSERT_TRUE(server.WaitClosed(1, ScaledMs(10000))) << c.label;
        const std::string sent = Masked(server.Received(0));
        EXPECT_EQ(sent.substr(sent.size() - std::min(sent.size(), c.sentEnd.size())), c.sentEnd) << c.label;
        EXPECT_EQ(CountOf(sent, "QUIT"), CountOf(c.sentEnd, "QUIT")) << c.label;
    }
    const std::string m_dir = MakeTempDir();
};

TEST_F(MailCommand, SendsTheExactBytesAndJudgesOddReplies)
{
    auto times = [](const std::string& text, int n) { std::string all; while (n-- > 0) all += text; return all; };
    // 60 bytes of "p" make 80 characters of base64, one line.
    std::vector<SmtpTurn> login = SmtpTurns(true, "\n", times("cHBw", 20)), plain = SmtpTurns(false);
    const std::vector<SmtpTurn> crlf = SmtpTurns(false, "\r\n");
    login[1].server = "250-mx\r\n250 auth cram-md5 login\r\n";  // LOGIN on the reply's last line
    plain[1].server = "250-" + std::string(7994, 'x') + "\r\n250 ok\r\n";  // the longest line read
    const SmtpReply cut = [](const std::string& reply) { return Trickle(reply, 1, 1); };
    const std::string pwFile = "--password-file=" + Put("password", std::string(60, 'p') + "\r\nnot this line\n");
    const std::string s998(998, 's'), ehloQuit = "EHLO brix_smtp_client\nQUIT\n";
    const std::string mime =
        "MIME-Version: 1.0\nContent-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: 8bit\n";
    const Script bye = {Expect("QUIT\n"), Send("221 bye\r\n")};
    const std::string noLogin = "Error: AUTH LOGIN: AUTH LOGIN not offered by the server\n";
    const Case cases[] = {
        {"login (LOGIN last), 60-byte password from a file, leading dots, cut replies, --debug",
         {"--user=user", pwFile, "--debug"},
         SmtpScript(login, 99, {}, cut), 0, "", Sent(login, Header("\n") + "..lead\nmid\n..\nend\r\n.\r\n"),
         ".lead\nmid\n.\nend"},
        {"8-bit body, 998-byte subject, 7,998-byte line, --user alone, localhost", {"--user=user"},
         SmtpScript(plain, 99), 0, "Warning: --user without a password: no login.\n",
         Sent(plain, Header("\n", mime, s998) + "\xc3\xa4\n\r\n.\r\n"), "\xc3\xa4\n", "localhost:%d", s998},
        {"--crlf", {"--crlf"}, SmtpScript(crlf, 99), 0, "",
         Sent(crlf, Header("\r\n") + "a\r\nb\r\nc\r\nd\r\n..e\r\n.\r\n"), "a\nb\r\nc\rd\n.e\n"},
        {"--crlf, no final line break", {"--crlf"}, SmtpScript(crlf, 99), 0, "",
         Sent(crlf, Header("\r\n") + "..\r\n.\r\n"), "."},
        {"IPv6|port", {}, SmtpScript(plain, 99), 0, "", Sent(plain, Header("\n") + "m\r\n.\r\n"), "m", "::1|%d"},
        {"7,999-byte line", {}, SmtpScript(plain, 1, {Send("250-" + std::string(7995, 'x') + "\r\n250 ok\r\n")}), 5,
         "Error: EHLO: malformed reply\n", ehloQuit},
        {"endless reply", {}, SmtpScript(plain, 1, {Send(times("250-x\r\n", 101) + "250 end\r\n")}), 5,
         "Error: EHLO: malformed reply: 250-x\n", ehloQuit},
        {"bare code, then silence", {"--timeout=1"}, Then({Send("220\r\n")}, bye), 5,
         "Error: greeting: malformed reply: 220\n", "QUIT\n"},
        {"a reply trickling past the time-out", {"--timeout=1"}, Trickle("220 trickling\r\n", 1, 100), 3,
         "Error: greeting: timed out after 1 s\n", ""},
        {"AUTH without LOGIN", {"--user=u", "--password=p"},
         SmtpScript(plain, 1, Then({Send("250-mx\r\n250-AUTH PLAIN CRAM-MD5\r\n250 ok\r\n")}, bye)), 6, noLogin,
         ehloQuit},
        {"no AUTH, --crlf", {"--user=u", "--password=p", "--crlf"},
         SmtpScript(crlf, 1, {Send("250 mx\r\n"), Expect("QUIT\r\n"), Send("221 bye\r\n")}), 6, noLogin,
         "EHLO brix_smtp_client\r\nQUIT\r\n"},
        {"a password too long for one line", {"--user=user", "--password=" + std::string(6000, 'p')},
         SmtpScript(login, 3, Then({Send("334 UGFzc3dvcmQ6\r\n")}, bye)), 6,
         "Error: AUTH LOGIN: too long to send as one line\n", "dXNlcg==\nQUIT\n"},
    };
    for (const Case& c : cases) Check(c);
    BlackHole hole;  // a full accept queue
    char at[64];
    RunResult r = Mail(hole.Addr().Str(at, true), {"--timeout=1"}, "m");
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(OperatorErrors(r.err), "Error: connect: timed out after 1 s\n");
}

TEST_F(MailCommand, ARefusalOrACloseAtEveryStepHasItsStatus)
{
    const char* const steps[] = {"greeting",  "EHLO",    "AUTH LOGIN", "AUTH LOGIN",  "AUTH LOGIN",
                                 "MAIL FROM", "RCPT TO", "DATA",       "end of data", "QUIT"};
    const int statuses[] = {5, 5, 6, 6, 6, 7, 7, 8, 8, 0};
    const std::vector<SmtpTurn> turns = SmtpTurns(true);
    for (const bool refuse : {true, false})
        for (size_t k = 0; k < turns.size(); k++) {
            const bool last = k + 1 == turns.size(), quit = refuse && !last;
            Script tail = {Send("554 no\r\n"), Expect("QUIT\n"), Send("221 bye\r\n")};
            if (!refuse) tail = {Close()};
            // After the last step no QUIT follows; after EHLO's refusal it goes unanswered, a bounded wait too.
            if (!quit || k == 1) tail.resize(quit ? 2 : 1);
            const std::string why = std::string(steps[k]) + ": " + (refuse ? "554 no" : "connection closed") + "\n";
            Check({(refuse ? "refusal at " : "close at ") + why, {"--user=user", "--password=pass", "--timeout=1"},
                   SmtpScript(turns, k, tail), refuse || last ? statuses[k] : 4, (last ? "Warning: " : "Error: ") + why,
                   turns[k].client + (quit ? "QUIT\n" : "")});
        }
    // A close during the body: the writes fail, the process lives on.
    Check({"close during the body", {}, SmtpScript(SmtpTurns(false), 4, {Send("354 go\r\n"), Close()}), 4,
           "Error: message: connection closed\n", "", std::string(4 << 20, 'x')});
}

TEST_F(MailCommand, UsageErrorsAndUnreadableInputSendNothing)
{
    const std::string f = Put("message", "m"), nul = Put("nul", std::string("a\0b", 3)), none = m_dir + "/none";
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"h", "a", "b", f}, "expected <smtpServer> <from> <recipient> <subject> <file>, got 4 word(s)"},
        {{"h", "a", "b", "c", f, "--bogus"}, "unknown option '--bogus'"},
        {{"h", "a", "b", "c", f, "--password=x"}, "a password needs --user"},
        {{"--user=u", "--password=x", "--password-file=" + f, "h", "a", "b", "c", f},
         "--password and --password-file exclude each other"},
        {{"[::1]:65536", "a", "b", "c", f}, "bad port '65536' (1 to 65535)"},
        {{"h", "a", "b", "c", f, "--timeout=0"}, "invalid --timeout '0' (whole seconds, 1 to 3600)"},
        {{"h", "a\r", "b", "c", f}, "from contains CR or LF"},
        {{"h", "a", std::string(999, 'r'), "c", f}, "recipient is longer than 998 bytes"},
        {{"h", "a", "b", "c", none}, "cannot use the message '" + none + "': No such file or directory"},
        {{"h", "a", "b", "c", nul}, "cannot use the message '" + nul + "': it holds a NUL byte"},
    };
    const std::string usage = VTEST_BINARY " mail <smtpServer> [--user=<user> [--password=<pwd>]] [--debug] <from> "
                              "<recipient> <subject> <file>\n\tSend test mail to recipient. File can be -- for "
                              "stdin.\n";
    for (auto [args, reason] : cases) {
        args.insert(args.begin(), "mail");
        RunResult r = RunVtest(args);
        const bool isUsage = reason.rfind("cannot use", 0) != 0;
        EXPECT_EQ(r.status, isUsage ? 255 : 1) << reason;
        EXPECT_EQ(r.err, "Error: " + reason + "\n" + (isUsage ? usage : "")) << reason;
    }
}

// Debian's aiosmtpd on 127.0.0.1 (AUTH LOGIN without TLS): what it refuses, what it receives.
TEST_F(MailCommand, DeliversThroughARealServer)
{
    ChildProcess sink({"/usr/bin/python3", VTEST_SOURCE_DIR "/tests/support/smtp_sink.py", "user:secret"});
    ASSERT_TRUE(sink.WaitForOutput("\n", 20000)) << "python3-aiosmtpd missing? " << sink.Output();
    const std::string at = "127.0.0.1:" + sink.Output().substr(5, sink.Output().find('\n') - 5);
    std::string bigBody;  // over 64 KiB, a file read in pieces; the sink's copy of it would fill its pipe
    for (int i = 0; i < 2000; i++) bigBody += "line " + std::to_string(i) + " of a message over 1000 bytes\n";
    const std::string refused = "Error: end of data: 500 Line too long (see RFC5321 4.5.3.1.6)\n";
    const struct { const char* label; std::vector<std::string> options; std::string body; int status; } cases[] = {
        {"login, bare LF", {"--user=user", "--password=secret"}, "Hello\n.dot\n", 0},
        {"one line of bare LFs too long", {}, bigBody, 8},
        {"--crlf: the same lines pass", {"--crlf"}, bigBody.substr(0, bigBody.find("line 40 ")), 0},
    };
    for (const auto& c : cases) {
        RunResult r = Mail(at, c.options, c.body);
        EXPECT_EQ(r.status, c.status) << c.label << r.err;
        EXPECT_EQ(OperatorErrors(r.err), c.status ? refused : "") << c.label;
    }
    // The first as the server took it: bare LFs and the doubled dot as sent.
    ASSERT_TRUE(sink.WaitForOutput(" from a@x to b@y\n", 10000));
    std::string data;
    for (size_t hex = sink.Output().find('\n') + 1; sink.Output()[hex] != ' '; hex += 2)
        data += static_cast<char>(std::stoi(sink.Output().substr(hex, 2), nullptr, 16));
    EXPECT_EQ(Masked(data), Header("\n") + "Hello\n..dot\n\r\n");
}

}  // namespace
