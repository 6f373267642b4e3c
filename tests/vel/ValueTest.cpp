// Values as text, as keys and as hashes. (What is read from outside: fuzz/ValueFuzz.cpp.)
#include <set>

#include "tests/vel/VelTest.h"

namespace Test {

TEST(Value, HashTakesEveryField) {
    OneAtATime reference;  // Bob Jenkins' function of "abcd"
    reference.add(0x64636261);
    EXPECT_EQ(reference.end(), 0xcd8b6206U);
    OneAtATime fields;
    for (U32 word : {Netz::hashBytes("abc"), addr(1).hash()}) fields.add(word);
    EXPECT_EQ(hashOf(SiteKey{"abc", addr(1)}), fields.end());
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
    EXPECT_TRUE(sameValue(double{NAN}, double{-NAN}) && !sameValue(double{NAN}, 0.0));
}

}  // namespace Test
