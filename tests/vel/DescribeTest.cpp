// Entities seen by somebody who has only names and texts.
#include "tests/vel/VelTest.h"

namespace Test {

std::string text(const Datum& d) {
    std::string out;
    if (const auto* list = d.as<Datum::List>()) {
        for (const Datum& item : *list) out += text(item) + ' ';
        return '[' + out + ']';
    }
    if (const auto* members = d.as<Datum::Members>()) {
        for (const auto& [name, value] : *members) out += name + '=' + text(value) + ' ';
        return '{' + out + '}';
    }
    if (const auto* s = d.as<String>()) return *s;
    if (const auto* n = d.as<U64>()) return std::to_string(*n);
    return d.isNull() ? "null" : Codec<double>::key(*d.as<double>());
}

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

TEST_F(DescribeTest, ReadsWritesAndWatchesByName) {
    attribute("mode").set(*tree, {"active"});
    attribute("mode").set(*tree, {"active"});
    EXPECT_EQ((tree->countInc(1), tree->countInc(3)), 2) << "modulo 256";
    for (const char* key : {"20", "3"})
        for (const char* name : {"leaf", "sorted"})
            attribute(name).create(
                *tree, key, [](Entity& leaf) { Leaf::velType.find("b")->set(leaf, {U64{9}}); });
    attribute("site").setAt(*tree, R"(a\,b,::1)", {true});
    attribute("flow").setAt(*tree, "1.2.3.4,::2,7", {U64{1}});
    attribute("rule").setAt(*tree, "5",
                            {Datum::Members{{"mode", {"standby"}}, {"share", {U64{2}}}}});
    Tree& sub = tree->subIs("below");
    EXPECT_EQ(attribute("sub").find(*tree, ""), &sub);
    EXPECT_EQ(seen, (std::vector<std::string>{"mode", "count", "count", "leaf[20]", "sorted[20]",
                                              "leaf[3]", "sorted[3]", R"(site[a\,b,::1])",
                                              "flow[1.2.3.4,::2,7]", "rule[5]", "sub"}));
    tree->subDel();
    EXPECT_EQ(
        text(toDatum(*tree)),
        "{name=tree mode=active count=2 "
        "leaf={20={id=20 a=0 b=9 } 3={id=3 a=0 b=9 } } "
        "sorted={3={id=3 a=0 b=9 } 20={id=20 a=0 b=9 } } "
        R"(site=[a\,b,::1 ] flow={1.2.3.4,::2,7=1 } )"
        "rule={5={id=5 weight=1 mode=standby site={name= addr=0.0.0.0 } vrf= intf= share=2 } } "
        "sub=null }");
    EXPECT_EQ(attribute("flow").normalKey("1.2.3.4,0:0::2,007"), "1.2.3.4,::2,7");
    for (const char* name : {"leaf", "sorted", "site", "flow", "rule"}) {
        seen.clear();
        const Attribute& a = attribute(name);
        const auto keys = a.keys(*tree);
        for (const std::string& key : keys) EXPECT_TRUE(a.eraseAt(*tree, key));
        for (const std::string& key : keys) EXPECT_FALSE(a.eraseAt(*tree, key));
        EXPECT_EQ(seen.size(), keys.size());
        EXPECT_TRUE(a.keys(*tree).empty());
    }
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
