// The reactors held against the oracle on a random walk. Now and then one step of the walk is made
// from within another, in a copy of the world with services that answer inside.
//
// NAV_WALK_EVENTS, NAV_WALK_EPISODE and NAV_WALK_SEED say how many events, in worlds of how many
// events each, from which seed. With NAV_WALK_SHRINK=0 a failing run is not shortened.
#include <gtest/gtest.h>
#include <malloc.h>

#include <iostream>

#include "tests/oracle/Nested.h"
#include "tests/oracle/Oracle.h"
#include "tests/oracle/Walk.h"

namespace Oracle {

namespace {

// A world that is held against the oracle.
class Episode {
  public:
    ~Episode() {
        if (std::uncaught_exceptions() != 0) (void)world_.release();  // it may not survive its end
    }
    World& world() { return *world_; }
    const Oracle& oracle() const { return oracle_; }

    void happen(const Event& event) {
        const bool wasConfigured = world_->in.cliConfig->navConfigured();
        if (event.op == Event::Op::restart) {
            world_ = std::make_unique<World>(*world_, true, false);
            if (!event.path.empty()) world_->apply(event);
            world_->start();
            oracle_.restarted();
        } else {
            world_->apply(event);
        }
        if (event.run) world_->settle();
        check(event.run);
        if (!wasConfigured && world_->in.cliConfig->navConfigured()) equalsFreshProcess();
    }

    // Every index that no path has must still be there to be had; then everything goes.
    void end() {
        happen(set("/cliConfig/navConfigured"));
        happen(text("/ipStatusDir/ipIntfStatus[spare]/activeAddrWithMask", "203.0.113.77/32"));
        happen(set("/cliConfig/pathGroupConfig[spare]/localIntf[spare]"));
        size_t used = 0;
        for (const auto& vrf : world_->in.pathConfigDir->pathConfig())
            used += vrf.pathConfigEntry().size();
        auto& site = world_->in.cliConfig->pathGroupConfig("spare")->remoteViaConfigIs({});
        for (; used < Nav::NavConstants::maxPathIndex; ++used)
            site.remoteViaIs(IpGenAddr::fromV4(static_cast<uint32_t>(0xC6120000 + used)));
        world_->settle();
        check(true);
        happen(del("/cliConfig/pathGroupConfig[spare]"));
        happen(set("/cliConfig/navConfigured", {false}));
    }

    void check(bool settled) { oracle_.check(*world_, settled); }

  private:
    void equalsFreshProcess() {
        const Flat fresh = World(*world_, false).published(), here = world_->published();
        const auto [mine, other] = std::ranges::mismatch(here, fresh);
        if (mine != here.end() || other != fresh.end())
            throw Difference("switched on, not as a fresh process from " +
                             (mine == here.end() ? other : mine)->first);
    }

    std::unique_ptr<World> world_ = std::make_unique<World>();
    Oracle oracle_;
};

bool fails(const std::vector<Event>& events) {
    try {
        Episode episode;
        for (const Event& event : events) episode.happen(event);
        episode.end();
        return false;
    } catch (const std::exception&) {
        return true;
    }
}

// Leaves out what is not needed to fail, in ever smaller pieces.
void reportShortest(std::vector<Event> events) {
    for (size_t piece = events.size(); piece > 0; piece /= 2)
        for (size_t at = 0; at < events.size();) {
            std::vector<Event> fewer = events;
            const auto begin = fewer.begin() + static_cast<long>(at);
            fewer.erase(begin, begin + static_cast<long>(std::min(piece, events.size() - at)));
            fails(fewer) ? events.swap(fewer) : void(at += piece);
        }
    std::cout << "The shortest run that fails, for navctl batch:\n";
    for (const Event& event : events) std::cout << toLine(event) << std::endl;
}

// Whether an address is on two interfaces before or after: which one the paths go by is open then.
bool isAmbiguous(const World& world, const Event& outer, const Event& inner) {
    std::multiset<IpGenAddr> addrs;
    const Inputs in = inputsOf(world.in);
    for (const auto* interfaces : {&in.interfaces, &in.interfaces6})
        for (const auto& [id, intf] : *interfaces) addrs.insert(intf.addr);
    for (const Event* event : {&outer, &inner})
        if (event->op == Event::Op::set && event->path.ends_with("/activeAddrWithMask"))
            addrs.insert(Netz::IpAddrWithMask::parse(*event->value.as<Vel::String>()).value().addr);
    return std::ranges::any_of(
        addrs, [&](const IpGenAddr& addr) { return !addr.isZero() && addrs.count(addr) > 1; });
}

void nest(Walk& walk, const World& world, size_t number) {
    const Event outer = walk.next(world), inner = walk.next(world);
    const auto isRestart = [](const Event& event) { return event.op == Event::Op::restart; };
    if (isRestart(outer) || isRestart(inner) || isAmbiguous(world, outer, inner)) return;
    const auto failure = Pair(world, true, outer, inner).run(1 + number % 31, number % 2);
    if (failure && !failure->empty()) throw Difference(*failure);
}

size_t heap() {
    const auto info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

class OracleTest : public testing::Test {
  protected:
    // Whether all went well.
    static bool walk(Vel::U64 seed, size_t length) {
        std::vector<Event> events;
        try {
            Walk walk(seed);
            Episode episode;
            for (size_t i = 0; i < length; ++i) {
                if (i % 100 == 99) nest(walk, episode.world(), seed + i / 100);
                events.push_back(walk.next(episode.world()));
                episode.happen(events.back());
            }
            episode.end();
            return true;
        } catch (const std::exception& e) {
            ADD_FAILURE() << "seed " << seed << ", event " << events.size() << " "
                          << toLine(events.back()) << "\n"
                          << e.what();
        }
        if (setting("NAV_WALK_SHRINK", 1) != 0) reportShortest(events);
        return false;
    }

  private:
    const ThrowingAssertions assertions_;
};

TEST_F(OracleTest, HoldsOnARandomWalk) {
    const size_t events = setting("NAV_WALK_EVENTS", 30000);
    const size_t length = std::min(events, setting("NAV_WALK_EPISODE", 1000));
    const Vel::U64 seed = setting("NAV_WALK_SEED", 20240611);
    std::cout << events << " events from seed " << seed << std::endl;
    const auto alive = Vel::liveObjects();
    size_t early = 0;
    for (size_t done = 0; done < events; done += length) {
        if (!walk(seed + done / length, length)) return;
        ASSERT_EQ(Vel::liveObjects(), alive) << "seed " << seed + done / length;
        if (early == 0 && done >= events / 10) early = heap();
    }
    const size_t late = heap();
    std::cout << "heap of " << early << " bytes early, " << late << " at the end" << std::endl;
    EXPECT_TRUE(events < 1000000 || late < early + (1 << 22));
}

}  // namespace

}  // namespace Oracle
