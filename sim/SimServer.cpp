#include "SimServer.h"

#include <sys/select.h>
#include <unistd.h>

#include <cerrno>

#include "SockAddr.h"
#include "Socket.h"
#include "daemon.h"
#include "debugger.h"

namespace {

SockAddr listen_address(const SimListen& listen)
{
    if (listen.family == AF_UNIX) return SockAddr(listen.un);
    if (listen.family == AF_INET6) return SockAddr(listen.in6);
    return SockAddr(listen.in4);
}

}  // namespace

SimServer::SimServer(ShellShared& shared, const SimListen& listen, long maxClients)
    : m_shared(shared), m_listen(listen), m_maxClients(maxClients)
{
}

SimServer::~SimServer()
{
    for (auto& client : m_clients) client->Stop();
    m_clients.clear();
}

bool SimServer::Start(std::string& bound)
{
    m_listener = std::make_unique<Socket>(listen_address(m_listen));
    if (!m_listener->Create() || !m_listener->Bind() || !m_listener->Listen(64)) return false;
    SockAddr actual;
    char text[120];
    if (actual.GetSockname(m_listener->Fd()) != 0) actual = listen_address(m_listen);
    bound = actual.Str(text, actual.GetAF() != AF_UNIX);
    return true;
}

void SimServer::Run()
{
    while (!daemon_should_exit) {
        fd_set set;
        FD_ZERO(&set);
        int maxFd = -1;
        if (!m_listener->AcceptListAdd(set, maxFd)) break;
        timeval wait = {0, 100000};
        int ready = select(maxFd + 1, &set, nullptr, nullptr, &wait);
        if (ready < 0 && errno != EINTR) {
            syslog_safe(3, "<SimServer> select failed (%d).", errno);
            break;
        }
        if (ready > 0) AcceptReady(set);
        ReapFinished();
    }
    for (auto& client : m_clients) client->Stop();
    m_clients.clear();
}

void SimServer::AcceptReady(fd_set& set)
{
    Sock* link = m_listener->AcceptListCheck(set);
    if (!link) {
        // Logged by the library; a pause keeps a lasting failure (no
        // descriptors left) from turning into a busy loop.
        usleep(100000);
        return;
    }
    if (static_cast<long>(m_clients.size()) >= m_maxClients) {
        syslog_safe(4, "<SimServer> %s refused: %ld clients already served.", link->Addr(), m_maxClients);
        delete link;
        return;
    }
    auto client = std::make_unique<ClientConnection>(m_shared, link);
    if (client->Start()) m_clients.push_back(std::move(client));
}

void SimServer::ReapFinished()
{
    m_clients.remove_if([](const std::unique_ptr<ClientConnection>& client) { return client->Finished(); });
}
