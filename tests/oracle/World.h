// A root with its inputs, driven by events by name, as somebody on the control socket would.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "nav/root/NavRootSm.h"
#include "tests/oracle/State.h"

namespace Oracle {

struct Event {
    // restart: a new root over everything the old one left, after the path, if any, has been set
    enum class Op { set, del, restart };
    Op op;
    std::string path;
    Vel::Datum value{true};  // of an attribute or a map; a member of a set is true
    bool run = true;         // the scheduler's tasks, before anything else happens
};

inline Event set(std::string path, Vel::Datum value = {true}) {
    return {Event::Op::set, std::move(path), std::move(value)};
}
inline Event text(std::string path, const std::string& value) {
    return set(std::move(path), {Vel::String(value)});
}
inline Event number(std::string path, Vel::U64 value) {
    return set(std::move(path), {value});
}
inline Event del(std::string path) {
    return {Event::Op::del, std::move(path)};
}

// While it exists, an assertion that fails throws.
struct ThrowingAssertions {
    ThrowingAssertions();
    ~ThrowingAssertions();
};

// A number from the environment.
size_t setting(const char* name, size_t otherwise);

// The event as a request of the control socket. Restarts and held back tasks, which the socket does
// not know, stand in the request's id.
std::string toLine(const Event& event);

// Calls f(name, entity) for each input that is an entity.
void eachRoot(const Nav::NavInputs& in,
              const std::function<void(std::string_view name, Vel::Entity& entity)>& f);

class World {
  public:
    World();
    // The same inputs, and what was published if so wanted, with a root of its own, or one that is
    // started later.
    World(const World& from, bool published, bool started = true);
    ~World();

    // Deleting what is not there does nothing.
    void apply(const Event& event);
    void start() { root = Nav::NavRootSmIs(in); }
    void settle() { in.scheduler->runDue(); }
    const Nav::NavDb* navDb() const {
        return root->navContainer() ? root->navContainer()->navDb() : nullptr;
    }
    // What is published, and the path database.
    Flat published() const;

  private:
    Loom::ManualClock clock_;

  public:
    Nav::NavInputs in;
    Vel::Ptr<Nav::NavRootSm> root;
};

}  // namespace Oracle
