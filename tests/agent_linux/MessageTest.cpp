// What messages make of the tables, without a kernel: recorded ones, ones made up for what no
// kernel at hand sends, and bytes that no kernel would send.
#include <gtest/gtest.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <random>

#include "agent/linux/FibLookup.h"
#include "agent/linux/LinkTable.h"
#include "agent/linux/NeighbourTable.h"
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

// Parsers are given every message cut short at every byte, with a length that says so or not, and
// with bytes changed at random; the bytes end where a page without access begins.
class Hostile : public testing::Test {
  protected:
    Hostile() {
        page_ = static_cast<std::byte*>(mmap(nullptr, 2 * pageSize_, PROT_READ | PROT_WRITE,
                                             MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(page_ + pageSize_, pageSize_, PROT_NONE);
    }
    ~Hostile() override { munmap(page_, 2 * pageSize_); }

    // Everything that reads messages; returns how many records any of it found.
    size_t readAll(Bytes data) {
        const Bytes atEnd(page_ + pageSize_ - data.size(), data.size());
        std::memcpy(page_ + pageSize_ - data.size(), data.data(), data.size());
        size_t found = 0;
        LinkTable links;
        NeighbourTable neighbours;
        for (const Message& message : Messages(atEnd)) {
            ++found;
            links.apply(message);
            neighbours.apply(message);
            refusalText(message);
            for (uint16_t type : {message.type, uint16_t{RTM_NEWROUTE}, uint16_t{RTM_NEWNEXTHOP}}) {
                Message as = message;
                as.type = type;
                found += parseRoute(as, Netz::IpGenAddr()).result.vias.size();
                found += parseNexthop(as).group.size();
            }
        }
        found += links.view().interfaces.size();
        for (const Interface& interface : links.view().interfaces)
            EXPECT_LE(interface.primary4.prefixLength, 32) << interface.name;
        return found;
    }

  private:
    const size_t pageSize_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    std::byte* page_;
};

TEST_F(Hostile, CutShortOrChangedBytesAreReadWithinTheirBounds) {
    const unsigned seed = 20240611;
    std::printf("seed %u\n", seed);
    std::mt19937 random(seed);
    for (std::string_view hex : Recorded::all) {
        const auto whole = Recorded::bytes(hex);
        for (size_t size = 1; size < whole.size(); ++size) {
            std::vector<std::byte> cut(whole.begin(), whole.begin() + static_cast<long>(size));
            EXPECT_EQ(readAll(cut), 0U) << "a message longer than its bytes was believed";
            if (size < sizeof(uint32_t)) continue;
            const auto length = static_cast<uint32_t>(size);
            std::memcpy(cut.data(), &length, sizeof length);
            readAll(cut);
        }
        for (int round = 0; round < 2000; ++round) {
            auto changed = whole;
            for (unsigned i = random() % 4 + 1; i != 0; --i)
                changed[random() % changed.size()] = static_cast<std::byte>(random());
            // No record is shorter than 4 bytes, so this bounds what can be found in all of them.
            EXPECT_LE(readAll(changed), 8 * changed.size()) << "seed " << seed;
        }
    }
}

}  // namespace
}  // namespace Agent::Linux
