// SmtpClient against the scripted peer: its bounded waits, the receive clock, what a false result leaves.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <tuple>

#include "SmtpClient.h"
#include "process.h"
#include "smtp_script.h"

namespace {

using Step = SmtpClient::Step;

// A link-dead time-out of 0: dead after one second without a byte.
struct SmtpClientTest : ::testing::Test {
    SmtpClientTest() { Sock::DefaultLinkDeadTimeout(0); }
    ~SmtpClientTest() override { Sock::DefaultLinkDeadTimeout(m_linkDead); }
    const long m_linkDead = Sock::DefaultLinkDeadTimeout();
    SmtpClient::Header m_hdr = {"a@x"};
};

// Two replies 1.2 s late (past link-dead, each within the 2 s time-out, together not); a stalled body;
// a field with a line break. sentEnd: the last bytes the peer got.
TEST_F(SmtpClientTest, AFalseResultSaysWhereAndWhy)
{
    auto slow = [](const std::string& reply) { return Script{Wait(1200), Send(reply)}; };
    const std::string big(64 << 20, 'x');  // more than both socket buffers hold
    const Script refuse = {Send("550 no\r\n"), Expect("QUIT\n"), Send("221 bye\r\n")};
    const struct {
        const char *label, *subject, *body; std::vector<Script> scripts; int timeout; Step stage; int error;
        const char *reply, *sentEnd;
    } rows[] = {
        {"each slow reply within the time-out", "s", "m", {SmtpScript(SmtpTurns(false), 2, refuse, slow)}, 2,
         Step::MailFrom, 0, "550 no", "QUIT\n"},
        {"a stalled body times out, nothing follows", "s", big.c_str(),
         {SmtpScript(SmtpTurns(false), 4, {Send("354 go\r\n"), Hold()})}, 1, Step::Body, -ETIMEDOUT, "", "xxxxxxxxxx"},
        {"a line break in a field sends nothing", "s\r\nRCPT TO: <c@z>", "m", {}, 1, Step::Body, -EINVAL, "", ""},
    };
    for (const auto& row : rows) {
        ScriptedServer server(row.scripts);
        SmtpClient client(server.Addr());
        client.Timeout(row.timeout);
        EXPECT_FALSE(client.Mail(m_hdr, "b@y", row.subject, row.body)) << row.label;
        EXPECT_EQ(std::make_tuple(client.Stage(), client.LastErrno(), client.LastReply()),
                  std::make_tuple(row.stage, row.error, std::string(row.reply))) << row.label;
        server.Release();
        EXPECT_EQ(server.Accepted(), static_cast<int>(row.scripts.size())) << row.label;
        const bool closed = !row.scripts.empty() && server.WaitClosed(1, ScaledMs(10000));
        const std::string sent = closed ? server.Received(0) : "", end = row.sentEnd;
        EXPECT_EQ(sent.substr(sent.size() - std::min(sent.size(), end.size())), end) << row.label;
    }
}

// MAIL FROM's reply comes late, so the client waits for it; the reply before ends in a bare LF, so no
// byte of it is left to read then. Without Timeout() only the send restarts the link-dead clock.
TEST_F(SmtpClientTest, SendingRestartsTheReceiveClock)
{
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

}  // namespace
