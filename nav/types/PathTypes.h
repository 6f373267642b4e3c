// The keys and values that all reactors share: paths, sites, load-balance ids.
//
// A path goes from one local source address to one remote destination address in one VRF. The texts
// in trace lines come from `stringValue()`; the value text (`Vel::valueToStrep`) can be parsed
// back.
#pragma once

#include <compare>
#include <optional>

#include "nav/Export.h"
#include "platform/shard/Via.h"
#include "platform/vel/Value.h"

namespace Nav {

using Vel::U16;
using Vel::U32;
using Vel::U64;

enum class PathType : U32 {
    invalidPath,    // no usable forwarding state
    unsecuredPath,  // forwards without an IPsec connection
    securedPath     // forwards over an established IPsec connection
};
VEL_ENUM(PathType, invalidPath, unsecuredPath, securedPath)

enum class PathState : U32 {
    unresolved,  // no forwarding via is known
    resolved     // the next hop is resolved to a via
};
VEL_ENUM(PathState, unresolved, resolved)

// The enumerator of a value text; Vel::Error if the text names none.
template <class E>
E sequenceToValue(std::string_view text) {
    return Vel::valueFromStrep<E>(text);
}

// The enumerator of a number or of a name; empty if it stands for none.
NAV_EXPORT std::optional<PathType> PathTypeInstance(U32 value);
NAV_EXPORT std::optional<PathType> PathTypeInstance(std::string_view name);
NAV_EXPORT std::optional<PathState> PathStateInstance(U32 value);
NAV_EXPORT std::optional<PathState> PathStateInstance(std::string_view name);

// The encapsulation id of a path without an established IPsec connection.
inline constexpr U32 noEncapId = 0xFFFFFFFE;

struct NAV_EXPORT PathKey {
    Netz::IpGenAddr srcAddr;  // primary address of a local WAN interface
    Netz::IpGenAddr dstAddr;  // transport address of a remote site
    U32 vrfId = 0;

    auto operator<=>(const PathKey&) const = default;
    std::string stringValue() const;
};
VEL_VALUE(Nav, PathKey, srcAddr, dstAddr, vrfId)

// A path as programmed in hardware.
struct HwPathKey {
    Netz::IpGenAddr srcAddr;
    Netz::IpGenAddr dstAddr;
    U32 vrfId = 0;
    U32 pathIndex = 0;

    PathKey pathKey() const { return {srcAddr, dstAddr, vrfId}; }
    auto operator<=>(const HwPathKey&) const = default;
};
VEL_VALUE(Nav, HwPathKey, srcAddr, dstAddr, vrfId, pathIndex)

// The forwarding state of one path.
struct HwPathInfo {
    PathType pathType = PathType::invalidPath;
    PathState pathState = PathState::unresolved;
    U32 pathIndex = 0;
    Shard::Fib::Via via;

    bool operator==(const HwPathInfo&) const = default;
};
VEL_VALUE(Nav, HwPathInfo, pathType, pathState, pathIndex, via)

// One remote site (router) within one path group.
struct NAV_EXPORT SiteGroupKey {
    Vel::String name;          // the path group
    Netz::IpGenAddr routerIp;  // the site's VTEP address

    auto operator<=>(const SiteGroupKey&) const = default;
    std::string stringValue() const;
};
VEL_VALUE(Nav, SiteGroupKey, name, routerIp)

// The key for which one load-balance id is allocated.
struct NAV_EXPORT LbProfileKey {
    Netz::IpGenAddr vtepIp;
    U32 appId = 0;
    U32 vrfId = 0;

    auto operator<=>(const LbProfileKey&) const = default;
    std::string stringValue() const;
};
VEL_VALUE(Nav, LbProfileKey, vtepIp, appId, vrfId)

// A member path of a load-balance id. Ordered by path index, not by priority. A lower priority is
// preferred.
struct PathWithPriority {
    U32 pathIndex = 0;
    U32 priority = 0;
    Vel::String groupName;  // the path group that contributed the path

    auto operator<=>(const PathWithPriority&) const = default;
};
VEL_VALUE(Nav, PathWithPriority, pathIndex, priority, groupName)

struct VrfAppKey {
    U32 vrfId = 0;
    U32 appId = 0;

    auto operator<=>(const VrfAppKey&) const = default;
};
VEL_VALUE(Nav, VrfAppKey, vrfId, appId)

// The printable names of a (VRF, application) pair.
struct VrfApp {
    VrfAppKey key;
    Vel::String vrfName;
    Vel::String appName;

    auto operator<=>(const VrfApp&) const = default;
};
VEL_VALUE(Nav, VrfApp, key, vrfName, appName)

// One rule of a VRF's policy.
struct NavRuleEntry {
    U32 ruleKey = 0;
    U32 appProfileId = 0;
    Vel::String lbProfileName;

    auto operator<=>(const NavRuleEntry&) const = default;
    bool operator!() const { return *this == NavRuleEntry{}; }  // all fields have their defaults
};
VEL_VALUE(Nav, NavRuleEntry, ruleKey, appProfileId, lbProfileName)

}  // namespace Nav
