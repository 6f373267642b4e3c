// Entities: typed attributes and keyed collections that notify their subscribers.
//
// An entity is declared one attribute a line:
//
//     class NAV_EXPORT PathConfig : public Vel::Entity {
//         VEL_ENTITY(PathConfig, L3::VrfName, vrfName)
//         VEL_COLLECTION(PathKey, PathConfigEntry, pathConfigEntry)
//     };
//
// and its source contains VEL_DEFINE(Nav, PathConfig), which collects the descriptors into the
// type's constant table. Members that each line declares:
//
// clang-format off
//     VEL_ENTITY(Type, T, key)        key(); a constructor from it; never changes
//     VEL_ATTRIBUTE(T, a, default)    a(), aIs(v)
//     VEL_COUNTER(T, a, default)      the same and aInc(delta), modulo 2^bits; returns the new value
//     VEL_COLLECTION(K, E, c)         c() to walk, c(key) or null, cIs(key) get or create,
//                                     cIs(key, init) with init(element) before it is announced,
//                                     cDel(key), cDelAll()
//     VEL_ORDERED(K, E, c)            the same in ascending order of key, and cHas(key)
//     VEL_SET(K, s)                   s() to walk, sHas(key), sIs(key), sDel(key), sDelAll(),
//                                     sTakeOldest() to remove what was inserted first
//     VEL_MAP(K, V, m)                m() to walk pairs, m(key) or null, mIs(key, v), mDel, mDelAll
//     VEL_VALUES(K, V, field, m)      the same, of values that hold their key: mIs(v)
//     VEL_CHILD(T, c)                 c() or null, cIs(name) get or create, cDel()
// clang-format on
//
// and with each, `aAttr` to subscribe with.
//
// Rules:
//
// - Setting an attribute to the value it has stores nothing and notifies nobody. (A NaN equals
//   another NaN.)
// - Any other value is stored first; then the attribute's subscribers are called, in subscription
//   order, before the setter returns. If a handler sets something, that notification runs to its
//   end first. A subscription that begins during a round is not called in that round; one that ends
//   during a round is not called any more. More than 64 nested rounds stop the process.
// - A collection notifies key by key: after an insertion, after a changed value, after a removal.
//   The receiver looks the key up in the state as it is now. A removed element is no longer in the
//   collection but alive and complete while subscribers are called; its own content is destroyed
//   without notification. DelAll removes the elements present at the call and keeps those that
//   handlers add meanwhile.
// - An initialiser fills a new element before it is inserted. If the initialiser itself inserts an
//   element under the same key, that element stays and is returned, and the new one is dropped.
// - An exception in a subscriber does not keep others from being called: every subscriber of the
//   round, and every key of a DelAll, is notified, and the first error is thrown to the caller of
//   the setter. The stored value stays. An initialiser that throws inserts nothing. If a subscriber
//   throws while a destructor runs, the process stops and names both.
// - Iteration: see Unordered.h.
//
// How long the result of an accessor may be used:
//
// - the reference that a() returns: while the entity lives; it shows later values too;
// - the element that c(key), cIs(key) or c() returns: while it is in its collection, and while a
//   Hold exists, so throughout any handler. A subscriber of the insertion may have removed it: take
//   a Hold around cIs to use its result in any case;
// - the pointer that m(key) returns: until the next insertion into or removal from the map.
//   (Iteration yields copies.)
// - the child that c() or cIs(name) returns: as an element.
#pragma once

#include <utility>

#include "platform/vel/Describe.h"
#include "platform/vel/FirstError.h"
#include "platform/vel/Ordered.h"
#include "platform/vel/Subscription.h"
#include "platform/vel/Unordered.h"

namespace Vel {

class VEL_EXPORT Entity : public Object {
  public:
    virtual const TypeDescriptor& type() const = 0;

    // Subscribes to every change of this entity; the function receives the attribute's ordinal and,
    // for a collection, the key. For code that knows the entity only by name.
    Subscription subscribeAll(void* object, Subscription::Function function) {
        return Subscription(*this, anyAttribute, object, function);
    }

    // Whether this was an element of a collection and was removed from it, which is final: an
    // element inserted later under the same key is another entity.
    bool removed() const { return removed_; }

  protected:
    Entity() = default;
    ~Entity() override;

    void changed(Ordinal attribute, const void* key = nullptr) {
        assertEventThread();
        if (interest_ & interestIn(attribute)) notify(attribute, key);
    }

    template <class T>
    void store(T& place, Param<T> value, Ordinal attribute) {
        if (sameValue<T>(place, value)) return;
        place = value;
        changed(attribute);
    }

    struct NoInit {};

    template <class Element, class Store, class Key, class Init>
    Element& elementIs(Store& store, Ordinal attribute, const Key& key, Init&& init) {
        if (auto* present = store.find(key)) return **present;
        Ptr<Element> made = make<Element>(key);
        Element& element = *made;
        if constexpr (!std::is_same_v<std::remove_cvref_t<Init>, NoInit>) {
            init(element);
            if (auto* present = store.find(key)) return **present;
        }
        store.insert(std::move(made));
        changed(attribute, &element.velKey());
        return element;
    }
    template <class Store, class Item>
    void itemIs(Store& store, Ordinal attribute, const Item& item) {
        const typename Store::Key key = Store::keyOf(item);
        if (Item* present = store.find(key)) {
            if (sameValue(*present, item)) return;
            *present = item;
        } else {
            store.insert(item);
        }
        changed(attribute, &key);
    }
    template <class Store, class Key, class Value>
    void mapIs(Store& store, Ordinal attribute, const Key& key, const Value& value) {
        const Key changedKey = key;
        if (auto* present = store.find(key)) {
            if (sameValue(present->second, value)) return;
            present->second = value;
        } else {
            store.insert({key, value});
        }
        changed(attribute, &changedKey);
    }
    // For elements and items alike. What is removed lives until the subscribers were called.
    template <class Store, class Key>
    void keyDel(Store& store, Ordinal attribute, const Key& key) {
        auto taken = store.take(key);
        if (!taken.first) return;
        auto& item = taken.second;  // not a structured binding, which clang 14 refuses below
        if constexpr (requires { item->removed(); }) static_cast<Entity&>(*item).removed_ = true;
        changed(attribute, &Store::keyIn(item));
    }
    template <class Store>
    typename Store::Item itemTakeOldest(Store& store, Ordinal attribute) {
        const auto item = store.takeOldest();
        changed(attribute, &Store::keyIn(item));
        return item;
    }
    template <class Store>
    void keyDelAll(Store& store, Ordinal attribute) {
        FirstError errors;
        for (const auto& each : store)
            errors.in([&] { keyDel(store, attribute, Store::keyOf(each)); });
        errors.raise();
    }

    template <class Child>
    Child& childIs(Ptr<Child>& place, Ordinal attribute, const Name& name) {
        if (place) {
            if (place->velKey() != name) reinstantiated("name", name, place->velKey());
            return *place;
        }
        Ptr<Child> child = make<Child>(name);
        place = child;
        changed(attribute);
        return *child;
    }
    template <class Child>
    void childDel(Ptr<Child>& place, Ordinal attribute) {
        if (Ptr<Child> gone = std::exchange(place, nullptr)) changed(attribute);
    }

  private:
    friend class Subscription;
    friend class Round;

    static constexpr U64 interestIn(Ordinal attribute) {
        return attribute == anyAttribute ? ~U64{0} : U64{1} << (attribute % 64);
    }
    void notify(Ordinal attribute, const void* key);

    bool removed_ = false;
    // A superset of the attributes in the list, one bit each (modulo 64). 0 while the list is
    // empty.
    U64 interest_ = 0;
    Subscription* first_ = nullptr;  // in the order of subscription
    Subscription* last_ = nullptr;
};

// An element that was found once, so that it is looked up again only after it was removed from its
// collection. Keeps the element alive until then.
template <class Element>
class Found {
  public:
    // `find` looks the element up and returns a pointer, null if not found.
    template <class Find>
    Element* operator()(Find&& find) {
        if (!element_ || element_->removed()) {
            Element* const found = find();
            element_ = found ? Ptr<Element>(found) : nullptr;
        }
        return element_.get();
    }

  private:
    Ptr<Element> element_;
};

// What the collections store, its key, and what iteration yields.
template <class K, class E>
struct ElementTraits {
    using Key = K;
    using Item = Ptr<E>;
    using Yield = E*;
    static const Key& key(const Item& item) { return item->velKey(); }
    static Yield yield(const Item& item) { return item.get(); }
    static E& reference(Yield now) { return *now; }
    static const Key& keyOf(const E& yielded) { return yielded.velKey(); }
};
template <class K, class V>
struct ItemTraits {
    using Key = K;
    using Item = V;
    using Yield = V;
    static const V& yield(const Item& item) { return item; }
    static const V& reference(const Yield& now) { return now; }
};
template <class K>
struct SetTraits : ItemTraits<K, K> {
    static const K& key(const K& item) { return item; }
    static const K& keyOf(const K& item) { return item; }
};
template <class K, class V>
struct MapTraits : ItemTraits<K, std::pair<K, V>> {
    static const K& key(const std::pair<K, V>& item) { return item.first; }
    static const K& keyOf(const std::pair<K, V>& item) { return item.first; }
};
template <class K, class V, K V::*field>
struct ValueTraits : ItemTraits<K, V> {
    static const K& key(const V& item) { return item.*field; }
    static const K& keyOf(const V& item) { return item.*field; }
};

// Names a keyed attribute together with its storage, for subscribers to all its keys.
template <class E, class K, class S>
struct KeyedAttr : Attr<E, K> {
    const S E::*store;
};

}  // namespace Vel

// Ordinals are dense and follow from the lines of the class alone: each line takes the highest
// ordinal that velNext offers and offers the next one.
#define VEL_ENTITY(Self_, Type, name_)                     \
  private:                                                 \
    using Self = Self_;                                    \
    friend class ::Vel::Entity;                            \
    static ::Vel::OrdinalTag<0> velNext(::Vel::Rank<0>);   \
    [[no_unique_address]] ::Vel::LiveCount<Self> velLive_; \
    const Type name_##_;                                   \
                                                           \
  protected:                                               \
    ~Self_() override = default;                           \
                                                           \
  public:                                                  \
    explicit Self_(const Type& name_) : name_##_(name_) {} \
    static const ::Vel::TypeDescriptor velType;            \
    const ::Vel::TypeDescriptor& type() const override;    \
    using VelKey = Type;                                   \
    const Type& velKey() const {                           \
        return name_##_;                                   \
    }                                                      \
    const Type& name_() const {                            \
        return name_##_;                                   \
    }                                                      \
    VEL_ORDINAL_(name_)                                    \
    VEL_DESCRIBED_(name_, ::Vel::keyAttribute<&velSelf::name_>(#name_))

#define VEL_ORDINAL_(name)                                                                  \
    enum : ::Vel::Ordinal {                                                                 \
        velOrdinalOf_##name = decltype(velNext(::Vel::Rank<::Vel::maxAttributes>()))::value \
    };                                                                                      \
    static ::Vel::OrdinalTag<velOrdinalOf_##name + 1> velNext(::Vel::Rank<velOrdinalOf_##name + 1>);

#define VEL_DESCRIBED_(name, ...)                                                           \
    template <class velSelf>                                                                \
    static constexpr ::Vel::Attribute velDescribe(::Vel::OrdinalTag<velOrdinalOf_##name>) { \
        return __VA_ARGS__;                                                                 \
    }

#define VEL_ATTRIBUTE(Type, name_, ...)                                   \
  private:                                                                \
    Type name_##_ = __VA_ARGS__;                                          \
                                                                          \
  public:                                                                 \
    VEL_ORDINAL_(name_)                                                   \
    static constexpr ::Vel::Attr<Self> name_##Attr{velOrdinalOf_##name_}; \
    /* Valid while the entity lives; shows later values too. */           \
    const Type& name_() const {                                           \
        return name_##_;                                                  \
    }                                                                     \
    void name_##Is(::Vel::Param<Type> value) {                            \
        store(name_##_, value, velOrdinalOf_##name_);                     \
    }                                                                     \
    VEL_DESCRIBED_(name_, ::Vel::plainAttribute<&velSelf::name_, &velSelf::name_##Is>(#name_))

#define VEL_COUNTER(Type, name_, ...)                            \
    VEL_ATTRIBUTE(Type, name_, __VA_ARGS__)                      \
    Type name_##Inc(Type delta) {                                \
        const auto sum = static_cast<Type>(name_##_ + delta);    \
        name_##Is(sum); /* after which the entity may be gone */ \
        return sum;                                              \
    }

// The members of a collection are templates with a defaulted argument, so that a source compiles
// only those it uses: with many entities they dominate compile time.
#define VEL_ON_USE_ template <class velOnUse = void>

#define VEL_ELEMENTS_(Store, Key, Element, name_)                                                  \
  private:                                                                                         \
    using name_##Store = ::Vel::Store<::Vel::ElementTraits<Key, Element>>;                         \
    name_##Store name_##_;                                                                         \
                                                                                                   \
  public:                                                                                          \
    VEL_ORDINAL_(name_)                                                                            \
    static constexpr ::Vel::KeyedAttr<Self, Key, name_##Store> name_##Attr{{velOrdinalOf_##name_}, \
                                                                           &Self::name_##_};       \
    const name_##Store& name_() const {                                                            \
        return name_##_;                                                                           \
    }                                                                                              \
    /* Null if not found. Valid while in the collection or a Hold exists. */                       \
    VEL_ON_USE_ Element* name_(const Key& key) const {                                             \
        auto* found = name_##_.find(key);                                                          \
        return found ? found->get() : nullptr;                                                     \
    }                                                                                              \
    /* Get or create. Valid while in the collection or a Hold exists. */                           \
    VEL_ON_USE_ Element& name_##Is(const Key& key) {                                               \
        return elementIs<Element>(name_##_, velOrdinalOf_##name_, key, NoInit());                  \
    }                                                                                              \
    template <class Init>                                                                          \
    Element& name_##Is(const Key& key, Init&& init) {                                              \
        return elementIs<Element>(name_##_, velOrdinalOf_##name_, key, init);                      \
    }                                                                                              \
    VEL_ON_USE_ void name_##Del(const Key& key) {                                                  \
        keyDel(name_##_, velOrdinalOf_##name_, key);                                               \
    }                                                                                              \
    VEL_ON_USE_ void name_##DelAll() {                                                             \
        keyDelAll(name_##_, velOrdinalOf_##name_);                                                 \
    }                                                                                              \
    VEL_DESCRIBED_(name_, ::Vel::collectionAttribute<velSelf, Key, Element, &velSelf::name_##_,    \
                                                     &velSelf::template name_##Del<>>(             \
                              #name_,                                                              \
                              [](::Vel::Entity& e, std::string_view key,                           \
                                 const ::Vel::Attribute::Init& init) -> ::Vel::Entity& {           \
                                  return static_cast<velSelf&>(e).name_##Is(                       \
                                      ::Vel::Codec<Key>::fromKey(key), init);                      \
                              }))

#define VEL_COLLECTION(Key, Element, name_) VEL_ELEMENTS_(Unordered, Key, Element, name_)
#define VEL_ORDERED(Key, Element, name_)                \
    VEL_ELEMENTS_(Ordered, Key, Element, name_)         \
    VEL_ON_USE_ bool name_##Has(const Key& key) const { \
        return name_##_.has(key);                       \
    }

#define VEL_ITEMS_(Key, name_, ...)                                                                \
  private:                                                                                         \
    using name_##Store = ::Vel::Unordered<__VA_ARGS__>;                                            \
    name_##Store name_##_;                                                                         \
                                                                                                   \
  public:                                                                                          \
    VEL_ORDINAL_(name_)                                                                            \
    static constexpr ::Vel::KeyedAttr<Self, Key, name_##Store> name_##Attr{{velOrdinalOf_##name_}, \
                                                                           &Self::name_##_};       \
    const name_##Store& name_() const {                                                            \
        return name_##_;                                                                           \
    }                                                                                              \
    VEL_ON_USE_ void name_##Del(const Key& key) {                                                  \
        keyDel(name_##_, velOrdinalOf_##name_, key);                                               \
    }                                                                                              \
    VEL_ON_USE_ void name_##DelAll() {                                                             \
        keyDelAll(name_##_, velOrdinalOf_##name_);                                                 \
    }

#define VEL_SET(Key, name_)                                                                   \
    VEL_ITEMS_(Key, name_, ::Vel::SetTraits<Key>)                                             \
    VEL_ON_USE_ bool name_##Has(const Key& key) const {                                       \
        return name_##_.has(key);                                                             \
    }                                                                                         \
    VEL_ON_USE_ void name_##Is(const Key& key) {                                              \
        itemIs(name_##_, velOrdinalOf_##name_, key);                                          \
    }                                                                                         \
    /* Removes the key that was inserted first. REQUIRES: not empty. */                       \
    VEL_ON_USE_ Key name_##TakeOldest() {                                                     \
        return itemTakeOldest(name_##_, velOrdinalOf_##name_);                                \
    }                                                                                         \
    VEL_DESCRIBED_(                                                                           \
        name_,                                                                                \
        ::Vel::setAttribute<velSelf, Key, &velSelf::name_##_, &velSelf::template name_##Is<>, \
                            &velSelf::template name_##Del<>>(#name_))

#define VEL_MAP(Key, Value, name_)                                                            \
    VEL_ITEMS_(Key, name_, ::Vel::MapTraits<Key, Value>)                                      \
    /* Null if not found. Valid until the next insertion or removal. */                       \
    VEL_ON_USE_ const Value* name_(const Key& key) const {                                    \
        const auto* item = name_##_.find(key);                                                \
        return item ? &item->second : nullptr;                                                \
    }                                                                                         \
    VEL_ON_USE_ void name_##Is(const Key& key, const Value& value) {                          \
        mapIs(name_##_, velOrdinalOf_##name_, key, value);                                    \
    }                                                                                         \
    VEL_DESCRIBED_(                                                                           \
        name_,                                                                                \
        ::Vel::mapAttribute<velSelf, Key, Value, &velSelf::name_##_,                          \
                            &velSelf::template name_##Is<>, &velSelf::template name_##Del<>>( \
            #name_))

#define VEL_VALUES(Key, Value, field, name_)                                                     \
    VEL_ITEMS_(Key, name_, ::Vel::ValueTraits<Key, Value, &Value::field>)                        \
    /* Null if there is none. Valid until the next insertion or removal. */                      \
    VEL_ON_USE_ const Value* name_(const Key& key) const {                                       \
        return name_##_.find(key);                                                               \
    }                                                                                            \
    VEL_ON_USE_ void name_##Is(const Value& value) {                                             \
        itemIs(name_##_, velOrdinalOf_##name_, value);                                           \
    }                                                                                            \
    VEL_DESCRIBED_(                                                                              \
        name_,                                                                                   \
        ::Vel::valuesAttribute<velSelf, Key, Value, &Value::field, &velSelf::name_##_,           \
                               &velSelf::template name_##Is<>, &velSelf::template name_##Del<>>( \
            #name_))

#define VEL_CHILD(Type, name_)                                                 \
  private:                                                                     \
    ::Vel::Ptr<Type> name_##_;                                                 \
                                                                               \
  public:                                                                      \
    VEL_ORDINAL_(name_)                                                        \
    static constexpr ::Vel::Attr<Self> name_##Attr{velOrdinalOf_##name_};      \
    /* Null if there is none. Valid while it is the child or a Hold exists. */ \
    Type* name_() const {                                                      \
        return name_##_.get();                                                 \
    }                                                                          \
    /* Get or create. Valid while it is the child or a Hold exists. */         \
    VEL_ON_USE_ Type& name_##Is(const ::Vel::Name& name) {                     \
        return childIs(name_##_, velOrdinalOf_##name_, name);                  \
    }                                                                          \
    VEL_ON_USE_ void name_##Del() {                                            \
        childDel(name_##_, velOrdinalOf_##name_);                              \
    }                                                                          \
    VEL_DESCRIBED_(name_, ::Vel::childAttribute<velSelf, Type, &velSelf::name_>(#name_))

// Used once, in the entity's source, inside its namespace.
#define VEL_DEFINE(Space, Type)                                                   \
    const ::Vel::TypeDescriptor& Type::type() const {                             \
        return velType;                                                           \
    }                                                                             \
    const ::Vel::TypeDescriptor Type::velType{#Space "::" #Type,                  \
                                              ::Vel::attributeTable<Type>.data(), \
                                              ::Vel::attributeTable<Type>.size()};
