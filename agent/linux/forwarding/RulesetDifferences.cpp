#include "agent/linux/forwarding/RulesetDifferences.h"

#include <algorithm>
#include <map>
#include <sstream>

#include "agent/linux/forwarding/Nftables.h"
#include "agent/linux/forwarding/Ruleset.h"

namespace Agent::Linux {

namespace {

using Lines = std::vector<std::string>;

// The lines of each "chain name" and "set name" of a listed table.
std::map<std::string, Lines> blocksOf(const std::string& listing) {
    constexpr std::string_view begin = " {", end = "\t}";
    std::map<std::string, Lines> blocks;
    Lines* block = nullptr;
    std::istringstream in(listing);
    for (std::string line; std::getline(in, line);) {
        if (block && line != end)
            block->push_back(line.substr(line.find_first_not_of('\t')));
        else if (!block && line.starts_with('\t') && line.ends_with(begin))
            block = &blocks[line.substr(1, line.size() - 1 - begin.size())];
        else
            block = nullptr;
    }
    return blocks;
}

Lines without(Lines from, const Lines& lines) {
    for (const std::string& line : lines)
        if (const auto found = std::ranges::find(from, line); found != from.end())
            from.erase(found);
    return from;
}

// A chain that the rules need no longer stays, without rules; a base chain has its type then.
bool matters(const std::string& name, const Lines& lines) {
    const auto isRule = [](const std::string& line) { return !line.starts_with("type "); };
    return !name.starts_with("chain ") || std::ranges::any_of(lines, isRule);
}

std::string shortened(const std::string& line) {
    constexpr size_t longest = 200;
    return line.size() <= longest ? line : line.substr(0, longest) + " …";
}

}  // namespace

std::vector<std::string> rulesetDifferences(const std::string& rules) {
    const std::string compared = comparedTable, remove = "delete table " + compared;
    Nftables nftables;
    nftables.run(remove);  // a copy that was killed may have left it
    const std::string refused =
        nftables.run("add table " + compared + " { flags dormant; }\n" + rules);
    if (!refused.empty()) return {"nftables refuses rules to compare with: " + refused};
    const auto should = blocksOf(nftables.list(compared)), is = blocksOf(nftables.list(nftTable));
    nftables.run(remove);
    std::vector<std::string> differences;
    const auto add = [&](const char* what, const std::string& block, const Lines& lines) {
        for (const std::string& line : lines)
            differences.push_back(std::string(what) + " in " + block + " of table " + nftTable +
                                  ": " + shortened(line));
    };
    for (const auto& [name, lines] : should) {
        const auto found = is.find(name);
        const Lines present = found == is.end() ? Lines() : found->second;
        const Lines missing = without(lines, present), others = without(present, lines);
        add("missing", name, missing);
        add("not wanted", name, others);
        if (missing.empty() && others.empty() && lines != present)
            differences.push_back(name + " of table " + nftTable + " is in another order");
    }
    for (const auto& [name, lines] : is)
        if (!should.contains(name) && matters(name, lines)) add("not wanted", name, lines);
    return differences;
}

}  // namespace Agent::Linux
