// The writer of the kernel's objects against the reader: after any changes the kernel holds what is
// wanted, and of others' objects what it held before.
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>

#include <random>

#include "agent/linux/kernel/ObjectDump.h"
#include "agent/linux/kernel/ObjectWriter.h"
#include "tests/agent_linux/Namespace.h"

namespace Agent::Linux {
namespace {

std::string textOf(const Objects& objects) {
    std::string text;
    for (const auto& [key, object] : objects) text += Linux::textOf(object) + '\n';
    return text;
}

class ObjectsInKernel : public InNamespace {
  protected:
    void SetUp() override {
        InNamespace::SetUp();
        if (IsSkipped()) return;
        ASSERT_TRUE(
            ip("link set lo up\nlink add name wa type veth peer name wb\n"
               "link set wa up\nlink set wb up\naddr add 203.0.113.1/24 dev wa\n"
               "addr add 2001:db8:a::1/64 dev wa nodad\n"
               // Somebody else's, close to the agent's.
               "nexthop add id 0x6e000099 dev wa\nroute add 10.9.0.0/16 dev wa table 0x6e000001\n"
               "rule add fwmark 0x6e000001 lookup 0x6e000001 priority 111\n"
               "link add name vx type vxlan id 7 remote 203.0.113.9 dstport 4800 dev wa\n"));
        wa = if_nametoindex("wa");
    }

    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random() % limit); }

    // Up to two tunnels with next hops, groups, routes and rules, each using what comes before.
    Objects some() {
        Objects objects;
        std::vector<uint32_t> devices, nexthops, groups;
        for (const char* name : {"nav.red", "nav.blue"}) {
            if (below(4) == 0) continue;
            const bool blue = name[4] == 'b';
            insert(objects, Tunnel{.name = Netz::IntfId(name),
                                   .udpPort = static_cast<uint16_t>(4793 + below(20) / 19),
                                   .vni = 5 + blue + 10 * below(2),
                                   .mtu = 1400 + below(2),
                                   .address = {addr(below(2) ? "10.255.0.1" : "10.254.0.1"), 24}});
            if (const auto index = if_nametoindex(name)) devices.push_back(index);
        }
        for (uint32_t id = 0x6e000010; !devices.empty() && id < 0x6e000016; ++id) {
            if (below(3) == 0) continue;
            const bool v6 = below(2);
            insert(objects, Nexthop{id, devices[below(uint32_t(devices.size()))], below(3) + 5,
                                    addr(v6 ? "2001:db8:a::1" : "203.0.113.1"),
                                    addr(v6 ? "2001:db8:b::2" : "198.51.100.2")});
            nexthops.push_back(id);
        }
        for (uint32_t id = 0x6e000020; !nexthops.empty() && id < 0x6e000024; ++id) {
            NexthopGroup group{id, {}};
            for (const uint32_t member : nexthops)
                if (below(2)) group.members.push_back({member, below(256) + 1});
            if (group.members.empty()) continue;
            insert(objects, group);
            groups.push_back(id);
        }
        for (int i = 0; i < 12; ++i) {
            const bool v6 = below(2);
            const Netz::IpAddrWithMask prefix{
                addr((v6 ? "2001:db8:" : "10.") + std::to_string(below(3)) + (v6 ? "::" : ".0.0")),
                static_cast<uint8_t>(v6 ? 48 : 16)};
            Route route{.table = below(2) ? 0x6e000001U : uint32_t{RT_TABLE_MAIN},
                        .prefix = prefix,
                        .metric = 110,
                        .action = Route::Action(below(4))};
            if (route.action == Route::Action::nexthop && groups.empty()) continue;
            if (route.action == Route::Action::nexthop)
                route.nexthopId = groups[below(uint32_t(groups.size()))];
            if (route.action == Route::Action::via) {
                route.ifIndex = wa;
                if (below(2)) route.gateway = addr(v6 ? "2001:db8:a::9" : "203.0.113.9");
            }
            insert(objects, route);
            Rule rule{.priority = 110 + below(2), .v6 = v6, .table = 0x6e000001};
            if (below(2))
                rule.mark = 0x6e000002 + below(2);
            else
                rule.source = prefix.addr, rule.ipProtocol = IPPROTO_UDP,
                rule.destinationPort = 4793;
            insert(objects, rule);
        }
        return objects;
    }

    static std::string foreign() {
        FILE* pipe = popen(
            "(ip -d link show vx; ip nexthop; ip rule; ip -6 rule; ip route show table all;"
            " ip -6 route show table all) | grep -vE 'proto 110|^.nexthop|fe80|table local'",
            "r");
        std::string text(1 << 16, 0);
        text.resize(std::fread(text.data(), 1, text.size(), pipe));
        pclose(pipe);
        return text;
    }

    uint32_t wa = 0;
    std::mt19937 random{20261121};
};

TEST_F(ObjectsInKernel, AreWhatIsWantedAfterAnyChanges) {
    ObjectWriter writer;
    ASSERT_TRUE(writer.read());
    EXPECT_TRUE(writer.present().empty()) << textOf(writer.present());
    const std::string others = foreign();
    RequestSocket requests;
    Objects wanted;
    int whole = 0;  // rounds without a refusal; a device made anew has another index than planned
    for (int round = 0; round < 150; ++round) {
        const Objects before = std::exchange(wanted, round == 149 ? Objects() : some());
        ObjectKeys keys;
        for (const auto& [key, object] : before) keys.insert(key);
        for (const auto& [key, object] : wanted) keys.insert(key);
        for (const auto& [key, object] : writer.present()) keys.insert(key);
        writer.apply(wanted, keys);
        // A tunnel made anew takes with it what used it.
        ASSERT_TRUE(writer.read());
        writer.apply(wanted, keys);
        auto held = readObjects(requests);
        ASSERT_TRUE(held);
        ASSERT_EQ(textOf(*held), textOf(writer.present())) << "round " << round;
        whole += writer.refused().empty();
        Objects made = wanted;
        for (const auto& [key, reason] : writer.refused()) made.erase(key), held->erase(key);
        ASSERT_EQ(textOf(*held), textOf(made)) << "round " << round;
    }
    EXPECT_EQ(foreign(), others);
    EXPECT_GT(whole, 75);
}

// A next hop that leaves many groups is replaced by one that all of them are to have, before any of
// them is; without such a one, no packet takes a path that its group is not to have.
TEST_F(ObjectsInKernel, ANexthopThatGoesIsDivertedToOneThatAllItsGroupsAreToHave) {
    constexpr uint32_t gone = 0x6e000011, common = 0x6e000012, other = 0x6e000013;
    constexpr uint32_t firstGroup = 0x6e000020, groups = 16;
    NetlinkSocket events(1 << 22);
    events.subscribe(RTNLGRP_NEXTHOP);
    std::vector<uint32_t> changed;
    const auto receive = [&] {
        changed.clear();
        const auto take = [&](Bytes data) {
            for (const Message& message : Messages(data))
                for (const NetlinkAttribute& attribute : attributesAfter<nhmsg>(message))
                    if (attribute.type == NHA_ID) changed.push_back(attribute.u32().value_or(0));
        };
        while (events.receive(take) != NetlinkSocket::Read::empty) {
        }
    };
    ObjectWriter writer;
    ObjectKeys keys;
    const auto apply = [&](const Objects& wanted) {
        for (const auto& [key, object] : wanted) keys.insert(key);
        writer.divert(wanted, keys);
        writer.apply(wanted, keys);
        EXPECT_EQ(textOf(writer.present()), textOf(wanted));
        receive();
    };
    Objects tunnel;
    insert(tunnel, Tunnel{.name = Netz::IntfId("nav.red"), .udpPort = 4793, .vni = 5, .mtu = 1400});
    apply(tunnel);
    for (const bool all : {true, false}) {
        Objects before = tunnel, after = tunnel;
        for (const uint32_t id : {gone, common, other}) {
            const Nexthop nexthop{id, if_nametoindex("nav.red"), 5, addr("203.0.113.1"),
                                  addr("198.51.100." + std::to_string(id & 255))};
            insert(before, nexthop);
            if (id != gone) insert(after, nexthop);
        }
        for (uint32_t id = firstGroup; id < firstGroup + groups; ++id) {
            insert(before, NexthopGroup{id, {{gone}}});
            insert(after, NexthopGroup{id, {{all || id != firstGroup ? common : other}}});
        }
        apply(before);
        apply(after);
        ASSERT_GE(changed.size(), groups + 1);
        EXPECT_EQ(changed.front(), all ? gone : firstGroup);
        EXPECT_EQ(changed.back(), gone);
    }
    // What another process has removed before needs no removal.
    ASSERT_TRUE(ip("nexthop flush proto " + std::to_string(ownProtocol) + "\n"));
    writer.apply({}, keys);
    EXPECT_TRUE(writer.present().empty() && writer.refused().empty()) << textOf(writer.present());
}

}  // namespace
}  // namespace Agent::Linux
