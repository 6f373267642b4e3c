// The constant descriptors of an entity type: the names of its attributes, and functions by which
// code that knows only these names reads, writes, walks and subscribes to them. Writes go through
// the setters, so they notify like any other. A text that does not fit raises Vel::Error with the
// reason; the caller adds the place.
#pragma once

#include <array>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/vel/Subscription.h"
#include "platform/vel/Unordered.h"
#include "platform/vel/Value.h"

namespace Vel {

class Entity;
struct TypeDescriptor;

// The kind of an attribute decides which of the functions it has:
//
//   key               get, keyOf
//   plain             get, set, check
//   set, map, values  get, keys, keyText, normalKey, getAt, setAt, checkAt, eraseAt
//   collection        get, keys, keyText, normalKey, find, create, eraseAt, element
//   child             get, find (key ignored), element
struct Attribute {
    using Init = std::function<void(Entity&)>;

    enum class Kind : U8 { key, plain, set, map, values, collection, child };

    std::string_view name;
    Kind kind;
    bool keyIsText = false;  // the key is free text (a name), escaped inside a path
    const TypeDescriptor* (*element)() = nullptr;

    Datum (*get)(const Entity&) = nullptr;
    void (*set)(Entity&, const Datum&) = nullptr;
    void (*check)(const Datum&) = nullptr;         // throws the error that set would
    std::string (*keyOf)(const Datum&) = nullptr;  // the key text for a datum

    std::vector<std::string> (*keys)(const Entity&) = nullptr;  // in iteration order
    std::string (*keyText)(const void* key) = nullptr;          // for the key of a notification
    std::string (*normalKey)(std::string_view) = nullptr;       // in the form of keyText
    std::optional<Datum> (*getAt)(const Entity&, std::string_view key) = nullptr;
    void (*setAt)(Entity&, std::string_view key, const Datum&) = nullptr;
    void (*checkAt)(std::string_view key, const Datum&) = nullptr;  // throws the errors of setAt
    Entity* (*find)(const Entity&, std::string_view key) = nullptr;
    // Get or create; `init` fills a new element before its insertion is announced.
    Entity& (*create)(Entity&, std::string_view key, const Init& init) = nullptr;
    bool (*eraseAt)(Entity&, std::string_view key) = nullptr;  // false: not found

    bool keyed() const { return kind != Kind::key && kind != Kind::plain && kind != Kind::child; }
};

struct VEL_EXPORT TypeDescriptor {
    TypeDescriptor(const char* name, const Attribute* attributes, size_t count);
    TypeDescriptor(const TypeDescriptor&) = delete;

    std::string_view attributeName(Ordinal ordinal) const {
        return ordinal < count ? attributes[ordinal].name : std::string_view("(any)");
    }
    const Attribute* find(std::string_view attribute) const;

    const char* name;
    const Attribute* attributes;  // by ordinal
    size_t count;
    mutable U32 live = 0;  // living objects, counted in debug builds
    const TypeDescriptor* next;

    static const TypeDescriptor* all;  // the types of the process, linked by next
};

// Counts of living objects by type name, without zeros. Empty in builds without assertions.
VEL_EXPORT std::map<std::string, U32> liveObjects();

// The entity as data: its attributes in order of declaration.
VEL_EXPORT Datum toDatum(const Entity& entity);

[[noreturn]] VEL_EXPORT void reinstantiated(std::string_view attribute, std::string_view wanted,
                                            std::string_view current);

#ifdef NDEBUG
template <class T>
struct LiveCount {};
#else
template <class T>
struct LiveCount {
    LiveCount() { ++T::velType.live; }
    ~LiveCount() { --T::velType.live; }
};
#endif

template <auto member>
struct MemberOf;
template <class C, class R, R (C::*member)() const>
struct MemberOf<member> {
    using Class = C;
    using Value = std::remove_cvref_t<R>;
};

template <auto getter>
constexpr Attribute keyAttribute(std::string_view name) {
    using M = MemberOf<getter>;
    using C = typename M::Class;
    using V = typename M::Value;
    return {
        .name = name,
        .kind = Attribute::Kind::key,
        .get =
            [](const Entity& e) { return Codec<V>::datum((static_cast<const C&>(e).*getter)()); },
        .keyOf = [](const Datum& d) { return Codec<V>::key(Codec<V>::fromDatum(d)); }};
}

template <auto getter, auto setter>
constexpr Attribute plainAttribute(std::string_view name) {
    using V = typename MemberOf<getter>::Value;
    using C = typename MemberOf<getter>::Class;
    return {
        .name = name,
        .kind = Attribute::Kind::plain,
        .get =
            [](const Entity& e) { return Codec<V>::datum((static_cast<const C&>(e).*getter)()); },
        .set = [](Entity& e,
                  const Datum& d) { (static_cast<C&>(e).*setter)(Codec<V>::fromDatum(d)); },
        .check = [](const Datum& d) { (void)Codec<V>::fromDatum(d); }};
}

// The functions that all keyed attributes have.
template <class C, class Key, auto store, auto del>
constexpr Attribute keyedAttribute(std::string_view name, Attribute::Kind kind) {
    using Store = std::remove_cvref_t<decltype(std::declval<C>().*store)>;
    return {
        .name = name,
        .kind = kind,
        .keyIsText = Codec<Key>::isText,
        .keys =
            [](const Entity& e) {
                std::vector<std::string> keys;
                for (const auto& item : static_cast<const C&>(e).*store)
                    keys.push_back(Codec<Key>::key(Store::keyOf(item)));
                return keys;
            },
        .keyText = [](const void* key) { return Codec<Key>::key(*static_cast<const Key*>(key)); },
        .normalKey = [](std::string_view key) { return Codec<Key>::key(Codec<Key>::fromKey(key)); },
        .eraseAt =
            [](Entity& e, std::string_view text) {
                const Key key = Codec<Key>::fromKey(text);
                if (!(static_cast<C&>(e).*store).has(key)) return false;
                (static_cast<C&>(e).*del)(key);
                return true;
            }};
}

template <class C, class Key, auto store, auto is, auto del>
constexpr Attribute setAttribute(std::string_view name) {
    Attribute a = keyedAttribute<C, Key, store, del>(name, Attribute::Kind::set);
    a.checkAt = [](std::string_view, const Datum& d) {
        if (d != Datum{true}) expected("true", d);
    };
    a.get = [](const Entity& e) {
        Datum::List list;
        for (const Key& key : static_cast<const C&>(e).*store)
            list.push_back({Codec<Key>::key(key)});
        return Datum{std::move(list)};
    };
    a.getAt = [](const Entity& e, std::string_view key) -> std::optional<Datum> {
        if (!(static_cast<const C&>(e).*store).has(Codec<Key>::fromKey(key))) return std::nullopt;
        return Datum{true};
    };
    a.setAt = [](Entity& e, std::string_view key, const Datum& d) {
        if (d != Datum{true}) expected("true", d);
        (static_cast<C&>(e).*is)(Codec<Key>::fromKey(key));
    };
    return a;
}

template <class C, class Key, class Value, auto store, auto is, auto del>
constexpr Attribute mapAttribute(std::string_view name) {
    Attribute a = keyedAttribute<C, Key, store, del>(name, Attribute::Kind::map);
    a.checkAt = [](std::string_view, const Datum& d) { (void)Codec<Value>::fromDatum(d); };
    a.get = [](const Entity& e) {
        Datum::Members members;
        for (const auto& [key, value] : static_cast<const C&>(e).*store)
            members.push_back({Codec<Key>::key(key), Codec<Value>::datum(value)});
        return Datum{std::move(members)};
    };
    a.getAt = [](const Entity& e, std::string_view key) -> std::optional<Datum> {
        const auto* item = (static_cast<const C&>(e).*store).find(Codec<Key>::fromKey(key));
        if (!item) return std::nullopt;
        return Codec<Value>::datum(item->second);
    };
    a.setAt = [](Entity& e, std::string_view key, const Datum& d) {
        (static_cast<C&>(e).*is)(Codec<Key>::fromKey(key), Codec<Value>::fromDatum(d));
    };
    return a;
}

// The key may be omitted from the object; if present, it must be this one.
template <class Key, class Value, Key Value::*field>
Value keyedValue(std::string_view text, const Datum& d) {
    Value value = Codec<Value>::fromDatum(d);
    const Key key = Codec<Key>::fromKey(text);
    if (value.*field != key && value.*field != Key{})
        expected("the key " + Codec<Key>::key(key), Codec<Key>::key(value.*field));
    value.*field = key;
    return value;
}

template <class C, class Key, class Value, Key Value::*field, auto store, auto is, auto del>
constexpr Attribute valuesAttribute(std::string_view name) {
    Attribute a = keyedAttribute<C, Key, store, del>(name, Attribute::Kind::values);
    a.checkAt = [](std::string_view key, const Datum& d) {
        (void)keyedValue<Key, Value, field>(key, d);
    };
    a.get = [](const Entity& e) {
        Datum::Members members;
        for (const Value& value : static_cast<const C&>(e).*store)
            members.push_back({Codec<Key>::key(value.*field), Codec<Value>::datum(value)});
        return Datum{std::move(members)};
    };
    a.getAt = [](const Entity& e, std::string_view key) -> std::optional<Datum> {
        const Value* value = (static_cast<const C&>(e).*store).find(Codec<Key>::fromKey(key));
        if (!value) return std::nullopt;
        return Codec<Value>::datum(*value);
    };
    a.setAt = [](Entity& e, std::string_view key, const Datum& d) {
        (static_cast<C&>(e).*is)(keyedValue<Key, Value, field>(key, d));
    };
    return a;
}

template <class C, class Key, class Element, auto store, auto del>
constexpr Attribute collectionAttribute(std::string_view name, decltype(Attribute::create) create) {
    Attribute a = keyedAttribute<C, Key, store, del>(name, Attribute::Kind::collection);
    a.element = [] { return &Element::velType; };
    a.get = [](const Entity& e) {
        Datum::Members members;
        for (const Element& element : static_cast<const C&>(e).*store)
            members.push_back({Codec<Key>::key(element.velKey()), toDatum(element)});
        return Datum{std::move(members)};
    };
    a.find = [](const Entity& e, std::string_view key) -> Entity* {
        auto* found = (static_cast<const C&>(e).*store).find(Codec<Key>::fromKey(key));
        return found ? found->get() : nullptr;
    };
    a.create = create;
    return a;
}

template <class C, class Child, auto getter>
constexpr Attribute childAttribute(std::string_view name) {
    return {.name = name,
            .kind = Attribute::Kind::child,
            .element = [] { return &Child::velType; },
            .get =
                [](const Entity& e) {
                    const Child* child = (static_cast<const C&>(e).*getter)();
                    return child ? toDatum(*child) : Datum{};
                },
            .find = [](const Entity& e, std::string_view) -> Entity* {
                return (static_cast<const C&>(e).*getter)();
            }};
}

template <U16 n>
using OrdinalTag = std::integral_constant<U16, n>;

// A rank converts to every lower rank and prefers the next one, so overload resolution between
// functions that take ranks selects the highest.
template <U16 n>
struct Rank : Rank<n - 1> {};
template <>
struct Rank<0> {};
inline constexpr U16 maxAttributes = 64;  // of one entity; one more does not compile

// The descriptors of type E, gathered by asking for ordinal 0, 1, ... until one is missing.
template <class E, U16 n = 0>
constexpr size_t attributeCount() {
    if constexpr (requires { E::template velDescribe<E>(OrdinalTag<n>{}); })
        return attributeCount<E, n + 1>();
    else
        return n;
}
template <class E>
inline constexpr auto attributeTable = []<size_t... i>(std::index_sequence<i...>) {
    return std::array<Attribute, sizeof...(i)>{
        E::template velDescribe<E>(OrdinalTag<static_cast<U16>(i)>{})...};
}
(std::make_index_sequence<attributeCount<E>()>{});

}  // namespace Vel
