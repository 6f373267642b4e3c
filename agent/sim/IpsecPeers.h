// The IPsec service: one connection for each that is asked for, with the peer of its destination
// address. Connections come up after a handshake, are rekeyed, and fail as the peer's faults say.
//
// What always holds: a request has a status exactly while it is there. Its encapsulation id is
// set while the connection is established, and kept while it is rekeyed unless the peer wants a new
// one; a connection that came down comes up with another.
#pragma once

#include "agent/sim/World.h"
#include "nav/root/NavInputs.h"

namespace Agent::Sim {

// Of Ipsec::Path::PathStatus.
enum class ConnectionState : U32 { down, connecting, rekeying, established, failed };
VEL_ENUM(ConnectionState, down, connecting, rekeying, established, failed)
static_assert(static_cast<U32>(ConnectionState::established) == Ipsec::Path::established);

class IpsecPeers {
  public:
    // The world outlives this.
    IpsecPeers(const Nav::NavInputs& inputs, const World& world);

    // The world may be another one than before.
    void review();

  private:
    class VelPathConfig final : public Vel::Object {
      public:
        VelPathConfig(IpsecPeers& service, Ipsec::Path::PathConfig& request);
        void handleInitialized() { connect(); }
        void doCleanup();
        void review();

      private:
        // What the world says of the peer; null where nobody is.
        const World::Peer* peer() const;
        // Whether the network gets there by the connection's interface.
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
        Loom::Instant keyed_{};  // when the keys in use were made
        Loom::Timer timer_;
    };

    const World& world_;
    const Vel::Ptr<Vel::Scheduler> scheduler_;
    const Vel::Ptr<Ipsec::Path::PathConfigDir> requestDir_;
    const Vel::Ptr<Ipsec::Path::PathStatusDir> statusDir_;
    U32 lastEncapId_ = 0;
    Vel::EntryReactorsOf<VelPathConfig, decltype(Ipsec::Path::PathConfigDir::ipsecPathConfigAttr)>
        connections_;
};

}  // namespace Agent::Sim
