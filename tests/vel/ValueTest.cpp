// Values as text, as keys and as hashes: what is written reads back, and nothing that is read can
// do harm.
#include <cmath>
#include <set>

#include "tests/vel/VelTest.h"

namespace Test {

struct ValueTest : testing::Test {
    std::string anyText(U32 most) {
        static constexpr char awkward[] = "'\\\",]}{:\n\t\r\0\x01\x7f\x80\xff n";
        std::string out;
        for (U32 n = random() % (most + 1); n; --n)
            out += random() % 2 ? awkward[random() % sizeof awkward] : static_cast<char>(random());
        return out;
    }
    Netz::IpGenAddr anyAddr() {
        std::array<U8, 16> octets;
        for (U8& o : octets) o = static_cast<U8>(random() % 3 ? 0 : random());
        return random() % 2 ? Netz::IpGenAddr::fromV6(octets) : addr(random());
    }
    SiteKey anySite() { return {anyText(12), anyAddr()}; }
    Rule anyRule() {
        return {random(),
                static_cast<U8>(random()),
                static_cast<Mode>(random() % 3),
                anySite(),
                anyText(L3::VrfName::maxLength),
                random() % 2 ? Netz::IntfId("Port-Channel1'\\,]") : Netz::IntfId(),
                std::ldexp(static_cast<int>(random()), static_cast<int>(random() % 200) - 100)};
    }
    Random random{7};  // the seed
};

TEST_F(ValueTest, ReadsBackWhatItWrote) {
    EXPECT_EQ(valueToStrep(SiteKey{"it's\n\x01\\", addr(2)}),
              R"(Value('Test::SiteKey', ** {'name': 'it\'s\n\x01\\', 'addr': '2001:db8::2'}))");
    EXPECT_EQ(Codec<SiteKey>::key({"a,b]\\", addr(257)}), R"(a\,b\]\\,0.0.1.1)");
    for (int i = 0; i < 2000; ++i) {
        const Rule rule = anyRule();
        ASSERT_EQ(valueFromStrep<Rule>(valueToStrep(rule)), rule);
        ASSERT_EQ(Codec<Rule>::fromDatum(Codec<Rule>::datum(rule)), rule);
        ASSERT_EQ(Codec<SiteKey>::fromKey(Codec<SiteKey>::key(rule.site)), rule.site);
        const FlowKey flow{anyAddr(), anyAddr(), random()};
        ASSERT_EQ(valueFromStrep<FlowKey>(valueToStrep(flow)), flow);
        ASSERT_EQ(Codec<FlowKey>::fromKey(Codec<FlowKey>::key(flow)), flow);
    }
}

TEST_F(ValueTest, TextThatIsNoneIsRefused) {
    const std::string good = valueToStrep(anyRule());
    for (size_t n = 0; n < good.size(); ++n)
        EXPECT_THROW(valueFromStrep<Rule>(good.substr(0, n)), Error) << n;
    const std::string begin = "Value('Test::FlowKey', ** {'src': ", v4 = "'1.2.3.4'";
    for (const char* bad :
         {"'1.2.3.4', 'dst': '::', 'vrf': 1}) ", "'1.2.3.4', 'dst': '::'})",
          "'1.2.3.4', 'dst': '::', 'vrf': 4294967296})", "'1.2.3.4', 'dst': '::', 'vrf': -1})",
          "'1.2.3', 'dst': '::', 'vrf': 1})", "'1.2.3.4', 'vrf': 1, 'dst': '::'})",
          R"('\x4', 'dst': '::', 'vrf': 1})", R"('\q', 'dst': '::', 'vrf': 1})", "'1.2.3.4\\"})
        EXPECT_THROW(valueFromStrep<FlowKey>(begin + bad), Error) << bad;
    for (const char* bad : {"", "x", "x,", "x,1.2.3.4,", "x,1.2.3.4,5", "x\\,1.2.3.4", "1.2.3.4,x"})
        EXPECT_THROW(Codec<SiteKey>::fromKey(bad), Error) << bad;
}

// Bob Jenkins' one-at-a-time, written out over bytes.
U32 oneAtATime(const std::vector<U32>& words) {
    U32 h = 0;
    for (U32 word : words)
        for (U32 shift = 0; shift < 32; shift += 8) {
            h += (word >> shift) & 0xff;
            h += h << 10;
            h ^= h >> 6;
        }
    h += h << 3;
    h ^= h >> 11;
    return h + (h << 15);
}

TEST_F(ValueTest, HashTakesEveryField) {
    EXPECT_EQ(oneAtATime({0x64636261}), 0xcd8b6206U) << "of \"abcd\"";
    EXPECT_EQ(hashOf(FlowKey{addr(1), addr(2), 3}),
              oneAtATime({addr(1).hash(), addr(2).hash(), 3}));
    EXPECT_EQ(hashOf(SiteKey{"", addr(1)}), oneAtATime({0, addr(1).hash()}));
    EXPECT_EQ(hashOf(SiteKey{"abc", addr(1)}),
              oneAtATime({Netz::hashBytes("abc"), addr(1).hash()}));
    // Paths between neighbouring addresses, of both families and both ways: no two alike, and
    // spread in the bits that an index uses.
    std::set<U64> whole, low;
    U64 n = 0;
    for (U32 src = 0; src < 24; ++src)
        for (U32 dst = 0; dst < 24; ++dst)
            for (U32 vrf = 0; vrf < 3; ++vrf, ++n) {
                const U64 mix = Codec<FlowKey>::mix({addr(src << 8), addr((dst << 8) + 1), vrf});
                whole.insert(mix);
                low.insert(mix & 0xffff);
            }
    EXPECT_EQ(whole.size(), n);
    EXPECT_GT(low.size(), n * 97 / 100);
    EXPECT_EQ(Codec<double>::mix(-0.0), Codec<double>::mix(0.0)) << "equal values hash equally";
    EXPECT_NE(Codec<double>::mix(-1.5), Codec<double>::mix(-2.5));
}

}  // namespace Test
