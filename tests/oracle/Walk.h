// A seeded random walk over a small universe: a few of everything, in every order, so that things
// are shared, moved, taken away and brought back all the time.
#pragma once

#include <deque>
#include <random>

#include "tests/oracle/World.h"

namespace Oracle {

class Walk {
  public:
    explicit Walk(Vel::U64 seed) : random_(seed) {}
    // What happens next in this world.
    Event next(const World& world);

  private:
    struct LivePath {
        Nav::PathKey key;
        L3::VrfName vrf;
    };
    using Choice = std::initializer_list<const char*>;

    // At most one of these among the operands of an expression or the arguments of a call: their
    // order is the compiler's, and what a seed means must not depend on it.
    size_t below(size_t n) { return random_() % n; }
    bool oneIn(size_t n) { return below(n) == 0; }
    std::string of(Choice choice) { return choice.begin()[below(choice.size())]; }
    Vel::Datum textOf(Choice choice) { return {Vel::String(of(choice))}; }
    Vel::Datum numberOf(std::initializer_list<Vel::U64> choice) {
        return {choice.begin()[below(choice.size())]};
    }

    // Mostly set, sometimes deleted.
    Event keep(std::string path, Vel::Datum value = {true});

    LivePath path(const World& world);
    Vel::Datum fec();
    Event group();
    Event interface();
    Event vrf(const World& world);
    Event policy(const World& world);
    Event balance();
    Event route(const World& world);
    Event connection(const World& world);
    Event hardware(const World& world);

    std::mt19937_64 random_;
};

}  // namespace Oracle
