#include "agent/sim/IpsecPeers.h"

#include <algorithm>

#include "agent/sim/SimTrace.h"

namespace Agent::Sim {

IpsecPeers::IpsecPeers(const Nav::NavInputs& inputs, const World& world)
    : world_(world),
      scheduler_(inputs.scheduler.ptr()),
      requestDir_(inputs.ipsecPathConfigDir.ptr()),
      statusDir_(inputs.ipsecPathStatusDir.ptr()),
      connections_(*this, *requestDir_, Ipsec::Path::PathConfigDir::ipsecPathConfigAttr) {
    connections_.initialize();
}

void IpsecPeers::review() {
    for (const auto& connection : connections_.all()) connection.reactor->review();
}

IpsecPeers::VelPathConfig::VelPathConfig(IpsecPeers& service, Ipsec::Path::PathConfig& request)
    : service_(service),
      request_(request),
      status_(service.statusDir_->ipsecPathStatusIs(request.key())),
      timer_(*service.scheduler_, Loom::call<&VelPathConfig::handleTimer>(*this)) {}

void IpsecPeers::VelPathConfig::doCleanup() {
    timer_.disarm();
    service_.statusDir_->ipsecPathStatusDel(request_->key());
}

const World::Peer* IpsecPeers::VelPathConfig::peer() const {
    return service_.world_.peer(request_->key().vrfName, request_->key().dstAddr);
}

bool IpsecPeers::VelPathConfig::reachable() const {
    const auto vias = service_.world_.lookup(request_->key().vrfName, request_->key().dstAddr);
    return peer() && std::ranges::any_of(vias, [this](const World::Via& via) {
               return via.interface == request_->intfId();
           });
}

bool IpsecPeers::VelPathConfig::answers() const {
    return reachable() && peer()->fault == Fault::none;
}

ConnectionState IpsecPeers::VelPathConfig::state() const {
    return static_cast<ConnectionState>(status_->connectionState());
}

void IpsecPeers::VelPathConfig::stateIs(ConnectionState state) {
    DUOLOG(simTrace, 6, "IPsec connection ", request_->connectionName(), " to ",
           request_->key().dstAddr, " is ", state);
    status_->connectionStateIs(static_cast<U32>(state));
}

void IpsecPeers::VelPathConfig::review() {
    if (state() == ConnectionState::established) {
        if (!peer()) return connect();
        if (peer()->fault == Fault::refuses) return fail();
        if (!timer_.armed()) watchKeyAge();
    } else if (!timer_.armed()) {
        connect();
    }
}

// An unreachable peer is tried again when the world changes.
void IpsecPeers::VelPathConfig::connect() {
    stateIs(ConnectionState::connecting);
    status_->encapIdIs(Ipsec::Path::noEncapId);
    timer_.disarm();
    if (reachable()) timer_.armIn(peer()->handshake);
}

void IpsecPeers::VelPathConfig::fail() {
    stateIs(ConnectionState::failed);
    status_->encapIdIs(Ipsec::Path::noEncapId);
    timer_.armIn(peer()->retry);
}

void IpsecPeers::VelPathConfig::establish() {
    keyed_ = service_.scheduler_->now();
    if (status_->encapId() == Ipsec::Path::noEncapId || peer()->rekeyChangesEncapId)
        status_->encapIdIs(++service_.lastEncapId_);
    if (state() != ConnectionState::established) stateIs(ConnectionState::established);
    watchKeyAge();
}

void IpsecPeers::VelPathConfig::handleTimer() {
    switch (state()) {
        case ConnectionState::established:
            return handleKeyAge();
        case ConnectionState::connecting:
            if (answers()) return establish();
            return reachable() ? fail() : connect();
        case ConnectionState::rekeying:
            return answers() ? establish() : connect();
        default:
            return connect();
    }
}

void IpsecPeers::VelPathConfig::handleKeyAge() {
    const World::Peer& peer = *this->peer();
    const Loom::Instant end = keyed_ + peer.lifetime;
    const bool ends = peer.lifetime != Duration{};
    if (ends && service_.scheduler_->now() >= end) return connect();
    if (!answers()) return ends ? timer_.armAt(end) : timer_.armIn(peer.retry);
    if (peer.rekeyGap == Duration{}) return establish();
    stateIs(ConnectionState::rekeying);
    timer_.armIn(peer.rekeyGap);
}

void IpsecPeers::VelPathConfig::watchKeyAge() {
    timer_.disarm();
    const World::Peer& peer = *this->peer();
    if (const Duration age = peer.rekeyInterval != Duration{} ? peer.rekeyInterval : peer.lifetime;
        age != Duration{})
        timer_.armAt(keyed_ + age);
}

}  // namespace Agent::Sim
