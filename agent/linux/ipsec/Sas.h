// What charon says of its security associations, as values.
#pragma once

#include <string>
#include <vector>

#include "agent/base/Json.h"
#include "platform/netz/IpGenAddr.h"

namespace Agent::Linux {

// Carries packets. While it is rekeyed there are two of a name.
struct ChildSa {
    std::string name;
    uint32_t id = 0;  // as long as charon runs
    uint32_t reqid = 0;
    std::string state;  // "INSTALLED", "REKEYING" and others
    std::string cipher;
    uint64_t bytesIn = 0, bytesOut = 0;
    uint64_t rekeyIn = 0;  // s; 0: unknown
    uint32_t spiIn = 0, spiOut = 0;

    // Whether packets are accepted and sent by it.
    bool carries() const {
        return state == "INSTALLED" || state == "REKEYING" || state == "REKEYED" ||
               state == "UPDATING";
    }
};

struct IkeSa {
    std::string name;   // of the connection that it was made by
    uint32_t id = 0;    // of this IKE_SA, as long as charon runs
    std::string state;  // "CONNECTING", "ESTABLISHED" and others
    Netz::IpGenAddr local, remote;
    std::string remoteId;  // as the peer has proved it, once established
    std::string spi;       // the initiator's, which both sides know the IKE_SA by
    bool initiator = false;
    bool answered = false;  // the peer has answered
    bool waits = false;     // for an answer of the peer
    bool natHere = false;   // this side is behind a NAT
    bool natThere = false;  // the peer is, or encapsulates ESP in UDP without one
    std::vector<ChildSa> children;

    bool connecting() const { return state == "CREATED" || state == "CONNECTING"; }
    bool established() const {
        return state == "ESTABLISHED" || state == "REKEYING" || state == "REKEYED";
    }
    uint64_t bytesIn() const {
        uint64_t sum = 0;
        for (const ChildSa& child : children) sum += child.bytesIn;
        return sum;
    }
};

// Those of a message: an element of a list, or an event. What is not as expected is left out.
std::vector<IkeSa> sasOf(const Json& message);

// What a line of charon's log says about the failure of a connection, in words of the operator;
// empty if it says nothing about that.
std::string reasonIn(std::string_view log);
// Whether it says that this side is behind a NAT.
bool saysNatHere(std::string_view log);

}  // namespace Agent::Linux
