// The simulated IPsec service: one connection for each request in PathConfigDir, with the peer at
// its destination address. Connections are established after a handshake, are rekeyed, and fail
// according to the world's description of the peer. Owned by the SimRouter; used on the event
// thread.
//
// Invariant: each request has a status as long as it exists. The status has an encapsulation id
// while the connection is established or rekeying; rekeying keeps the id unless the peer changes
// it, and a connection that is established again gets a new one.
#pragma once

#include "agent/router/ConnectionState.h"
#include "agent/sim/World.h"
#include "nav/root/NavInputs.h"

namespace Agent::Sim {

class IpsecPeers {
  public:
    // REQUIRES: the world outlives this.
    IpsecPeers(const Nav::NavInputs& inputs, const World& world);

    // Called after the world has changed.
    void review();

  private:
    class VelPathConfig final : public Vel::Object {
      public:
        VelPathConfig(IpsecPeers& service, Ipsec::Path::PathConfig& request);
        void handleInitialized() { connect(); }
        void doCleanup();
        void review();

      private:
        // The peer at the destination address; null if the world has none.
        const World::Peer* peer() const;
        // Whether a route reaches the peer through the connection's interface.
        bool reachable() const;
        bool answers() const;
        ConnectionState state() const;
        void stateIs(ConnectionState state);

        void connect();
        void fail();
        void establish();
        void handleTimer();
        void handleKeyAge();
        void watchKeyAge();

        IpsecPeers& service_;
        const Vel::Ptr<Ipsec::Path::PathConfig> request_;
        const Vel::Ptr<Ipsec::Path::PathStatus> status_;
        Loom::Instant keyed_{};  // when the keys in use were negotiated
        Loom::Timer timer_;
    };

    const World& world_;
    const Vel::Ptr<Vel::Scheduler> scheduler_;
    const Vel::Ptr<Ipsec::Path::PathConfigDir> requestDir_;
    const Vel::Ptr<Ipsec::Path::PathStatusDir> statusDir_;
    U32 lastEncapId_ = 0;  // ids count up from 1 and are not reused
    Vel::EntryReactorsOf<VelPathConfig, decltype(Ipsec::Path::PathConfigDir::ipsecPathConfigAttr)>
        connections_;
};

}  // namespace Agent::Sim
