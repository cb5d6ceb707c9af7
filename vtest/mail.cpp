// vtest mail: one test mail through an SMTP server.
#include <netdb.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "SmtpClient.h"
#include "TimeSpan.h"
#include "commands.h"
#include "exit_status.h"
#include "regular_file.h"
#include "server_option.h"
#include "timeout_option.h"

namespace {

using Step = SmtpClient::Step;

const unsigned short kSmtpPort = 25;
const int kDefaultTimeoutSeconds = 30;
// RFC 5322's line limit, applied to each value on the command line.
const size_t kMaxFieldBytes = 998;
const size_t kMaxMessageBytes = 64 << 20;
const size_t kMaxPasswordFileBytes = 64 << 10;
const char* const kFieldNames[] = {"from", "recipient", "subject"};

struct MailArgs {
    const char* user = nullptr;
    std::string password;
    bool passwordGiven = false;
    const char* passwordFile = nullptr;
    bool debug = false;
    bool crlf = false;
    int timeout = kDefaultTimeoutSeconds;
    // server, from, recipient, subject, file
    std::vector<const char*> words;
};

// What getaddrinfo is asked for.
struct Server {
    std::string host;
    unsigned short port;
    bool ipv6;
};

bool starts_with(const char* text, const char* prefix) { return strncmp(text, prefix, strlen(prefix)) == 0; }

bool is_stdin(const char* path) { return strcmp(path, "-") == 0 || strcmp(path, "--") == 0; }

// The option at argv[i], taken into args: empty, or why it is refused.
std::string take_option(char* arg, MailArgs& args)
{
    if (strcmp(arg, "--debug") == 0) {
        args.debug = true;
    } else if (strcmp(arg, "--crlf") == 0) {
        args.crlf = true;
    } else if (starts_with(arg, "--user=")) {
        args.user = arg + 7;
        if (!*args.user) return "empty --user";
    } else if (starts_with(arg, "--password=")) {
        args.password = arg + 11;
        args.passwordGiven = true;
        // The arguments are public (ps): the password leaves them once read.
        memset(arg + 11, 0, args.password.size());
    } else if (starts_with(arg, "--password-file=")) {
        args.passwordFile = arg + 16;
    } else if (starts_with(arg, "--timeout=")) {
        if (!parse_timeout_seconds(arg + 10, args.timeout))
            return std::string("invalid --timeout '") + (arg + 10) + "' (whole seconds, 1 to 3600)";
    } else {
        return std::string("unknown option '") + arg + "'";
    }
    return "";
}

// Options stand anywhere after the command word; "-" and "--" are words.
std::string parse_args(int argc, char** argv, MailArgs& args)
{
    for (int i = 2; i < argc; i++) {
        char* arg = argv[i];
        if (arg[0] != '-' || arg[1] != '-' || arg[2] == '\0') {
            args.words.push_back(arg);
            continue;
        }
        std::string error = take_option(arg, args);
        if (!error.empty()) return error;
    }
    if (args.words.size() != 5)
        return "expected <smtpServer> <from> <recipient> <subject> <file>, got " + std::to_string(args.words.size()) +
               " word(s)";
    if ((args.passwordGiven || args.passwordFile) && !args.user) return "a password needs --user";
    if (args.passwordGiven && args.passwordFile) return "--password and --password-file exclude each other";
    if (args.passwordFile && is_stdin(args.passwordFile) && is_stdin(args.words[4]))
        return "the password file and the message cannot both be standard input";
    for (int i = 0; i < 3; i++) {
        const char* value = args.words[1 + i];
        // A line break would start another command or header line.
        if (strpbrk(value, "\r\n")) return std::string(kFieldNames[i]) + " contains CR or LF";
        if (strlen(value) > kMaxFieldBytes) return std::string(kFieldNames[i]) + " is longer than 998 bytes";
    }
    return "";
}

// The server's addresses in the resolver's order, a name's IPv4 and IPv6
// ones alike; empty, with the reason in `error`, when there are none.
std::vector<SockAddr> resolve(const Server& server, std::string& error)
{
    addrinfo hints = {};
    hints.ai_family = server.ipv6 ? AF_INET6 : AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* list = nullptr;
    int rv = getaddrinfo(server.host.c_str(), std::to_string(server.port).c_str(), &hints, &list);
    std::vector<SockAddr> addrs;
    if (rv != 0) {
        error = "cannot resolve '" + server.host + "': " + (rv == EAI_SYSTEM ? strerror(errno) : gai_strerror(rv));
        return addrs;
    }
    for (addrinfo* ai = list; ai; ai = ai->ai_next) {
        if (ai->ai_family == AF_INET) addrs.emplace_back(*reinterpret_cast<const sockaddr_in*>(ai->ai_addr));
        if (ai->ai_family == AF_INET6) addrs.emplace_back(*reinterpret_cast<const sockaddr_in6*>(ai->ai_addr));
    }
    freeaddrinfo(list);
    if (addrs.empty()) error = "no IPv4 or IPv6 address for '" + server.host + "'";
    return addrs;
}

// The whole file, or standard input for "-" and "--": 0 or a negated errno.
int read_input(const char* path, size_t cap, std::string& out)
{
    if (!is_stdin(path)) return regular_file_read(path, cap, out);
    std::string text;
    char chunk[65536];
    for (;;) {
        ssize_t n = read(STDIN_FILENO, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -errno;
        if (n == 0) break;
        if (static_cast<size_t>(n) > cap - text.size()) return -EFBIG;
        text.append(chunk, static_cast<size_t>(n));
    }
    out.swap(text);
    return 0;
}

// Reads `path` whole; false after printing why it cannot be used. The
// client takes C strings: a NUL byte would cut the text short.
bool read_text(const char* what, const char* path, size_t cap, std::string& out)
{
    int rv = read_input(path, cap, out);
    if (rv == 0 && out.find('\0') == std::string::npos) return true;
    const char* reason = rv == 0 ? "it holds a NUL byte" : rv == -EINVAL ? "not a regular file" : strerror(-rv);
    fprintf(stderr, "Error: cannot use the %s '%s': %s\n", what, path, reason);
    return false;
}

// The first line of the password file, without its LF or CR LF.
bool read_password(MailArgs& args)
{
    std::string text;
    if (!read_text("password file", args.passwordFile, kMaxPasswordFileBytes, text)) return false;
    args.password = text.substr(0, text.find('\n'));
    if (!args.password.empty() && args.password.back() == '\r') args.password.pop_back();
    args.passwordGiven = true;
    return true;
}

// RFC 5322 date: English names, numeric zone ("Tue, 05 Mar 2024 14:03:07 +0100").
std::string mail_date(time_t now)
{
    static const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    struct tm tm;
    localtime_r(&now, &tm);
    long minutes = tm.tm_gmtoff / 60;
    char sign = minutes < 0 ? '-' : '+';
    if (minutes < 0) minutes = -minutes;
    char text[64];
    snprintf(text, sizeof text, "%s, %02d %s %d %02d:%02d:%02d %c%02ld%02ld", kDays[tm.tm_wday], tm.tm_mday,
             kMonths[tm.tm_mon], tm.tm_year + 1900, tm.tm_hour, tm.tm_min, tm.tm_sec, sign, minutes / 60,
             minutes % 60);
    return text;
}

// "<seconds.pid.random@host>": unique without any state kept.
std::string message_id(time_t now)
{
    unsigned int random = 0;
    if (getrandom(&random, sizeof random, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof random)) {
        long seconds;
        long long ns;
        TimeSpan::NowNs(seconds, ns);
        random = static_cast<unsigned int>(ns);
    }
    char host[256] = "";
    if (gethostname(host, sizeof host - 1) != 0 || !host[0]) strcpy(host, "localhost");
    char id[400];
    snprintf(id, sizeof id, "<%lld.%d.%08x@%s>", static_cast<long long>(now), static_cast<int>(getpid()), random,
             host);
    return id;
}

// The header lines after "Subject:". A body with 8-bit bytes is declared
// UTF-8 and sent as it is (no BODY=8BITMIME, whatever the server offers).
std::string extra_headers(const std::string& message)
{
    time_t now = time(nullptr);
    std::string extra = "Date: " + mail_date(now) + "\nMessage-Id: " + message_id(now) + "\n";
    if (std::any_of(message.begin(), message.end(), [](char c) { return static_cast<unsigned char>(c) >= 0x80; }))
        extra += "MIME-Version: 1.0\nContent-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: 8bit\n";
    return extra;
}

const char* step_name(Step step)
{
    static const char* const kNames[] = {"connect", "greeting", "EHLO",    "AUTH LOGIN",  "MAIL FROM",
                                         "RCPT TO", "DATA",     "message", "end of data", "QUIT"};
    return kNames[static_cast<int>(step)];
}

// The server's last reply line, or the system's reason.
std::string failure_text(const SmtpClient& client, int timeout)
{
    const std::string& reply = client.LastReply();
    switch (client.LastErrno()) {
    case 0:
        return reply;
    case -EBADMSG:
        return reply.empty() ? "malformed reply" : "malformed reply: " + reply;
    case -ENOTSUP:
        return "AUTH LOGIN not offered by the server";
    case -E2BIG:
        return "too long to send as one line";
    case -ETIMEDOUT:
        return "timed out after " + std::to_string(timeout) + " s";
    case -EPIPE:
    case -ECONNRESET:
        return "connection closed";
    default:
        return strerror(-client.LastErrno());
    }
}

int failure_status(Step step, int err)
{
    if (step == Step::Connect) return kExitCannotConnect;
    if (err == -ETIMEDOUT) return kExitTimeout;
    if (err != 0 && err != -EBADMSG && err != -ENOTSUP && err != -E2BIG) return kExitLost;
    switch (step) {
    case Step::Greeting:
    case Step::Ehlo:
        return kExitGreetingRefused;
    case Step::Auth:
        return kExitLoginFailed;
    case Step::MailFrom:
    case Step::RcptTo:
        return kExitAddressRefused;
    default:
        return kExitMessageRefused;
    }
}

int report(const SmtpClient& client, bool sent, int timeout)
{
    if (!client.DataReply().empty()) {
        printf("Mail accepted: %s\n", client.DataReply().c_str());
        if (!sent) fprintf(stderr, "Warning: QUIT: %s\n", failure_text(client, timeout).c_str());
        return kExitOk;
    }
    fprintf(stderr, "Error: %s: %s\n", step_name(client.Stage()), failure_text(client, timeout).c_str());
    return failure_status(client.Stage(), client.LastErrno());
}

struct Mailing {
    SmtpClient::Header hdr;
    const char* to;
    const char* subject;
    const char* message;
};

// Tries the addresses in turn until one connects, all within the time-out.
int send_mail(const std::vector<SockAddr>& addrs, const MailArgs& args, const Mailing& mail)
{
    TimeSpan started;
    for (size_t i = 0;; i++) {
        SmtpClient client(addrs[i]);
        client.Debug(args.debug);
        client.Crlf(args.crlf);
        client.Timeout(args.timeout, std::max(args.timeout * 1000 - started.DurationMs(), 1));
        bool sent = client.Mail(mail.hdr, mail.to, mail.subject, mail.message);
        bool tryNext = !sent && client.Stage() == Step::Connect && i + 1 < addrs.size() &&
                       started.DurationMs() < args.timeout * 1000;
        if (!tryNext) return report(client, sent, args.timeout);
    }
}

}  // namespace

int main_mail(int argc, char** argv)
{
    MailArgs args;
    Server server;
    std::string error = parse_args(argc, argv, args);
    if (error.empty()) (void)split_server_address(args.words[0], kSmtpPort, server.host, server.port, server.ipv6, error);
    if (!error.empty()) {
        fprintf(stderr, "Error: %s\n", error.c_str());
        return usage(argv[0], "mail");
    }
    if (args.user && !args.passwordGiven && !args.passwordFile)
        fprintf(stderr, "Warning: --user without a password: no login.\n");
    std::string message;
    if ((args.passwordFile && !read_password(args)) || !read_text("message", args.words[4], kMaxMessageBytes, message))
        return kExitRefused;
    std::vector<SockAddr> addrs = resolve(server, error);
    if (addrs.empty()) {
        fprintf(stderr, "Error: connect: %s\n", error.c_str());
        return kExitCannotConnect;
    }
    const std::string extra = extra_headers(message);
    Mailing mail = {{args.words[1], args.user, args.passwordGiven ? args.password.c_str() : nullptr, extra.c_str()},
                    args.words[2], args.words[3], message.c_str()};
    return send_mail(addrs, args, mail);
}
