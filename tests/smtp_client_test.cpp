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
    // Two replies 1.2 s late: past link-dead, each within 2 s, together not.
    auto slow = [](const std::string& reply) { return Script{Wait(1200), Send(reply)}; };
    ScriptedServer server(
        {SmtpScript(SmtpTurns(false), 2, {Send("550 no\r\n"), Expect("QUIT\n"), Send("221 bye\r\n")}, slow)});
    SmtpClient client(server.Addr());
    client.Timeout(2);
    EXPECT_FALSE(client.Mail(m_hdr, "b@y", "s", "m"));
    EXPECT_EQ(client.Stage(), Step::MailFrom);
    EXPECT_EQ(client.LastReply(), "550 no");
    EXPECT_EQ(client.LastErrno(), 0);
}

TEST_F(SmtpClientTest, SendingRestartsTheReceiveClock)
{
    // The reply to MAIL FROM comes late, so the client waits for it; the
    // one before ends in a bare LF, so no byte of it is left to read then.
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

TEST_F(SmtpClientTest, AStalledBodyTimesOutAndNothingFollows)
{
    ScriptedServer server({SmtpScript(SmtpTurns(false), 4, {Send("354 go\r\n"), Hold()})});
    SmtpClient client(server.Addr());
    client.Timeout(1);
    const std::string big(64 << 20, 'x');  // more than both socket buffers hold
    EXPECT_FALSE(client.Mail(m_hdr, "b@y", "s", big.c_str()));
    EXPECT_EQ(client.Stage(), Step::Body);
    EXPECT_EQ(client.LastErrno(), -ETIMEDOUT);
    EXPECT_EQ(client.LastReply(), "");
    EXPECT_EQ(client.DataReply(), "");
    server.Release();
    ASSERT_TRUE(server.WaitClosed(1, ScaledMs(10000)));
    const std::string sent = server.Received(0);
    EXPECT_EQ(sent.substr(sent.size() - 10), std::string(10, 'x'));
}

TEST_F(SmtpClientTest, AFieldWithALineBreakSendsNothing)
{
    ScriptedServer server(std::vector<Script>{});
    SmtpClient client(server.Addr());
    EXPECT_FALSE(client.Mail(m_hdr, "b@y", "s\r\nRCPT TO: <c@z>", "m"));
    EXPECT_EQ(client.Stage(), Step::Body);
    EXPECT_EQ(client.LastErrno(), -EINVAL);
    EXPECT_EQ(server.Accepted(), 0);
}

}  // namespace
