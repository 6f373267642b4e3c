// Figures and sessions of probes, against plain recomputations.
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <deque>
#include <random>

#include "agent/linux/quality/ProbeSession.h"
#include "agent/linux/quality/ReflectorThread.h"

namespace Agent::Linux {
namespace {

using std::chrono::nanoseconds;
using namespace std::chrono_literals;

TEST(StampPacketTest, StampsOfEitherFormatAreSubtracted) {
    constexpr uint16_t ntp = ErrorEstimate::own, ptp = ErrorEstimate::ptpFormat | ntp;
    // 7 February 2036, 06:28:16: the seconds of NTP begin again.
    const nanoseconds rollover = 2'085'978'496s;
    for (const nanoseconds step : {0ns, 999'999'999ns, 1'500'000'000ns, -1'500'000'000ns})
        for (const nanoseconds start : {nanoseconds(1'700'000'000s), rollover}) {
            EXPECT_NEAR(between(ntpStamp(start), ntpStamp(start + step), ntp).count(), step.count(),
                        1);
            const auto stamp = [](nanoseconds time) {
                return static_cast<uint64_t>(time.count() / 1'000'000'000) << 32 |
                       static_cast<uint64_t>(time.count() % 1'000'000'000);
            };
            EXPECT_EQ(between(stamp(start), stamp(start + step), ptp), step);
        }
}

// What became of each probe, as the network knows it.
struct Fate {
    enum { answered, forward, backward, undecided } kind;
    nanoseconds roundTrip;
};

// The figures of a window, computed anew from all that happened before.
PathQuality recompute(const std::vector<Fate>& all, size_t probes) {
    const size_t share = (probes + Window::maxCells - 1) / Window::maxCells;
    const size_t cells = (probes + share - 1) / share;
    const size_t newest = (all.size() - 1) / share;
    const size_t first = newest + 1 > cells ? (newest + 1 - cells) * share : 0;
    size_t counts[4] = {}, steps = 0;
    double sum = 0, deviation = 0;
    std::vector<double> times, samples;
    for (size_t i = first; i < all.size(); ++i) {
        ++counts[all[i].kind];
        if (all[i].kind != Fate::answered) continue;
        const auto time = static_cast<double>(all[i].roundTrip.count()) / 1e6;
        times.push_back(time), sum += time;
        size_t before = i;
        while (before > 0 && all[--before].kind != Fate::answered) continue;
        if (before < i && all[before].kind == Fate::answered)
            deviation += std::abs(time - static_cast<double>(all[before].roundTrip.count()) / 1e6),
                ++steps;
        bool last = true;
        for (size_t j = i + 1; j < std::min(all.size(), (i / share + 1) * share); ++j)
            last &= all[j].kind != Fate::answered;
        if (last) samples.push_back(time);
    }
    const auto count = static_cast<double>(all.size() - first);
    const auto backward = static_cast<double>(counts[Fate::backward] + counts[Fate::undecided]);
    PathQuality quality{.samples = static_cast<Vel::U32>(count)};
    quality.lossForward =
        100.0 * static_cast<double>(counts[Fate::forward] + counts[Fate::undecided]) / count;
    const double answers = static_cast<double>(times.size()) + backward;
    if (answers > 0) quality.lossBackward = 100 * backward / answers;
    if (times.empty()) return quality;
    quality.rttMin = *std::ranges::min_element(times);
    quality.rttMean = sum / static_cast<double>(times.size());
    std::ranges::sort(samples);
    quality.rttP95 = *std::ranges::find_if(samples, [&](const double& time) {
        return 20 * (&time - samples.data() + 1) >= 19 * static_cast<ptrdiff_t>(samples.size());
    });
    if (steps != 0) quality.jitter = deviation / static_cast<double>(steps);
    return quality;
}

void expectSame(const PathQuality& is, const PathQuality& should) {
    EXPECT_EQ(is.samples, should.samples);
    for (const auto figure :
         {&PathQuality::rttMin, &PathQuality::rttMean, &PathQuality::rttP95,
          &PathQuality::lossForward, &PathQuality::lossBackward, &PathQuality::jitter})
        EXPECT_TRUE(std::isnan(should.*figure) ? std::isnan(is.*figure)
                                               : std::abs(is.*figure - should.*figure) < 1e-6)
            << is.*figure << " instead of " << should.*figure;
}

// A window knows of a loss only whether it was answered; the sequence numbers tell it the rest.
TEST(WindowTest, FiguresAreThoseOfTheLastProbes) {
    for (const size_t probes : {size_t{1}, size_t{7}, size_t{100}, 3 * Window::maxCells - 1}) {
        std::mt19937 random(4711 + static_cast<uint32_t>(probes));
        Window window(probes);
        std::vector<Fate> all;
        uint32_t sequence = 0xfffffff0, before = 0;  // overflows
        unsigned lossRate = 0;
        for (size_t i = 0; i < 4 * probes + 400; ++i) {
            if (i % 50 == 0) lossRate = random() % 100;
            if (i % 333 == 332) sequence = 0;  // the reflector starts again
            const bool isLost = i > 0 && random() % 100 < lossRate;
            if (isLost) {
                sequence += random() % 2;
                window.lost();
                all.push_back({Fate::undecided, 0ns});
            } else {
                const nanoseconds roundTrip{1'000'000 + random() % 5'000'000};
                window.answered(roundTrip, sequence);
                // Counted from the newest: as many were lost backward as numbers are missing.
                size_t run = 0;
                while (run < all.size() && all[all.size() - 1 - run].kind == Fate::undecided) ++run;
                const uint32_t missing =
                    i == 0 || sequence - before > 400 ? 0 : sequence - before - 1;
                for (size_t j = 0; j < run; ++j)
                    all[all.size() - 1 - j].kind = j < missing ? Fate::backward : Fate::forward;
                before = sequence++;
                all.push_back({Fate::answered, roundTrip});
            }
            if (probes > 1000 && i % 97 != 0) continue;
            PathQuality quality;
            window.figures(quality);
            expectSame(quality, recompute(all, probes));
            if (HasFailure()) FAIL() << "window of " << probes << ", after " << i + 1 << " probes";
        }
    }
}

using Loom::Duration;
using Loom::Instant;
using std::chrono::milliseconds;

const auto here = Netz::IpGenAddr::fromV4(0xCB007101), there = Netz::IpGenAddr::fromV4(0xC6336402);

ProbeValues values(Vel::U32 interval = 100, Vel::U32 multiplier = 3) {
    return {interval, multiplier, 10000, 1000, 0, {}, {}};
}

// A session and a reflector with a network between them. Whenever something happens, the session's
// process reads what has come, judges and sends, unless it stands still; then packets wait, with
// the kernel's timestamps.
class Line {
  public:
    explicit Line(const ProbeValues& values) : session(values, 0x4242, Instant{}) {
        reflector.peersAre({{{there, here}, {}}});
    }

    Duration delay = 5ms;  // one way
    bool losesProbes = false, standsStill = false;

    // Until the state is another one, at most `patience`; returns the time that passed.
    Duration run(Duration patience, bool untilChanged = false) {
        const Instant start = now;
        const PathLiveness before = session.state();
        for (const Instant end = start + patience; now < end; now = std::min(next(), end)) {
            step();
            if (untilChanged && session.state() != before) break;
        }
        return now - start;
    }
    PathQuality figures() const {
        PathQuality quality;
        session.figures(quality);
        return quality;
    }

  private:
    struct Packet {
        Instant at;
        std::vector<std::byte> data;
    };
    Packet sent(std::span<const std::byte> data) const {
        return {now + delay, std::vector(data.begin(), data.end())};
    }

    Instant next() const {
        Instant next = now + 100ms;
        if (!out_.empty()) next = std::min(next, out_.front().at);
        if (!standsStill) next = std::min({next, session.nextSend(), session.nextJudgement()});
        if (!standsStill && !back_.empty()) next = std::min(next, back_.front().at);
        return std::max(next, now + 1us);
    }

    void step() {
        for (; !out_.empty() && out_.front().at <= now; out_.pop_front()) {
            std::array<std::byte, ProbeSocket::maxSize> buffer;
            const nanoseconds day = now.time_since_epoch();
            const ProbeDatagram probe{here, 4711, 0, 255, day, out_.front().data};
            const auto answer = reflector.answer(there, probe, buffer, now, day + 1ms);
            if (!answer.empty()) back_.push_back(sent(answer));
        }
        if (standsStill) return;
        for (; !back_.empty() && back_.front().at <= now; back_.pop_front())
            session.receive(back_.front().data, back_.front().at);
        session.judge(now);
        if (session.nextSend() > now) return;
        std::array<std::byte, stampSize> buffer;
        const auto probe = write(session.send(now, now.time_since_epoch()), buffer, nullptr);
        if (!losesProbes) out_.push_back(sent(probe));
    }

    std::deque<Packet> out_, back_;

  public:
    Instant now{};
    ProbeSession session;
    Reflector reflector;
};

TEST(ProbeSessionTest, SilenceIsNoticedInTimeAndPathsReturnAfterTheirDelay) {
    for (const auto& [interval, multiplier] : {std::pair(10U, 3U), {100, 1}, {100, 3}, {100, 7}})
        for (const Duration delay : {1ms, 40ms, 700ms}) {
            SCOPED_TRACE(testing::Message() << interval << " ms x " << multiplier << ", one way "
                                            << delay.count() / 1000000 << " ms");
            Line line(values(interval, multiplier));
            line.delay = delay;
            line.run(10s);
            ASSERT_EQ(line.session.state(), PathLiveness::alive);
            Duration upDelay = 1s;
            for (int i = 0; i < 8; ++i, upDelay = std::min<Duration>(2 * upDelay, 64s)) {
                line.run(milliseconds(i * 37));  // anywhere in the interval
                line.losesProbes = true;
                const Duration detection = milliseconds(interval) * multiplier;
                // Counted from the last answer, which was on its way.
                const Duration noticed = line.run(10s, true);
                EXPECT_EQ(line.session.state(), PathLiveness::dead);
                EXPECT_LE(noticed, detection + 2 * delay + 7ms);
                EXPECT_GE(noticed, detection - milliseconds(interval));
                line.run(3s);
                line.losesProbes = false;
                const Duration returned = line.run(100s, true);
                EXPECT_EQ(line.session.state(), PathLiveness::alive);
                EXPECT_NEAR(static_cast<double>(returned / 1ms),
                            static_cast<double>((upDelay + 2 * delay) / 1ms), interval + 2);
            }
            line.run(300s);  // calm for so long, it is trusted again
            line.losesProbes = true;
            line.run(10s, true);
            line.losesProbes = false;
            EXPECT_LT(line.run(100s, true), 1s + 2 * delay + milliseconds(interval) + 2ms);
        }
}

TEST(ProbeSessionTest, AProcessThatStandsStillJudgesNobody) {
    Line line(values(10));
    std::mt19937 random(7);
    line.run(1s);
    for (int i = 0; i < 200; ++i) {
        line.standsStill = true;
        line.run(milliseconds(random() % (i % 10 == 0 ? 5000 : 200)));
        line.standsStill = false;
        line.run(milliseconds(random() % 100), true);
        ASSERT_EQ(line.session.state(), PathLiveness::alive) << "after " << i;
    }
    EXPECT_EQ(line.session.counts().lost, 0U);
    EXPECT_NEAR(line.figures().rttMean, 9, 0.01);  // 10 ms less 1 ms in the reflector
}

TEST(ProbeSessionTest, APathIsCheckedWhileItsOtherEndListens) {
    Line line(values());
    line.reflector.peersAre({});
    line.run(10s);
    EXPECT_EQ(line.session.state(), PathLiveness::notChecked);
    EXPECT_EQ(line.session.memory(), std::nullopt);
    EXPECT_EQ(line.reflector.counts().stranger, line.session.counts().sent);
    line.reflector.peersAre({{{there, here}, {}}});
    line.run(1s, true);
    EXPECT_EQ(line.session.state(), PathLiveness::alive);
    // An ICMP error has to quote a probe.
    std::array<std::byte, stampSize> buffer;
    EXPECT_FALSE(
        line.session.portUnreachable(write(SenderPacket{1, 2, 3, 0x4242}, buffer, nullptr)));
    const auto quoted = line.session.send(line.now, 77s);
    EXPECT_TRUE(line.session.portUnreachable(write(quoted, buffer, nullptr)));
    EXPECT_EQ(line.session.state(), PathLiveness::notChecked);

    // A path whose other end has answered before is expected to.
    for (const bool isDead : {false, true}) {
        ProbeSession next(values(), 1, Instant{}, ProbeSession::Memory{isDead, 10ms});
        Instant now{};
        for (; next.state() != PathLiveness::dead && now < Instant(1s); now += 1ms) {
            next.judge(now);
            if (next.nextSend() <= now) next.send(now, 1s);
        }
        EXPECT_EQ(next.state(), PathLiveness::dead);
        EXPECT_EQ(now < Instant(1ms), isDead);
        EXPECT_TRUE(next.memory()->isDead);
    }
}

// Nobody gets more than was sent, and a flood is not answered, nor that of all strangers together.
TEST(ReflectorTest, AnswersAreLimited) {
    for (const uint32_t senders : {1, 8}) {
        SCOPED_TRACE(senders);
        Reflector reflector;
        senders == 1 ? reflector.peersAre({{{there, here}, {}}})
                     : reflector.peersAre({}, Vel::Secret{});
        std::array<std::byte, ProbeSocket::maxSize> packet{}, buffer;
        Instant now{};
        size_t count = 0;
        for (uint32_t i = 0; i < 100'000; ++i, now += 20us) {
            const auto sender = Netz::IpGenAddr::fromV4(0xCB007101 + i % senders);
            write(SenderPacket{i, i, 1, 1}, packet, nullptr);
            const auto data = std::span(packet).first(stampSize + i % 1000);
            const auto answer =
                reflector.answer(there, {sender, 4711, 0, 255, 1s, data}, buffer, now, 1s);
            count += !answer.empty();
            if (!answer.empty()) {
                EXPECT_EQ(answer.size(), data.size());
            }
        }
        EXPECT_NEAR(static_cast<double>(count), 2 * Reflector::maxRate, Reflector::maxRate / 5);
        for (uint16_t port = 1; port < 100; ++port, now += 10ms)
            reflector.answer(there, {here, port, 0, 255, 1s, std::span(packet).first(stampSize)},
                             buffer, now, 1s);
        EXPECT_EQ(reflector.counts().answered, count + Reflector::maxSessions - senders);
        EXPECT_EQ(reflector.counts().answered + reflector.counts().limited, 100'099U);
    }
}

// The thread answers while its owner changes what it works with.
TEST(ReflectorThreadTest, ProbesAreAnsweredWhilePeersAndPlacesChange) {
    const auto local = Netz::IpGenAddr::fromV4(INADDR_LOOPBACK);
    const Place place{local, if_nametoindex("lo")};
    ReflectorThread thread;
    std::string refused;
    const auto answerAt = [&](const std::set<Place>& places) {
        thread.placesAre(places,
                         [&](const Place&, const std::string& reason) { refused = reason; });
    };
    answerAt({place});
    if (!refused.empty()) GTEST_SKIP() << refused;
    ProbeSocket sender(ProbeSocket::Role::sender, place, 0);
    size_t answers = 0;
    const Instant end = Loom::MonotonicClock().now() + 60s;
    for (uint32_t i = 0; answers < 500 && Loom::MonotonicClock().now() < end; ++i) {
        thread.peersAre({{{local, local}, {i % 100 < 50 ? "" : "secret"}}}, {});
        if (i % 64 == 0) answerAt({});
        answerAt({place});
        std::array<std::byte, stampSize> packet;
        const ProbeDatagram probe{
            local, probePort, 0, 255, {}, write(SenderPacket{i, i + 1, 1, 1}, packet, nullptr)};
        sender.send({&probe, 1}, [](size_t, int) {});
        pollfd readable{sender.fd(), POLLIN, 0};
        poll(&readable, 1, 1);
        sender.receiveReports({[](uint32_t, nanoseconds) {}, [](const ProbeDatagram&) {}});
        sender.receive([&](const ProbeDatagram&) { ++answers; });
    }
    EXPECT_GE(answers, 500U);
    EXPECT_GE(thread.counts().answered, answers);
}

}  // namespace
}  // namespace Agent::Linux
