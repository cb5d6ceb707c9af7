// vtest mail against the scripted peer (exact bytes, a refusal and a close at every step, odd servers)
// and against Debian's aiosmtpd (delivery as received).
#include <gtest/gtest.h>

#include <fstream>
#include <regex>

#include "process.h"
#include "smtp_script.h"

namespace {

const std::string kOk = "Mail accepted: 250 queued as 7\n";
const std::string kMime = "MIME-Version: 1.0\nContent-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: 8bit\n";
const std::string kPassword60(60, 'p');

// Date and Message-Id change from run to run: their form is checked, then masked.
std::string Masked(const std::string& data)
{
    return std::regex_replace(data, std::regex("(Date|Message-Id): [^\r\n]*"), "$1: *");
}

std::string Header(const std::string& eol, const std::string& more = "", const std::string& subject = "Hi",
                   const std::string& to = "b@y")
{
    return "From: a@x" + eol + "To: " + to + eol + "Subject: " + subject + eol + "Date: *" + eol + "Message-Id: *" +
           eol + more + eol;
}

// All the client sends in `turns`, `data` standing for the data.
std::string Sent(const std::vector<SmtpTurn>& turns, const std::string& data)
{
    std::string sent;
    for (const SmtpTurn& turn : turns) sent += turn.client == kSmtpDataEnd ? data : turn.client;
    return sent;
}

size_t Count(const std::string& text, const std::string& word)
{
    size_t n = 0;
    for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) n++;
    return n;
}

// err: the operator's lines of standard error; sentEnd: how what the client sent ends (masked).
struct Case {
    std::string label;
    std::vector<std::string> options;
    Script script;
    int status;
    std::string out, err, sentEnd;
    size_t quits;
    std::string body = "m", server = "127.0.0.1:%d", subject = "Hi";
    bool viaStdin = false;
};

class MailCommand : public ::testing::Test {
protected:
    void TearDown() override { RunProgram({"/bin/rm", "-rf", m_dir}); }

    std::string WriteFile(const std::string& name, const std::string& text)
    {
        std::ofstream(m_dir + "/" + name, std::ios::binary) << text;
        return m_dir + "/" + name;
    }
    RunResult Mail(const std::string& server, std::vector<std::string> args, const std::string& body,
                   const std::string& subject = "Hi", const std::string& to = "b@y", bool viaStdin = false)
    {
        args.insert(args.begin(), {"mail", server});
        args.insert(args.end(), {"a@x", to, subject, viaStdin ? "-" : WriteFile("message", body)});
        return RunVtest(args, viaStdin ? body : "");
    }
    void Check(const Case& c)
    {
        const bool v6 = c.server.find("::1") != std::string::npos;
        ScriptedServer server({c.script}, v6 ? SockAddr(AF_INET6, &in6addr_loopback, 0) : SockAddr(AF_INET, 0x7F000001u, 0));
        if (v6 && !server.Failures().empty()) return;  // no IPv6 loopback here
        char at[64];
        snprintf(at, sizeof at, c.server.c_str(), server.Addr().GetPort());
        RunResult r = Mail(at, c.options, c.body, c.subject, "b@y", c.viaStdin);
        EXPECT_EQ(r.status, c.status) << c.label << "\n" << r.err;
        EXPECT_EQ(r.out, c.out) << c.label;
        EXPECT_EQ(OperatorErrors(r.err), c.err) << c.label;
        const bool debug = std::count(c.options.begin(), c.options.end(), "--debug");
        EXPECT_EQ(Count(r.err, " *****\n"), debug ? 2u : 0u) << c.label;  // never the credentials
        EXPECT_EQ(Count(r.err, "cGFzcw=="), 0u) << c.label;
        ASSERT_TRUE(server.WaitClosed(1, ScaledMs(10000))) << c.label;
        const std::string sent = Masked(server.Received(0));
        EXPECT_EQ(sent.substr(sent.size() - std::min(sent.size(), c.sentEnd.size())), c.sentEnd) << c.label;
        EXPECT_EQ(Count(sent, "QUIT"), c.quits) << c.label;
        const std::regex dateAndId("\nDate: (Mon|Tue|Wed|Thu|Fri|Sat|Sun), [0-3][0-9] (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|"
                                   "Sep|Oct|Nov|Dec) 2[0-9]{3} [0-2][0-9]:[0-5][0-9]:[0-6][0-9] [+-][0-9]{4}\r?\n"
                                   "Message-Id: <[0-9]+\\.[0-9]+\\.[0-9a-f]{8}@[^>]+>\r?\n");
        EXPECT_EQ(std::regex_search(server.Received(0), dateAndId), sent.find("Date: *") != std::string::npos) << c.label;
    }

    std::string m_dir = MakeTempDir();
};

TEST_F(MailCommand, SendsTheExactBytes)
{
    const std::vector<SmtpTurn> login = SmtpTurns(true), plain = SmtpTurns(false), crlf = SmtpTurns(false, "\r\n");
    std::string password64;  // "ppp" is "cHBw"
    while (password64.size() < 80) password64 += "cHBw";
    const std::vector<SmtpTurn> login60 = SmtpTurns(true, "\n", password64);
    const SmtpReply cut = [](const std::string& reply) { return Trickle(reply, 1, 1); };
    const std::string pwFile = "--password-file=" + WriteFile("password", kPassword60 + "\r\nnot this line\n");
    const std::string subject998(998, 's'), m = Header("\n") + "m\r\n.\r\n";
    const Case cases[] = {
        {"login, leading dots, replies cut at every byte, --debug", {"--user=user", "--password=pass", "--debug"},
         SmtpScript(login, 99, {}, cut), 0, kOk, "", Sent(login, Header("\n") + "..lead\nmid\n..\nend\r\n.\r\n"), 1,
         ".lead\nmid\n.\nend"},
        {"--debug with a one-byte password: still \"*****\"", {"--user=user", "--password=p", "--debug"},
         SmtpScript(SmtpTurns(true, "\n", "cA=="), 99), 0, kOk, "", "QUIT\n", 1},
        {"8-bit body, 998-byte subject", {}, SmtpScript(plain, 99), 0, kOk, "",
         Sent(plain, Header("\n", kMime, subject998) + "\xc3\xa4\n\r\n.\r\n"), 1, "\xc3\xa4\n", "127.0.0.1:%d",
         subject998},
        {"--crlf", {"--crlf"}, SmtpScript(crlf, 99), 0, kOk, "",
         Sent(crlf, Header("\r\n") + "a\r\nb\r\nc\r\nd\r\n..e\r\n.\r\n"), 1, "a\nb\r\nc\rd\n.e\n"},
        {"--crlf, no final line break", {"--crlf"}, SmtpScript(crlf, 99), 0, kOk, "",
         Sent(crlf, Header("\r\n") + "..\r\n.\r\n"), 1, "."},
        {"60-byte password from a file, body from standard input", {"--user=user", pwFile}, SmtpScript(login60, 99),
         0, kOk, "", Sent(login60, m), 1, "m", "127.0.0.1:%d", "Hi", true},
        {"--user alone, localhost", {"--user=user"}, SmtpScript(plain, 99), 0, kOk,
         "Warning: --user without a password: no login.\n", Sent(plain, m), 1, "m", "localhost:%d"},
        {"[IPv6]:port", {}, SmtpScript(plain, 99), 0, kOk, "", Sent(plain, m), 1, "m", "[::1]:%d"},
        {"IPv6|port", {}, SmtpScript(plain, 99), 0, kOk, "", Sent(plain, m), 1, "m", "::1|%d"},
    };
    for (const Case& c : cases) Check(c);
}

TEST_F(MailCommand, ARefusalOrACloseAtEveryStepHasItsStatus)
{
    const char* const steps[] = {"greeting",  "EHLO",    "AUTH LOGIN", "AUTH LOGIN",  "AUTH LOGIN",
                                 "MAIL FROM", "RCPT TO", "DATA",       "end of data", "QUIT"};
    const int statuses[] = {5, 5, 6, 6, 6, 7, 7, 8, 8, 0};
    for (const std::string how : {"refusal", "refusal --crlf", "close"}) {
        const bool refuse = how != "close";
        const std::string eol = how == "refusal --crlf" ? "\r\n" : "\n";
        const std::vector<SmtpTurn> turns = SmtpTurns(true, eol);
        std::vector<std::string> options = {"--user=user", "--password=pass", "--timeout=1"};
        if (eol.size() == 2) options.push_back("--crlf");
        for (size_t k = 0; k < turns.size(); k++) {
            const bool last = k + 1 == turns.size();
            Script tail = {Close()};
            if (refuse) tail = {Send("554 no\r\n"), Expect("QUIT" + eol), Send("221 bye\r\n")};
            if (refuse && last) tail = {Send("554 no\r\n")};
            // One row leaves QUIT unanswered: the wait for it is bounded too.
            if (how == "refusal" && k == 1) tail.pop_back();
            const std::string why = std::string(steps[k]) + ": " + (refuse ? "554 no" : "connection closed") + "\n";
            const std::string client = turns[k].client == kSmtpDataEnd ? "\r\n.\r\n" : turns[k].client;
            Check({how + " at " + steps[k], options, SmtpScript(turns, k, tail), refuse || last ? statuses[k] : 4,
                   last ? kOk : "", (last ? "Warning: " : "Error: ") + why,
                   client + (refuse && !last ? "QUIT" + eol : ""), refuse || last ? 1u : 0u});
        }
    }
    // A close during the body: the writes fail, the process lives on.
    Check({"close during the body", {}, SmtpScript(SmtpTurns(false), 4, {Send("354 go\r\n"), Close()}), 4, "",
           "Error: message: connection closed\n", "", 0, std::string(4 << 20, 'x')});
}

TEST_F(MailCommand, MalformedSilentAndTricklingServers)
{
    const std::vector<SmtpTurn> plain = SmtpTurns(false);
    std::vector<SmtpTurn> long7998 = plain, loginLast = SmtpTurns(true);
    long7998[1].server = "250-" + std::string(7994, 'x') + "\r\n250 ok\r\n";
    loginLast[1].server = "250-mx\r\n250 auth cram-md5 login\r\n";
    std::string endless;
    for (int i = 0; i < 101; i++) endless += "250-x\r\n";
    const std::string ehloQuit = "EHLO brix_smtp_client\nQUIT\n", t1 = "--timeout=1";
    const Case cases[] = {
        {"7,998-byte line", {t1}, SmtpScript(long7998, 99), 0, kOk, "", "QUIT\n", 1},
        {"7,999-byte line", {t1}, SmtpScript(plain, 1, {Send("250-" + std::string(7995, 'x') + "\r\n250 ok\r\n")}), 5,
         "", "Error: EHLO: malformed reply\n", ehloQuit, 1},
        {"endless reply", {t1}, SmtpScript(plain, 1, {Send(endless + "250 end\r\n")}), 5, "",
         "Error: EHLO: malformed reply: 250-x\n", ehloQuit, 1},
        {"bare code, then silence", {t1}, {Send("220\r\n"), Expect("QUIT\n"), Send("221 bye\r\n")}, 5, "",
         "Error: greeting: malformed reply: 220\n", "QUIT\n", 1},
        {"silence", {t1}, {}, 3, "", "Error: greeting: timed out after 1 s\n", "", 0},
        {"trickle", {t1}, Trickle("220 trickling\r\n", 1, 100), 3, "", "Error: greeting: timed out after 1 s\n", "", 0},
        {"AUTH without LOGIN", {t1, "--user=u", "--password=p"},
         SmtpScript(plain, 1, {Send("250-mx\r\n250-AUTH PLAIN CRAM-MD5\r\n250 ok\r\n"), Expect("QUIT\n"), Send("221 bye\r\n")}),
         6, "", "Error: AUTH LOGIN: AUTH LOGIN not offered by the server\n", ehloQuit, 1},
        {"a password too long for one line: refused at its step, QUIT", {t1, "--user=user", "--password=" + std::string(6000, 'p')},
         SmtpScript(SmtpTurns(true), 3, {Send("334 UGFzc3dvcmQ6\r\n"), Expect("QUIT\n"), Send("221 bye\r\n")}), 6, "",
         "Error: AUTH LOGIN: too long to send as one line\n", "dXNlcg==\nQUIT\n", 1},
        {"LOGIN on the reply's last line", {t1, "--user=user", "--password=pass"}, SmtpScript(loginLast, 99), 0, kOk,
         "", "QUIT\n", 1},
    };
    for (const Case& c : cases) Check(c);
    BlackHole hole;  // a full accept queue
    char at[64];
    RunResult r = Mail(hole.Addr().Str(at, true), {t1}, "m");
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(OperatorErrors(r.err), "Error: connect: timed out after 1 s\n");
}

TEST_F(MailCommand, UsageErrorsAndUnreadableInputSendNothing)
{
    const std::string file = WriteFile("message", "m"), withNul = WriteFile("nul", std::string("a\0b", 3));
    const std::vector<std::string> words = {"127.0.0.1:1", "a@x", "b@y", "Hi", file};
    auto with = [&](size_t at, const std::string& value) {
        std::vector<std::string> args = words;
        if (at < args.size()) args[at] = value;
        else args.push_back(value);
        return args;
    };
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"127.0.0.1:1", "a@x", "b@y", file}, "expected <smtpServer> <from> <recipient> <subject> <file>, got 4 word(s)"},
        {with(5, "--bogus"), "unknown option '--bogus'"},
        {with(5, "--password=x"), "a password needs --user"},
        {{"--user=u", "--password=x", "--password-file=" + file, "h", "a", "b", "c", file},
         "--password and --password-file exclude each other"},
        {with(0, "[::1]:65536"), "bad port '65536' (1 to 65535)"},
        {with(5, "--timeout=0"), "invalid --timeout '0' (whole seconds, 1 to 3600)"},
        {with(1, "a@x\r"), "from contains CR or LF"},
        {with(2, std::string(999, 'r')), "recipient is longer than 998 bytes"},
        {with(4, m_dir + "/none"), "cannot use the message '" + m_dir + "/none': No such file or directory"},
        {with(4, withNul), "cannot use the message '" + withNul + "': it holds a NUL byte"},
    };
    for (const auto& [args, reason] : cases) {
        std::vector<std::string> argv = args;
        argv.insert(argv.begin(), "mail");
        RunResult r = RunVtest(argv);
        const bool usage = reason.rfind("cannot use", 0) != 0;
        EXPECT_EQ(r.status, usage ? 255 : 1) << reason;
        EXPECT_EQ(r.err, "Error: " + reason + "\n" +
                             (usage ? VTEST_BINARY " mail <smtpServer> [--user=<user> [--password=<pwd>]] [--debug] "
                                      "<from> <recipient> <subject> <file>\n\tSend test mail to recipient. File can "
                                      "be -- for stdin.\n"
                                    : ""));
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
    const std::string login = "--user=user", head = Header("\n", "", "Hi", "r@y");
    const struct {
        int server;
        std::vector<std::string> options;
        std::string body;
        int status;
        std::string err, delivered;  // delivered: the server's copy of the data; empty: none
    } cases[] = {
        {0, {login, "--password=secret"}, "Hello\n.dot\n", 0, "", head + "Hello\n..dot\n\r\n"},  // bare LF: kept
        {0, {login, "--password=wrong"}, "m", 6, "Error: AUTH LOGIN: 535 5.7.8 Authentication credentials invalid\n", ""},
        {1, {}, "Hello\n", 0, "", head + "Hello\n\r\n"},
        {1, {login, "--password=secret"}, "m", 6, "Error: AUTH LOGIN: AUTH LOGIN not offered by the server\n", ""},  // no AUTH line
        {1, {}, longBody, 8, "Error: end of data: 500 Line too long (see RFC5321 4.5.3.1.6)\n", ""},
        {1, {"--crlf"}, longBody + ".dot\n", 0, "",
         Header("\r\n", "", "Hi", "r@y") + std::regex_replace(longBody, std::regex("\n"), "\r\n") + ".dot\r\n"},
    };
    for (size_t i = 0; i < std::size(cases); i++) {
        const auto& c = cases[i];
        const std::string to = "r" + std::to_string(i) + "@y", delivered = " from a@x to " + to + "\n";
        RunResult r = Mail(at[c.server], c.options, c.body, "Hi", to);
        EXPECT_EQ(r.status, c.status) << i << r.err;
        EXPECT_EQ(OperatorErrors(r.err), c.err) << i;
        if (c.delivered.empty()) continue;
        ChildProcess& s = *servers[c.server];
        ASSERT_TRUE(s.WaitForOutput(delivered, 10000)) << i;
        size_t end = s.Output().find(delivered), start = s.Output().rfind('\n', end) + 1;
        std::string data;
        for (size_t hex = start; hex + 1 < end; hex += 2) data += static_cast<char>(std::stoi(s.Output().substr(hex, 2), nullptr, 16));
        EXPECT_EQ(Masked(data), std::regex_replace(c.delivered, std::regex("r@y"), to)) << i;
    }
}

}  // namespace
