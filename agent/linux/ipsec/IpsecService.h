// The IPsec service of the Linux platform: a connection of charon for each request in
// PathConfigDir, and its state in PathStatusDir.
//
// Charon's list of security associations, read once a second and after events, decides what state
// a connection has. So it does not matter whether charon, or this agent, was restarted in between:
// connections that stand are taken over untouched. A new session with charon gives it all settings.
//
// Owned by the platform; on the event thread, which never waits for charon.
#pragma once

#include <map>
#include <set>

#include "agent/linux/forwarding/Numbers.h"
#include "agent/linux/ipsec/Charon.h"
#include "agent/linux/ipsec/Connection.h"
#include "agent/linux/kernel/Xfrm.h"
#include "nav/root/NavInputs.h"

namespace Agent::Linux {

class IpsecService {
  public:
    static constexpr Loom::Duration listInterval = std::chrono::seconds(1);
    // Delay of a list after an event, because several events come together.
    static constexpr Loom::Duration settleTime = std::chrono::milliseconds(50);
    // How many connections are initiated at once: charon's threads and the peers' limits of
    // half-open connections are shared by all.
    static constexpr size_t maxConnecting = 32;
    // From the start on: connections that an agent before has left, and that nobody has requested
    // until then, are removed.
    static constexpr Loom::Duration adoptionTime = std::chrono::seconds(5);

    // `socket`: charon's.
    IpsecService(EventLoop& loop, const Nav::NavInputs& inputs, IpsecPtr config,
                 const std::string& socket);

    // The profiles may have changed.
    void configured() { ++version_, reconcileLater(); }
    // What is known of each connection, by the text of its key.
    Json report() const;
    // Why a connection is not established; empty if it is, or if no attempt has failed yet.
    std::string errorOf(const Ipsec::ConnectionKey& key) const;
    // Has charon terminate and forget all connections, and waits for that a little.
    void clear();

  private:
    struct VelPathConfig final : Vel::Object {
        VelPathConfig(IpsecService& service, Ipsec::Path::PathConfig& request)
            : service(service), request(request) {}
        void handleInitialized() { service.reconcileLater(); }
        void doCleanup();

        IpsecService& service;
        const Vel::Ptr<Ipsec::Path::PathConfig> request;
        uint32_t settled = 0;  // the version_ that the connection's settings are made of
    };

    void handleUp(const Json& stats);
    void handleDown(const std::string& reason);
    void handleEvent(const std::string& name, const Json& message);
    void handleLog(const Json& message);

    void reconcileLater();
    void reconcile();
    void settle(Connection& connection, const Ipsec::Path::PathConfig& request);
    void load(Connection& connection);
    void loadSecrets(const Settings& settings, const Charon::Answer& handle);
    void handleLoaded(const Json& answer, Loom::Instant asked);
    void list();
    void handleList(Loom::Instant asked);
    void initiateDue();
    void publish(const Connection& connection);

    void removeLeftovers(const std::vector<IkeSa>& sas);
    void find();
    void tidy();
    void forget(const std::string& name);
    void terminate(const char* selector, const std::string& value);
    Connection* connectionOf(const IkeSa& sa);

    const Nav::NavInputs in_;
    const IpsecPtr config_;
    Charon charon_;
    std::optional<EspBy> espBy_;  // known from the first session on
    uint32_t version_ = 1;        // of what settings are made of: the profiles and espBy_
    Numbers numbers_;
    std::map<Ipsec::ConnectionKey, Connection> connections_;
    std::set<std::string> found_;  // the agent's connections that charon had before this session
    // Connections that this session has given to charon, by the name they have there.
    std::map<std::string, Ipsec::ConnectionKey> names_;
    // Of the kernel, when this session began; empty after its first list.
    XfrmObjects left_;
    std::vector<IkeSa> sas_;  // elements of the list that is being read
    bool listing_ = false;    // one is being read
    bool listAgain_ = false;  // another one is required after it
    Loom::Task reconcile_;
    Loom::Timer list_, initiate_, adoption_;
    Vel::EntryReactorsOf<VelPathConfig, decltype(Ipsec::Path::PathConfigDir::ipsecPathConfigAttr)>
        requests_;
};

}  // namespace Agent::Linux
