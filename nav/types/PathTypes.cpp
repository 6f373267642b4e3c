#include "nav/types/PathTypes.h"

namespace Nav {

namespace {
template <class E>
std::optional<E> instance(U32 value) {
    if (value >= Vel::Codec<E>::names.size()) return std::nullopt;
    return static_cast<E>(value);
}
}  // namespace

std::optional<PathType> PathTypeInstance(U32 value) { return instance<PathType>(value); }
std::optional<PathType> PathTypeInstance(std::string_view name) {
    return Vel::Codec<PathType>::find(name);
}
std::optional<PathState> PathStateInstance(U32 value) { return instance<PathState>(value); }
std::optional<PathState> PathStateInstance(std::string_view name) {
    return Vel::Codec<PathState>::find(name);
}

std::string PathKey::stringValue() const {
    return " ( Src: " + srcAddr.stringValue() + " Dst: " + dstAddr.stringValue() +
           " vrfId: " + std::to_string(vrfId) + " )";
}

std::string SiteGroupKey::stringValue() const {
    return " ( Path Group Name: " + name + " peer ip: " + routerIp.stringValue() + " )";
}

std::string LbProfileKey::stringValue() const {
    return " ( Peer Ip: " + vtepIp.stringValue() + " AppProfileId: " + std::to_string(appId) +
           " vrfId: " + std::to_string(vrfId) + " )";
}

}  // namespace Nav
