// The trace ring and its front end: what is recorded, when, and what a reader makes of it.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
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

// For as long as several measurements of the counter's rate take.
TEST_F(Trace, TimesAreThoseOfTheSystemsClock) {
    const auto now = [] {
        return std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch())
            .count();
    };
    for (const int64_t begin = now(); now() < begin + 100'000'000;) {
        const int64_t before = now();
        Ringlog::prepare();
        ASSERT_GT(Ringlog::state.time, before - 20'000);
        ASSERT_LT(Ringlog::state.time, now() + 20'000);
    }
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
    size_t bytes = 0, codes = 0, checks = 0;
    uint64_t dropped = Ringlog::state.dropped;
    for (int round = 0; round < 60000; ++round) {
        const size_t length = random() % 100;
        const std::string text(length, static_cast<char>('a' + random() % 26));
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
        // Until the ring has gone round, records of other tests are left in it.
        if (random() % 1000 || bytes < Ringlog::capacity) continue;
        const size_t count = random() % 2 ? SIZE_MAX : random() % 1000;
        const auto lines = Ringlog::last(count);
        if (count < 1000) {
            ASSERT_EQ(lines.size(), count);
        } else {
            ASSERT_GT(lines.size(), Ringlog::capacity / 200);
        }
        codes = 0, ++checks;
        for (size_t i = 1; i <= std::min(lines.size(), model.size()); ++i) {
            ASSERT_EQ(messageOf(lines[lines.size() - i]), model[model.size() - i]);
            codes += model[model.size() - i].starts_with("blue:8");
        }
        ASSERT_EQ(Ringlog::state.dropped, dropped + codes);
        dropped = Ringlog::state.dropped;
    }
    EXPECT_GT(checks, 5u);
}

}  // namespace
