// The trace ring and its front end: what is recorded, when, and what a reader makes of it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <deque>
#include <random>

#include "platform/netz/Assert.h"
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

Duolog::Facility noise{"noise"};

// Not trivially copyable: rendered at the call, where it traces and may throw.
struct Site {
    std::string name;
};
std::ostream& operator<<(std::ostream& out, const Site& site) {
    DUOLOG(noise, 1, "rendering ", site.name);
    if (site.name == "bad") throw 1;
    return out << "<" << site.name << ">";
}

// Rendered when the ring is read, where it does the same.
struct Code {
    int value;
    std::string stringValue() const {
        DUOLOG(noise, 1, "reading ", value);
        VEL_ASSERT(value < 100 || value >= 110, "value < 100");
        return nothrow();
    }
    std::string nothrow() const noexcept {
        VEL_ASSERT(value < 100, "value < 100");
        return "code " + std::to_string(value);
    }
};

}  // namespace Sample

namespace {

using Texts = std::vector<std::string>;

Duolog::Facility red{"red"};
Duolog::Facility blue{"blue"};

// What a line holds between its time and its place: "red:7 function: text".
std::string messageOf(const std::string& line) {
    const size_t begin = line.find(' ') + 1;
    return line.substr(begin, line.rfind(" (TraceTest.cpp:") - begin);
}

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
    Texts texts;
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
}

TEST_F(Trace, TextIsThatOfAStream) {
    std::string text = "text";
    struct {
        char chars[5] = "chr";
        const char constant[4] = {'f', 'u', 'l', 'l'};  // without a terminating zero
    } member;
    const char* const none = nullptr;
    const std::string x(Duolog::maxString, 'x');
    DUOLOG(red, 7, "a phrase", " and ", "one \"quoted\", 'two'");
    DUOLOG(red, 7, uint8_t{200}, " ", int8_t{-1}, " ", UINT64_MAX, " ", INT64_MIN, " ", true, 'c');
    DUOLOG(red, 7, Sample::State::up, Sample::State::down, " ", Sample::Plain::three,
           std::min(2, 3));
    DUOLOG(red, 7, text, std::string_view(text).substr(1, 2), text.c_str(), none, member.chars,
           member.constant);
    DUOLOG(red, 7, Sample::Site{"a"}, Sample::Site{"b"}, Sample::Code{7});
    DUOLOG(red, 7, Netz::IpGenAddr::fromV4(0x0a000001), " ", Netz::IntfId("Et1"), " ",
           L3::VrfName("red"), 2.5);
    DUOLOG(red, 7, x, "|", x + "x", "|", Sample::Site{std::string(600, 'y')}, "|", 1);
    DUOLOG(red, 7, x.substr(2) + "ü", x.substr(2) + "üx", x.substr(1) + "ü");
    DUOLOG(red, 7, std::string("a\n\x1b[1m\x7fü\xc3|\xed\xa0\x80|\xc2\x9b\0€", 21));
    const Texts expected{
        "a phrase and one \"quoted\", 'two'",
        "200 -1 18446744073709551615 -9223372036854775808 1c",
        "updown 32",
        "textextext(null)chrfull",
        "<a><b>code 7",
        "10.0.0.1 Et1 red2.5",
        x + "|" + x + "…|<" + std::string(Duolog::maxRendered - 1, 'y') + "…|1",
        x.substr(2) + "ü" + x.substr(2) + "ü…" + x.substr(1) + "…",
        "a\\x0a\\x1b[1m\\x7fü\\xc3|\\xed\\xa0\\x80|\\xc2\\x9b\\x00€",
    };
    EXPECT_EQ(texts, expected);
    // The ring's text is made later, when what was traced has changed.
    text = "changed";
    std::fill_n(member.chars, 3, '?');
    const auto lines = Ringlog::last(expected.size());
    for (size_t i = 0; i < expected.size(); ++i)
        EXPECT_EQ(messageOf(lines[i]), "red:7 TestBody: " + expected[i]);
}

// Over many laps of the ring, with records of every size: the reader's text is that of the writer,
// and it goes back as far as the ring does. What is traced while a record is rendered or the ring
// is read, and a record whose rendering fails, is dropped and counted.
TEST_F(Trace, RingHoldsTheNewestRecords) {
    constexpr unsigned seed = 4711;
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    Duolog::captureIs(nullptr);
    std::deque<std::string> model;
    size_t bytes = 0, codes = 0;
    uint64_t dropped = Ringlog::state.dropped;
    for (int round = 0; round < 60000; ++round) {
        const std::string text(random() % 100, static_cast<char>('a' + random() % 26));
        const std::string number = std::to_string(round);
        switch (random() % 5) {
            case 0:
                DUOLOG(red, 7, "n ", round);
                model.push_back("red:7 TestBody: n " + number);
                break;
            case 1:
                DUOLOG(blue, 6, text, text, text);
                model.push_back("blue:6 TestBody: " + text + text + text);
                break;
            case 2:
                DUOLOG(red, 8, round, " ", Sample::Site{text});
                model.push_back("red:8 TestBody: " + number + " <" + text + ">");
                ++dropped;
                break;
            case 3:
                DUOLOG(red, 8, round, " ", Sample::Site{"bad"});
                dropped += 2;
                continue;
            default:
                DUOLOG_ENTRY(blue, " ", Sample::Code{round % 120});
                model.push_back("blue:8 TestBody " + (round % 120 < 100
                                                          ? "code " + std::to_string(round % 120)
                                                          : std::string("(unreadable)")));
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
        codes = 0;
        for (size_t i = 1; i <= std::min(lines.size(), model.size()); ++i) {
            ASSERT_EQ(messageOf(lines[lines.size() - i]), model[model.size() - i]);
            codes += model[model.size() - i].starts_with("blue:8");
        }
        ASSERT_EQ(Ringlog::state.dropped, dropped + codes);
        dropped = Ringlog::state.dropped;
    }
}

std::string timeOf(const std::string& line) {
    return line.substr(0, line.find(' '));
}

// All records of an event have its time; outside of events each has its own.
TEST_F(Trace, RecordsBearTheTimeOfTheirEvent) {
    const auto wallTime = [] {
        const time_t now = std::time(nullptr);
        tm local;
        localtime_r(&now, &local);
        char text[40];
        return std::string(text, std::strftime(text, sizeof text, "%FT%T", &local));
    };
    Texts shown;
    Duolog::textSinkIs([&](const Ringlog::Line& record) { shown.push_back(record.line); });
    static bool inEvent = false;
    Ringlog::state.inEvent = [] { return inEvent; };
    const std::string earlier = wallTime();
    DUOLOG(red, 7, "before");
    for (int event = 0; event < 2; ++event) {
        inEvent = true;
        Ringlog::newEvent();
        DUOLOG_ENTRY(red);
        const std::string first = timeOf(shown.back());
        do DUOLOG(red, 7, "decided");
        while (shown.size() < 5);  // long enough for the clock to move
        EXPECT_EQ(timeOf(shown.back()), first);
        inEvent = false;
        Ringlog::newEvent();
    }
    const std::string event = timeOf(shown.back());
    do DUOLOG(red, 3, "after");
    while (timeOf(shown.back()) == event);
    const auto byTime = [](const auto& a, const auto& b) { return timeOf(a) < timeOf(b); };
    EXPECT_TRUE(std::is_sorted(shown.begin(), shown.end(), byTime));
    EXPECT_LE(earlier, timeOf(shown.front()).substr(0, earlier.size()));
    EXPECT_LE(timeOf(shown.back()).substr(0, earlier.size()), wallTime());
    EXPECT_EQ(Ringlog::last(shown.size()), shown) << "the same whenever it is read";
}

std::string contentsOf(std::FILE* file) {
    std::rewind(file);
    std::string text(1 << 21, 0);
    text.resize(std::fread(text.data(), 1, text.size(), file));
    return text;
}

TEST_F(Trace, TextSinksFollowTheRing) {
    Texts lines;
    Duolog::textSinkIs([&](const Ringlog::Line& record) {
        lines.emplace_back(record.text());
        DUOLOG(blue, 1, "from the sink");
        if (lines.size() == 1) throw 1;
    });
    const auto see = [&](int n) { DUOLOG(red, 7, "seen ", n); };
    EXPECT_THROW(see(1), int);
    see(2);
    EXPECT_EQ(lines, (Texts{"seen 1", "seen 2"}));
    EXPECT_EQ(texts, lines);
    EXPECT_EQ(messageOf(Ringlog::last(1)[0]), "blue:1 operator(): from the sink");

    std::FILE* const file = std::tmpfile();
    Duolog::textSinkIs(fileno(file));
    DUOLOG(red, 7, "to a file");
    Duolog::textSinkIs(-1);
    DUOLOG(red, 7, Sample::Code{200});
    DUOLOG(red, 7, Sample::Code{100});
    EXPECT_EQ(lines.size(), 2u);
    EXPECT_NE(contentsOf(file).find("red:7 TestBody: to a file (TraceTest.cpp:"),
              std::string::npos);

    // The post-mortem: all of it, whatever it holds, and how much is missing.
    Ringlog::dump(fileno(file));
    const std::string all = contentsOf(file);
    EXPECT_TRUE(all.find("seen 1 (") < all.find("TestBody: (unreadable) (TraceTest.cpp:")) << all;
    EXPECT_TRUE(all.ends_with(" records were dropped\n"));
    std::fclose(file);
}

}  // namespace
