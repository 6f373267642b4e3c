// Messages applied without a kernel. fuzz/corpus/netlink has recordings of a kernel with VRF
// devices (Linux 6.1, Debian): wa (index 3) is in the VRF blue (4, table 100), wc (7) in red (5,
// table 200), with the same addresses; 10.9.0.0/16 and 2001:db8:9::/48 in blue go two ways.
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <fstream>
#include <map>

#include "agent/linux/PathRoutes.h"
#include "tests/agent_linux/Namespace.h"

namespace Agent::Linux {
namespace {

// A recorded message with some of its octets replaced.
std::vector<char> recorded(const std::string& name, const std::map<size_t, int>& octets = {}) {
    std::ifstream file(NAV_RECORDED "/" + name, std::ios::binary);
    std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    EXPECT_FALSE(bytes.empty()) << name;
    for (const auto& [at, octet] : octets) bytes.at(at) = static_cast<char>(octet);
    return bytes;
}
void feed(LinkState& table, const std::string& name, const std::map<size_t, int>& octets = {}) {
    const auto bytes = recorded(name, octets);
    for (const Message& message : Messages(std::as_bytes(std::span(bytes)))) table.apply(message);
}

Interface find(const LinkState& table, uint32_t index) {
    return *table.view().at(index);
}

RouteResult parse(const std::vector<char>& bytes) {
    return parseRoute(*Messages(std::as_bytes(std::span(bytes))).begin()).result;
}

// Where octets are in a message, and of what.
constexpr size_t type = 4, family = 16, masterOfWa = 60, tableOfRed = 76, flagsOfAddress = 68;

TEST(Links, VrfFollowsTheMasterWhateverComesFirst) {
    LinkState table;
    // Ports before their VRF devices, addresses before their links.
    for (const char* name : {"addressWa", "address6Wa", "linkWa"}) feed(table, name);
    EXPECT_EQ(find(table, 3).vrf, (Vrf{"default", 0, 0}));
    feed(table, "linkBlue");
    feed(table, "linkRed");
    EXPECT_EQ(find(table, 3).vrf, (Vrf{"blue", 100, 4}));
    EXPECT_EQ(find(table, 4).vrf, (Vrf{"blue", 100, 4}));  // a VRF's own device
    EXPECT_EQ(find(table, 3).primary4.stringValue(), "10.0.0.1/24");
    EXPECT_EQ(find(table, 3).primary6.stringValue(), "2001:db8::1/64");
    feed(table, "linkWa", {{masterOfWa, 5}});
    EXPECT_EQ(find(table, 3).vrf, (Vrf{"red", 200, 5}));
    // Of two VRF devices with one routing table the older one has its number until it is deleted.
    feed(table, "linkRed", {{tableOfRed, 100}});
    EXPECT_EQ(table.view().vrfs,
              (std::vector<Vrf>{{"default", 0, 0}, {"blue", 100, 4}, {"red", 0, 5}}));
    EXPECT_EQ(find(table, 3).vrf, (Vrf{"red", 0, 5}));
    feed(table, "linkBlue", {{type, RTM_DELLINK}});
    EXPECT_EQ(find(table, 3).vrf, (Vrf{"red", 100, 5}));
    // The VRF goes before its port. A port that leaves a bridge is not deleted.
    feed(table, "linkRed", {{type, RTM_DELLINK}});
    feed(table, "linkWa", {{type, RTM_DELLINK}, {family, AF_BRIDGE}});
    EXPECT_EQ(find(table, 3).vrf, (Vrf{"default", 0, 0}));
    EXPECT_EQ(find(table, 3).primary4.stringValue(), "10.0.0.1/24");
}

TEST(Links, AddressesThatMustNotBeUsedAreNotOffered) {
    for (const int flags : {IFA_F_NODAD, IFA_F_TEMPORARY, IFA_F_DADFAILED, IFA_F_DEPRECATED,
                            IFA_F_TENTATIVE, IFA_F_TENTATIVE | IFA_F_OPTIMISTIC}) {
        LinkState table;
        feed(table, "linkWa");
        feed(table, "address6Wa", {{flagsOfAddress, flags}});
        EXPECT_EQ(find(table, 3).primary6.addr.isZero(), flags != IFA_F_NODAD) << flags;
    }
}

TEST(Neighbours, AreResolvedWhileTheKernelKnowsTheirLinkLayerAddress) {
    const Neighbour neighbour{3, addr("10.0.0.7")};
    NeighbourState table;
    const auto changes = [&](uint16_t type, uint16_t state, uint8_t flags = 0) {
        MessageWriter writer;
        const ndmsg header{AF_INET, 0, 0, 3, state, flags, 0};
        writer.begin(type, 0, 0, header);
        writer.attribute(NDA_DST, neighbour.addr);
        return table.apply(*Messages(writer.bytes()).begin());
    };
    bool before = false;
    for (const uint16_t state : {NUD_INCOMPLETE, NUD_REACHABLE, NUD_STALE, NUD_DELAY, NUD_PROBE,
                                 NUD_FAILED, NUD_PERMANENT, NUD_NOARP}) {
        const bool resolved = state != NUD_INCOMPLETE && state != NUD_FAILED;
        EXPECT_EQ(changes(RTM_NEWNEIGH, state), resolved != std::exchange(before, resolved));
        EXPECT_EQ(table.resolved(neighbour), resolved) << state;
        EXPECT_EQ(table.dynamic(neighbour), state != NUD_PERMANENT && state != NUD_NOARP) << state;
    }
    // An address that the host answers for on behalf of others says nothing of a neighbour.
    EXPECT_FALSE(changes(RTM_DELNEIGH, NUD_PERMANENT, NTF_PROXY));
    EXPECT_TRUE(changes(RTM_DELNEIGH, NUD_NOARP));
}

// wa in blue and wc in red have the same addresses.
TEST(Routes, PathsAreLookedUpInTheirVrfByTheirInterface) {
    LinkState table;
    for (const char* name :
         {"linkBlue", "linkRed", "linkWa", "linkWc", "addressWa", "addressWc", "address6Wa"})
        feed(table, name);
    const auto view = table.view();
    const auto source = addr("10.0.0.1"), to = addr("10.9.1.1"), unasked = addr("10.8.0.1");
    const auto source6 = addr("2001:db8::1"), to6 = addr("2001:db8:9::1");
    const auto paths = Vel::make<Nav::PathConfigDir>("paths");
    const auto requested = Vel::make<Routing::NexthopConfig>("requested");
    for (const char* vrf : {"blue", "red", "default"}) {
        for (const auto& addr : {to, to6}) requested->vrfIs(vrf).nexthopIs(addr);
        for (const auto& [from, destination] :
             {std::pair(source, to), {source6, to6}, {source6, to}, {source, unasked}})
            paths->pathConfigIs(vrf).pathConfigEntryIs({from, destination, 0});
    }
    const auto queries = pathQueries(view, *paths, *requested);
    EXPECT_EQ(queries, (PathQueries{{{"blue", 2}, {"red", 3}},
                                    {{to, source, 3}, {to6, source6, 3}, {to, source, 7}}}));
    const auto blue = parse(recorded("routeBlue"));
    const auto blue6 = parse(recorded("route6BlueSevenFirst"));
    const RouteResult red;
    auto found = pathRoutes(view, queries, std::vector<const RouteResult*>{&blue, &blue6, &red});
    EXPECT_EQ(found.vrfs.size(), 3U);
    EXPECT_EQ(found.vrfs["red"].size() + found.vrfs["default"].size(), 0U);
    ASSERT_EQ(found.vrfs["blue"].size(), 2U);
    EXPECT_EQ(found.vrfs["blue"][0].addr, to);
    const NexthopResolver::Vias& vias = found.lists.at(found.vrfs["blue"][0].list);
    ASSERT_EQ(vias.size(), 2U);
    EXPECT_EQ(vias[1].hop, addr("10.0.0.8"));
    EXPECT_EQ(vias[1].intfId, Netz::IntfId("wa"));
    // On a link, each destination is its own next hop.
    const RouteResult link{RouteResult::Kind::forwarded, {{{}, 3}}};
    found = pathRoutes(view, queries, std::vector<const RouteResult*>{&link, &link, &red});
    for (const auto& [addr, list] : found.vrfs["blue"])
        EXPECT_EQ(found.lists.at(list).at(0).hop, addr);
    // The kernel starts its list of IPv6 legs at another leg from one reply to the next.
    EXPECT_EQ(blue6, parse(recorded("route6BlueEightFirst")));
}

}  // namespace
}  // namespace Agent::Linux
