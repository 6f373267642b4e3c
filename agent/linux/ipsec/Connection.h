// The state of one connection: what is wanted of charon, what charon has, and when to try again. It
// only draws conclusions; the IpsecService acts upon them.
//
// What always holds: it is initiated only when the latest list of charon's security associations
// shows none of it, and was asked for late enough after the last initiation to show that one.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "agent/linux/ipsec/Sas.h"
#include "agent/linux/ipsec/Settings.h"
#include "agent/router/ConnectionState.h"
#include "platform/loom/Clock.h"

namespace Agent::Linux {

class Connection {
  public:
    // How long an IKE_SA may take to come up.
    static constexpr Loom::Duration connectTime = std::chrono::seconds(10);
    // How long this side waits for one that the peer has begun before it initiates one itself: the
    // peer may be unable to go on, because a NAT is on the way.
    static constexpr Loom::Duration passiveConnectTime = std::chrono::seconds(3);
    // After which charon has acted upon an initiation.
    static constexpr Loom::Duration graceTime = std::chrono::seconds(1);
    // Between attempts; the delay doubles from the first to the last, and varies by a quarter.
    static constexpr Loom::Duration firstRetry = std::chrono::seconds(1);
    static constexpr Loom::Duration lastRetry = std::chrono::seconds(60);
    // The side with the higher address waits longer, so that both sides seldom initiate at once.
    static constexpr Loom::Duration passiveDelay = std::chrono::seconds(3);
    // If they did, the two IKE_SAs, or two CHILD_SAs of one, that come of it are kept so long;
    // rekeying takes less.
    static constexpr Loom::Duration pairTime = std::chrono::seconds(5);
    // Of several IKE_SAs that still stand after this time, the peer has only those by which packets
    // come: it has terminated the others, and its DELETE was lost.
    static constexpr Loom::Duration lostTime = 2 * pairTime;

    Connection(const Ipsec::ConnectionKey& key, uint32_t reqid, Loom::Instant now);

    // Settings that charon has to be given; `dpdTimeout` is the profile's. Returns whether what was
    // made by the settings before must end.
    bool want(Settings settings, Loom::Duration dpdTimeout, Loom::Instant now);
    // The same if there are none, for this reason.
    bool refuse(const std::string& reason, Loom::Instant now);
    // Whether charon has yet to be given the settings; that it is; that it refuses them; that it
    // did not have them when it was asked, which is false if it was given them later.
    bool unloaded() const { return !settings_.name.empty() && !loaded_; }
    void loaded(Loom::Instant now) { loaded_ = now; }
    void unloaded(const std::string& reason, Loom::Instant now);
    bool missed(Loom::Instant asked) {
        const bool gone = loaded_ && *loaded_ < asked;
        if (gone) loaded_.reset();
        return gone;
    }
    // Charon is not available, or no longer.
    void charonLost(const std::string& reason, Loom::Instant now);

    // Ids of what is to be terminated.
    struct Ended {
        std::vector<uint32_t> ikeSas, childSas;
    };
    // A complete list of the path's IKE_SAs, which was asked for at `asked`. Returns those made by
    // other settings, those whose peer does not answer, and duplicates.
    Ended observe(std::vector<IkeSa> sas, Loom::Instant asked, Loom::Instant now);
    // The latest list lacks what carries the packets of an established connection; the next one
    // decides. When an IKE_SA is rekeyed its CHILD_SAs move to another one, and a list that charon
    // gives meanwhile may have neither with them.
    bool doubtful() const { return doubtful_; }
    // A CHILD_SA has come up.
    void observeUp(const IkeSa& sa, Loom::Instant now);
    // What charon's log says about the reason of a failure, which is then still to come. The first
    // reason of an attempt counts: after a certificate that is not valid now, charon tries older
    // ones of the same name, whose signature is wrong.
    void hint(const std::string& reason) {
        if (hint_.empty()) hint_ = reason;
    }
    // The present attempt has found that this side is behind a NAT.
    void natFound() { natHere_ = true; }

    // When to initiate it; Instant::max() while that is not required.
    Loom::Instant due() const;
    void initiated(Loom::Instant now);

    const Ipsec::ConnectionKey& key() const { return key_; }
    uint32_t reqid() const { return reqid_; }
    const Settings& settings() const { return settings_; }
    ConnectionState state() const { return state_; }
    bool established() const { return state_ == ConnectionState::established; }
    std::chrono::system_clock::time_point since() const { return since_; }
    // The reason of the last failure; stays when the connection is established again.
    const std::string& error() const { return error_; }
    const std::vector<IkeSa>& sas() const { return sas_; }
    std::chrono::system_clock::time_point listed() const { return listed_; }  // sas()

  private:
    // What this side leaves to the other one before it initiates.
    Loom::Duration headStart() const;
    void become(ConnectionState state, Loom::Instant now);
    void fail(const std::string& reason, Loom::Instant now);
    void fail(Loom::Instant now);
    std::string natText(const std::string& reason) const;
    bool isStale(const IkeSa& sa) const;
    bool isCarriedBy(const IkeSa& sa) const;
    bool isSilent(const IkeSa& sa, Loom::Instant now);
    std::vector<uint32_t> installed(const IkeSa& sa) const;
    void endDuplicates(Ended& ended, std::vector<const IkeSa*> carriers,
                       const std::vector<IkeSa>& before, Loom::Instant now);

    const Ipsec::ConnectionKey key_;
    const uint32_t reqid_;
    Settings settings_;  // without a name: there are none
    Loom::Duration dpdTimeout_{};
    std::optional<Loom::Instant> loaded_;  // when charon was given the settings
    bool observed_ = false;                // a list has been asked for since they are wanted
    bool doubtful_ = false;
    ConnectionState state_ = ConnectionState::down;
    std::chrono::system_clock::time_point since_ = std::chrono::system_clock::now();
    Loom::Instant changed_{};  // when state_ became this, as since_
    Loom::Instant wanted_{};   // when settings_ became these
    Loom::Instant initiated_{}, due_{};
    unsigned failures_ = 0;  // since it was established last
    std::string error_, hint_;
    bool natHere_ = false;
    Loom::Instant single_;          // when there was last at most one IKE_SA that carries packets
    Loom::Instant singleChildren_;  // when no IKE_SA initiated here had two CHILD_SAs last
    std::map<uint32_t, Loom::Instant>
        waits_;  // since when an IKE_SA has waited for its peer, by id
    std::vector<IkeSa> sas_;
    std::chrono::system_clock::time_point listed_{};
    std::minstd_rand random_;
};

}  // namespace Agent::Linux
