// Path resolution: what the oracle cannot see, such as how often a status is written, which
// addresses are reviewed, and what is traced.
#include <algorithm>

#include "tests/nav/NavFixture.h"

namespace Nav::Test {
namespace {

using Netz::IntfId;
using Shard::Fib::Via;

Via viaOver(const char* intf, const char* hop = "203.0.113.254") {
    return {.hop = ip(hop), .intfId = IntfId(intf)};
}

// Two paths to one destination, one to another, one over IPv6; all in the default VRF.
class Resolution : public NavFixture {
  protected:
    Resolution() {
        address("Et1", "203.0.113.1/24"), listIntf("wan", "Et1");
        address("Et2", "203.0.113.2/24"), listIntf("lte", "Et2");
        via("wan", "192.0.2.100", "198.51.100.9"), via("lte", "192.0.2.100", "198.51.100.9");
        via("lte", "192.0.2.100", "198.51.100.8"), via("wan", "192.0.2.100", "2001:db8::9");
        in.nexthopStatus->vrfIs("default");
        start();
    }

    void result(const PathKey& path, U64 fecId) {
        in.nexthopStatus->vrf("default")->nexthopIs({path.dstAddr, fecId});
    }
    void noResult(const PathKey& path) {
        in.nexthopStatus->vrf("default")->nexthopDel(path.dstAddr);
    }
    void fec(U64 fecId, std::vector<Via> vias) { in.forwardingStatus->fecIs(fecId, vias); }
    void settle() { in.scheduler->runDue(); }
    PathStatusEntry* entry(const PathKey& path) {
        return pathStatusDir().pathStatus("default")->pathStatusEntry(path);
    }
    // State and interface of the via, as in "resolved Et1".
    std::string show(const PathKey& path) {
        const HwPathInfo& info = entry(path)->pathInfo();
        return stringValue(info.pathState) + (" " + info.via.intfId.stringValue());
    }
    // How many lines of the trace hold the text since the last call.
    long traced(std::string_view text) {
        const long n = std::count_if(traces.begin(), traces.end(), [&](const std::string& line) {
            return line.find(text) != std::string::npos;
        });
        traces.clear();
        return n;
    }

    const PathKey path1 = key("203.0.113.1", "198.51.100.9");
    const PathKey path2 = key("203.0.113.2", "198.51.100.9");
    const PathKey path3 = key("203.0.113.2", "198.51.100.8");
    const PathKey path6 = key("203.0.113.1", "2001:db8::9");
    std::vector<std::string>& traces = capture("path");
};

TEST_F(Resolution, LastMatchingViaIsWrittenOnce) {
    U32 written = 0;
    On count(*entry(path1), PathStatusEntry::pathInfoAttr, [&] { ++written; });
    std::vector vias{viaOver("Et1"), viaOver("Et2"), viaOver("Et1", "203.0.113.253")};
    result(path1, 1), fec(1, vias), settle();
    EXPECT_EQ(entry(path1)->pathInfo().via, vias[2]);
    vias[1].weight = 2;
    fec(1, vias), traces.clear(), settle();
    EXPECT_EQ(traced(" Resolved path:  ( Src: 203.0.113.1"), 2);
    EXPECT_EQ(written, 1u);
    EXPECT_THROW(fec(1, std::vector<Via>(513)), Vel::RangeError);
}

TEST_F(Resolution, EachChangedAddressIsReviewedOnce) {
    result(path1, 1), result(path6, 1), result(path3, 2), settle(), traces.clear();
    in.forwarding6Status->fecIs(1, std::vector{viaOver("Et1")});  // the other family's FEC 1
    settle();
    EXPECT_EQ(traced("Backlog nexthopResolver addr: "), 1);
    EXPECT_EQ(show(path6) + show(path1), "resolved Et1unresolved ");
    // Changes that cancel out are reviewed too, once.
    noResult(path1), result(path1, 1), fec(1, {viaOver("Et1")});
    in.forwardingStatus->fecDel(1), settle();
    EXPECT_EQ(traced("Backlog nexthopResolver addr: "), 1);
    // The FEC that the result named before concerns no address.
    result(path1, 2), settle(), traces.clear();
    fec(1, {viaOver("Et1"), viaOver("Et2")}), settle();
    EXPECT_EQ(traced("Backlog nexthopResolver addr: "), 0);
    group("lte").remoteViaConfigIs(ip("192.0.2.100")).remoteViaDel(path3.dstAddr);
    noResult(path3), settle();
    EXPECT_EQ(traced("No paths for dstAddr 198.51.100.8"), 1);
}

TEST_F(Resolution, AReactorFollowsTheStatusThatItsVrfHasNow) {
    root = nullptr;
    On replaced(*in.nexthopStatus, Routing::NexthopStatus::vrfAttr,
                [&] { in.nexthopStatus->vrfIs("default"); });
    in.nexthopConfig->vrfIs("default").nexthopIs(ip("198.51.100.7"));  // of an earlier process
    start();
    EXPECT_FALSE(in.nexthopConfig->vrf("default")->nexthopHas(ip("198.51.100.7")));
    in.nexthopStatus->vrfDel("default");
    result(path1, 1), fec(1, {viaOver("Et1")}), settle();
    EXPECT_EQ(show(path1), "resolved Et1");
}

TEST_F(Resolution, ServicesMaySpeakOfPathsThatAreNotConfigured) {
    const PathKey other = key("203.0.113.3", "198.51.100.9");
    pathStatusDir().pathStatus("default")->pathStatusEntryIs(other);
    in.ipsecPathStatusDir->ipsecPathStatusIs({other.srcAddr, other.dstAddr, "default"});
    EXPECT_EQ(traced("Config not present for  ( Src: 203.0.113.3 Dst: 198.51.100.9 vrfId: 0 ) "
                     "Clear the status"),
              1);
    EXPECT_FALSE(entry(other));
    in.ipsecPathStatusDir->ipsecPathStatusIs({other.srcAddr, other.dstAddr, "green"});
    EXPECT_EQ(traced("PathConfig or PathStatus not present"), 1);
    const HwPathKey another{path1.srcAddr, path1.dstAddr, 0, 77};
    in.hwPathStatus->hwPathStatusListIs(another, [](HwPathStatusEntry& entry) {
        entry.hwPathIndexIs(1);
        entry.hwArpIndexIs(1);
    });
    EXPECT_EQ(traced("Hardware pathIndex: 77 is not pathIndex: 1 of path: "), 1);
}

}  // namespace
}  // namespace Nav::Test
