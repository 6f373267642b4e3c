#include "agent/linux/ipsec/IpsecService.h"

#include <algorithm>

#include "agent/linux/ipsec/IpsecTrace.h"
#include "agent/shell/Events.h"
#include "platform/netz/Hash.h"

namespace Agent::Linux {

namespace {

using Ipsec::ConnectionKey;

uint32_t reqidOf(Numbers& numbers, const ConnectionKey& key) {
    uint64_t mixed = Netz::hashMix(key.srcAddr.mix(), key.dstAddr.mix());
    return numbers.of(Netz::hashMix(mixed, Netz::hashBytes(key.vrfName.str())));
}

bool encryptsItself(const Json& stats) {
    const auto plugins = stats.find("plugins");
    return plugins != stats.end() && plugins->is_array() &&
           std::ranges::find(*plugins, Json("kernel-libipsec")) != plugins->end();
}

// Whether an agent has made its settings.
bool isAgents(const IkeSa& sa) {
    return std::ranges::any_of(
        sa.children, [](const ChildSa& child) { return child.name.starts_with(childPrefix); });
}

const char* stateText(ConnectionState state) {
    static constexpr const char* names[] = {"down", "connecting", "rekeying", "established",
                                            "failed"};
    return names[static_cast<size_t>(state)];
}

}  // namespace

void IpsecService::VelPathConfig::doCleanup() {
    service.in_.ipsecPathStatusDir->ipsecPathStatusDel(request->key());
    service.reconcileLater();
}

IpsecService::IpsecService(EventLoop& loop, const Nav::NavInputs& inputs, IpsecPtr config,
                           const std::string& socket)
    : in_(inputs),
      config_(std::move(config)),
      charon_(
          loop, *inputs.scheduler, socket,
          {[this](const Json& stats) { handleUp(stats); },
           [this](const std::string& reason) { handleDown(reason); },
           [this](const std::string& name, const Json& message) { handleEvent(name, message); }}),
      reconcile_(Loom::call<&IpsecService::reconcile>(*this)),
      list_(*inputs.scheduler, Loom::call<&IpsecService::list>(*this)),
      initiate_(*inputs.scheduler, Loom::call<&IpsecService::initiateDue>(*this)),
      adoption_(*inputs.scheduler, Loom::call<&IpsecService::tidy>(*this)),
      requests_(*this, *in_.ipsecPathConfigDir, Ipsec::Path::PathConfigDir::ipsecPathConfigAttr) {
    adoption_.armIn(adoptionTime);
    requests_.initialize();
}

void IpsecService::handleUp(const Json& stats) {
    espBy_ = encryptsItself(stats) ? EspBy::charon : EspBy::kernel;
    DUOLOG(ipsecTrace, 5, "Charon is available; packets are encrypted by ",
           *espBy_ == EspBy::kernel ? "the kernel" : "charon itself");
    listing_ = listAgain_ = false;
    names_.clear();
    ++version_;
    left_ = {};
    if (*espBy_ == EspBy::kernel) left_ = Xfrm().read(Numbers::first, Numbers::count);
    find();
    reconcile();
    list();
}

void IpsecService::handleDown(const std::string& reason) {
    DUOLOG(ipsecTrace, 4, "Charon is not available: ", reason);
    list_.disarm();
    initiate_.disarm();
    const Loom::Instant now = in_.scheduler->now();
    for (auto& [key, connection] : connections_) {
        connection.charonLost(reason, now);
        publish(connection);
    }
}

void IpsecService::reconcileLater() {
    in_.scheduler->post(reconcile_);
}

// Names are taken away before they are given: that of a path that has gone may be another's now.
void IpsecService::reconcile() {
    std::erase_if(connections_, [this](const auto& each) { return !requests_(each.first); });
    std::set<std::string> wanted;
    for (const Ipsec::Path::PathConfig& request : in_.ipsecPathConfigDir->ipsecPathConfig()) {
        const ConnectionKey& key = request.key();
        auto at = connections_.find(key);
        if (at == connections_.end())
            at = connections_.try_emplace(key, key, reqidOf(numbers_, key), in_.scheduler->now())
                     .first;
        VelPathConfig& reactor = *requests_(key);
        if (espBy_ && std::exchange(reactor.settled, version_) != version_)
            settle(at->second, request);
        publish(at->second);
        wanted.insert(at->second.settings().name);
    }
    std::erase_if(names_, [&](const auto& given) {
        if (wanted.contains(given.first)) return false;
        forget(given.first);
        return true;
    });
    if (!charon_.up()) return;
    for (auto& [key, connection] : connections_)
        if (connection.unloaded()) load(connection), list_.armIn({});
}

void IpsecService::settle(Connection& connection, const Ipsec::Path::PathConfig& request) {
    const std::string before = connection.settings().name;
    bool changed = false;
    const IpsecProfileConfig* profile = config_->profile(request.profile());
    if (!profile) {
        changed = connection.refuse("IPsec profile \"" + request.profile() + "\" is not configured",
                                    in_.scheduler->now());
    } else {
        try {
            changed =
                connection.want(settingsOf(request, *profile, connection.reqid(), *espBy_),
                                std::chrono::seconds(profile->dpdTimeout()), in_.scheduler->now());
        } catch (const JsonError& error) {
            changed = connection.refuse("a file of IPsec profile \"" + request.profile() +
                                            "\" cannot be read: " + error.what(),
                                        in_.scheduler->now());
        }
    }
    if (!changed || !charon_.up()) return;
    terminate("ike", before);
    for (const IkeSa& sa : connection.sas()) terminate("ike-id", std::to_string(sa.id));
}

void IpsecService::load(Connection& connection) {
    connection.loaded(in_.scheduler->now());
    const Settings& settings = connection.settings();
    names_.insert_or_assign(settings.name, connection.key());
    const auto handle = [this, key = connection.key(), child = settings.child](const Json& answer) {
        const auto at = connections_.find(key);
        if (Vici::text(answer, "success") == "yes" || at == connections_.end() ||
            at->second.settings().child != child)
            return;
        at->second.unloaded("charon refuses the settings: " + Vici::text(answer, "errmsg"),
                            in_.scheduler->now());
        publish(at->second);
    };
    try {
        loadSecrets(settings, handle);
        charon_.request("load-conn", settings.connection, handle);
    } catch (const Vici::Error& error) {
        handle({{"errmsg", error.what()}});
    }
}

void IpsecService::loadSecrets(const Settings& settings, const Charon::Answer& handle) {
    if (!settings.shared.is_null()) charon_.request("load-shared", settings.shared, handle);
    if (!settings.key.is_null()) charon_.request("load-key", settings.key, handle);
}

// swanctl --load-all unloads what its files do not have. Strongswan's unit runs it at each start.
void IpsecService::handleLoaded(const Json& answer, Loom::Instant asked) {
    const auto names = answer.find("conns");
    if (names == answer.end() || !names->is_array()) return;
    const std::set<Json> loaded(names->begin(), names->end());
    for (auto& [key, connection] : connections_)
        if (!loaded.contains(connection.settings().name) && connection.missed(asked))
            reconcileLater();
}

void IpsecService::list() {
    list_.armIn(listInterval);
    if (!charon_.up()) return;
    listAgain_ = listing_;
    if (std::exchange(listing_, true)) return;
    sas_.clear();
    const Loom::Instant asked = in_.scheduler->now();
    charon_.request("get-conns", Json::object(),
                    [this, asked](const Json& answer) { handleLoaded(answer, asked); });
    charon_.request(
        "list-sas", Json::object(), [this, asked](const Json&) { handleList(asked); },
        [this](const Json& message) {
            for (IkeSa& sa : sasOf(message)) sas_.push_back(std::move(sa));
        });
}

Connection* IpsecService::connectionOf(const IkeSa& sa) {
    const auto at = connections_.lower_bound({sa.local, sa.remote, {}});
    const bool isIts =
        at != connections_.end() && at->first.srcAddr == sa.local && at->first.dstAddr == sa.remote;
    return isIts ? &at->second : nullptr;
}

void IpsecService::handleList(Loom::Instant asked) {
    listing_ = false;
    if (std::exchange(listAgain_, false)) list_.armIn({});
    removeLeftovers(sas_);
    std::map<const Connection*, std::vector<IkeSa>> by;
    for (IkeSa& sa : std::exchange(sas_, {})) {
        if (const Connection* connection = connectionOf(sa))
            by[connection].push_back(std::move(sa));
        else if (!adoption_.armed() && isAgents(sa))
            terminate("ike-id", std::to_string(sa.id));
    }
    const Loom::Instant now = in_.scheduler->now();
    for (auto& [key, connection] : connections_) {
        const Connection::Ended ended = connection.observe(std::move(by[&connection]), asked, now);
        for (const uint32_t id : ended.ikeSas) terminate("ike-id", std::to_string(id));
        for (const uint32_t id : ended.childSas) terminate("child-id", std::to_string(id));
        publish(connection);
        if (connection.doubtful()) list_.armIn({});
    }
    initiate_.armIn({});
}

// What this session's first list does not name was left by a charon that has been killed. A
// rekeying that was under way when the session began is on the list, since charon lists an IKE_SA
// between its exchanges.
void IpsecService::removeLeftovers(const std::vector<IkeSa>& sas) {
    XfrmObjects left = std::exchange(left_, {});
    std::set<uint32_t> spis, reqids;
    for (const IkeSa& sa : sas)
        for (const ChildSa& child : sa.children)
            spis.insert({child.spiIn, child.spiOut}), reqids.insert(child.reqid);
    std::erase_if(left.states, [&](const XfrmState& each) { return spis.contains(each.spi()); });
    std::erase_if(left.policies,
                  [&](const XfrmPolicy& each) { return reqids.contains(each.reqid); });
    if (left.size() == 0) return;
    DUOLOG(ipsecTrace, 5, "Removing ", left.states.size(), " security associations and ",
           left.policies.size(), " policies that a charon has left in the kernel");
    Xfrm().remove(left);
}

void IpsecService::initiateDue() {
    if (!charon_.up()) return;
    const Loom::Instant now = in_.scheduler->now();
    size_t connecting = 0;
    for (const auto& [key, connection] : connections_)
        connecting += connection.state() == ConnectionState::connecting;
    Loom::Instant next = Loom::Instant::max();
    for (auto& [key, connection] : connections_) {
        if (connection.due() > now) {
            next = std::min(next, connection.due());
            continue;
        }
        if (connecting == maxConnecting) continue;  // this is called again when one has come up
        ++connecting;
        // After a failure, since somebody may have unloaded them.
        if (connection.state() == ConnectionState::failed) loadSecrets(connection.settings(), {});
        connection.initiated(now);
        publish(connection);
        charon_.request("initiate",
                        {{"child", connection.settings().child},
                         {"ike", connection.settings().name},
                         {"timeout", "-1"}},
                        [this, key = key](const Json& answer) {
                            const auto at = connections_.find(key);
                            if (at != connections_.end() && Vici::text(answer, "success") != "yes")
                                at->second.hint("charon: " + Vici::text(answer, "errmsg"));
                        });
    }
    if (next != Loom::Instant::max()) initiate_.armAt(next);
}

void IpsecService::handleEvent(const std::string& name, const Json& message) {
    if (name == "log") return handleLog(message);
    const bool up = Vici::text(message, "up") == "yes";
    if (up && name == "child-updown") {
        for (const IkeSa& sa : sasOf(message))
            if (Connection* connection = connectionOf(sa)) {
                connection->observeUp(sa, in_.scheduler->now());
                publish(*connection);
            }
        initiate_.armIn({});
    }
    if (!up) list_.armIn(settleTime);
}

void IpsecService::handleLog(const Json& message) {
    const std::string line = Vici::text(message, "msg"), reason = reasonIn(line);
    const bool natHere = saysNatHere(line);
    if (reason.empty() && !natHere) return;
    const auto named = names_.find(Vici::text(message, "ikesa-name"));
    if (named == names_.end()) return;
    const auto at = connections_.find(named->second);
    if (at == connections_.end()) return;
    if (natHere) at->second.natFound();
    if (!reason.empty()) at->second.hint(reason);
}

void IpsecService::publish(const Connection& connection) {
    if (!requests_(connection.key())) return;
    const auto fill = [&](Ipsec::Path::PathStatus& status) {
        status.encapIdIs(connection.established() ? connection.reqid() : Ipsec::Path::noEncapId);
        status.connectionStateIs(static_cast<Vel::U32>(connection.state()));
    };
    const Vel::Hold hold;
    fill(in_.ipsecPathStatusDir->ipsecPathStatusIs(connection.key(), fill));
}

void IpsecService::find() {
    found_.clear();
    const auto element = [this](const Json& message) {
        for (const auto& [name, section] : message.items()) {
            const auto children = section.find("children");
            if (children != section.end() && !children->empty() &&
                children->begin().key().starts_with(childPrefix))
                found_.insert(name);
        }
    };
    const auto answer = [this](const Json&) {
        if (!adoption_.armed()) tidy();
    };
    charon_.request("list-conns", Json::object(), answer, element);
}

void IpsecService::tidy() {
    for (const std::string& name : std::exchange(found_, {}))
        if (!names_.contains(name)) forget(name);
}

// Unloaded first, so that the peer cannot establish it again.
void IpsecService::forget(const std::string& name) {
    if (!charon_.up()) return;
    charon_.request("unload-conn", {{"name", name}}, {});
    terminate("ike", name);
    charon_.request("unload-shared", {{"id", name}}, {});
}

void IpsecService::terminate(const char* selector, const std::string& value) {
    charon_.request("terminate", {{selector, value}, {"force", "yes"}, {"timeout", "-1"}}, {});
}

void IpsecService::clear() {
    if (!charon_.up()) return;
    tidy();
    for (const auto& [name, key] : names_) forget(name);
    // Also those that were made when their connection had another name.
    charon_.request("list-sas", Json::object(), {}, [this](const Json& message) {
        for (const IkeSa& sa : sasOf(message))
            if (isAgents(sa)) terminate("ike-id", std::to_string(sa.id));
    });
    charon_.drain();
}

std::string IpsecService::errorOf(const ConnectionKey& key) const {
    const auto at = connections_.find(key);
    return at == connections_.end() || at->second.established() ? "" : at->second.error();
}

Json IpsecService::report() const {
    Json rows = Json::object();
    for (const auto& [key, connection] : connections_) {
        Json& row = rows[Vel::Codec<ConnectionKey>::key(key)];
        row = {{"state", stateText(connection.state())},
               {"since", timeText(connection.since())},
               {"peer", nullptr},
               {"cipher", nullptr},
               {"bytesIn", nullptr},
               {"bytesOut", nullptr},
               {"rekeyAt", nullptr},
               {"error", connection.error().empty() ? Json() : Json(connection.error())}};
        for (const IkeSa& sa : connection.sas())
            for (const ChildSa& child : sa.children) {
                if (child.state != "INSTALLED" || !connection.established()) continue;
                row["peer"] = sa.remoteId;
                row["cipher"] = child.cipher;
                row["bytesIn"] = child.bytesIn;
                row["bytesOut"] = child.bytesOut;
                row["rekeyAt"] =
                    timeText(connection.listed() + std::chrono::seconds(child.rekeyIn));
            }
    }
    return rows;
}

}  // namespace Agent::Linux
