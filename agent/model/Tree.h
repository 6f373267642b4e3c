// The tree of the control socket: entities by path, read and written as JSON.
//
//     /cliConfig/pathGroupConfig[internet]/remoteViaConfig[10.255.0.2]/remoteVia[198.51.100.2]
//
// A path names a root, then attributes; a key stands in brackets after its collection and ends at
// the first `]` without a `\` before it. Names and types come from the entities' descriptors, so
// the tree does not depend on any entity type.
//
// The host owns the tree and the entities; used on the event thread. Invariants:
// - A request is checked whole (names, types, ranges, keys, existence) before anything is applied:
//   one that is refused has changed nothing.
// - Writes call the setters in the order of the value, so subscribers are notified as always.
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

// An entity at the top of the tree.
struct Root {
    std::string name;
    const Vel::TypeDescriptor* type;
    std::function<Vel::Entity*()> entity;  // returns null while the entity does not exist
    std::string writeProtection;           // the reason for refusing writes; empty: writable

    template <class E>
    static Root of(std::string name, E& entity, std::string writeProtection = {}) {
        return {std::move(name), &E::velType, [&entity] { return &entity; },
                std::move(writeProtection)};
    }
};

// A path whose attributes exist and whose keys have the right type. The entries that it names need
// not exist.
struct Path {
    struct Hop {
        const Vel::Attribute* attribute;
        std::optional<std::string> key;  // in normal form
    };
    const Root* root = nullptr;
    std::vector<Hop> hops;
    std::vector<std::string> fields;  // inside a value

    std::string text() const;  // as a request writes it
    bool hasKey() const;       // names an entry or member, or a place inside one

    // REQUIRES: the path ends at an entity, whose type has this attribute.
    Path at(std::string_view attribute, std::optional<std::string> key = {}) const;
};

// A refusal. what() is "/path/to[place]: reason", control characters escaped.
class TreeError : public std::runtime_error {
  public:
    TreeError(Path place, const std::string& reason);
    // For a path that could not be parsed: `path` is its text.
    TreeError(std::string_view path, const std::string& reason);

    // The place within its root, for the line of a file; the root may no longer exist.
    const Path& place() const { return place_; }

  private:
    Path place_;
};

class Tree {
  public:
    explicit Tree(std::vector<Root> roots) : roots_(std::move(roots)) {}
    Tree(const Tree&) = delete;
    Tree& operator=(const Tree&) = delete;

    // Each throws TreeError.
    Path parse(std::string_view path) const;
    // Null if one of the entities or entries of the path does not exist.
    Json get(const Path& path) const;
    Json get(std::string_view path) const { return get(parse(path)); }
    // Whether the path ends at an attribute of an entity that exists, whatever its value.
    bool hasAttribute(const Path& path) const;
    // An array of the names of the roots.
    Json rootNames() const;
    // Gets or creates every entry of the path, then assigns the value.
    void set(std::string_view path, const Json& value);
    // Refused if the entry or member does not exist.
    void del(std::string_view path);

  private:
    Vel::Entity& writable(const Path& path) const;

    std::vector<Root> roots_;
};

// Where in the JSON of its root's value a place is: the nearest enclosing member or element that
// the JSON has.
Json::json_pointer pointerTo(const Path& place, const Json& root);

// The step to an attribute, or to the element under a key: "/remoteVia[198.51.100.2]".
std::string step(const Vel::Attribute& attribute, const std::string* key);

}  // namespace Agent
