// Entities seen by somebody who has only names and texts.
#include "tests/vel/VelTest.h"

namespace Test {

struct DescribeTest : testing::Test {
    const Attribute& attribute(const char* name) { return *Tree::velType.find(name); }
    static void note(void* self, const void* key, Ordinal ordinal) {
        const Attribute& a = Tree::velType.attributes[ordinal];
        static_cast<DescribeTest*>(self)->seen.push_back(std::string(a.name) +
                                                         (key ? "[" + a.keyText(key) + "]" : ""));
    }
    Ptr<Tree> tree = make<Tree>("tree");
    Subscription all = tree->subscribeAll(this, &note);
    std::vector<std::string> seen;
};

TEST_F(DescribeTest, WritesAndWatchesByName) {
    attribute("mode").set(*tree, {"active"});
    attribute("mode").set(*tree, {"active"});
    EXPECT_EQ((tree->countInc(1), tree->countInc(3)), 2) << "modulo 256";
    for (const char* key : {"20", "3"})
        for (const char* name : {"leaf", "sorted"})
            attribute(name).create(*tree, key, [](Entity&) {});
    attribute("site").setAt(*tree, R"(a\,b,::1)", {true});
    attribute("flow").setAt(*tree, "1.2.3.4,0:0::2,007", {U64{1}});
    attribute("rule").setAt(*tree, "5", {Datum::Members{{"mode", {"standby"}}}});
    EXPECT_EQ(seen, (std::vector<std::string>{"mode", "count", "count", "leaf[20]", "sorted[20]",
                                              "leaf[3]", "sorted[3]", R"(site[a\,b,::1])",
                                              "flow[1.2.3.4,::2,7]", "rule[5]"}));
    EXPECT_EQ(attribute("leaf").keys(*tree), (std::vector<std::string>{"20", "3"}));
    EXPECT_EQ(attribute("sorted").keys(*tree), (std::vector<std::string>{"3", "20"}));
    EXPECT_EQ(tree->rule(5)->mode, Mode::standby);
}

TEST_F(DescribeTest, RefusesWithTheReason) {
    const auto refused = [&](const char* name, const char* key, const Datum& d,
                             const char* reason) {
        const Attribute& a = attribute(name);
        EXPECT_EQ(errorOf([&] { key ? a.setAt(*tree, key, d) : a.set(*tree, d); }), reason);
        EXPECT_EQ(errorOf([&] { key ? a.checkAt(key, d) : a.check(d); }), reason);
    };
    using M = Datum::Members;
    refused("mode", nullptr, {U64{1}}, "expected one of off standby active, got 1");
    refused("count", nullptr, {-1.0}, "expected a whole number from 0 to 255, got -1");
    refused("site", "a,::1", {false}, "expected true, got false");
    refused("rule", "5", {M{{"id", {U64{6}}}}}, R"(expected the key 5, got "6")");
    refused("rule", "5", {M{{"wait", {U64{6}}}}}, R"(Test::Rule has no field "wait")");
    refused("rule", "5", {M{{"site", {M{{"addr", {"1.2.3"}}}}}}},
            R"(site: addr: expected an IPv4 or IPv6 address, got "1.2.3")");
    tree->subIs("below");
    EXPECT_EQ(errorOf([&] { tree->subIs("other"); }),
              "Reinstantiating the pointer interface where constructor parameter attribute _name "
              "has a different value of other than the current value of below not allowed");
    EXPECT_EQ(seen, std::vector<std::string>{"sub"}) << "what is refused changes nothing";
}

}  // namespace Test
