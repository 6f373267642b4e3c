#include "nav/root/NavRootSm.h"

#include "nav/root/RootTrace.h"
#include "nav/root/ShowText.h"

namespace Nav {

namespace {

constexpr std::string_view nothing = "{ }";

// The state word of a path. A path without status is shown as if it had the default status.
std::string_view stateWord(const PathStatusEntry* status) {
    if (!status) return "Route Pending";
    const HwPathInfo& info = status->pathInfo();
    const bool secured = info.pathType == PathType::securedPath;
    if (status->programmed()) return secured ? "Ipsec Estab" : "Estab";
    if (info.pathState == PathState::resolved) return "Arp Pending";
    if (info.via == Shard::Fib::Via{}) return "Route Pending";
    return secured ? "Ipsec Pending" : "Unknown";
}

}  // namespace

NavRootSm::NavRootSm(const Inputs& inputs) : in_(inputs), navConfigured_(followNavConfigured()) {}

Vel::Subscription NavRootSm::followNavConfigured() {
    return Vel::Subscription::to<&NavRootSm::handleNavConfigured>(
        *in_.cliConfig, NavCliConfig::navConfiguredAttr, this);
}

NavRootSm::~NavRootSm() {
    doCleanup();
}

Vel::Ptr<NavRootSm> NavRootSmIs(const NavInputs& inputs) {
    Vel::requireInputs<NavRootSm>(inputs);
    Vel::Ptr<NavRootSm> root = Vel::make<NavRootSm>(inputs);
    root->handleInitialized();
    return root;
}

void NavRootSm::handleInitialized() {
    DUOLOG_ENTRY(rootTrace);
    if (initialized_) {
        DUOLOG(rootTrace, 7, "handleInitialized", ":", "already initialized");
        return;
    }
    handleNavConfigured();
    initialized_ = true;
}

void NavRootSm::handleNavConfigured() {
    DUOLOG_ENTRY(rootTrace);
    ended_ = false;
    in_.navStatusDir->navPathStatusDirIs("navPathStatusDir");
    in_.navStatusDir->navLbProfileStatusIs("navLbProfileDir");
    if (!navCliCallback_) navCliCallback_ = Vel::make<CliCallback>("navCli", "nav", *this);
    auto& requests = navCliRequestDirSm_.is({in_.navCliRequestDir});
    requests.callbackIs(navCliCallback_);
    requests.handleCommandDir();

    if (inTransition_) return;  // the outer call checks the flag again
    struct Transition {
        bool& flag;
        ~Transition() { flag = false; }
    } transition{inTransition_ = true};
    do {
        if (isContainerWanted()) {
            DUOLOG(rootTrace, 7, __PRETTY_FUNCTION__, ": ", "Creating Nav container");
            navContainer_.is(in_);
        } else {
            DUOLOG(rootTrace, 7, __PRETTY_FUNCTION__, ": ", "Deleting Nav container");
            navContainer_.del();
        }
    } while (isContainerWanted() != (navContainer() != nullptr));
}

bool NavRootSm::isContainerWanted() const {
    return in_.cliConfig->navConfigured() && !ended_ && !gone();
}

NavContainer* NavRootSm::navContainer() const {
    return navContainer_ && navContainer_->initialized() ? navContainer_.get() : nullptr;
}

void NavRootSm::doCleanup() {
    DUOLOG_ENTRY(rootTrace);
    ended_ = true;
    navContainer_.del();
    navCliRequestDirSm_.del();
    if (navCliCallback_) navCliCallback_->navRootSmDel();
    navCliCallback_ = nullptr;
    in_.navStatusDir->navPathStatusDirDel();
    in_.navStatusDir->navLbProfileStatusDel();
}

// The database, if it has paths to show.
const NavDb* NavRootSm::shownNavDb() const {
    const NavDb* navDb = navContainer() ? navContainer()->navDb() : nullptr;
    return navDb && !navDb->pathKeyInfo().empty() ? navDb : nullptr;
}

void NavRootSm::showNavPaths(U32 fd) const {
    const NavDb* navDb = shownNavDb();
    if (!navDb) return sendText(fd, nothing);
    const PathStatusDir* statusDir = in_.navStatusDir->navPathStatusDir();
    const PathStatus* vrf = nullptr;  // of the previous path; most paths share their VRF with it
    ShowText text;
    text.add("{'navPathSelPaths': [");
    for (const PathKeyInfo& path : navDb->pathKeyInfo()) {
        if (statusDir && (!vrf || vrf->vrfName() != path.vrfName()))
            vrf = statusDir->pathStatus(path.vrfName());
        const auto* status = vrf ? vrf->pathStatusEntry(path.pathKey()) : nullptr;
        text.add("{ 'pathGroup' : '", path.siteGroupKey().name,   //
                 "', 'source' : '", path.pathKey().srcAddr,       //
                 "', 'destination' : '", path.pathKey().dstAddr,  //
                 "', 'peer' : '", path.siteGroupKey().routerIp,   //
                 "', 'state' : '", stateWord(status),             //
                 "',  'pathName': 'Path", path.pathIndex(), "', }, ");
    }
    text.add("]}");
    text.send(fd);
}

void NavRootSm::getNavPeers(U32 fd) const {
    const NavDb* navDb = shownNavDb();
    if (!navDb) return sendText(fd, nothing);
    ShowText text;
    text.add("{'navPeers': {");
    for (const PathKeyInfo& path : navDb->pathKeyInfo())
        text.add(path.pathIndex(), " : '", path.siteGroupKey().routerIp, "', ");
    text.add("}}");
    text.send(fd);
}

void NavRootSm::getNavMappings(U32 fd) const {
    const NavDb* navDb = shownNavDb();
    if (!navDb) return sendText(fd, nothing);
    ShowText text;
    text.add("{'groups': {");
    for (const PathKeyInfo& path : navDb->pathKeyInfo())
        text.add(path.pathIndex(), " : '", path.siteGroupKey().name, "', ");
    text.add("}, 'vrfApps': {");
    for (const VrfApp& app : navDb->vrfApp())
        text.add("(", app.key.vrfId, ", ", app.key.appId, "): ('", app.vrfName, "', '", app.appName,
                 "'), ");
    text.add("}}");
    text.send(fd);
}

}  // namespace Nav
