// The simulator's discovery side: one UDP socket on port 3543 that answers
// "Hello" for every simulated unit, each from its own address, and obeys
// "SetIPv4" for the units' MACs.
#pragma once

#include <netinet/in.h>

#include <memory>
#include <string>
#include <vector>

#include "DiscoveryUnits.h"
#include "SimOptions.h"
#include "Thread.h"
#include "TimeSpan.h"

class DiscoveryResponder : public Thread {
public:
    // A unit told to move takes its new address `moveDelay` seconds later.
    DiscoveryResponder(std::vector<SimUnit> units, double moveDelay);
    ~DiscoveryResponder() override;

    // Binds 0.0.0.0:port with SO_BROADCAST and IP_PKTINFO. Answers come from
    // each unit's own address through IP_TRANSPARENT (CAP_NET_ADMIN); where
    // that is refused they come from the host's address (logged). False
    // (logged) when the socket cannot be set up.
    bool Open(unsigned short port);

protected:
    // Serves until stopped or daemon_should_exit is raised.
    void* ThreadMain() override;

private:
    struct Move {
        TimeSpan due;  // negative duration until due
        size_t unit;
        in_addr address;
    };

    void ReceiveOne();
    void Handle(const std::string& datagram, const sockaddr_in& from, int ifindex);
    void AnswerHello(const sockaddr_in& from, int ifindex);
    int SendFrom(const SimUnit& unit, const std::string& text, const sockaddr_in& to, int ifindex);
    void Schedule(const std::string& datagram);
    void MoveDue();
    int PollTimeoutMs() const;

    int m_fd = -1;
    bool m_ownAddresses = false;
    std::vector<SimUnit> m_units;
    std::vector<std::string> m_answers;  // each unit's answer, kept ready
    double m_moveDelay;
    std::vector<Move> m_moves;
    std::vector<char> m_buffer;
};

// Starts the responder the options ask for (--discovery-units), leaving
// `responder` null when they ask for none. False (logged) when the units
// file cannot be used or the port cannot be opened.
bool sim_discovery_start(const SimOptions& options, std::unique_ptr<DiscoveryResponder>& responder);
