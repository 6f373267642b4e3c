// Figures and sessions of probes, against plain recomputations.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>

#include "agent/linux/quality/StampPacket.h"
#include "agent/linux/quality/Window.h"

namespace Agent::Linux {
namespace {

using std::chrono::nanoseconds;
using namespace std::chrono_literals;

// The octets of packets with all fields set, as RFC 8762 draws them.
TEST(StampPacketTest, FieldsStandWhereTheStandardPutsThem) {
    const SenderPacket probe{0x01020304, 0x1112131415161718, 0x2122, 0x3132};
    const ReflectorPacket answer{0x41424344, 0x5152535455565758, 0x6162, 0x7172737475767778, probe,
                                 0x81};
    const auto hex = [](std::span<const std::byte> packet) {
        std::string text;
        for (const std::byte each : packet) {
            constexpr char digits[] = "0123456789abcdef";
            text += digits[static_cast<int>(each) >> 4];
            text += digits[static_cast<int>(each) & 15];
        }
        return text;
    };
    const auto zeros = [](size_t octets) { return std::string(2 * octets, '0'); };
    std::array<std::byte, authenticatedStampSize> buffer;
    EXPECT_EQ(hex(write(probe, buffer, nullptr)),
              "01020304"
              "1112131415161718"
              "2122"
              "3132" +
                  zeros(28));
    EXPECT_EQ(hex(write(answer, buffer, nullptr)),
              "41424344"
              "5152535455565758"
              "6162"
              "3132"
              "7172737475767778"
              "01020304"
              "1112131415161718"
              "2122"
              "0000"
              "81" +
                  zeros(3));
    const StampKey key("secret");
    EXPECT_EQ(hex(write(probe, buffer, &key).first(96)), "01020304" + zeros(12) +
                                                             "1112131415161718"
                                                             "2122"
                                                             "3132" +
                                                             zeros(68));
    EXPECT_EQ(hex(write(answer, buffer, &key).first(96)), "41424344" + zeros(12) +
                                                              "5152535455565758"
                                                              "6162"
                                                              "3132" +
                                                              zeros(4) + "7172737475767778" +
                                                              zeros(8) + "01020304" + zeros(12) +
                                                              "1112131415161718"
                                                              "2122" +
                                                              zeros(6) + "81" + zeros(15));
}

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
    const auto same = [](double a, double b) {
        return std::isnan(a) ? std::isnan(b) : std::abs(a - b) < 1e-6;
    };
    EXPECT_PRED2(same, is.rttMin, should.rttMin);
    EXPECT_PRED2(same, is.rttMean, should.rttMean);
    EXPECT_PRED2(same, is.rttP95, should.rttP95);
    EXPECT_PRED2(same, is.lossForward, should.lossForward);
    EXPECT_PRED2(same, is.lossBackward, should.lossBackward);
    EXPECT_PRED2(same, is.jitter, should.jitter);
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

}  // namespace
}  // namespace Agent::Linux
