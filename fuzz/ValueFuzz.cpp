// Value texts and keys: a text that is accepted as a value has a text and a key that give the value
// back.
#include "nav/types/PathTypes.h"
#include "platform/services/Ipsec.h"

namespace {

using Vel::Codec;

// The same text in every form is the same value: a number that is none is not equal to itself.
template <class T>
void same(const T& value, const T& again) {
    VEL_ASSERT(Vel::valueToStrep(value) == Vel::valueToStrep(again), "another value came back");
    VEL_ASSERT(Vel::hashOf(value) == Vel::hashOf(again), "another hash");
    VEL_ASSERT(Codec<T>::mix(value) == Codec<T>::mix(again), "another mix");
}

template <class T, class Read>
std::optional<T> attempt(Read read, std::string_view text) {
    try {
        return read(text);
    } catch (const Vel::Error&) {
        return {};
    }
}

template <class T>
void readAs(std::string_view text) {
    const auto value = attempt<T>(Vel::valueFromStrep<T>, text);
    if (!value) return;
    same(*value, Codec<T>::fromDatum(Codec<T>::datum(*value)));
    same(*value, Vel::valueFromStrep<T>(Vel::valueToStrep(*value)));
}

template <class T>
void readAsKey(std::string_view text) {
    const auto value = attempt<T>(Codec<T>::fromKey, text);
    if (value) same(*value, Codec<T>::fromKey(Codec<T>::key(*value)));
}

template <class... Types>
void readAsEach(std::string_view text) {
    (readAs<Types>(text), ...);
}
template <class... Types>
void readAsEachKey(std::string_view text) {
    (readAsKey<Types>(text), ...);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    readAsEach<Nav::PathKey, Nav::HwPathInfo, Nav::SiteGroupKey, Nav::VrfApp, Nav::PathType, bool,
               Vel::U8, Vel::U64, double, Vel::String, Netz::IpGenAddr, Netz::IpAddrWithMask,
               Netz::IntfId, Ipsec::ConnectionKey>(text);
    readAsEachKey<Nav::PathKey, Nav::HwPathKey, Nav::SiteGroupKey, Nav::NavRuleEntry, Nav::PathType,
                  bool, Vel::U16, Vel::U32, double, Vel::String, Netz::IpGenAddr,
                  Netz::IpAddrWithMask, Netz::IntfId, Ipsec::ConnectionKey>(text);
    return 0;
}
