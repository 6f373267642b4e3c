#include "agent/linux/ipsec/Connection.h"

#include <algorithm>
#include <ranges>

#include "agent/linux/ipsec/IpsecTrace.h"

namespace Agent::Linux {

Connection::Connection(const Ipsec::ConnectionKey& key, uint32_t reqid, Loom::Instant now)
    : key_(key), reqid_(reqid), changed_(now), single_(now), singleChildren_(now), random_(reqid) {
    due_ = now + headStart();
}

Loom::Duration Connection::headStart() const {
    return key_.srcAddr > key_.dstAddr ? passiveDelay : Loom::Duration{};
}

bool Connection::want(Settings settings, Loom::Duration dpdTimeout, Loom::Instant now) {
    dpdTimeout_ = dpdTimeout;
    if (settings == settings_) return false;
    const bool replaces = !settings_.name.empty();
    settings_ = std::move(settings);
    loaded_.reset();
    observed_ = false;
    wanted_ = now;
    failures_ = 0;
    hint_.clear();
    due_ = now + headStart();
    become(ConnectionState::down, now);
    return replaces;
}

bool Connection::refuse(const std::string& reason, Loom::Instant now) {
    const bool replaces = !settings_.name.empty();
    settings_ = {};
    loaded_.reset();
    observed_ = false;
    wanted_ = now;
    fail(reason, now);
    return replaces;
}

void Connection::unloaded(const std::string& reason, Loom::Instant now) {
    loaded_.reset();
    fail(reason, now);
}

void Connection::charonLost(const std::string& reason, Loom::Instant now) {
    loaded_.reset();
    observed_ = false;
    sas_.clear();
    waits_.clear();
    failures_ = 0;
    error_ = "charon is not available: " + reason;
    become(ConnectionState::failed, now);
    due_ = now + headStart();
}

void Connection::become(ConnectionState state, Loom::Instant now) {
    if (state_ == state) return;
    DUOLOG(ipsecTrace, 6, "IPsec from ", key_.srcAddr, " to ", key_.dstAddr, " is ", state);
    state_ = state;
    changed_ = now;
    since_ = std::chrono::system_clock::now();
}

void Connection::fail(const std::string& reason, Loom::Instant now) {
    hint_ = reason;
    fail(now);
}

void Connection::fail(Loom::Instant now) {
    std::string reason = std::exchange(hint_, {});
    if (reason.empty()) reason = "charon has given up";
    reason += natText(reason);
    if (reason != error_)
        DUOLOG(ipsecTrace, 4, "IPsec from ", key_.srcAddr, " to ", key_.dstAddr, ": ", reason);
    error_ = std::move(reason);
    become(ConnectionState::failed, now);
    const Loom::Duration delay =
        std::min<Loom::Duration>(lastRetry, firstRetry * (1 << std::min(failures_++, 6U)));
    due_ = now + headStart() + delay * std::uniform_int_distribution(75, 125)(random_) / 100;
}

// Charon cannot carry packets through a NAT that it encrypts itself: the selectors of the two sides
// differ then. The kernel can.
std::string Connection::natText(const std::string& reason) const {
    if (natHere_ || std::ranges::any_of(sas_, &IkeSa::natHere))
        return "; this side is behind a NAT";
    const bool natThere = std::ranges::any_of(sas_, &IkeSa::natThere);
    return natThere && reason.ends_with("the traffic selectors") ? "; the peer is behind a NAT"
                                                                 : "";
}

bool Connection::isStale(const IkeSa& sa) const {
    return std::ranges::any_of(sa.children, [this](const ChildSa& child) {
        return child.name.starts_with(childPrefix) && child.name != settings_.child;
    });
}

bool Connection::isCarriedBy(const IkeSa& sa) const {
    return sa.established() && std::ranges::any_of(sa.children, [this](const ChildSa& child) {
               return child.name == settings_.child && child.carries();
           });
}

bool Connection::isSilent(const IkeSa& sa, Loom::Instant now) {
    if (!sa.waits && !sa.connecting()) {
        waits_.erase(sa.id);
        return false;
    }
    const Loom::Instant since = waits_.try_emplace(sa.id, now).first->second;
    if (now - since < (sa.connecting() ? connectTime : dpdTimeout_)) return false;
    hint(sa.answered ? "the peer no longer answers" : "the peer does not answer");
    return true;
}

// The ids of its CHILD_SAs that are not being rekeyed.
std::vector<uint32_t> Connection::installed(const IkeSa& sa) const {
    std::vector<uint32_t> ids;
    for (const ChildSa& child : sa.children)
        if (child.name == settings_.child && child.state == "INSTALLED") ids.push_back(child.id);
    return ids;
}

// Both sides keep the same IKE_SA of several, and the initiator of another one terminates it. If
// its DELETE is lost, charon on this side does not notice: it takes packets of one association for
// a sign of life of all that have the same policy. What is received tells then which of them the
// peer still has. The DELETE of a CHILD_SA is retransmitted until the peer answers, so that the
// initiator of its IKE_SA can choose alone.
void Connection::endDuplicates(Ended& ended, std::vector<const IkeSa*> carriers,
                               const std::vector<IkeSa>& before, Loom::Instant now) {
    if (carriers.size() < 2) single_ = now;
    const bool lost = now - single_ >= lostTime, late = now - single_ >= pairTime;
    const auto receives = [&before](const IkeSa* sa) {
        const auto at = std::ranges::find(before, sa->id, &IkeSa::id);
        return at != before.end() && at->bytesIn() != sa->bytesIn();
    };
    std::ranges::sort(carriers, {}, &IkeSa::spi);
    if (lost) std::ranges::stable_partition(carriers, receives);
    for (const IkeSa* sa : carriers | std::views::drop(1))
        if (lost || (late && sa->initiator)) ended.ikeSas.push_back(sa->id);

    std::vector<uint32_t> children;
    for (const IkeSa* sa : carriers)
        if (sa->initiator)
            std::ranges::copy(installed(*sa) | std::views::drop(1), std::back_inserter(children));
    if (children.empty()) singleChildren_ = now;
    if (now - singleChildren_ >= pairTime) ended.childSas = std::move(children);
}

Connection::Ended Connection::observe(std::vector<IkeSa> sas, Loom::Instant asked,
                                      Loom::Instant now) {
    if (asked < wanted_) return {};
    observed_ = true;
    const std::vector<IkeSa> before = std::exchange(sas_, std::move(sas));
    listed_ = std::chrono::system_clock::now();
    std::erase_if(waits_, [this](const auto& each) {
        return std::ranges::find(sas_, each.first, &IkeSa::id) == sas_.end();
    });
    Ended ended;
    bool connecting = false;
    std::vector<const IkeSa*> carriers;
    for (const IkeSa& sa : sas_) {
        if (!sa.connecting() && !sa.established()) continue;  // it is being deleted
        if (isStale(sa) || isSilent(sa, now)) {
            ended.ikeSas.push_back(sa.id);
            continue;
        }
        if (isCarriedBy(sa)) carriers.push_back(&sa);
        connecting |=
            sa.connecting() ? sa.initiator || now - waits_[sa.id] < passiveConnectTime : sa.waits;
    }
    endDuplicates(ended, carriers, before, now);
    const bool doubted = std::exchange(doubtful_, false);
    if (!carriers.empty()) {
        failures_ = 0;
        hint_.clear();
        become(ConnectionState::established, now);
    } else if (established()) {
        if (asked < changed_) return ended;
        doubtful_ = !doubted;
        if (doubtful_) return ended;
        failures_ = 0;
        fail(now);
    } else if (connecting) {
        become(ConnectionState::connecting, now);
    } else if (state_ == ConnectionState::connecting && asked >= initiated_ + graceTime) {
        fail(now);
    }
    return ended;
}

void Connection::observeUp(const IkeSa& sa, Loom::Instant now) {
    if (!isCarriedBy(sa)) return;
    failures_ = 0;
    hint_.clear();
    become(ConnectionState::established, now);
}

Loom::Instant Connection::due() const {
    const bool idle = state_ == ConnectionState::down || state_ == ConnectionState::failed;
    return loaded_ && observed_ && idle ? due_ : Loom::Instant::max();
}

void Connection::initiated(Loom::Instant now) {
    initiated_ = now;
    hint_.clear();
    natHere_ = false;
    become(ConnectionState::connecting, now);
}

}  // namespace Agent::Linux
