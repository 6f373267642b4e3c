// The tables that other processes read: counters, and the forwarding tables of an agent.
#include <gtest/gtest.h>

#include <chrono>

#include "forwarder/Traffic.h"
#include "nav/counters/NavShard.h"
#include "platform/shard/ForwardingStatus.h"
#include "tests/TempDir.h"

namespace {

using namespace std::chrono_literals;
using namespace NavShard;
using Vel::U32;
using Vel::U64;

struct Space : TempDir {
    Shard::Namespace space() const { return Shard::Namespace(path); }
};

NavLbProfileCounterEntry entry(U32 lbId, U64 packets) {
    NavLbProfileCounterEntry e;
    e.key.lbId = lbId;
    e.outPkts = packets;
    e.pathCounterIs(NavPathCounterIndex(128), {.pathId = 128, .outPkts = packets});
    return e;
}

TEST(Counters, BoundsAndTexts) {
    EXPECT_NO_THROW(NavPathCounterIndex(128));
    try {
        NavPathCounterIndex index(127);
        index += 1;
        index += 1;
        FAIL() << "129 is no index";
    } catch (const Vel::RangeError& e) {
        EXPECT_STREQ(e.what(),
                     "NavPathCounterIndex::value < NavPathCounterIndex::min or > "
                     "NavPathCounterIndex::max not allowed");
    }
    NavLbProfileCounterEntry e = entry(7, 5);
    const std::string text = Vel::valueToStrep(e);
    EXPECT_TRUE(
        text.starts_with("Value('NavShard::NavLbProfileCounterEntry', ** {'key': "
                         "Value('NavShard::NavLbProfileCounterKey', ** {'lbId': 7}), "
                         "'lbKeyInfo': Value('Nav::LbProfileKey'"));
    EXPECT_NE(
        text.find("{'pathId': 128, 'outBytes': 0, 'outPkts': 5, 'throughput': 0, 'flows': 0}"),
        std::string::npos);
    try {
        Vel::valueFromStrep<NavLbProfileCounterEntry>(text);
        FAIL();
    } catch (const Vel::Error& error) {
        EXPECT_STREQ(error.what(),
                     "No String constructor for NavLbProfileCounterEntry - has collection");
    }
    e.pathCounterDelAll();
    EXPECT_EQ(e.outPkts, 5U) << "the totals are the entry's own";
    EXPECT_EQ(e.pathCounter[128], NavPathCounterEntry{});
}

// All 1023 ids fit, the next does not; a reader is told of what changed, finds it, and learns that
// the writer left.
TEST(Counters, FromWriterToReader) {
    const Space run, other;
    auto reader = navCountersFactory("reader"), writer = navCountersFactory("writer");
    reader->lbProfileCounterControlIs(LbProfileCounterControl::reader(run.space()));
    struct Seen {
        void key(const NavLbProfileCounterKey& key) { keys.push_back(key.lbId); }
        void mount() { ++mounts; }
        std::vector<U32> keys;
        int mounts = 0;
    } seen;
    const auto keys =
        Vel::Subscription::to<&Seen::key>(*reader, NavCounters::lbProfileCounterAttr, &seen);
    const auto mounts = Vel::Subscription::to<&Seen::mount>(
        *reader, NavCounters::lbProfileCounterMountStatusAttr, &seen);
    writer->lbProfileCounterControlIs(LbProfileCounterControl::writer(run.space()));
    EXPECT_THROW(LbProfileCounterControl::writer(run.space()), Vel::Error) << "there is one";
    EXPECT_NO_THROW(LbProfileCounterControl::writer(other.space())) << "another run directory";
    for (U32 id = 1; id <= 1023; ++id) writer->lbProfileCounterIs(entry(id, id));
    EXPECT_THROW(writer->lbProfileCounterIs(entry(1024, 1)), Vel::Error) << "the table is full";
    writer->lbProfileCounterCommit();
    writer->lbProfileCounterMounted();
    EXPECT_EQ(reader->lbProfileCounterUpdate(), Shard::MapState::mounted);
    EXPECT_GE(seen.mounts, 1);
    U64 sum = 0;
    reader->eachLbProfileCounter([&](const auto& e) { sum += e.pathCounter[128].outPkts; });
    EXPECT_EQ(sum, 1023U * 1024 / 2);

    seen.keys.clear();
    writer->lbProfileCounterCommit(entry(5, 5000));
    EXPECT_TRUE(reader->lbProfileCounterAwait(20s));
    reader->lbProfileCounterUpdate();
    EXPECT_EQ(seen.keys, std::vector<U32>{5});
    NavLbProfileCounterEntry found;
    ASSERT_TRUE(reader->lbProfileCounter({5}, found));
    EXPECT_EQ(found.outPkts, 5000U);
    writer->lbProfileCounterControlIs(nullptr);
    EXPECT_EQ(reader->lbProfileCounterUpdate(), Shard::MapState::quiesced);
    EXPECT_THROW(reader->lbProfileCounterIs(found), Vel::Error) << "a reader does not write";
}

// FECs of all lengths; memory follows the vias; a reader of the named table sees one commit per
// run of the scheduler's tasks, and finds what was there before the table got its name.
TEST(ForwardingTables, NamedAndPrivate) {
    const Space run;
    Loom::ManualClock clock;
    Loom::TaskScheduler scheduler(clock);
    auto fib = Vel::make<Shard::Fib::ForwardingStatus>("fib");
    auto vias = [](U32 n) {
        std::vector<Shard::Fib::Via> list(n);
        for (U32 i = 0; i < n; ++i) list[i].mplsLabel = i;
        return list;
    };
    int told = 0;
    const auto count = fib->subscribeAll(
        &told, [](void* n, const void*, Vel::Ordinal) { ++*static_cast<int*>(n); });
    fib->fecIs(1, vias(512));
    fib->fecIs(2, vias(0));
    fib->fecIs(1, vias(512));
    EXPECT_EQ(told, 2) << "an equal FEC is no change";
    fib->mountIs(run.space(), scheduler);

    Shard::FecTable::Map::Reader reader(run.space(), "fib");
    EXPECT_EQ(reader.update(), Shard::MapState::mounted);
    std::vector<Shard::Fib::Via> found;
    ASSERT_EQ(reader.find(1, found), Shard::Lookup::found);
    EXPECT_EQ(found, vias(512));
    reader.changes([](U64) {});

    for (U64 id = 3; id < 1000; ++id) fib->fecIs(id, vias(id % 4));
    for (U64 id = 500; id < 1000; ++id) fib->fecDel(id);
    std::vector<U64> changed;
    reader.changes([&](U64 id) { changed.push_back(id); });
    EXPECT_TRUE(changed.empty()) << "told before the commit";
    scheduler.runDue();
    EXPECT_NE(reader.changes([&](U64) {}), Shard::News::none);
    EXPECT_EQ(reader.find(499, found), Shard::Lookup::found);
    EXPECT_NE(reader.find(500, found), Shard::Lookup::found);
    EXPECT_EQ(fib->fec().size(), 499U);

    // At least 32 FECs of 512 vias fit; the one too many leaves all as it was.
    fib->fecDelAll();
    U64 id = 0;
    EXPECT_THROW(for (; id < 1000; ++id) fib->fecIs(id, vias(512)), Vel::Error);
    EXPECT_GE(id, 32U);
    EXPECT_EQ(fib->fec().size(), id);
    EXPECT_EQ(fib->fec(id), nullptr);
}

// Shares of the best priority; what an id counted stays with its key and not with its number.
TEST(Forwarder, Traffic) {
    const Agent::Json a = Agent::parseJson(R"({"10.255.0.2,1,0": {"lbIndex": 1, "pathEntry": {
        "1": {"pathIndex": 1, "priority": 2}, "2": {"pathIndex": 2, "priority": 1},
        "3": {"pathIndex": 3, "priority": 1}}},
        "10.255.0.3,1,0": {"lbIndex": 2, "pathEntry": {}}})");
    const Agent::Json b = Agent::parseJson(R"({"10.255.0.3,1,0": {"lbIndex": 1, "pathEntry": {
        "4": {"pathIndex": 4, "priority": 9}}}})");
    Forwarder::Traffic traffic({.packetsPerSecond = 100, .packetBytes = 10, .flowsPerPath = 3});
    traffic.statusIs(a);
    for (int i = 0; i < 300; ++i) traffic.advance(0.01);
    const auto& one = traffic.entries().at(1);
    EXPECT_EQ(one.pathCounter[1].outPkts, 0U);
    EXPECT_NEAR(double(one.pathCounter[2].outPkts), 150, 1);
    EXPECT_EQ(one.pathCounter[2].outPkts, one.pathCounter[3].outPkts);
    EXPECT_EQ(one.outBytes, one.outPkts * 10);
    EXPECT_EQ(traffic.entries().at(2).outPkts, 0U) << "no member carries it";
    traffic.statusIs(b);
    EXPECT_EQ(traffic.entries().at(1).outPkts, 0U) << "the id stands for another key";
    traffic.advance(1);
    EXPECT_EQ(traffic.entries().at(1).pathCounter[4].outPkts, 100U);
    EXPECT_FALSE(traffic.entries().contains(2));
}

}  // namespace
