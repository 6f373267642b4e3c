// Reactors: objects that subscribe to entities and write to others.
//
// A reactor gets its inputs at construction, as one aggregate `Inputs` whose fields VEL_INPUTS
// lists, and keeps them for its lifetime; to change them its owner replaces the reactor. It
// subscribes in its constructor: by Subscription members to single attributes, by EntryReactors to
// the elements of a collection. The destruction of these members unsubscribes it. Its owner keeps
// it in Owned<R> or ReactorMap<Key, R>, which call `handleInitialized()` once after construction
// and `doCleanup()` before they release it.
//
// Errors:
//
// - If `handleInitialized()` throws, the reactor is cleaned up and released and the error is thrown
//   to the caller: no reactor stays half initialised. An element whose entry reactor failed has
//   none until the element is removed and inserted again.
// - An exception in one entry reactor, in any handler, does not keep others from being initialised,
//   notified or cleaned up; the first error is thrown to the caller.
// - A reactor whose `handleDelete()` throws is cleaned up all the same.
// - `doCleanup()` must not throw, because nothing can be half withdrawn: the process stops with the
//   reactor's name and the error.
#pragma once

#include <sstream>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "platform/vel/Entity.h"

namespace Vel {

class VEL_EXPORT Reactor : public Object {
  public:
    virtual void handleInitialized() {}
    // Called before the owner releases the reactor: withdraw everything published and delete the
    // owned reactors. (Reactors not deleted here are destroyed with this one, possibly only when
    // the stack has unwound.)
    virtual void doCleanup() {}
};

template <class R>
void cleanUp(R& reactor) {
    if constexpr (requires { reactor.doCleanup(); }) {
        try {
            reactor.doCleanup();
        } catch (...) {
            handlerThrew(typeid(reactor), "::doCleanup");
        }
    }
}

[[noreturn]] VEL_EXPORT void nullInput(std::string_view reactor, std::string_view attribute);

// A reactor's reference to an entity with another owner. Never null once a reactor has it.
template <class T>
class Input {
  public:
    Input() = default;
    Input(Ptr<T> entity) : entity_(std::move(entity)) {}
    Input(T& entity) : entity_(entity) {}

    T& operator*() const { return *entity_; }
    T* operator->() const { return entity_.get(); }
    explicit operator bool() const { return static_cast<bool>(entity_); }
    const Ptr<T>& ptr() const { return entity_; }
    bool operator==(const Input& other) const = default;

  private:
    Ptr<T> entity_;
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

// Refuses inputs that contain a null, with an error that names reactor R and the input.
template <class R>
void requireInputs(const typename R::Inputs& inputs) {
    eachField<typename R::Inputs>([&](const auto& f) {
        if constexpr (requires { (inputs.*f.member).ptr(); })
            if (!(inputs.*f.member)) nullInput(R::name, f.name);
    });
}
// Refuses inputs that differ from those of the existing reactor.
template <class Inputs>
void requireSameInputs(const Inputs& wanted, const Inputs& current) {
    eachField<Inputs>([&](const auto& f) {
        if (!(wanted.*f.member == current.*f.member))
            reinstantiated(f.name, inputText(wanted.*f.member), inputText(current.*f.member));
    });
}

// At most one reactor, which lives no longer than its owner. R has `Inputs`, `inputs()` and `name`.
template <class R>
class Owned {
  public:
    Owned() = default;
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;
    ~Owned() { del(); }

    // Keeps the existing reactor if it has these inputs, refuses other inputs, or else creates and
    // initialises a reactor. The result is valid until it is deleted, and while a Hold exists.
    R& is(const typename R::Inputs& inputs) {
        requireInputs<R>(inputs);
        if (reactor_) {
            requireSameInputs(inputs, reactor_->inputs());
            return *reactor_;
        }
        Hold hold;
        reactor_ = make<R>(inputs);
        R& made = *reactor_;
        try {
            made.handleInitialized();
        } catch (...) {
            if (reactor_.get() == &made) del();
            throw;
        }
        return made;
    }
    void del() {
        Hold hold;
        if (Ptr<R> gone = std::exchange(reactor_, nullptr)) cleanUp(*gone);
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
        const void* element = nullptr;  // the element of an entry reactor
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

// Reactors by key; the rules of Owned apply to each. Iteration yields {key, reactor}.
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
        try {
            made.handleInitialized();
        } catch (...) {
            if ((*this)(key) == &made) del(key);
            throw;
        }
        return made;
    }
    void del(const Key& key) {
        Hold hold;
        if (Ptr<R> gone = table_.take(key).second.reactor) cleanUp(*gone);
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
    Unordered<ReactorTraits<Key, R>> table_;
};

// One reactor R for each element of a collection of E: created for each element present at
// construction and for each one inserted later, released when its element is removed.
//
// R is an Object constructed from (owner, element) with `handleInitialized()`. Optional members:
// `handleDelete()`, called when its element is removed, and `doCleanup()`, called before it is
// released for any reason. The owner calls `initialize()` when it is ready: that initialises the
// existing reactors, and from then on each new one.
template <class R, class E, class Key, class Store>
class EntryReactors final {
  public:
    template <class Owner>
    EntryReactors(Owner& owner, E& entity, KeyedAttr<E, Key, Store> attr)
        : owner_(&owner), make_(&makeFor<Owner>), store_(entity.*attr.store), entity_(entity) {
        try {
            subscription_ = Subscription::to<&EntryReactors::handleKey>(entity, attr, this);
            for (Element& element : store_) handleKey(element.velKey());
        } catch (...) {
            clear();
            throw;
        }
    }
    ~EntryReactors() { clear(); }

    void initialize() {
        if (std::exchange(initialized_, true)) return;
        FirstError errors;
        for (const auto& item : table_) errors.in([&] { initialize(item.key, *item.reactor); });
        errors.raise();
    }
    // Releases all reactors without calling handleDelete(), and unsubscribes from the collection.
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
    Element* elementAt(const Key& key) const {
        const auto* found = store_.find(key);
        return found ? found->get() : nullptr;
    }

    // The element may have been removed and inserted again before this notification is handled, and
    // each step below may cause the next such change; so each step looks up the current element.
    void handleKey(const Key& key) {
        FirstError errors;
        if (const auto* mine = table_.find(key)) {
            if (mine->element == elementAt(key)) return;
            errors.in([&] { remove(key); });
        }
        errors.in([&] { add(key); });
        errors.raise();
    }
    void add(const Key& key) {
        Element* element = elementAt(key);
        if (!element || table_.has(key)) return;
        Hold hold;
        Ptr<R> made = make_(owner_, *element);
        if (!made) return;
        if (elementAt(key) != element) return cleanUp(*made);
        R& reactor = *table_.insert({key, std::move(made), element}).reactor;
        if (initialized_) initialize(key, reactor);
    }
    void initialize(const Key& key, R& reactor) {
        try {
            reactor.handleInitialized();
        } catch (...) {
            if ((*this)(key) == &reactor) drop(key);
            throw;
        }
    }
    void remove(const Key& key) {
        Hold hold;
        const Ptr<R> reactor = table_.take(key).second.reactor;
        if (!reactor) return;
        FirstError errors;
        if constexpr (requires { reactor->handleDelete(); })
            errors.in([&] { reactor->handleDelete(); });
        cleanUp(*reactor);
        errors.raise();
    }
    void drop(const Key& key) {
        Hold hold;
        if (const Ptr<R> reactor = table_.take(key).second.reactor) cleanUp(*reactor);
    }

    void* owner_;
    Ptr<R> (*make_)(void*, Element&);
    const Store& store_;
    const Ptr<E> entity_;  // the owner of the collection
    // One reactor for each element that the latest notifications showed. Its element may have left
    // the collection, but only until the notification of the removal has been handled.
    Unordered<ReactorTraits<Key, R>> table_;
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
