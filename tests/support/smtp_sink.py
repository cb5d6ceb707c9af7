"""The real SMTP server of the mail tests (Debian's aiosmtpd), run by
/usr/bin/python3: listens on 127.0.0.1, prints "port <n>", then one line
"<data in hex> from <sender> to <recipients>" per message it accepts. With an
argument "<user>:<password>" it offers AUTH LOGIN without TLS and accepts
only that login; without one it offers no AUTH. Ends when standard input
closes."""
import asyncio
import logging
import sys

from aiosmtpd.smtp import SMTP, AuthResult, LoginPassword


class Sink:
    async def handle_DATA(self, server, session, envelope):
        print(envelope.original_content.hex(), "from", envelope.mail_from, "to", ",".join(envelope.rcpt_tos), flush=True)
        return "250 OK delivered"


def main():
    logging.disable(logging.CRITICAL)
    login = sys.argv[1].encode() if len(sys.argv) > 1 else None

    def authenticator(server, session, envelope, mechanism, data):
        ok = isinstance(data, LoginPassword) and data.login + b":" + data.password == login
        return AuthResult(success=ok, handled=False)

    loop = asyncio.new_event_loop()
    options = {"auth_require_tls": False, "authenticator": authenticator} if login else {}
    server = loop.run_until_complete(
        loop.create_server(lambda: SMTP(Sink(), hostname="sink.test", loop=loop, **options), "127.0.0.1", 0))
    print("port", server.sockets[0].getsockname()[1], flush=True)
    loop.add_reader(sys.stdin.fileno(), loop.stop)
    loop.run_forever()


main()
