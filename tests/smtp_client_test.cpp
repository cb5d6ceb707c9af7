// SmtpClient over loopback against the scripted peer: its bounded waits,
// the receive clock, and what a false result leaves to look at.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "SmtpClient.h"
#include "process.h"
#include "smtp_script.h"

namespace {

using Step = SmtpClient::Step;

class SmtpClientTest : public ::testing::Test {
protected:
    // A link-dead time-out of 0: dead after one second without a byte.
    void SetUp() override { Sock::DefaultLinkDeadTimeout(0); }
    void TearDown() override { Sock::DefaultLinkDeadTimeout(m_linkDead); }

    const long m_linkDead = Sock::DefaultLinkDeadTimeout();
    SmtpClient::Header m_hdr = {"a@x"};
};

TEST_F(SmtpClientTest, TimeoutTurnsLinkDeadOffAndBoundsEachWaitOnItsOwn)
{
    // Two replies 1.2 s apart: longer than link-dead, each within 2 s,
    // together beyond it.
    auto slow = [](const std::string& reply) { return Script{Wait(1200), Send(reply)}; };
    ScriptedServer server(
        {SmtpScript(SmtpTurns(false), 2, {Send("550 no\r\n"), Expect("QUIT\n"), Send("221 bye\r\n")}, slow)});
    SmtpClient client(server.Addr());
    client.Timeout(2);
    EXPECT_FALSE(client.Mail(m_hdr, "b@y", "s", "m"));
    EXPECT_EQ(client.Stage(), Step::MailFrom);
    EXPECT_EQ(client.LastErrno(), 0);
}

TEST_F(SmtpClientTest, SendingRestartsTheReceiveClock)
{
    // The reply to MAIL FROM comes late, so the client waits for it; the
    // one before ends in a bare LF, so no byte of it is left to be read then.
    auto late = [n = 0](const std::string& reply) mutable { return Script{Wait(++n == 3 ? 200 : 0), Send(reply)}; };
    std::vector<SmtpTurn> turns = SmtpTurns(false);
    turns[1].server = "250 ok\n";
    ScriptedServer server({SmtpScript(turns, 99, {}, late)});
    SmtpClient client(server.Addr());
    ASSERT_TRUE(client.Open(m_hdr));
    usleep(1100 * 1000);  // the link's idea of silence, on purpose
    EXPECT_TRUE(client.Mail(m_hdr, "b@y", "s", "m")) << client.LastErrno();
    EXPECT_EQ(client.DataReply(), "250 queued as 7");
}

TEST_F(SmtpClientTest, AFalseResultSaysWhereAndWhy)
{
    const std::vector<SmtpTurn> turns = SmtpTurns(false);
    const std::string big(64 << 20, 'x');
    struct Case {
        const char* label;
        Script script;
        const char* subject;
        const char* message;
        Step stage;
        std::string lastReply;
        int lastErrno;
        std::string dataReply;
        std::string sentLast;  // the end of what the client sent
    } cases[] = {
        {"recipient refused", SmtpScript(turns, 3, {Send("550 who\r\n"), Expect("QUIT\n"), Send("221 bye\r\n")}), "s",
         "m", Step::RcptTo, "550 who", 0, "", "RCPT TO: <b@y>\nQUIT\n"},
        {"QUIT refused", SmtpScript(turns, 6, {Send("500 what\r\n")}), "s", "m", Step::Quit,
         "500 what", 0, "250 queued as 7", "\r\n.\r\nQUIT\n"},
        {"silence", {}, "s", "m", Step::Greeting, "", -ETIMEDOUT, "", ""},
        {"closed", SmtpScript(turns, 1, {Close()}), "s", "m", Step::Ehlo, "", -EPIPE, "",
         "EHLO brix_smtp_client\n"},
        {"stalled body", SmtpScript(turns, 4, {Send("354 go\r\n"), Hold()}), "s", big.c_str(), Step::Body, "",
         -ETIMEDOUT, "", std::string(4096, 'x')},
    };
    for (const Case& c : cases) {
        ScriptedServer server({c.script});
        SmtpClient client(server.Addr());
        client.Timeout(1);
        EXPECT_FALSE(client.Mail(m_hdr, "b@y", c.subject, c.message)) << c.label;
        EXPECT_EQ(client.Stage(), c.stage) << c.label;
        EXPECT_EQ(client.LastReply(), c.lastReply) << c.label;
        EXPECT_EQ(client.LastErrno(), c.lastErrno) << c.label;
        EXPECT_EQ(client.DataReply(), c.dataReply) << c.label;
        server.Release();
        ASSERT_TRUE(server.WaitClosed(1, ScaledMs(10000))) << c.label;
        const std::string sent = server.Received(0);
        EXPECT_EQ(sent.substr(sent.size() - std::min(sent.size(), c.sentLast.size())), c.sentLast) << c.label;
    }
    // A line break in a field would be a command of its own: nothing is sent.
    ScriptedServer server(std::vector<Script>{});
    SmtpClient client(server.Addr());
    EXPECT_FALSE(client.Mail(m_hdr, "b@y", "s\r\nRCPT TO: <c@z>", "m"));
    EXPECT_EQ(client.Stage(), Step::Body);
    EXPECT_EQ(client.LastErrno(), -EINVAL);
    EXPECT_EQ(server.Accepted(), 0);
}

}  // namespace
