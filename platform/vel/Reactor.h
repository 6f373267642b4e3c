// Reactors: objects that watch entities and write others.
//
// A reactor gets its inputs at construction, as one aggregate `Inputs` whose fields VEL_INPUTS
// lists, subscribes in its constructor, and is unsubscribed by the destruction of its members. Its
// owner keeps it in Owned<R> or ReactorMap<Key, R>, which run `handleInitialized()` once after
// construction and `doCleanup()` before it is let go. One reactor per element of a collection is
// what EntryReactors keeps.
#pragma once

#include <sstream>
#include <type_traits>
#include <utility>

#include "platform/vel/Entity.h"

namespace Vel {

class VEL_EXPORT Reactor : public Object {
  public:
    virtual void handleInitialized() {}
    // Runs before the owner lets go: withdraw what was published, let go of the reactors owned.
    // (Those that are not go with this one, which may be as late as when the stack has unwound.)
    // Must not throw.
    virtual void doCleanup() {}
};

// A place in the ring of an input's watchers, or its head.
struct InputLink {
    InputLink() = default;
    InputLink(const InputLink&) = delete;
    InputLink& operator=(const InputLink&) = delete;
    ~InputLink() { unlink(); }

    void linkBefore(InputLink& head) {
        unlink();
        prev = std::exchange(head.prev, this);
        next = &head;
        prev->next = this;
    }
    void unlink() {
        prev->next = next;
        next->prev = prev;
        prev = next = this;
    }

    InputLink* prev = this;
    InputLink* next = this;
};

// Somebody who follows an input when it is replaced.
class InputWatcher : private InputLink {
  protected:
    explicit InputWatcher(Ptr<Object> watched) : watched_(std::move(watched)) {}
    ~InputWatcher() = default;

    Object& watched() const { return *watched_; }

  private:
    template <class>
    friend class Input;
    virtual void replaced(Object& before, Object& now) = 0;  // watched() is `now` already

    Ptr<Object> watched_;
};

[[noreturn]] VEL_EXPORT void nullInput(std::string_view reactor, std::string_view attribute);

// A reactor's reference to an entity that somebody else owns. Never null once a reactor has it.
template <class T>
class Input {
  public:
    Input() = default;
    Input(Ptr<T> entity) : entity_(std::move(entity)) {}
    Input(T& entity) : entity_(entity) {}
    Input(const Input& other) : entity_(other.entity_) {}
    Input& operator=(const Input&) = delete;

    T& operator*() const { return *entity_; }
    T* operator->() const { return entity_.get(); }
    explicit operator bool() const { return static_cast<bool>(entity_); }
    const Ptr<T>& ptr() const { return entity_; }
    bool operator==(const Input& other) const { return entity_ == other.entity_; }

    // Puts another entity in its place: watchers move over, and their handlers run. The same entity
    // changes nothing; null is refused in the name of the reactor and its attribute.
    void replace(Ptr<T> entity, std::string_view reactor, std::string_view attribute) {
        if (!entity) nullInput(reactor, attribute);
        if (entity == entity_) return;
        Hold hold;
        entity_ = std::move(entity);
        // Those that are behind come first, and each goes to the end as it moves over. So watchers
        // may come and go, and the input be replaced again, while their handlers run.
        while (watchers_.next != &watchers_) {
            auto& watcher = static_cast<InputWatcher&>(*watchers_.next);
            if (watcher.watched_ == entity_) return;
            watch(watcher);
            Ptr<Object> before = std::exchange(watcher.watched_, entity_);
            watcher.replaced(*before, *entity_);
        }
    }

    // Watchers are told in the order in which they came.
    void watch(InputWatcher& watcher) { watcher.linkBefore(watchers_); }

  private:
    Ptr<T> entity_;
    InputLink watchers_;  // head of the ring
};

// A subscription to an attribute of an input, as a member of the reactor:
//
//     Vel::Watch::to<&Root::handleNavConfigured, &NavCliConfig::navConfiguredAttr>(input, this)
//
// When the input is replaced it moves over and the handler runs: once, or for a keyed attribute
// once per key of the old and of the new entity.
class Watch final : public InputWatcher {
  public:
    template <auto handler, const auto* attr, class E, class R>
    static Watch to(Input<E>& input, R* reactor) {
        return Watch(input, Subscription::to<handler>(*input, *attr, reactor), reactor,
                     &move<handler, attr, E, R>);
    }

  private:
    using Move = void (*)(Watch& watch, Object& before, Object& now);

    template <class E>
    Watch(Input<E>& input, Subscription subscription, void* reactor, Move move)
        : InputWatcher(input.ptr()),
          subscription_(std::move(subscription)),
          reactor_(reactor),
          move_(move) {
        input.watch(*this);
    }

    void replaced(Object& before, Object& now) override { move_(*this, before, now); }
    template <auto handler, const auto* attr, class E, class R>
    static void move(Watch& watch, Object& before, Object& now) {
        auto& entity = static_cast<E&>(now);
        watch.subscription_ =
            Subscription::to<handler>(entity, *attr, static_cast<R*>(watch.reactor_));
        if constexpr (requires { attr->store; }) {
            const auto& store = entity.*attr->store;
            auto tell = [&](const auto& key) {
                using Key = std::remove_cvref_t<decltype(key)>;
                Subscription::call<handler, Key, R>(watch.reactor_, &key);
            };
            for (const auto& item : static_cast<E&>(before).*attr->store)
                if (!store.has(store.keyOf(item))) tell(store.keyOf(item));
            for (const auto& item : store) tell(store.keyOf(item));
        } else {
            Subscription::call<handler, void, R>(watch.reactor_, nullptr);
        }
    }

    Subscription subscription_;
    void* reactor_;
    Move move_;
};

template <class T>
std::string inputText(const T& value) {
    std::ostringstream out;
    if constexpr (requires { value.ptr(); })
        out << static_cast<const void*>(value.ptr().get());
    else if constexpr (requires { out << value; })
        out << value;
    else
        out << static_cast<const void*>(value);
    return out.str();
}

// Refuses inputs of which one is null, in the name of reactor R.
template <class R>
void requireInputs(const typename R::Inputs& inputs) {
    eachField<typename R::Inputs>([&](const auto& f) {
        if constexpr (requires { (inputs.*f.member).ptr(); })
            if (!(inputs.*f.member)) nullInput(R::name, f.name);
    });
}
// Refuses inputs that differ from those the present reactor was made with.
template <class Inputs>
void requireSameInputs(const Inputs& wanted, const Inputs& current) {
    eachField<Inputs>([&](const auto& f) {
        if (!(wanted.*f.member == current.*f.member))
            reinstantiated(f.name, inputText(wanted.*f.member), inputText(current.*f.member));
    });
}

// A reactor, there or not, that lives and dies with its owner. R offers `Inputs`, `inputs()` and
// its `name`.
template <class R>
class Owned {
  public:
    Owned() = default;
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;
    ~Owned() { del(); }

    // Keeps the one that is there if its inputs are these, refuses if they are not, else makes and
    // initialises one.
    R& is(const typename R::Inputs& inputs) {
        requireInputs<R>(inputs);
        if (reactor_) {
            requireSameInputs(inputs, reactor_->inputs());
            return *reactor_;
        }
        Hold hold;
        reactor_ = make<R>(inputs);
        R& made = *reactor_;
        made.handleInitialized();
        return made;
    }
    void del() {
        Hold hold;
        if (Ptr<R> gone = std::exchange(reactor_, nullptr)) gone->doCleanup();
    }

    R* get() const { return reactor_.get(); }
    R* operator->() const { return reactor_.get(); }
    R& operator*() const { return *reactor_; }
    explicit operator bool() const { return static_cast<bool>(reactor_); }

  private:
    Ptr<R> reactor_;
};

// What both maps of reactors below store and yield.
template <class K, class R>
struct ReactorTraits {
    struct Item {
        K key{};
        Ptr<R> reactor;
        const void* element = nullptr;  // what an entry reactor was made for
    };
    struct Yield {
        K key{};
        R* reactor = nullptr;
    };
    using Key = K;
    static const K& key(const Item& item) { return item.key; }
    static Yield yield(const Item& item) { return {item.key, item.reactor.get()}; }
    static const Yield& reference(const Yield& now) { return now; }
};

// Reactors by key; the rules of Owned for each. A walk yields {key, reactor}.
template <class Key, class R>
class ReactorMap {
  public:
    ReactorMap() = default;
    ReactorMap(const ReactorMap&) = delete;
    ReactorMap& operator=(const ReactorMap&) = delete;
    ~ReactorMap() { delAll(); }

    R& is(const Key& key, const typename R::Inputs& inputs) {
        requireInputs<R>(inputs);
        if (R* present = (*this)(key)) {
            requireSameInputs(inputs, present->inputs());
            return *present;
        }
        Hold hold;
        R& made = *table_.insert({key, make<R>(inputs)}).reactor;
        made.handleInitialized();
        return made;
    }
    void del(const Key& key) {
        Hold hold;
        if (Ptr<R> gone = table_.take(key).second.reactor) gone->doCleanup();
    }
    void delAll() {
        for (const auto& item : table_) del(item.key);
    }

    R* operator()(const Key& key) const {
        const auto* item = table_.find(key);
        return item ? item->reactor.get() : nullptr;
    }
    const auto& all() const { return table_; }

  private:
    Table<ReactorTraits<Key, R>> table_;
};

// One reactor R for each element of a collection of E: made for each element there at construction
// and for each that comes, gone with it.
//
// R is an Object made from (owner, element) with `handleInitialized()`. Where it has them,
// `handleDelete()` runs when its element is removed, and `doCleanup()` before it goes in any way.
// The owner calls `initialize()` when it is ready: that initialises the reactors present, and from
// then on each newcomer. When the collection's input is replaced, those of the old entity go as if
// their elements were removed, and those of the new one are made.
template <class R, class E, class Key, class Store>
class EntryReactors final : public InputWatcher {
  public:
    template <class Owner>
    EntryReactors(Owner& owner, E& entity, KeyedAttr<E, Key, Store> attr)
        : InputWatcher(Ptr<Object>(entity)), owner_(&owner), make_(&makeFor<Owner>), attr_(attr) {
        follow();
    }
    template <class Owner>
    EntryReactors(Owner& owner, Input<E>& input, KeyedAttr<E, Key, Store> attr)
        : EntryReactors(owner, *input, attr) {
        input.watch(*this);
    }
    ~EntryReactors() { clear(); }

    void initialize() {
        if (std::exchange(initialized_, true)) return;
        for (const auto& item : table_) item.reactor->handleInitialized();
    }
    // Lets all go, without their delete handlers, and follows no more.
    void clear() {
        subscription_.reset();
        for (const auto& item : table_) drop(item.key);
    }

    R* operator()(const Key& key) const {
        const auto* item = table_.find(key);
        return item ? item->reactor.get() : nullptr;
    }
    const auto& all() const { return table_; }

  private:
    using Element = std::remove_reference_t<decltype(*std::declval<typename Store::Item>())>;

    // Null when the owner only waits for the stack to unwind.
    template <class Owner>
    static Ptr<R> makeFor(void* owner, Element& element) {
        auto& self = *static_cast<Owner*>(owner);
        if constexpr (std::is_base_of_v<Object, Owner>)
            if (self.gone()) return nullptr;
        return make<R>(self, element);
    }

    const Store& store() const { return static_cast<E&>(watched()).*attr_.store; }
    Element* elementAt(const Key& key) const {
        const auto* found = store().find(key);
        return found ? found->get() : nullptr;
    }

    void follow() {
        subscription_ =
            Subscription::to<&EntryReactors::handleKey>(static_cast<E&>(watched()), attr_, this);
        for (Element& element : store()) handleKey(element.velKey());
    }
    void replaced(Object&, Object&) override {
        if (!subscription_) return;  // cleared
        subscription_.reset();
        for (const auto& item : table_) remove(item.key);
        follow();
    }

    // The element may have gone and come back before this notification was read, and what is called
    // here may bring the next; so what counts is which element is there at each step.
    void handleKey(const Key& key) {
        if (const auto* mine = table_.find(key)) {
            if (mine->element == elementAt(key)) return;
            remove(key);
        }
        Element* element = elementAt(key);
        if (!element || table_.has(key)) return;
        Hold hold;
        Ptr<R> made = make_(owner_, *element);
        if (!made) return;
        if (elementAt(key) != element) return cleanUp(*made);
        R& reactor = *table_.insert({key, std::move(made), element}).reactor;
        if (initialized_) reactor.handleInitialized();
    }
    void remove(const Key& key) {
        Hold hold;
        const Ptr<R> reactor = table_.take(key).second.reactor;
        if (!reactor) return;
        if constexpr (requires { reactor->handleDelete(); }) reactor->handleDelete();
        cleanUp(*reactor);
    }
    void drop(const Key& key) {
        Hold hold;
        if (const Ptr<R> reactor = table_.take(key).second.reactor) cleanUp(*reactor);
    }
    static void cleanUp(R& reactor) {
        if constexpr (requires { reactor.doCleanup(); }) reactor.doCleanup();
    }

    void* owner_;
    Ptr<R> (*make_)(void*, Element&);
    KeyedAttr<E, Key, Store> attr_;
    Table<ReactorTraits<Key, R>> table_;
    Subscription subscription_;
    bool initialized_ = false;
};

template <class R, class Attribute>
struct EntryReactorsFor;
template <class R, class E, class Key, class Store>
struct EntryReactorsFor<R, const KeyedAttr<E, Key, Store>> {
    using Type = EntryReactors<R, E, Key, Store>;
};
// The type above, named from the collection alone:
//     Vel::EntryReactorsOf<VelPathConfigEntry, decltype(PathConfig::pathConfigEntryAttr)>
template <class R, class Attribute>
using EntryReactorsOf = typename EntryReactorsFor<R, Attribute>::Type;

}  // namespace Vel

// The fields of a reactor's Inputs, in the order of its constructor: VEL_INPUTS(Sm::Inputs, a, b).
#define VEL_INPUTS(Type, ...)                                                      \
    constexpr auto velFields(const Type*) {                                        \
        return std::make_tuple(VEL_FOR_EACH_COMMA(VEL_FIELD_, Type, __VA_ARGS__)); \
    }
