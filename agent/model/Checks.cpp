#include "agent/model/Checks.h"

namespace Agent {

using Vel::Attribute;
using Kind = Attribute::Kind;

namespace {

// C0, C1 and DEL, in UTF-8.
bool hasControlCharacter(std::string_view text) {
    for (size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const auto next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0;
        if (byte < ' ' || byte == 0x7f || (byte == 0xc2 && next >= 0x80 && next < 0xa0))
            return true;
    }
    return false;
}

void checkText(const Path& place, std::string_view text) {
    if (hasControlCharacter(text)) throw TreeError(place, "control characters are not allowed");
}

}  // namespace

void checkNames(const Vel::Entity& entity, const Path& place) {
    const Vel::TypeDescriptor& type = entity.type();
    for (size_t i = 0; i < type.count; ++i) {
        const Attribute& a = type.attributes[i];
        if (a.kind == Kind::child) {
            if (const Vel::Entity* child = a.find(entity, {})) checkNames(*child, place.at(a.name));
            continue;
        }
        if (!a.keyed()) {
            const Vel::Datum value = a.get(entity);
            if (const auto* text = value.as<Vel::String>()) checkText(place.at(a.name), *text);
            if (const auto* secret = value.as<Vel::Secret>())
                checkText(place.at(a.name), secret->text);
            continue;
        }
        for (const std::string& key : a.keys(entity)) {
            const Path entry = place.at(a.name, key);
            if (a.keyIsText && key.empty() && a.kind != Kind::set)
                throw TreeError(entry, "a name is required");
            if (a.keyIsText) checkText(entry, key);
            if (a.kind == Kind::collection) checkNames(*a.find(entity, key), entry);
        }
    }
}

const char* unusableKind(const Netz::IpGenAddr& addr) {
    const auto is = [&addr](size_t index, uint8_t mask, uint8_t value) {
        return (addr.data()[index] & mask) == value;
    };
    if (addr.isZero()) return "an unspecified";
    if (addr.isV4()) {
        if (is(0, 0xff, 127)) return "a loopback";
        if (is(0, 0xf0, 224)) return "a multicast";
        if (addr == Netz::IpGenAddr::fromV4(0xffffffff)) return "a broadcast";
        if (is(0, 0xff, 169) && is(1, 0xff, 254)) return "a link-local";
        return nullptr;
    }
    static const auto loopback = Netz::IpGenAddr::parse("::1");
    if (addr == loopback) return "a loopback";
    if (is(0, 0xff, 0xff)) return "a multicast";
    if (is(0, 0xff, 0xfe) && is(1, 0xc0, 0x80)) return "a link-local";
    return nullptr;
}

}  // namespace Agent
