// A seeded random walk over a small universe: a few of everything, in every order, so that things
// are shared, moved, taken away and brought back all the time.
#pragma once

#include <algorithm>
#include <random>

#include "tests/oracle/World.h"

namespace Oracle {

class Walk {
  public:
    explicit Walk(Vel::U64 seed) : random_(seed) {}
    // What happens next in this world.
    Event next(const World& world);

  private:
    // At most one of these among the operands of an expression or the arguments of a call: their
    // order is the compiler's, and what a seed means must not depend on it.
    size_t below(size_t n) { return random_() % n; }
    bool oneIn(size_t n) { return below(n) == 0; }

    // One of the texts between bars.
    std::string oneOf(std::string_view texts);
    // The text with a word in the place of each name in angle brackets.
    std::string filled(std::string text, const World& world);
    Vel::Datum valueOf(const std::string& text);

    std::mt19937_64 random_;
    Vel::U64 version_ = 0;
};

}  // namespace Oracle
