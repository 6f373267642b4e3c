// Two ends of a path whose charons have several associations of it, of which some are known to one
// end alone because the other's DELETE was lost.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>

#include "agent/linux/ipsec/Connection.h"

namespace Agent::Linux {
namespace {

struct Association {
    int id;
    size_t initiator;  // the end
    size_t children;
    bool known[2];
    uint64_t received[2]{};
};

struct Path {
    explicit Path(std::minstd_rand& random) : random(random) {
        Settings settings;
        settings.name = "Path1", settings.child = "nav-1";
        for (Connection& end : ends) end.want(settings, {}, now);
    }
    size_t below(size_t count) { return random() % count; }
    // Both ends have initiated; or the charon of one has been killed, and has initiated again.
    void begin() {
        if (const size_t end = below(3); end < 2) {
            all.push_back({1, below(2), 1, {end == 0, end == 1}});
            all.push_back({2, 1 - end, 1, {true, true}});
            return;
        }
        for (int id = 1, count = 1 + static_cast<int>(below(3)); id <= count; ++id)
            all.push_back({id, below(2), 1 + below(2), {true, true}});
    }
    Association* newest(size_t end) {
        const auto at = std::find_if(all.rbegin(), all.rend(),
                                     [=](const Association& each) { return each.known[end]; });
        return at == all.rend() ? nullptr : &*at;
    }
    bool receives(size_t end) {
        const Association* by = newest(1 - end);
        return by && by->known[end];
    }
    std::vector<IkeSa> list(size_t end) {
        std::vector<IkeSa> sas;
        for (const Association& each : all) {
            if (!each.known[end]) continue;
            IkeSa& sa = sas.emplace_back();
            sa.id = static_cast<uint32_t>(each.id);
            sa.state = "ESTABLISHED";
            sa.spi = spis[each.id];
            sa.initiator = each.initiator == end;
            for (uint32_t id = 0; id < each.children; ++id) {
                ChildSa& child = sa.children.emplace_back();
                child.name = "nav-1", child.state = "INSTALLED";
                child.id = 10 * sa.id + id;
                child.bytesIn = each.received[end];
            }
        }
        std::ranges::shuffle(sas, random);
        return sas;
    }
    // A second in the life of an end.
    void step(size_t end, bool loses) {
        if (Association* by = newest(1 - end); by && by->known[end]) by->received[end] += 100;
        const Connection::Ended ended = ends[end].observe(list(end), now, now);
        for (Association& each : all) {
            if (std::ranges::count(ended.ikeSas, each.id)) {
                each.known[end] = false;
                if (!loses) each.known[1 - end] = false;
            }
            for (const uint32_t child : ended.childSas)
                if (child / 10 == static_cast<uint32_t>(each.id)) --each.children;
            // Charon misses the peer when no packet at all comes by the policy.
            if (!each.known[1 - end] && !receives(end)) each.known[end] = false;
        }
    }

    std::minstd_rand& random;
    const std::array<std::string, 4> spis = [this] {
        std::array<std::string, 4> shuffled{"0a", "0b", "0c", "0d"};
        std::ranges::shuffle(shuffled, random);
        return shuffled;
    }();
    Loom::Instant now{};
    Ipsec::ConnectionKey keys[2]{{*Netz::IpGenAddr::parse("192.0.2.1"),
                                  *Netz::IpGenAddr::parse("192.0.2.2"), L3::VrfName("default")},
                                 {*Netz::IpGenAddr::parse("192.0.2.2"),
                                  *Netz::IpGenAddr::parse("192.0.2.1"), L3::VrfName("default")}};
    Connection ends[2]{{keys[0], 1, now}, {keys[1], 1, now}};
    std::vector<Association> all;
};

TEST(ConnectionTest, BothEndsKeepTheSameAssociationOfSeveralEvenIfNoticesAreLost) {
    std::minstd_rand random(1);
    for (int round = 0; round < 2000; ++round) {
        Path path(random);
        path.begin();
        const bool loses = path.below(2) != 0;
        for (int second = 0; second < 20; ++second) {
            path.now += std::chrono::seconds(1);
            for (const size_t end : {path.below(2), size_t{0}, size_t{1}}) path.step(end, loses);
            ASSERT_TRUE(std::ranges::any_of(
                path.all, [](const Association& each) { return each.known[0] && each.known[1]; }))
                << "round " << round << ", second " << second;
        }
        for (const size_t end : {0, 1}) {
            const std::vector<IkeSa> left = path.list(end);
            ASSERT_EQ(left.size(), 1u) << "round " << round << ", end " << end;
            EXPECT_EQ(left[0].id, path.list(1 - end)[0].id);
            EXPECT_EQ(left[0].children.size(), 1u);
        }
    }
}

}  // namespace
}  // namespace Agent::Linux
