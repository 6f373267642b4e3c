// Path resolution alone: the tests play path construction and the router's other services.
#include <algorithm>

#include "nav/path/NavPathSm.h"
#include "tests/nav/NavFixture.h"

namespace Nav::Test {
namespace {

using Netz::IntfId;
using Shard::Fib::Via;

constexpr U32 up = Ipsec::Path::established;
const char* const dst = "198.51.100.9";
const char* const dst2 = "198.51.100.8";
const PathKey red1{ip("203.0.113.1"), ip(dst), 1};
const PathKey red2{ip("203.0.113.2"), ip(dst), 1};
const PathKey red3{ip("203.0.113.2"), ip(dst2), 1};
const PathKey blue{ip("203.0.113.1"), ip(dst), 2};
const SiteGroupKey site{"wan", ip("192.0.2.100")};

Via via(const char* intf, const char* hop = "203.0.113.254") {
    return {.hop = ip(hop), .intfId = IntfId(intf)};
}

// VRFs red (1) and blue (2); 203.0.113.1 is an address in both, and the database names red's
// interface for it.
class World : public NavFixture {
  public:
    const Vel::Ptr<NavDb> ownDb = Vel::make<NavDb>("NavDb");
    NavDb& db = *ownDb;
    PathStatusDir& status = in.navStatusDir->navPathStatusDirIs("navPathStatusDir");
    Vel::Owned<NavPathResolutionDirSm> dir;

    World() {
        for (const auto& [vrf, id] : std::map<L3::VrfName, U32>{{"red", 1}, {"blue", 2}}) {
            db.vrfNameToIdIs(vrf, id);
            db.vrfIdToNameIs(id, vrf);
            in.nexthopStatus->vrfIs(vrf);
        }
        for (const auto& [intf, vrf, addr] : {std::tuple{"Et3", "blue", "203.0.113.1"},
                                              {"Et2", "red", "203.0.113.2"},
                                              {"Et1", "red", "203.0.113.1"}}) {
            intfVrf(intf, vrf);
            address(intf, std::string(addr) + "/24");
            db.srcToIntfMappingIs(ip(addr), IntfId(intf));
        }
    }
    void TestBody() override {}
    using NavFixture::address, NavFixture::in, NavFixture::intfVrf;

    void start() {
        dir.is({in.pathConfigDir, status, in.siteGroupStatus, in.hwPathStatus,
                in.ipsecPathConfigDir, in.ipsecPathStatusDir, db, in.ipStatusDir, in.ip6StatusDir,
                in.nexthopConfig, in.nexthopStatus, in.forwardingStatus, in.forwarding6Status,
                in.scheduler});
    }
    void settle() { in.scheduler->runDue(); }
    // Stops resolution and takes back whatever was said.
    void clear() {
        dir.del();
        in.pathConfigDir->pathConfigDelAll();
        status.pathStatusDelAll();
        in.siteGroupStatus->siteGroupStatusEntryDelAll();
        in.hwPathStatus->hwPathStatusListDelAll();
        in.ipsecPathStatusDir->ipsecPathStatusDelAll();
        noResult(red1);
        in.forwardingStatus->fecDelAll();
        db.pathKeyInfoDelAll();
        db.addrToPathKeySetDelAll();
    }

    const L3::VrfName& vrfOf(const PathKey& path) const { return *db.vrfIdToName(path.vrfId); }
    PathConfigEntry& add(const PathKey& path, U32 index, const Vel::String& profile = "") {
        db.pathKeyInfoIs(path).pathIndexIs(index);
        db.pathKeyInfo(path)->siteGroupKeyIs(site);
        db.addrToPathKeySetIs(path.srcAddr).pathKeyIs(path);
        db.addrToPathKeySetIs(path.dstAddr).pathKeyIs(path);
        status.pathStatusIs(vrfOf(path)).pathStatusEntryIs(path);
        return in.pathConfigDir->pathConfigIs(vrfOf(path))
            .pathConfigEntryIs(path,
                               [&](PathConfigEntry& entry) { entry.ipsecProfileIs(profile); });
    }
    void remove(const PathKey& path) {
        db.addrToPathKeySet(path.srcAddr)->pathKeyDel(path);
        db.addrToPathKeySet(path.dstAddr)->pathKeyDel(path);
        in.pathConfigDir->pathConfig(vrfOf(path))->pathConfigEntryDel(path);
    }
    void result(const PathKey& path, U64 fecId) {
        in.nexthopStatus->vrf(vrfOf(path))->nexthopIs({path.dstAddr, fecId});
    }
    void noResult(const PathKey& path) {
        in.nexthopStatus->vrf(vrfOf(path))->nexthopDel(path.dstAddr);
    }
    void fec(U64 fecId, std::vector<Via> vias) { in.forwardingStatus->fecIs(fecId, vias); }
    Ipsec::ConnectionKey connection(const PathKey& path) const {
        return {path.srcAddr, path.dstAddr, vrfOf(path)};
    }
    void connect(const PathKey& path, U32 state, U32 encapId) {
        const auto report = [&](Ipsec::Path::PathStatus& status) {
            status.encapIdIs(encapId);
            status.connectionStateIs(state);
        };
        report(in.ipsecPathStatusDir->ipsecPathStatusIs(connection(path), report));
    }
    Ipsec::Path::PathConfig* request(const PathKey& path) const {
        return in.ipsecPathConfigDir->ipsecPathConfig(connection(path));
    }
    void program(const PathKey& path, U32 index, U32 hwPath, U32 hwArp) {
        const auto report = [&](HwPathStatusEntry& entry) {
            entry.hwPathIndexIs(hwPath);
            entry.hwArpIndexIs(hwArp);
        };
        const HwPathKey key{path.srcAddr, path.dstAddr, path.vrfId, index};
        report(in.hwPathStatus->hwPathStatusListIs(key, report));
    }
    PathStatusEntry* entry(const PathKey& path) const {
        return status.pathStatus(vrfOf(path))->pathStatusEntry(path);
    }
    // Type, state, interface of the via and encapsulation id of a path, as in "secured resolved Et1
    // 7".
    std::string show(const PathKey& path) const {
        const HwPathInfo& info = entry(path)->pathInfo();
        const U32 id = entry(path)->encapId();
        return stringValue(info.pathType) + std::string(" ") + stringValue(info.pathState) + " " +
               info.via.intfId.stringValue() + " " + (id == noEncapId ? "-" : std::to_string(id));
    }
    bool wants(const PathKey& path) const {
        return in.nexthopConfig->vrf(vrfOf(path))->nexthopHas(path.dstAddr);
    }
    bool listed(U32 index) const {
        const auto* entry = in.siteGroupStatus->siteGroupStatusEntry(site);
        return entry && entry->pathIndexEntryHas(index);
    }
    // How many lines of the trace hold the text since the last call.
    long traced(std::string_view text) {
        const long n = std::count_if(traces.begin(), traces.end(), [&](const std::string& line) {
            return line.find(text) != std::string::npos;
        });
        traces.clear();
        return n;
    }
    std::vector<std::string>& traces = capture("path");
};

// Whatever the order in which the services report, and whenever resolution starts, the same comes
// of it; nothing of it touches the same addresses in the other VRF.
TEST(Resolution, EveryOrderOfEventsEndsInTheStateOfTheTable) {
    struct Connection {
        U32 state, encapId;
    };
    World w;
    Duolog::captureIs(nullptr);
    for (const std::string profile : {"", "strong"})
        for (const auto& vias : {std::vector<Via>{}, {via("Et2")}, {via("Et2"), via("Et1")}})
            for (const Connection ipsec : {Connection{0, 7}, {up, noEncapId}, {up, 7}}) {
                if (profile.empty() && ipsec.state == up) continue;  // no connection then
                const bool encapsulated = ipsec.state == up && ipsec.encapId == 7;
                const bool ready = vias.size() == 2 && (profile.empty() || encapsulated);
                const std::string expected =
                    std::string(profile.empty() ? "unsecuredPath " : "securedPath ") +
                    (ready ? "resolved " : "unresolved ") + (vias.size() == 2 ? "Et1 " : " ") +
                    (encapsulated ? "7" : "-");
                std::string order = "afhirs";
                do {
                    w.clear();
                    w.add(blue, 9);
                    for (const char event : order) {
                        if (event == 'a') w.add(red1, 5, profile), w.add(red2, 6);
                        if (event == 'f') w.fec(1, vias);
                        if (event == 'h') w.program(red1, 5, 2, 3);
                        if (event == 'i') w.connect(red1, ipsec.state, ipsec.encapId);
                        if (event == 'r') w.result(red1, 1);
                        if (event == 's') w.start();
                        w.settle();
                    }
                    SCOPED_TRACE(order + profile);
                    ASSERT_EQ(w.show(red1), expected);
                    ASSERT_TRUE(w.entry(red1)->programmed() && w.listed(5) && !w.listed(6));
                    ASSERT_EQ(w.request(red1) != nullptr, !profile.empty());
                    ASSERT_EQ(w.show(red2), vias.empty() ? "unsecuredPath unresolved  -"
                                                         : "unsecuredPath resolved Et2 -");
                    ASSERT_EQ(w.show(blue), "unsecuredPath unresolved  -");
                    ASSERT_TRUE(w.wants(blue) && !w.request(blue));
                } while (std::next_permutation(order.begin(), order.end()));
            }
}

TEST(Resolution, ProfileAndConnectionChangesOfAResolvedPath) {
    World w;
    w.start();
    w.fec(1, {via("Et3")}), w.result(blue, 1);
    PathConfigEntry& config = w.add(blue, 5);
    EXPECT_FALSE(w.wants(blue)) << "a result owned by somebody else does";
    config.ipsecProfileIs("strong");
    ASSERT_TRUE(w.request(blue));
    EXPECT_EQ(w.request(blue)->intfId(), IntfId("Et3")) << "not red's of the same address";
    w.connect(blue, up, 9);
    config.ipsecProfileIs("");
    EXPECT_EQ(w.show(blue), "unsecuredPath resolved Et3 -");
    w.connect(blue, up, 10);  // a connection that stands counts, until the next route
    EXPECT_EQ(w.show(blue), "securedPath resolved Et3 10");
    w.fec(1, {via("Et3"), via("Et2")}), w.settle();
    EXPECT_EQ(w.show(blue), "unsecuredPath resolved Et3 -");

    // What was requested is withdrawn, whatever the VRF is called by then.
    config.ipsecProfileIs("strong");
    w.db.vrfIdToNameIs(2, "azure");
    config.ipsecProfileIs("other");
    EXPECT_EQ(w.in.ipsecPathConfigDir->ipsecPathConfig().size(), 1U);
    w.db.vrfIdToNameIs(2, "blue");
    w.remove(blue);
    EXPECT_TRUE(w.in.ipsecPathConfigDir->ipsecPathConfig().empty());

    // A path that is removed while its new profile is told.
    PathConfigEntry& again = w.add(blue, 5);
    On remover(*w.entry(blue), PathStatusEntry::pathInfoAttr, [&] { w.remove(blue); });
    again.ipsecProfileIs("strong");
    EXPECT_TRUE(w.in.ipsecPathConfigDir->ipsecPathConfig().empty());
}

TEST(Resolution, LastMatchingViaIsWrittenOnce) {
    World w;
    w.start();
    w.add(red1, 5);
    U32 written = 0;
    On count(*w.entry(red1), PathStatusEntry::pathInfoAttr, [&] { ++written; });
    std::vector vias{via("Et1"), via("Et2"), via("Et1", "203.0.113.253")};
    w.result(red1, 1), w.fec(1, vias), w.settle();
    EXPECT_EQ(w.entry(red1)->pathInfo().via, vias[2]);
    EXPECT_EQ(w.traced("Nexthop: "), 3);
    vias[1].weight = 2;
    w.fec(1, vias), w.settle();
    EXPECT_EQ(w.traced(" Resolved path: "), 2);
    EXPECT_EQ(written, 1U);
    vias.resize(512, via("Et2"));
    vias[511] = via("Et1", "203.0.113.252");
    w.fec(1, vias), w.settle();
    EXPECT_EQ(w.entry(red1)->pathInfo(),
              (HwPathInfo{PathType::unsecuredPath, PathState::resolved, 5, vias[511]}));
    EXPECT_THROW(w.fec(1, std::vector<Via>(513)), Vel::RangeError);
    // A FEC with nothing for the path leaves it as it was, and so does one with nothing at all.
    w.fec(1, {via("Et2")}), w.settle();
    w.in.forwardingStatus->fecDel(1), w.settle();
    EXPECT_EQ(written, 2U);
    w.noResult(red1), w.settle();
    EXPECT_EQ(w.show(red1), "unsecuredPath unresolved  -");
}

TEST(Resolution, BacklogHoldsWhatChangedOnceAndOnlyThat) {
    World w;
    const PathKey v6{ip("203.0.113.1"), ip("2001:db8::9"), 1};
    w.start();
    w.add(red1, 5), w.add(v6, 6), w.add(red3, 7);
    w.result(red1, 1), w.result(v6, 1), w.result(red3, 2);
    w.settle(), w.traces.clear();
    w.in.forwarding6Status->fecIs(1, std::vector{via("Et1")});  // the other family's FEC 1
    w.settle();
    EXPECT_EQ(w.traced("Backlog nexthopResolver addr: "), 1);
    EXPECT_EQ(w.show(v6), "unsecuredPath resolved Et1 -");
    EXPECT_EQ(w.show(red1), "unsecuredPath unresolved  -");

    // What cancels out is reviewed all the same, once.
    w.noResult(red1), w.result(red1, 1), w.fec(1, {via("Et1")});
    w.in.forwardingStatus->fecDel(1);
    w.settle();
    EXPECT_EQ(w.traced("Backlog nexthopResolver addr: "), 1);
    // Once the result goes by another FEC, the first concerns nobody.
    w.result(red1, 2), w.settle(), w.traces.clear();
    w.fec(1, {via("Et1"), via("Et2")}), w.settle();
    EXPECT_EQ(w.traced("Backlog nexthopResolver addr: "), 0);

    // A change that comes during a review waits for its end.
    std::string during;
    On nested(*w.entry(red1), PathStatusEntry::pathInfoAttr, [&] {
        w.result(red3, 1), w.settle();
        during = w.show(red3);
    });
    w.result(red1, 1), w.settle();
    EXPECT_EQ(during, "unsecuredPath unresolved  -");
    EXPECT_EQ(w.show(red3), "unsecuredPath resolved Et2 -");
    w.remove(red3), w.noResult(red3), w.settle();
    EXPECT_EQ(w.traced("No paths for dstAddr 198.51.100.8"), 1);
    EXPECT_FALSE(w.db.addrToPathKeySet(ip(dst2)));
}

TEST(Resolution, KeyInfoMayLackOnlyForPathsNotConfigured) {
    World w;
    w.start();
    w.status.pathStatus("red")->pathStatusEntryIs(red1).programmedIs(true);
    w.program(red1, 5, 1, 0);
    EXPECT_TRUE(w.entry(red1)->programmed());
    w.connect(red1, up, 3);
    EXPECT_FALSE(w.entry(red1));
    EXPECT_TRUE(w.in.siteGroupStatus->siteGroupStatusEntry().empty());
    w.add(red2, 6);
    w.db.pathKeyInfoDel(red2);
    EXPECT_THROW(w.entry(red2)->programmedIs(true), AssertionFailed);
    EXPECT_THROW(w.connect(red2, up, 3), AssertionFailed);
}

TEST(Resolution, FollowsAVrfThatIsBackBeforeItWasSeenToGo) {
    World w;
    On back(*w.in.nexthopStatus, Routing::NexthopStatus::vrfAttr,
            [&] { w.in.nexthopStatus->vrfIs("red"); });
    w.start();
    w.add(red1, 5), w.fec(1, {via("Et1")});
    w.in.nexthopStatus->vrfDel("red");
    w.result(red1, 1), w.settle();
    EXPECT_EQ(w.show(red1), "unsecuredPath resolved Et1 -");
    EXPECT_TRUE(w.wants(red1));
}

TEST(Resolution, StopsReactingInTheMiddleOfItsOwnReview) {
    World w;
    w.start();
    w.add(red1, 5), w.add(red2, 6);
    w.fec(1, {via("Et1"), via("Et2")}), w.result(red1, 1);
    On ends(*w.entry(red1), PathStatusEntry::pathInfoAttr, [&] {
        w.in.nexthopStatus->vrfDel("red");
        w.entry(red2)->programmedIs(true);
        w.add(red3, 7, "strong");
    });
    w.settle();
    EXPECT_EQ(w.show(red2), "unsecuredPath unresolved  -");
    EXPECT_FALSE(w.listed(6) || w.wants(red1) || w.wants(red3) || w.request(red3));
    ends.subscription.reset();
    w.in.nexthopStatus->vrfIs("red");
    EXPECT_TRUE(w.listed(6) && w.wants(red1) && w.wants(red3) && w.request(red3));
    EXPECT_EQ(w.show(red1), "unsecuredPath unresolved  -");  // its via went with the result
    w.add(red2, 6).ipsecProfileIs("strong");
    w.dir.del();
    EXPECT_FALSE(w.request(red3));
    w.connect(red2, up, 3), w.program(red2, 6, 1, 0);
    EXPECT_TRUE(w.entry(red2)->programmed() && w.entry(red2)->encapId() == noEncapId);
}

}  // namespace
}  // namespace Nav::Test
