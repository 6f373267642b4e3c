#include "agent/host/RouterLog.h"

#include <utility>

#include "agent/shell/AgentTrace.h"

namespace Agent {

RouterLog::VelPathStatusEntry::VelPathStatusEntry(PathVrf<RouterLog>& vrf,
                                                  Nav::PathStatusEntry& path)
    : log(vrf.agent),
      place(vrf.status->vrfName(), path.key()),
      programmed(Vel::Subscription::to<&VelPathStatusEntry::changed>(
          path, Nav::PathStatusEntry::programmedAttr, this)) {}

void RouterLog::VelPathStatusEntry::changed() {
    log.changedPaths_.insert(place);
    log.in_.scheduler->post(log.report_);
}

RouterLog::VelIpIntfStatus::VelIpIntfStatus(RouterLog& log, Ip::IpIntfStatus& status)
    : log(log),
      name(status.intfId()),
      address(Vel::Subscription::to<&VelIpIntfStatus::changed>(
          status, Ip::IpIntfStatus::activeAddrWithMaskAttr, this)),
      vrf(Vel::Subscription::to<&VelIpIntfStatus::changed>(status, Ip::IpIntfStatus::vrfNameAttr,
                                                           this)) {}

void RouterLog::VelIpIntfStatus::changed() {
    log.changedInterfaces_.insert(name);
    log.in_.scheduler->post(log.report_);
}

RouterLog::RouterLog(const Nav::NavInputs& inputs, const Platform& platform,
                     std::function<const Nav::NavDb*()> database)
    : in_(inputs),
      platform_(platform),
      database_(std::move(database)),
      report_(Loom::call<&RouterLog::report>(*this)),
      interfaces4_(*this, *in_.ipStatusDir, Ip::Status::ipIntfStatusAttr),
      interfaces6_(*this, *in_.ip6StatusDir, Ip6::Status::ipIntfStatusAttr),
      paths_(*this, *in_.navStatusDir) {
    interfaces4_.initialize();
    interfaces6_.initialize();
}

void RouterLog::report() {
    for (const Netz::IntfId& name : std::exchange(changedInterfaces_, {})) reportInterface(name);
    for (const PathPlace& place : std::exchange(changedPaths_, {})) reportPath(place);
}

// Empty for an interface without an address.
std::string RouterLog::describe(const Netz::IntfId& name) const {
    std::string text;
    for (const Ip::IpIntfStatus* status :
         {in_.ipStatusDir->ipIntfStatus(name), in_.ip6StatusDir->ipIntfStatus(name)}) {
        if (!status || status->activeAddrWithMask() == Netz::IpAddrWithMask{}) continue;
        const std::string each =
            status->activeAddrWithMask().stringValue() + " in VRF " + status->vrfName().str();
        // A link with an IPv6 address alone has it in both directories.
        if (each != text) text += (text.empty() ? "" : ", ") + each;
    }
    return text;
}

void RouterLog::reportInterface(const Netz::IntfId& name) {
    const std::string before = std::exchange(interfaces_[name], describe(name));
    const std::string& now = interfaces_[name];
    if (now != before && !now.empty())
        DUOLOG(agentTrace, 5, "interface ", name, " has address ", now);
    else if (now != before && platform_.linkUp(name) == false)
        DUOLOG(agentTrace, 5, "interface ", name, " is down");
    else if (now != before)
        DUOLOG(agentTrace, 5, "interface ", name, " has no address any more");
    if (now.empty()) interfaces_.erase(name);
}

const Nav::PathStatusEntry* RouterLog::statusOf(const PathPlace& place) const {
    const Nav::PathStatusDir* dir = in_.navStatusDir->navPathStatusDir();
    const Nav::PathStatus* vrf = dir ? dir->pathStatus(place.first) : nullptr;
    return vrf ? vrf->pathStatusEntry(place.second) : nullptr;
}

void RouterLog::reportPath(const PathPlace& place) {
    const auto known = up_.find(place);
    const Nav::PathStatusEntry* status = statusOf(place);
    const bool isUp = status && status->programmed();
    if (isUp == (known != up_.end())) return;
    if (!isUp) {
        const PathIdentity path = up_.extract(known).mapped();
        DUOLOG(agentTrace, 5, "path ", LongText{path.text()},
               " is down: ", LongText{reasonDown(in_, path, platform_.linkUp(path.interface))});
        return;
    }
    const Nav::NavDb* database = database_();
    const Nav::PathKeyInfo* info = database ? database->pathKeyInfo(place.second) : nullptr;
    const Shard::Fib::Via& via = status->pathInfo().via;
    const PathIdentity path{place.second, place.first,
                            info ? info->siteGroupKey() : Nav::SiteGroupKey{}, via.intfId,
                            status->pathInfo().pathIndex};
    up_[place] = path;
    DUOLOG(agentTrace, 5, "path ", LongText{path.text()}, " is up by ", via.hop, " on ",
           via.intfId);
}

}  // namespace Agent
