#include "agent/router/Constraints.h"

#include <array>
#include <cmath>
#include <cstdio>

namespace Agent {

namespace {

struct Limit {
    const char* name;
    double figure;
    Vel::U32 limit;
    const char* unit;
    bool set;

    bool exceeded() const { return set && figure > limit; }
    std::string text() const {
        std::array<char, 80> line;
        std::snprintf(line.data(), line.size(), "%s %.*f %s %s %u %s", name, figure < 10 ? 1 : 0,
                      figure, unit, exceeded() ? ">" : "<=", limit, unit);
        return line.data();
    }
};

std::array<Limit, 3> limitsOf(const Constraints& c, const PathQuality& quality) {
    const Constraints none;
    // std::fmax takes the other direction where one is not known.
    return {{{"loss", std::fmax(quality.lossForward, quality.lossBackward), c.lossRate, "%",
              c.lossRate != none.lossRate},
             {"round trip", quality.rttMean, c.latency, "ms", c.latency != none.latency},
             {"jitter", quality.jitter, c.jitter, "ms", c.jitter != none.jitter}}};
}

}  // namespace

bool Constraints::metBy(const PathQuality& quality) const {
    return std::ranges::none_of(limitsOf(*this, quality), &Limit::exceeded);
}

std::string Constraints::compare(const PathQuality& quality) const {
    const bool met = metBy(quality);
    std::string text;
    for (const Limit& each : limitsOf(*this, quality))
        if (each.set && each.exceeded() != met && !std::isnan(each.figure))
            text += (text.empty() ? "" : ", ") + each.text();
    return text.empty() ? "not measured" : text;
}

}  // namespace Agent
