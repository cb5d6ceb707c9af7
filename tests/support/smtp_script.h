// One SMTP dialogue as turns, and the scripted peer's side of it.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "scripted_server.h"

// The client's part of the data turn: the data, read up to this end.
const char kSmtpDataEnd[] = "\r\n.\r\n";

struct SmtpTurn {
    std::string client, server;  // client empty before the greeting
};

// A mail from a@x to b@y, with login as "user" (password "pass" unless another's base64 is given) when
// asked; commands end in `eol`.
inline std::vector<SmtpTurn> SmtpTurns(bool login, const std::string& eol = "\n",
                                       const std::string& password64 = "cGFzcw==")
{
    std::vector<SmtpTurn> turns = {{"", "220 mx ready\r\n"},
                                   {"EHLO brix_smtp_client", "250-mx\r\n250-AUTH PLAIN LOGIN\r\n250 8BITMIME\r\n"}};
    if (login)
        turns.insert(turns.end(), {{"AUTH LOGIN", "334 VXNlcm5hbWU6\r\n"}, {"dXNlcg==", "334 UGFzc3dvcmQ6\r\n"},
                                   {password64, "235 welcome\r\n"}});
    turns.insert(turns.end(), {{"MAIL FROM: <a@x>", "250 ok\r\n"}, {"RCPT TO: <b@y>", "250 ok\r\n"},
                               {"DATA", "354 go\r\n"}, {kSmtpDataEnd, "250 queued as 7\r\n"}, {"QUIT", "221 bye\r\n"}});
    for (SmtpTurn& turn : turns) turn.client += turn.client.empty() || turn.client == kSmtpDataEnd ? "" : eol;
    return turns;
}

// How the peer sends one reply (by default in one piece).
using SmtpReply = std::function<Script(const std::string&)>;

// The peer plays turns [0, upTo), reads turn upTo's client part, then plays `tail`.
inline Script SmtpScript(const std::vector<SmtpTurn>& turns, size_t upTo, Script tail = {},
                         const SmtpReply& reply = nullptr)
{
    Script script;
    for (size_t i = 0; i <= upTo && i < turns.size(); i++) {
        const std::string& client = turns[i].client;
        if (!client.empty()) script.push_back(client == kSmtpDataEnd ? ExpectUntil(client) : Expect(client));
        if (i < upTo) script = Then(script, reply ? reply(turns[i].server) : Script{Send(turns[i].server)});
    }
    return Then(script, tail);
}
