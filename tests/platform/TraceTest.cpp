// The trace ring and its front end: what is recorded, when, and what a reader makes of it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include "platform/netz/IntfId.h"
#include "platform/netz/IpGenAddr.h"
#include "platform/netz/VrfName.h"
#include "platform/trace/Duolog.h"

namespace Sample {

enum class State { down, up };
std::ostream& operator<<(std::ostream& out, State state) {
    return out << (state == State::up ? "up" : "down");
}
enum class Plain : uint8_t { three = 3 };

// Streamable, but not trivially copyable: rendered at the call.
struct Site {
    std::string name;
};
std::ostream& operator<<(std::ostream& out, const Site& site) {
    return out << "<" << site.name << ">";
}

// As large, but with a snapshot of its own.
struct Group {
    std::string name;
    uint32_t id;
};
struct GroupId {
    uint32_t id;
    std::string stringValue() const { return "group " + std::to_string(id); }
};

}  // namespace Sample

template <>
struct Duolog::TraceArg<Sample::Group> {
    static Sample::GroupId of(const Sample::Group& group) { return {group.id}; }
};

namespace {

Duolog::Facility red{"red"};
Duolog::Facility blue{"blue"};

class Trace : public testing::Test {
  protected:
    Trace() {
        Duolog::levelIs("*", 8);
        Duolog::captureIs(&texts);
    }
    ~Trace() override {
        Duolog::captureIs(nullptr);
        Duolog::textSinkIs(nullptr);
        Duolog::levelIs("*", Duolog::Facility::defaultLevel);
    }
    std::vector<std::string> texts;
};

TEST_F(Trace, LevelsAreKeptPerFacility) {
    int evaluated = 0;
    const auto trace = [&] {
        texts.clear();
        DUOLOG(red, 5, "red5 ", ++evaluated);
        DUOLOG(red, 6, "red6 ", ++evaluated);
        DUOLOG(blue, 6, "blue6 ", ++evaluated);
        return texts;
    };
    using Texts = std::vector<std::string>;
    EXPECT_TRUE(Duolog::levelIs("*", 5));
    EXPECT_EQ(trace(), (Texts{"red5 1"}));
    EXPECT_TRUE(Duolog::levelIs("blue", 6));
    EXPECT_EQ(trace(), (Texts{"red5 2", "blue6 3"}));
    EXPECT_TRUE(Duolog::levelIs("*", 4));
    EXPECT_EQ(trace(), (Texts{}));
    EXPECT_EQ(evaluated, 3);

    EXPECT_FALSE(Duolog::levelIs("green", 8));
    static Duolog::Facility late{"late"};  // as of a library loaded later
    EXPECT_EQ(late.level(), 4);
    const auto all = Duolog::facilities();
    const std::pair<std::string_view, int> expected{"blue", 4};
    EXPECT_NE(std::find(all.begin(), all.end(), expected), all.end());
}

TEST_F(Trace, TextIsThatOfAStream) {
    const std::string text = "text";
    const Sample::Group group{std::string(300, 'g'), 7};
    const char* const none = nullptr;
    const bool yes = true;
    DUOLOG(red, 7, "only a phrase");
    DUOLOG(red, 7, uint8_t{200}, " ", int8_t{-1}, " ", UINT64_MAX, " ", INT64_MIN, " ", yes, 'c');
    DUOLOG(red, 7, "state ", Sample::State::up, Sample::State::down, " ", Sample::Plain::three);
    DUOLOG(red, 7, text, " ", std::string_view(text).substr(1, 2), " ", text.c_str(), none);
    DUOLOG(red, 7, Sample::Site{"a"}, Sample::Site{"b"}, " in ", group);
    DUOLOG(red, 7, Netz::IpGenAddr::fromV4(0x0a000001), " ", Netz::IntfId("Ethernet1"), " ",
           L3::VrfName("red"), 2.5);
    EXPECT_EQ(texts, (std::vector<std::string>{
                         "only a phrase",
                         "200 -1 18446744073709551615 -9223372036854775808 1c",
                         "state updown 3",
                         "text ex text(null)",
                         "<a><b> in group 7",
                         "10.0.0.1 Ethernet1 red2.5",
                     }));
}

TEST_F(Trace, StringsAreCopiedUpToTheirBound) {
    for (const size_t length :
         {Duolog::maxString - 1, Duolog::maxString, Duolog::maxString + 1, size_t{70000}}) {
        const std::string expected = std::string(std::min(length, Duolog::maxString), 'x') +
                                     (length > Duolog::maxString ? "…" : "");
        DUOLOG(red, 7, "[", std::string(length, 'x'), "]", 1);
        EXPECT_EQ(texts.back(), "[" + expected + "]1");
    }
    DUOLOG(red, 7, Sample::Site{std::string(600, 'y')}, "|");
    EXPECT_EQ(texts.back(), "<" + std::string(Duolog::maxRendered - 1, 'y') + "…|");

    // The ring's text is made later, when what was traced has changed.
    char buffer[] = "first";
    std::string text = "first";
    for (int round = 0; round < 2; ++round) {
        DUOLOG(red, 7, buffer, "/", text, "/", static_cast<const char*>(buffer));
        buffer[0] = text[0] = 'F';
    }
    buffer[0] = text[0] = '?';
    const auto lines = Ringlog::last(2);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(lines[0].ends_with(" red:7 first/first/first")) << lines[0];
    EXPECT_TRUE(lines[1].ends_with(" red:7 First/First/First")) << lines[1];
}

// Over many laps of the ring, with records of every size, the reader's text is that of the writer,
// and it goes back as far as the ring does.
TEST_F(Trace, RingHoldsTheNewestRecords) {
    constexpr unsigned seed = 4711;
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    Duolog::captureIs(nullptr);
    std::deque<std::string> model;
    size_t bytes = 0;
    for (int round = 0; round < 60000; ++round) {
        const std::string text(random() % 100, static_cast<char>('a' + random() % 26));
        switch (random() % 3) {
            case 0:
                DUOLOG(red, 7, "n ", round);
                model.push_back("red:7 n " + std::to_string(round));
                break;
            case 1:
                DUOLOG(blue, 6, text, text, text);
                model.push_back("blue:6 " + text + text + text);
                break;
            default:
                DUOLOG(red, 8, round, " ", Sample::Site{text});
                model.push_back("red:8 " + std::to_string(round) + " <" + text + ">");
        }
        bytes += model.back().size();
        if (random() % 5000) continue;
        const size_t count = random() % 2 ? SIZE_MAX : random() % 1000;
        const auto lines = Ringlog::last(count);
        if (count < 1000) {
            ASSERT_EQ(lines.size(), std::min(count, model.size()));
        } else if (bytes > 4 * Ringlog::capacity) {
            ASSERT_GT(lines.size(), Ringlog::capacity / 200);
        }
        for (size_t i = 1; i <= std::min(lines.size(), model.size()); ++i) {
            const auto& line = lines[lines.size() - i];
            ASSERT_EQ(line.substr(line.find(' ', 20) + 1), model[model.size() - i]);
        }
    }
}

std::string timeOf(const std::string& line) {
    return line.substr(0, 26);
}

void handleSomething(int value) {
    DUOLOG_ENTRY(red, " ", value);
    DUOLOG(red, 7, "decided");
}

std::string wallTime() {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    tm local;
    localtime_r(&now.tv_sec, &local);
    char text[40];
    return {text, strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local)};
}

TEST_F(Trace, DecisionsBearTheTimeOfTheirHandler) {
    const auto earlier = wallTime();
    handleSomething(1);
    EXPECT_EQ(texts, (std::vector<std::string>{"handleSomething 1", "decided"}));
    auto lines = Ringlog::last(2);
    EXPECT_EQ(timeOf(lines[0]), timeOf(lines[1]));
    const auto first = Ringlog::state.stamp;

    // Also where the entry itself is not recorded.
    Duolog::levelIs("red", 7);
    handleSomething(2);
    EXPECT_EQ(texts.size(), 3u);
    EXPECT_GT(Ringlog::state.stamp, first);
    // A rare event outside any handler takes its own time.
    const auto second = Ringlog::state.stamp;
    DUOLOG(blue, 3, "rare");
    EXPECT_GT(Ringlog::state.stamp, second);

    lines = Ringlog::last(4);
    const auto later = wallTime();
    EXPECT_LE(earlier, timeOf(lines.front()).substr(0, earlier.size()));
    EXPECT_TRUE(std::is_sorted(lines.begin(), lines.end(),
                               [](const auto& a, const auto& b) { return timeOf(a) < timeOf(b); }));
    EXPECT_LE(timeOf(lines.back()).substr(0, later.size()), later);
}

std::string contentsOf(std::FILE* file) {
    std::rewind(file);
    std::string text(1 << 21, 0);
    text.resize(std::fread(text.data(), 1, text.size(), file));
    return text;
}

TEST_F(Trace, TextSinksFollowTheRing) {
    std::vector<std::string> lines;
    Duolog::textSinkIs([&](std::string_view line) {
        lines.emplace_back(line);
        DUOLOG(blue, 1, "from the sink");
    });
    DUOLOG(red, 7, "seen ", 1);
    DUOLOG(red, 7, "seen ", 2);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(lines[1].ends_with(" red:7 seen 2")) << lines[1];
    EXPECT_EQ(texts.size(), 2u);
    EXPECT_TRUE(Ringlog::last(1)[0].ends_with("blue:1 from the sink"));

    std::FILE* const file = std::tmpfile();
    Duolog::textSinkIs(fileno(file));
    DUOLOG(red, 7, "to a file");
    Duolog::textSinkIs(-1);
    DUOLOG(red, 7, "no more");
    EXPECT_EQ(lines.size(), 2u);
    EXPECT_TRUE(contentsOf(file).ends_with(" red:7 to a file\n")) << contentsOf(file);

    Ringlog::dump(fileno(file));
    const std::string all = contentsOf(file);
    EXPECT_TRUE(all.find(" red:7 seen 1 (TraceTest.cpp:") < all.find(" red:7 no more (")) << all;
    std::fclose(file);
}

}  // namespace
