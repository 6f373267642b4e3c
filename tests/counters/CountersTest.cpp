// The tables that other processes read: counters, and the forwarding tables of an agent.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>

#include "forwarder/Traffic.h"
#include "nav/counters/NavShard.h"
#include "platform/shard/SharedFib.h"
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
    EXPECT_TRUE(writer->lbProfileCounterCommit());
    writer->lbProfileCounterMounted();
    EXPECT_EQ(reader->lbProfileCounterUpdate(), Shard::MapState::mounted);
    EXPECT_GE(seen.mounts, 1);
    U64 sum = 0;
    reader->eachLbProfileCounter([&](const auto& e) { sum += e.pathCounter[128].outPkts; });
    EXPECT_EQ(sum, 1023U * 1024 / 2);

    seen.keys.clear();
    EXPECT_TRUE(writer->lbProfileCounterCommit(entry(5, 5000)));
    EXPECT_TRUE(reader->lbProfileCounterAwait(20s));
    reader->lbProfileCounterUpdate();
    EXPECT_EQ(seen.keys, std::vector<U32>{5});
    NavLbProfileCounterEntry found;
    EXPECT_THROW(NavPathCounterIndex(128) += 1, Vel::RangeError);
    ASSERT_TRUE(reader->lbProfileCounter({5}, found));
    EXPECT_EQ(found.outPkts, 5000U);
    std::filesystem::remove(run.space().fileOf(lbProfileCounterName));
    EXPECT_FALSE(writer->lbProfileCounterCommit()) << "the table was unlinked";
    EXPECT_EQ(reader->lbProfileCounterUpdate(), Shard::MapState::mounting) << "and is made anew";
    writer->lbProfileCounterControlIs(nullptr);
    EXPECT_EQ(reader->lbProfileCounterUpdate(), Shard::MapState::quiesced);
    EXPECT_THROW(reader->lbProfileCounterIs(found), Vel::Error) << "a reader does not write";
}

// The table's copy in shared memory: one commit for each run of the tasks, whole again after an
// attack, with what fits when it is full; the table itself is never touched by any of it.
TEST(ForwardingTables, AreFollowedByOtherProcesses) {
    const Space run;
    Loom::ManualClock clock;
    Loom::TaskScheduler scheduler(clock);
    auto fib = Vel::make<Shard::Fib::ForwardingStatus>("fib");
    const auto vias = [](U32 n) {
        std::vector<Shard::Fib::Via> list(n);
        for (U32 i = 0; i < n; ++i) list[i].mplsLabel = i;
        return list;
    };
    const std::string file = run.space().fileOf("fib");
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    fib->fecIs(1, vias(512));
    using Shared = Shard::SharedFib<Shard::Fib::ForwardingStatus>;
    const Shared shared(*fib, run.space(), "fib", scheduler);
    Shared::Map::Reader reader(run.space(), "fib");
    std::vector<Shard::Fib::Via> found;
    const auto expectCopied = [&](size_t fecs) {
        scheduler.runDue();
        ASSERT_EQ(reader.update(), Shard::MapState::mounted);
        EXPECT_EQ(reader.count(), fecs);
        for (const auto& [id, fec] : fib->fec()) {
            const bool copied = reader.find(id, found) == Shard::Lookup::found;
            EXPECT_TRUE(copied ? found == fec.vias() : fecs < fib->fec().size()) << id;
        }
    };
    expectCopied(1);
    for (U64 id = 3; id < 1000; ++id) fib->fecIs(id, vias(id % 4));
    for (U64 id = 500; id < 1000; ++id) fib->fecDel(id);
    EXPECT_EQ(reader.find(499, found), Shard::Lookup::absent) << "before the commit";
    expectCopied(498);
    std::filesystem::resize_file(file, 5000);
    fib->fecDel(499);
    expectCopied(497);
    std::filesystem::remove_all(run.path);  // nowhere to publish
    fib->fecDel(498);
    scheduler.runDue();
    std::filesystem::create_directory(run.path);
    fib->fecDelAll();
    expectCopied(0);

    // At least 32 FECs of 512 vias fit; those that do not come when there is room, and a FEC that
    // grows beyond the room is never read with the vias that it had.
    for (U64 id = 1; id <= 70; ++id) fib->fecIs(id, vias(512));
    scheduler.runDue();
    const auto fit = reader.count();
    EXPECT_TRUE(fit >= 32 && fit < 70) << fit;
    expectCopied(fit);
    for (U64 id = 1; id <= 30; ++id) fib->fecIs(id, vias(1));
    expectCopied(70);
    for (U64 id = 1; id <= 30; ++id) fib->fecIs(id, vias(511));
    scheduler.runDue();
    EXPECT_LT(reader.count(), 70U);
    expectCopied(reader.count());
}

// Equal shares of the carriers; what an id counted stays with its key and not with its number.
TEST(Forwarder, Traffic) {
    const Agent::Json a =
        Agent::parseJson(R"({"10.255.0.2,1,0": {"lbIndex": 1}, "10.255.0.3,1,0": {"lbIndex": 2}})");
    const Agent::Json b = Agent::parseJson(R"({"10.255.0.3,1,0": {"lbIndex": 1}})");
    Forwarder::Traffic traffic({.packetsPerSecond = 100, .packetBytes = 10, .flowsPerPath = 3});
    traffic.statusIs(a);
    traffic.carriersAre(Agent::parseJson(R"({"10.255.0.2,1,0": [2, 3], "10.255.0.3,1,0": []})"));
    for (int i = 0; i < 300; ++i) traffic.advance(0.01);
    const auto& one = traffic.entries().at(1);
    EXPECT_EQ(one.pathCounter[1].outPkts, 0U);
    EXPECT_NEAR(double(one.pathCounter[2].outPkts), 150, 1);
    EXPECT_EQ(one.pathCounter[2].outPkts, one.pathCounter[3].outPkts);
    EXPECT_EQ(one.outBytes, one.outPkts * 10);
    EXPECT_EQ(one.pathCounter[2].throughput, 100 * 10 * 8 / 2) << "bits a second";
    traffic.carriersAre(Agent::parseJson(R"({"10.255.0.2,1,0": [3], "10.255.0.3,1,0": []})"));
    traffic.advance(0);
    EXPECT_EQ(one.pathCounter[2].flows, 0U);
    EXPECT_EQ(traffic.entries().at(2).outPkts, 0U) << "no member carries it";
    traffic.statusIs(b);
    traffic.carriersAre(Agent::parseJson(R"({"10.255.0.3,1,0": [4]})"));
    EXPECT_EQ(traffic.entries().at(1).outPkts, 0U) << "the id stands for another key";
    traffic.advance(1);
    EXPECT_EQ(traffic.entries().at(1).pathCounter[4].outPkts, 100U);
    EXPECT_FALSE(traffic.entries().contains(2));
}

}  // namespace
