// Entities and values to test the runtime with.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "platform/vel/Reactor.h"

namespace Test {

using namespace Vel;

enum class Mode : U32 { off, standby, active };
VEL_ENUM(Mode, off, standby, active)

struct FlowKey {  // without padding: compared and hashed as bytes
    Netz::IpGenAddr src;
    Netz::IpGenAddr dst;
    U32 vrf = 0;
    auto operator<=>(const FlowKey&) const = default;
};
VEL_VALUE(Test, FlowKey, src, dst, vrf)

struct SiteKey {
    String name;
    Netz::IpGenAddr addr;
    auto operator<=>(const SiteKey&) const = default;
};
VEL_VALUE(Test, SiteKey, name, addr)

struct Rule {
    U32 id = 0;
    U8 weight = 1;
    Mode mode = Mode::off;
    SiteKey site = {};
    L3::VrfName vrf = {};
    Netz::IntfId intf = {};
    double share = 0;
    auto operator<=>(const Rule&) const = default;
};
VEL_VALUE(Test, Rule, id, weight, mode, site, vrf, intf, share)

class Leaf : public Entity {
    VEL_ENTITY(Leaf, U32, id)
    VEL_ATTRIBUTE(U32, a, 0)
    VEL_ATTRIBUTE(U32, b, 0)
};

class Tree : public Entity {
    VEL_ENTITY(Tree, Name, name)
    VEL_ATTRIBUTE(Mode, mode, Mode::off)
    VEL_COUNTER(U8, count, 254)
    static constexpr int others = __COUNTER__;  // no business of the attributes
    VEL_COLLECTION(U32, Leaf, leaf)
    VEL_ORDERED(U32, Leaf, sorted)
    VEL_SET(SiteKey, site)
    VEL_MAP(FlowKey, U32, flow)
    VEL_VALUES(U32, Rule, id, rule)
    VEL_CHILD(Tree, sub)
};

using Random = std::independent_bits_engine<std::mt19937, 32, U32>;

inline Netz::IpGenAddr addr(U32 n) {
    return n % 2 ? Netz::IpGenAddr::fromV4(n)
                 : Netz::IpGenAddr::fromV6({0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                            static_cast<U8>(n >> 8), static_cast<U8>(n)});
}

template <class F>
std::string errorOf(F&& f) {
    try {
        f();
    } catch (const Error& e) {
        return e.what();
    }
    return "(no error)";
}

}  // namespace Test
