// The tree of the control socket: entities by path, read and written as JSON.
//
//     /cliConfig/pathGroupConfig[internet]/remoteViaConfig[10.255.0.2]/remoteVia[198.51.100.2]
//
// A path names a root, then attributes; a key stands in brackets after its collection and ends at
// the first `]` without a `\` before it. Everything that names and types a value comes from the
// entities' own descriptors, so nothing here knows an entity type.
//
// The host owns the tree and the entities; all on the event thread. What always holds:
// - A request is checked whole (names, types, ranges, keys, existence) before anything is applied:
//   one that is refused has changed nothing.
// - Writes go through the setters in the order of the value, so they notify like any other.
#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "agent/base/Json.h"
#include "platform/vel/Entity.h"

namespace Agent {

// A refusal: what() names the path and the reason.
class TreeError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// An entity at the top of the tree.
struct Root {
    std::string name;
    const Vel::TypeDescriptor* type;
    std::function<Vel::Entity*()> entity;  // null while there is none
    std::string writeProtection;           // why it cannot be written; empty: it can

    template <class E>
    static Root of(std::string name, E& entity, std::string writeProtection = {}) {
        return {std::move(name), &E::velType, [&entity] { return &entity; },
                std::move(writeProtection)};
    }
};

// A path whose names and keys have been checked against the types. Whether what it names is there
// is another matter.
struct Path {
    struct Hop {
        const Vel::Attribute* attribute;
        std::optional<std::string> key;  // in normal form
    };
    const Root* root = nullptr;
    std::vector<Hop> hops;
    std::vector<std::string> fields;  // inside a value

    std::string text() const;  // in normal form
    bool hasKey() const;       // names an entry or member, or something inside of one
};

class Tree {
  public:
    explicit Tree(std::vector<Root> roots) : roots_(std::move(roots)) {}
    Tree(const Tree&) = delete;
    Tree& operator=(const Tree&) = delete;

    // Each throws TreeError.
    Path parse(std::string_view path) const;
    // Null if an entity or entry on the way, or the last one, does not exist.
    Json get(const Path& path) const;
    Json get(std::string_view path) const { return get(parse(path)); }
    // An array of the names of the roots.
    Json rootNames() const;
    // Gets or creates every entry on the way, then assigns the value.
    void set(std::string_view path, const Json& value);
    // Refused when there is nothing to delete.
    void del(std::string_view path);

  private:
    Vel::Entity& writable(const Path& path) const;

    std::vector<Root> roots_;
};

// Assigns each member of an object to the entity, in order, after having checked all of them.
// PlacedError says which member was refused and why.
void assignMembers(Vel::Entity& entity, const Json& object);

// The step to an attribute, or to what it holds under a key: "/remoteVia[198.51.100.2]".
std::string step(const Vel::Attribute& attribute, const std::string* key);

}  // namespace Agent
