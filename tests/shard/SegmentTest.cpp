// Who may write, who meets whom, what wakes whom, and what happens with segments that are not what
// they should be.
#include <fcntl.h>
#include <sys/stat.h>

#include <thread>

#include "tests/shard/ShardTest.h"

namespace Shard {
namespace {

using namespace std::chrono_literals;
using Value = Checked<6>;
using Plain = Map<uint32_t, Value>;
constexpr uint32_t capacity = 40;

// A descriptor of the segment as a hostile process of the same user would have it.
Descriptor openSegment(const Namespace& space, const char* map = "map") {
    return Descriptor(shm_open(space.segmentName(map).c_str(), O_RDWR | O_CREAT, 0600));
}

// Has written one value, and lives until it is killed.
struct WritingChild : Child {
    explicit WritingChild(const Namespace& space,
                          std::atomic<bool>& ready = shared<std::atomic<bool>>())
        : Child([&] {
              Plain::Writer writer(space, "map", capacity);
              writer.valueIs(1, Value::of(1, 1));
              ready = true;
              for (;;) pause();
              return 0;
          }) {
        while (!ready) std::this_thread::yield();
    }
};

TEST(Segment, ASecondWriterIsRefusedWhileTheFirstLives) {
    RunDirectory run;
    WritingChild first(run.space);
    try {
        Plain::Writer second(run.space, "map", capacity);
        ADD_FAILURE() << "a second writer";
    } catch (const Vel::Error& error) {
        const std::string refusal = error.what();
        EXPECT_NE(refusal.find("'map': already has a writer"), std::string::npos) << refusal;
    }
    first.kill();
    Plain::Writer next(run.space, "map", capacity);
    EXPECT_TRUE(next.tookOver());
    // A refused writer has done no harm, and a reader's existence never hinders a writer.
    Value value;
    EXPECT_TRUE(next.find(1, value) && value.whole(1));
}

TEST(Segment, OrderlyStopTakesTheNamesAndTellsReaders) {
    RunDirectory run;
    Plain::Reader reader(Namespace(run.path + "/."), "map");  // the same directory
    {
        Plain::Writer writer(run.space, "map", capacity);
        writer.valueIs(3, Value::of(3, 1));
        reader.update();
    }
    EXPECT_TRUE(run.names().empty());
    EXPECT_EQ(reader.update(), MapState::quiesced);
    Value value;
    EXPECT_EQ(reader.find(3, value), Lookup::found);  // the last values stay readable
    Plain::Reader late(run.space, "map");
    EXPECT_EQ(late.update(), MapState::absent);
    EXPECT_THROW(Namespace("/no/such/place"), Vel::Error);
    EXPECT_THROW(run.space.segmentName("../map"), Vel::Error);
    // The next writer begins anew, and the reader goes over to it.
    Plain::Writer writer(run.space, "map", capacity);
    EXPECT_EQ(reader.update(), MapState::mounting);
    EXPECT_EQ(reader.changes([](uint32_t) {}), News::everything);
    EXPECT_EQ(reader.find(3, value), Lookup::absent);
}

// The events come from the kernel at once, so each must be there without waiting, and none before.
TEST(Notification, EachEventMakesTheReadersDescriptorReadable) {
    RunDirectory run;
    Plain::Writer other(run.space, "other", capacity);
    Plain::Reader reader(run.space, "map");
    EXPECT_EQ(reader.update(), MapState::absent);
    const auto told = [&] {
        const bool readable = reader.await(0ms);
        reader.update();
        EXPECT_FALSE(reader.await(0ms));
        return readable;
    };
    EXPECT_FALSE(told());
    auto writer = std::make_unique<Plain::Writer>(run.space, "map", capacity);
    EXPECT_TRUE(told());
    EXPECT_EQ(reader.state(), MapState::mounting);
    EXPECT_EQ(reader.changes([](uint32_t) {}), News::everything);
    writer->mountComplete();
    EXPECT_TRUE(told());
    EXPECT_EQ(reader.state(), MapState::mounted);

    // Of another map the reader hears nothing, nor of what is not committed.
    other.valueIs(1, Value::of(1, 1));
    other.commit();
    writer->valueIs(1, Value::of(1, 1));
    EXPECT_FALSE(told());
    writer->valueIs(2, Value::of(2, 1));
    writer->valueDel(1);
    writer->commit();
    writer->commit();
    EXPECT_TRUE(told());
    std::vector<uint32_t> changed;
    EXPECT_EQ(reader.changes([&](uint32_t key) { changed.push_back(key); }), News::keys);
    EXPECT_EQ(changed, (std::vector<uint32_t>{1, 2, 1}));
    EXPECT_EQ(reader.changes([](uint32_t) {}), News::none);

    // More changes than the ring holds, then exactly as many.
    const uint32_t ring = Geometry::of(Plain::shape, capacity, 0).ringRecords;
    for (const auto& [count, news] : {std::pair{ring + 1, News::everything}, {ring, News::keys}}) {
        for (uint32_t i = 0; i < count; ++i) writer->valueIs(2, Value::of(2, i));
        writer->commit();
        EXPECT_TRUE(told());
        EXPECT_EQ(reader.changes([](uint32_t) {}), news);
    }
    // Another writer on the same segment: everything once, then by key again.
    writer->leave();
    writer = std::make_unique<Plain::Writer>(run.space, "map", capacity);
    EXPECT_TRUE(told());
    EXPECT_EQ(reader.changes([](uint32_t) {}), News::everything);
    writer->valueDel(2);
    writer->commit();
    EXPECT_TRUE(told());
    EXPECT_EQ(reader.changes([](uint32_t) {}), News::keys);
    writer.reset();
    EXPECT_TRUE(told());
    EXPECT_EQ(reader.state(), MapState::quiesced);
    EXPECT_FALSE(reader.writerAlive());
}

TEST(Notification, AReaderWakesWhenTheWriterDies) {
    RunDirectory run;
    WritingChild child(run.space);
    Plain::Reader reader(run.space, "map");
    reader.update();
    EXPECT_TRUE(reader.writerAlive());
    EXPECT_FALSE(reader.await(0ms));
    child.kill();
    EXPECT_TRUE(reader.await(20s));
    EXPECT_FALSE(reader.writerAlive());
    // The next writer works on the same segment; a changed capacity makes a new one instead.
    Plain::Writer(run.space, "map", capacity).leave();
    reader.update();
    Value value;
    EXPECT_EQ(reader.find(1, value), Lookup::found);
    Plain::Writer larger(run.space, "map", 10 * capacity);
    EXPECT_FALSE(larger.tookOver());
    reader.update();
    EXPECT_EQ(reader.find(1, value), Lookup::absent);
}

TEST(Damage, AReaderRefusesWhatDoesNotFitAndComesBackWhenItDoes) {
    RunDirectory run;
    const auto refusalOf = [&](auto&& reader) {
        EXPECT_EQ(reader.update(), MapState::refused);
        return reader.refusal();
    };
    Plain::Writer(run.space, "map", capacity).leave();
    EXPECT_EQ(refusalOf(Map<uint32_t, Checked<7>>::Reader(run.space, "map")),
              "has 8 bytes of key, 48 bytes of value, schema 1; "
              "expected 8 bytes of key, 56 bytes of value, schema 1");
    EXPECT_NE(refusalOf(Map<uint32_t, Value, 2>::Reader(run.space, "map")), "");
    EXPECT_NE(refusalOf(Map<Checked<2>, Value>::Reader(run.space, "map")), "");
    EXPECT_NE(refusalOf(ListMap<uint32_t, uint64_t, 6>::Reader(run.space, "map")), "");

    Plain::Reader reader(run.space, "map");
    reader.update();
    const struct {
        off_t at;
        uint32_t value;
        const char* refusal;
    } cases[] = {{0, 17, "not a shared map"},
                 {offsetof(Header, layoutVersion), 9, "has layout version 9, not 1"},
                 {offsetof(Header, geometry.homes), 96, "has an impossible geometry"},
                 {offsetof(Header, geometry.homes), 0, "has an impossible geometry"},
                 {offsetof(Header, geometry.units), 4000000, "bytes where its header needs"}};
    for (const auto& c : cases) {
        const Descriptor fd = openSegment(run.space);
        ASSERT_EQ(pwrite(fd.get(), &c.value, 4, c.at), 4);
        Plain::Reader late(run.space, "map");
        const std::string refusal = refusalOf(late);
        EXPECT_NE(refusal.find(c.refusal), std::string::npos) << refusal;
        Plain::Writer writer(run.space, "map", capacity);  // replaces it
        EXPECT_FALSE(writer.tookOver());
        EXPECT_EQ(late.update(), MapState::mounting);
        EXPECT_EQ(reader.update(), MapState::mounting);
        writer.leave();
    }
    // Somebody else's segment, and one that everybody may write.
    fchmod(openSegment(run.space).get(), 0622);
    EXPECT_NE(refusalOf(Plain::Reader(run.space, "map")), "");
    EXPECT_THROW(Plain::Writer(run.space, "map", capacity), Vel::Error);
    shm_unlink(run.space.segmentName("map").c_str());
}

TEST(Damage, ASegmentCutUnderReaderAndWriterIsReported) {
    for (const off_t left : {0, 100, 4096, 8192}) {
        RunDirectory run;
        using Big = Map<uint32_t, Checked<600>>;
        auto writer = std::make_unique<Big::Writer>(run.space, "map", capacity);
        Big::Reader reader(run.space, "map"), watching(run.space, "map");
        for (uint32_t key = 0; key < capacity; ++key) {
            writer->valueIs(key, Checked<600>::of(key, 1));
        }
        std::string reported;
        reader.corruptionHandlerIs([&](const std::string& what) { reported = what; });
        reader.update();
        watching.update();
        ASSERT_EQ(ftruncate(openSegment(run.space).get(), left), 0);
        Checked<600> value;
        for (uint32_t key = 0; key < capacity; ++key) {
            EXPECT_TRUE(reader.find(key, value) != Lookup::found || value.whole(key));
        }
        // Cut within the page of the index, the segment reads as an empty map.
        EXPECT_EQ(reader.corruptions() > 0, left != 100);
        EXPECT_EQ(reported.empty(), left == 100);
        EXPECT_TRUE(watching.await(0ms));
        EXPECT_EQ(watching.update(), left ? MapState::refused : MapState::absent);
        EXPECT_EQ(watching.corruptions(), 1u);
        const auto goOn = [&] {
            for (uint32_t key = 0; key < capacity; ++key) {
                writer->valueIs(key, Checked<600>::of(key, 2));
            }
            writer->commit();
        };
        EXPECT_THROW(goOn(), Vel::Error);
        writer.reset();
        Big::Writer next(run.space, "map", capacity);
        EXPECT_FALSE(next.tookOver());
        EXPECT_EQ(watching.update(), MapState::mounting);
    }
}

TEST(Damage, AListReachesNeitherBeyondTheHeapNorIntoAnother) {
    using Lists = ListMap<uint32_t, Record, 400>;
    RunDirectory run;
    for (const bool last : {true, false}) {
        Lists::Writer writer(run.space, "map", 200);
        const Lists::Reader reader(writer);
        std::vector<Record> list(100, Record{});
        uint32_t keys = 0;
        EXPECT_THROW(for (;; ++keys) writer.valueIs(keys, list), Vel::Error);  // the heap is full
        const Table& table = writer.segment()->table();
        uint32_t unit = last ? 0 : maxUnits;
        for (uint64_t slot = 0; slot < table.geometry().slots(); ++slot) {
            const Word word{table.slot(slot)};
            if (word.empty()) continue;
            unit = last ? std::max(unit, word.unit()) : std::min(unit, word.unit());
        }
        *table.block(unit) = Lists::shape.valueBytes;
        int corrupt = 0;
        for (uint32_t key = 0; key < keys; ++key) {
            corrupt += reader.find(key, list) == Lookup::corrupt;
        }
        EXPECT_EQ(corrupt, last);
        writer.leave();
        EXPECT_FALSE(Lists::Writer(run.space, "map", 200).tookOver());
    }
}

}  // namespace
}  // namespace Shard
