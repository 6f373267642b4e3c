// Addresses, interface ids and names: text forms, refusals, order, hashes.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>

#include "platform/netz/Assert.h"
#include "platform/netz/Error.h"
#include "platform/netz/IntfId.h"
#include "platform/netz/IpAddrWithMask.h"
#include "platform/netz/VrfName.h"

namespace {

using namespace std::string_view_literals;
using Netz::IntfId;
using Netz::IpAddrWithMask;
using Netz::IpGenAddr;

TEST(IpGenAddr, AgreesWithTheSystemOnRandomAddresses) {
    constexpr unsigned seed = 20260131;
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    for (int round = 0; round < 20000; ++round) {
        std::array<uint8_t, 16> octets;
        for (auto& octet : octets) octet = static_cast<uint8_t>(random());
        const uint32_t zeroed = random();
        for (unsigned group = 0; group < 8; ++group)
            if (zeroed >> group & 1) octets[2 * group] = octets[2 * group + 1] = 0;
        octets[0] |= 0x20;  // the system prints ::a.b.c.d for what RFC 5952 writes in groups
        const IpGenAddr v6 = IpGenAddr::fromV6(octets),
                        v4 = IpGenAddr::fromV4({octets[0], octets[1], octets[2], octets[3]});
        for (const IpGenAddr& addr : {v6, v4}) {
            char expected[INET6_ADDRSTRLEN];
            inet_ntop(addr.isV4() ? AF_INET : AF_INET6, octets.data(), expected, sizeof expected);
            ASSERT_EQ(addr.stringValue(), expected);
            ASSERT_EQ(IpGenAddr::parse(expected), addr);
        }
    }
}

TEST(IpGenAddr, TextsThatAreNoneAreRefusedAndFamiliesKeptApart) {
    for (const auto text : {""sv, "01.2.3.4"sv, "1.2.3.4\0"sv, "1.2.3.4/24"sv, "fe80::1%eth0"sv,
                            "ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.2555"sv})
        EXPECT_FALSE(IpGenAddr::parse(text)) << text;
    std::vector<IpGenAddr> sorted;
    for (const auto text : {"0.0.0.0"sv, "9.255.0.0"sv, "10.0.0.0"sv, "200.0.0.0"sv, "::"sv,
                            "::1"sv, "::ffff:10.0.0.0"sv, "ff::"sv}) {
        sorted.push_back(*IpGenAddr::parse(text));
        EXPECT_EQ(sorted.back().stringValue(), text);
    }
    EXPECT_TRUE(std::ranges::is_sorted(sorted, std::less_equal<>()));
    EXPECT_EQ(std::ranges::count_if(sorted, &IpGenAddr::isZero), 2);
}

TEST(IpAddrWithMask, ParsesStrictlyAndPrints) {
    for (const char* text : {"0.0.0.0/32", "::/128", "2001:db8::1/0"})
        EXPECT_EQ(IpAddrWithMask::parse(text).value().stringValue(), text);
    for (const char* text : {"203.0.113.1", "1.2.3.4/", "1.2.3.4/33", "::/129", "::/256", "/24",
                             "1.2.3.4/024", "1.2.3.4/+4", "1.2.3.4/4 "})
        EXPECT_FALSE(IpAddrWithMask::parse(text)) << text;
}

TEST(Names, AreHeldUpToTheirLimit) {
    const std::string longest(IntfId::maxLength, 'x');
    EXPECT_EQ(IntfId(longest).stringValue(), longest);
    EXPECT_THROW(IntfId(longest + "x"), Vel::RangeError);
    for (const auto bad : {"eth 0"sv, "eth0\n"sv, "\x7f"sv, "eth0\0"sv})
        EXPECT_FALSE(IntfId::parse(bad));
    std::set<uint32_t> hashes;
    for (int i = 0; i < 1000; ++i) hashes.insert(IntfId("Ethernet" + std::to_string(i)).hash());
    EXPECT_GT(hashes.size(), 998u);
    for (const auto& [name, abbreviated] :
         {std::pair{"Ethernet1/2", "Et1/2"}, {"Vlan10", "Vlan10"}, {"Ethernet", "Ethernet"}})
        EXPECT_EQ(IntfId(name).shortName(), abbreviated);

    EXPECT_EQ(L3::VrfName(std::string(100, 'v')).str().size(), 100u);
    try {
        L3::VrfName tooLong(std::string(101, 'v'));
        FAIL() << "accepted";
    } catch (const Vel::Error& error) {
        EXPECT_STREQ(error.what(), "VrfName::bytes > VrfName::maxLength not allowed");
    }
}

TEST(Assert, CallsItsHandlerThenEnds) {
    const auto before = Vel::assertHandlerIs([](const char*, const char*, int) {});
    EXPECT_EXIT(VEL_ASSERT(false, "returns"), testing::KilledBySignal(SIGABRT), "");
    Vel::assertHandlerIs(before);
    EXPECT_DEATH(VEL_ASSERT(false, "printed"), "NetzTest.cpp:[0-9]+: assertion failed: printed");
}

}  // namespace
