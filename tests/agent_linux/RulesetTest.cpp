// What validate finds of the agent's rules in nftables.
#include <algorithm>

#include "agent/linux/forwarding/Nftables.h"
#include "agent/linux/forwarding/Ruleset.h"
#include "agent/linux/forwarding/RulesetDifferences.h"
#include "tests/agent_linux/Namespace.h"

namespace Agent::Linux {
namespace {

using RulesetInKernel = InNamespace;

constexpr const char* drop = "udp dport 4793 counter drop";

// Sets and chains, with the rules of the chain "in" in this order or the reverse one.
std::string rules(const std::string& table, bool reverse = false) {
    std::vector<std::string> rules = {
        "iifname { \"wan\\*\", \"lan\" } jump { ip dscp 46 th dport { 99, 80-90 } accept; "
        "meta mark set 4; }",
        drop, "udp dport 4793 update @packets { meta mark . ip saddr }"};
    if (reverse) std::ranges::reverse(rules);
    std::string text =
        "add set " + table + " packets { type mark . ipv4_addr; flags dynamic; counter; }\n" +
        "add chain " + table + " in { type filter hook input priority filter; policy accept; }\n";
    for (const std::string& rule : rules) text += "add rule " + table + " in " + rule + "\n";
    return text;
}

TEST_F(RulesetInKernel, IsComparedWithWhatItShouldBeAndLeftAsItIs) {
    Nftables nftables;
    const std::string fresh = "add table inet nav\nflush table inet nav\n";
    const std::string in = " in chain in of table inet nav: ";
    for (const auto& [damage, expected] : std::vector<std::pair<std::string, std::string>>{
             {"add chain inet nav empty { type filter hook input priority 1; }", ""},
             {"insert rule inet nav in " + std::string(drop), "not wanted" + in + drop},
             {fresh + rules(nftTable, true), "chain in of table inet nav is in another order"},
             {"flush chain inet nav in\nadd rule inet nav in " + std::string(drop),
              "missing" + in + "iifname { \"lan\", \"wan*\" } jump {"},
             {"add chain inet nav other\nadd rule inet nav other drop",
              "not wanted in chain other of table inet nav: drop"},
             {"delete table inet nav",
              "missing" + in + "type filter hook input priority filter; policy accept;"}}) {
        ASSERT_EQ(nftables.run(fresh + rules(nftTable)), "");
        EXPECT_EQ(rulesetDifferences(rules(comparedTable)), std::vector<std::string>()) << damage;
        ASSERT_EQ(nftables.run(damage), "");
        const std::string damaged = nftables.list(nftTable);
        const auto found = rulesetDifferences(rules(comparedTable));
        EXPECT_EQ(found.empty() ? "" : found.front(), expected) << damage;
        EXPECT_EQ(nftables.list(nftTable), damaged);
        EXPECT_EQ(nftables.list(comparedTable), "");
    }
}

}  // namespace
}  // namespace Agent::Linux
