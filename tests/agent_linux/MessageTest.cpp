// What messages make of the tables, without a kernel: recorded ones, ones made up for what no
// kernel at hand sends, and bytes that no kernel would send.
#include <gtest/gtest.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstring>

#include "agent/linux/kernel/FibLookup.h"
#include "agent/linux/kernel/LinkTable.h"
#include "tests/agent_linux/Recorded.h"

namespace Agent::Linux {
namespace {

Netz::IpGenAddr addr(std::string_view text) {
    return *Netz::IpGenAddr::parse(text);
}

template <class Table>
void feed(Table& table, Bytes data) {
    for (const Message& message : Messages(data)) table.apply(message);
}
void feed(LinkTable& table, std::string_view hex) {
    feed(table, Bytes(Recorded::bytes(hex)));
}

Interface find(const LinkTable& table, uint32_t index) {
    for (const Interface& interface : table.view().interfaces)
        if (interface.index == index) return interface;
    ADD_FAILURE() << "no interface " << index;
    return {};
}

RouteAnswer parse(Bytes data, std::string_view destination) {
    return parseRoute(*Messages(data).begin(), addr(destination));
}

// A link as the kernel announces it: up, with a master if that is not 0.
std::vector<std::byte> link(uint16_t type, unsigned char family, int index, const char* name,
                            uint32_t master) {
    MessageWriter writer;
    ifinfomsg header{};
    header.ifi_family = family;
    header.ifi_index = index;
    header.ifi_flags = 0x11043;
    writer.begin(type, 0, 0, header);
    writer.attribute(IFLA_IFNAME, std::as_bytes(std::span(name, std::strlen(name) + 1)));
    if (master != 0) writer.attribute(IFLA_MASTER, master);
    return {writer.bytes().begin(), writer.bytes().end()};
}

TEST(Links, VrfFollowsTheMasterWhateverComesFirst) {
    LinkTable table;
    // Ports before their VRF devices, addresses before their links.
    for (auto hex : {Recorded::addressWc, Recorded::linkWc, Recorded::addressWa,
                     Recorded::address6Wa, Recorded::linkWa})
        feed(table, hex);
    EXPECT_EQ(find(table, 3).vrf, (Vrf{"default", 0, 0}));
    feed(table, Recorded::linkBlue);
    feed(table, Recorded::linkRed);
    EXPECT_EQ(find(table, 3).vrf, (Vrf{"blue", 100, 4}));
    EXPECT_EQ(find(table, 7).vrf, (Vrf{"red", 200, 5}));
    EXPECT_EQ(find(table, 4).vrf, (Vrf{"blue", 100, 4}));  // a VRF's own device
    EXPECT_EQ(table.view().vrfs,
              (std::vector<Vrf>{{"default", 0, 0}, {"blue", 100, 4}, {"red", 200, 5}}));
    EXPECT_EQ(find(table, 3).primary4.stringValue(), "10.0.0.1/24");
    EXPECT_EQ(find(table, 3).primary6.stringValue(), "2001:db8::1/64");
    EXPECT_EQ(find(table, 7).primary4.stringValue(), "10.0.0.1/24");

    feed(table, link(RTM_NEWLINK, AF_UNSPEC, 3, "wa", 5));  // moved
    feed(table, link(RTM_NEWLINK, AF_UNSPEC, 7, "wc", 0));  // released
    EXPECT_EQ(find(table, 3).vrf.name, L3::VrfName("red"));
    EXPECT_EQ(find(table, 7).vrf.name, L3::VrfName("default"));
    feed(table, link(RTM_DELLINK, AF_UNSPEC, 5, "red", 0));  // the VRF goes before its port
    EXPECT_EQ(find(table, 3).vrf, (Vrf{"default", 0, 0}));
    EXPECT_EQ(table.view().vrfs.size(), 2U);
    EXPECT_EQ(find(table, 3).primary4.stringValue(), "10.0.0.1/24");
}

TEST(Links, LeavingABridgeDoesNotDeleteTheLink) {
    LinkTable table;
    feed(table, Recorded::linkWa);
    feed(table, Recorded::addressWa);
    const auto before = table.view();
    feed(table, link(RTM_DELLINK, AF_BRIDGE, 3, "wa", 9));
    EXPECT_EQ(table.view(), before);
}

TEST(Routes, LegsWeightsAndRefusals) {
    const auto answer = parse(Recorded::bytes(Recorded::routeBlue), "10.9.1.1");
    EXPECT_EQ(answer.result,
              (RouteResult{RouteKind::forwarded,
                           {{addr("10.0.0.7"), 3, 3, false}, {addr("10.0.0.8"), 3, 5, false}}}));
    // The kernel starts its list of IPv6 legs at another leg from one answer to the next.
    EXPECT_EQ(parse(Recorded::bytes(Recorded::route6BlueSevenFirst), "2001:db8:9::1").result,
              parse(Recorded::bytes(Recorded::route6BlueEightFirst), "2001:db8:9::1").result);
    EXPECT_EQ(parse(Recorded::bytes(Recorded::routeRedUnreachable), "::1").result,
              (RouteResult{RouteKind::unreachable, {}}));

    // The flags of the legs are at these offsets.
    constexpr size_t firstLegFlags = 50, secondLegFlags = 66;
    auto dead = Recorded::bytes(Recorded::routeBlue);
    dead[firstLegFlags] = std::byte{RTNH_F_LINKDOWN};
    EXPECT_EQ(parse(dead, "10.9.1.1").result,
              (RouteResult{RouteKind::forwarded, {{addr("10.0.0.8"), 3, 1, false}}}));
    dead[secondLegFlags] = std::byte{RTNH_F_DEAD};
    EXPECT_EQ(parse(dead, "10.9.1.1").result, (RouteResult{RouteKind::unreachable, {}}));
}

}  // namespace
}  // namespace Agent::Linux
