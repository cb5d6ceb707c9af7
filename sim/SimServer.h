// The simulator's listening side: accepts clients through the library's
// server calls and gives each its own ClientConnection.
#pragma once

#include <sys/select.h>

#include <list>
#include <memory>
#include <string>

#include "ClientConnection.h"
#include "ShellSession.h"
#include "SimOptions.h"

class Socket;

class SimServer {
public:
    // `maxClients` connections are served at once; more are closed at accept.
    SimServer(ShellShared& shared, const SimListen& listen, long maxClients);
    ~SimServer();
    SimServer(const SimServer&) = delete;
    SimServer& operator=(const SimServer&) = delete;

    // Creates, binds and listens. Returns false (logged) on failure; else
    // true with `bound` set to the address text, with the port the system
    // chose when 0 was asked for.
    bool Start(std::string& bound);
    // Accepts and serves until daemon_should_exit is raised, then stops
    // every client and waits for their threads.
    void Run();

private:
    void AcceptReady(fd_set& set);
    void ReapFinished();

    ShellShared& m_shared;
    SimListen m_listen;
    long m_maxClients;
    std::unique_ptr<Socket> m_listener;
    std::list<std::unique_ptr<ClientConnection>> m_clients;
};
