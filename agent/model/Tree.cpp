#include "agent/model/Tree.h"

#include <algorithm>

#include "agent/model/DatumJson.h"

namespace Agent {

using Vel::Attribute;
using Vel::Entity;
using Vel::TypeDescriptor;
using Kind = Vel::Attribute::Kind;
using Place = Json::json_pointer;

namespace {

// What the runtime says against a value, at its place.
template <class F>
auto at(const Place& place, F&& f) {
    try {
        return f();
    } catch (const Vel::Error& error) {
        throw PlacedError(place, error.what());
    }
}

const Attribute& attributeOf(const TypeDescriptor& type, const std::string& name,
                             const Place& place) {
    if (const Attribute* attribute = type.find(name)) return *attribute;
    throw PlacedError(place, std::string(type.name) + " has no such attribute");
}

const Json& requireObject(const Json& value, std::string_view type, const Place& place) {
    if (!value.is_object()) throw PlacedError(place, "expected an object of " + std::string(type));
    return value;
}

// A member of a set is written as its key text; a number may stand for itself.
std::string memberKey(const Json& element, const Place& place) {
    if (element.is_string()) return element.get<std::string>();
    if (element.is_number_unsigned()) return element.dump();
    throw PlacedError(place, "expected the text of a key");
}

std::string keyTextOf(const Entity& entity) {
    const Attribute& key = entity.type().attributes[0];
    return key.keyOf(key.get(entity));
}

// The two passes over a value. The first throws PlacedError for whatever the second would not take;
// it goes by the types alone where entities are still to be created, which is when `entity` is
// null.

void checkMembers(const TypeDescriptor& type, const std::string& key, const Entity* entity,
                  const Json& object, const Place& place);

void checkEntry(const Attribute& a, const Entity* entity, const std::string& key, const Json& value,
                const Place& place) {
    if (a.kind == Kind::collection) {
        const Entity* element = entity ? a.find(*entity, key) : nullptr;
        checkMembers(*a.element(), key, element, value, place);
    } else {
        at(place, [&] { a.checkAt(key, toDatum(value)); });
    }
}

void checkAttribute(const Attribute& a, const std::string& key, const Entity* entity,
                    const Json& value, const Place& place) {
    switch (a.kind) {
        case Kind::key:
            if (at(place, [&] { return a.keyOf(toDatum(value)); }) != key)
                throw PlacedError(place, "the key is \"" + key + "\" and cannot be changed");
            return;
        case Kind::plain:
            return at(place, [&] { a.check(toDatum(value)); });
        case Kind::child: {
            const Entity* child = entity ? a.find(*entity, {}) : nullptr;
            if (!child) throw PlacedError(place, "there is none, and it cannot be created");
            return checkMembers(*a.element(), keyTextOf(*child), child, value, place);
        }
        case Kind::set:
            if (!value.is_array()) throw PlacedError(place, "expected an array of keys");
            for (size_t i = 0; i < value.size(); ++i) {
                const Place member = place / i;
                at(member, [&] { a.normalKey(memberKey(value[i], member)); });
            }
            return;
        default:
            for (const auto& [text, each] : requireObject(value, a.name, place).items()) {
                const Place entry = place / text;
                const std::string normal =
                    at(entry, [&, &written = text] { return a.normalKey(written); });
                checkEntry(a, entity, normal, each, entry);
            }
    }
}

void checkMembers(const TypeDescriptor& type, const std::string& key, const Entity* entity,
                  const Json& object, const Place& place) {
    for (const auto& [name, value] : requireObject(object, type.name, place).items()) {
        const Place member = place / name;
        checkAttribute(attributeOf(type, name, member), key, entity, value, member);
    }
}

void applyMembers(Entity& entity, const Json& object);

void applyEntry(const Attribute& a, Entity& entity, const std::string& key, const Json& value) {
    if (a.kind == Kind::collection)
        applyMembers(a.create(entity, key, [](Entity&) {}), value);
    else
        a.setAt(entity, key, toDatum(value));
}

void applyAttribute(const Attribute& a, Entity& entity, const Json& value) {
    switch (a.kind) {
        case Kind::key:
            return;
        case Kind::plain:
            return a.set(entity, toDatum(value));
        case Kind::child:
            if (Entity* child = a.find(entity, {})) applyMembers(*child, value);
            return;
        case Kind::set:
            for (const Json& member : value)
                a.setAt(entity, memberKey(member, Place()), Vel::Datum{true});
            return;
        default:
            for (const auto& [key, each] : value.items()) applyEntry(a, entity, key, each);
    }
}

void applyMembers(Entity& entity, const Json& object) {
    for (const auto& [name, value] : object.items())
        applyAttribute(*entity.type().find(name), entity, value);
}

// What stands between two slashes: a name, and perhaps a key as it was written.
struct Word {
    std::string name;
    std::optional<std::string> key;
};

std::vector<Word> split(std::string_view path) {
    std::vector<Word> words;
    size_t i = 0;
    while (i < path.size()) {
        if (path[i] != '/')
            throw TreeError("expected a '/' before \"" + std::string(path.substr(i)) + '"');
        const size_t begin = ++i;
        while (i < path.size() && path[i] != '/' && path[i] != '[') ++i;
        words.push_back({std::string(path.substr(begin, i - begin)), {}});
        if (i == path.size() || path[i] != '[') continue;
        const size_t key = ++i;
        while (i < path.size() && path[i] != ']') i += path[i] == '\\' ? 2 : 1;
        if (i >= path.size()) throw TreeError("the key of " + words.back().name + " does not end");
        words.back().key = path.substr(key, i++ - key);
    }
    return words;
}

// The entity that holds the attribute of the path's last hop; null when it is not there.
Entity* holder(const Path& path) {
    Entity* entity = path.root->entity();
    for (size_t i = 0; entity && i + 1 < path.hops.size(); ++i) {
        const auto& [attribute, key] = path.hops[i];
        entity = attribute->find(*entity, key.value_or(""));
    }
    return entity;
}

// Puts the path before the reason of a refusal.
template <class F>
auto atPath(std::string_view path, F&& f) {
    try {
        return f();
    } catch (const PlacedError&) {
        throw;
    } catch (const std::runtime_error& error) {  // TreeError, Vel::Error
        throw TreeError(std::string(path) + ": " + error.what());
    }
}

// The hop that a word makes from an entity of the given type.
Path::Hop hop(const TypeDescriptor& type, const Word& word) {
    const Attribute* a = type.find(word.name);
    if (!a) throw TreeError(std::string(type.name) + " has no attribute \"" + word.name + '"');
    if (!word.key) return {a, {}};
    if (!a->keyed()) throw TreeError(word.name + " takes no key");
    std::string key = *word.key;
    if (a->keyIsText) {
        const std::string_view rest = *word.key;
        key.clear();
        for (size_t i = 0; i < rest.size(); ++i) {
            if (rest[i] == '\\' && i + 1 < rest.size()) ++i;
            key += rest[i];
        }
    }
    return {a, a->normalKey(key)};
}

}  // namespace

std::string step(const Attribute& attribute, const std::string* key) {
    std::string text = "/" + std::string(attribute.name);
    if (!key) return text;
    text += '[';
    attribute.keyIsText ? Vel::appendEscapedKey(text, *key) : void(text += *key);
    return text += ']';
}

std::string Path::text() const {
    std::string text = "/" + root->name;
    for (const auto& [attribute, key] : hops) text += step(*attribute, key ? &*key : nullptr);
    for (const std::string& field : fields) text += "/" + field;
    return text;
}

bool Path::hasKey() const {
    return std::ranges::any_of(hops, [](const Hop& hop) { return hop.key.has_value(); });
}

Json Tree::rootNames() const {
    Json names = Json::array();
    for (const Root& root : roots_) names.push_back(root.name);
    return names;
}

Path Tree::parse(std::string_view text) const {
    return atPath(text, [&] {
        const std::vector<Word> words = split(text);
        Path path;
        for (const Root& root : roots_)
            if (!words.empty() && root.name == words[0].name && !words[0].key) path.root = &root;
        if (!path.root) throw TreeError("there is no such root");
        const TypeDescriptor* type = path.root->type;
        bool inValue = false;
        for (size_t i = 1; i < words.size(); ++i) {
            const Word& word = words[i];
            if (inValue) {
                if (word.key) throw TreeError(word.name + " takes no key");
                path.fields.push_back(word.name);
                continue;
            }
            if (!type) throw TreeError(words[i - 1].name + " needs a key before /" + word.name);
            path.hops.push_back(hop(*type, word));
            const auto& [attribute, key] = path.hops.back();
            const bool entity = attribute->kind == Kind::child ||
                                (attribute->kind == Kind::collection && key.has_value());
            inValue = !entity && (key.has_value() || !attribute->keyed());
            type = entity ? attribute->element() : nullptr;
        }
        return path;
    });
}

Json Tree::get(const Path& path) const {
    const Entity* entity = holder(path);
    if (!entity) return nullptr;
    if (path.hops.empty()) return toJson(Vel::toDatum(*entity));

    const auto& [a, key] = path.hops.back();
    Json value;
    if (!key) {
        value = toJson(a->get(*entity));
    } else if (a->kind != Kind::collection) {
        value = toJson(a->getAt(*entity, *key).value_or(Vel::Datum{}));
    } else if (const Entity* element = a->find(*entity, *key)) {
        value = toJson(Vel::toDatum(*element));
    }
    for (const std::string& field : path.fields) {
        if (value.is_null()) break;
        if (!value.is_object() || !value.contains(field))
            throw TreeError(path.text() + ": there is no such field");
        value = Json(value[field]);
    }
    return value;
}

Entity& Tree::writable(const Path& path) const {
    if (!path.root->writeProtection.empty()) throw TreeError(path.root->writeProtection);
    if (!path.fields.empty()) throw TreeError("a value is set whole, not field by field");
    if (Entity* entity = path.root->entity()) return *entity;
    throw TreeError("there is none");
}

void Tree::set(std::string_view text, const Json& value) {
    const Path path = parse(text);
    Entity& root = atPath(text, [&] { return std::ref(writable(path)); });

    // The same assignment, said from the root.
    Json whole = value;
    size_t depth = 0;
    for (auto hop = path.hops.rbegin(); hop != path.hops.rend(); ++hop) {
        const auto& [a, key] = *hop;
        if (key && a->kind == Kind::set) {
            if (value != true) throw TreeError(std::string(text) + ": a member is set to true");
            whole = Json::array({*key});
        } else if (key) {
            whole = Json::object({{*key, std::move(whole)}});
        }
        whole = Json::object({{std::string(a->name), std::move(whole)}});
        depth += key ? 2 : 1;
    }
    try {
        assignMembers(root, whole);
    } catch (const PlacedError& error) {
        Place inside;
        std::vector<std::string> steps;
        for (Place rest = error.place(); !rest.empty(); rest.pop_back())
            steps.push_back(rest.back());
        for (size_t i = depth; i < steps.size(); ++i) inside /= steps[steps.size() - 1 - i];
        throw TreeError(std::string(text) + inside.to_string() + ": " + error.reason());
    } catch (const Vel::Error& error) {
        throw TreeError(std::string(text) + ": " + error.what());
    }
}

void Tree::del(std::string_view text) {
    const Path path = parse(text);
    atPath(text, [&] {
        writable(path);
        if (path.hops.empty() || !path.hops.back().key)
            throw TreeError("only what stands under a key can be deleted");
        Vel::Hold hold;
        Entity* entity = holder(path);
        if (!entity || !path.hops.back().attribute->eraseAt(*entity, *path.hops.back().key))
            throw TreeError("there is none");
    });
}

void assignMembers(Entity& entity, const Json& object) {
    checkMembers(entity.type(), keyTextOf(entity), &entity, object, Place());
    Vel::Hold hold;
    applyMembers(entity, object);
}

}  // namespace Agent
