#include "agent/model/Tree.h"

#include <algorithm>

#include "agent/model/DatumJson.h"

namespace Agent {

using Vel::Attribute;
using Vel::Entity;
using Vel::TypeDescriptor;
using Kind = Vel::Attribute::Kind;

namespace {

// A value as shown in an error.
std::string shown(const Json& value) {
    if (value.is_object()) return "an object";
    if (value.is_array()) return "an array";
    return dumpLine(value).substr(0, 120);
}

// A member of a set is written as its key text; a number may be written as such.
std::optional<std::string> memberKey(const Json& element) {
    if (element.is_string()) return element.get<std::string>();
    if (element.is_number_unsigned()) return element.dump();
    return std::nullopt;
}

std::string keyTextOf(const Entity& entity) {
    const Attribute& key = entity.type().attributes[0];
    return key.keyOf(key.get(entity));
}

// The first of two passes over a value: refuses every value that the second could not apply. For
// entities that do not exist yet it checks by type alone, and `entity` is null.
class Check {
  public:
    explicit Check(Path at) : at_(std::move(at)) {}

    void members(const TypeDescriptor& type, const std::string& key, const Entity* entity,
                 const Json& object) {
        if (!object.is_object()) refuseAs("an object", object);
        for (const auto& [name, value] : object.items()) {
            const Attribute* a = type.find(name);
            if (!a) {
                at_.fields.push_back(name);
                refuse("unknown attribute");
            }
            at_.hops.push_back({a, {}});
            attribute(*a, key, entity, value);
            at_.hops.pop_back();
        }
    }

  private:
    [[noreturn]] void refuse(const std::string& reason) const { throw TreeError(at_, reason); }
    [[noreturn]] void refuseAs(const std::string& expected, const Json& value) const {
        refuse("expected " + expected + ", got " + shown(value));
    }

    void attribute(const Attribute& a, const std::string& key, const Entity* entity,
                   const Json& value) {
        switch (a.kind) {
            case Kind::key:
                return scalar(value, [&](const Vel::Datum& datum) {
                    if (a.keyOf(datum) != key)
                        refuse("the key is \"" + key + "\" and cannot be changed");
                });
            case Kind::plain:
                return scalar(value, a.check);
            case Kind::child: {
                const Entity* child = entity ? a.find(*entity, {}) : nullptr;
                if (!child) refuse("not found, and it cannot be created");
                return members(*a.element(), keyTextOf(*child), child, value);
            }
            case Kind::set:
                if (!value.is_array()) refuseAs("an array of keys", value);
                for (size_t i = 0; i < value.size(); ++i) member(a, i, value[i]);
                return;
            default:
                if (!value.is_object()) refuseAs("an object", value);
                for (const auto& [text, each] : value.items()) {
                    const std::string normal = normalKey(a, text);
                    at_.hops.back().key = normal;
                    entry(a, normal, entity, each);
                }
        }
    }

    void entry(const Attribute& a, const std::string& key, const Entity* entity,
               const Json& value) {
        if (a.kind != Kind::collection)
            return scalar(value, [&](const Vel::Datum& datum) { a.checkAt(key, datum); });
        const Entity* element = entity ? a.find(*entity, key) : nullptr;
        members(*a.element(), key, element, value);
    }

    void member(const Attribute& a, size_t index, const Json& value) {
        if (const auto key = memberKey(value)) return void(normalKey(a, *key));
        at_.fields.push_back(std::to_string(index));
        refuseAs("the text of a key", value);
    }

    std::string normalKey(const Attribute& a, const std::string& written) {
        try {
            return a.normalKey(written);
        } catch (const Vel::Error& error) {
            at_.hops.back().key = written;
            refuse(error.what());
        }
    }

    // `check` throws if a datum is invalid. If only the quotes are missing, the error says so;
    // it does not repeat the value, which may be a secret.
    template <class F>
    void scalar(const Json& value, F&& check) const {
        try {
            check(toDatum(value));
        } catch (const Vel::Error& error) {
            std::string reason = error.what();
            if (const std::string text = shown(value);
                (value.is_number() || value.is_boolean()) && accepts(check, text))
                reason += "; in double quotes it is text";
            refuse(reason);
        }
    }
    template <class F>
    static bool accepts(F& check, const std::string& text) {
        try {
            check(Vel::Datum{text});
            return true;
        } catch (const std::runtime_error&) {
            return false;
        }
    }

    Path at_;
};

// The second pass.

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
                a.setAt(entity, memberKey(member).value(), Vel::Datum{true});
            return;
        default:
            for (const auto& [key, each] : value.items()) applyEntry(a, entity, key, each);
    }
}

void applyMembers(Entity& entity, const Json& object) {
    for (const auto& [name, value] : object.items())
        applyAttribute(*entity.type().find(name), entity, value);
}

// The text between two slashes: a name, and perhaps a key as it was written.
struct Word {
    std::string name;
    std::optional<std::string> key;
};

std::vector<Word> split(std::string_view path) {
    std::vector<Word> words;
    size_t i = 0;
    while (i < path.size()) {
        if (path[i] != '/')
            throw std::runtime_error("expected a '/' before \"" + std::string(path.substr(i)) +
                                     '"');
        const size_t begin = ++i;
        while (i < path.size() && path[i] != '/' && path[i] != '[') ++i;
        words.push_back({std::string(path.substr(begin, i - begin)), {}});
        if (i == path.size() || path[i] != '[') continue;
        const size_t key = ++i;
        while (i < path.size() && path[i] != ']') i += path[i] == '\\' ? 2 : 1;
        if (i >= path.size())
            throw std::runtime_error("the key of " + words.back().name + " does not end");
        words.back().key = path.substr(key, i++ - key);
    }
    return words;
}

// The entity that holds the attribute of the path's last hop; null if it does not exist.
Entity* holder(const Path& path) {
    Entity* entity = path.root->entity();
    for (size_t i = 0; entity && i + 1 < path.hops.size(); ++i) {
        const auto& [attribute, key] = path.hops[i];
        entity = attribute->find(*entity, key.value_or(""));
    }
    return entity;
}

// The hop from an entity of the given type that a word names.
Path::Hop hop(const TypeDescriptor& type, const Word& word) {
    const Attribute* a = type.find(word.name);
    if (!a) throw std::runtime_error("unknown attribute \"" + word.name + '"');
    if (!word.key) return {a, {}};
    if (!a->keyed()) throw std::runtime_error(word.name + " takes no key");
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

Path read(const std::vector<Root>& roots, const std::vector<Word>& words) {
    Path path;
    for (const Root& root : roots)
        if (!words.empty() && root.name == words[0].name && !words[0].key) path.root = &root;
    if (!path.root) throw std::runtime_error("not found");
    const TypeDescriptor* type = path.root->type;
    bool inValue = false;
    for (size_t i = 1; i < words.size(); ++i) {
        const Word& word = words[i];
        if (inValue) {
            if (word.key) throw std::runtime_error(word.name + " takes no key");
            path.fields.push_back(word.name);
            continue;
        }
        if (!type)
            throw std::runtime_error(words[i - 1].name + " needs a key before /" + word.name);
        path.hops.push_back(hop(*type, word));
        const auto& [attribute, key] = path.hops.back();
        const bool entity = attribute->kind == Kind::child ||
                            (attribute->kind == Kind::collection && key.has_value());
        inValue = !entity && (key.has_value() || !attribute->keyed());
        type = entity ? attribute->element() : nullptr;
    }
    return path;
}

// Escapes control characters, which names in a refused path may contain, for terminals.
std::string printable(const std::string& text) {
    constexpr char digits[] = "0123456789abcdef";
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < ' ' || byte == 0x7f)
            ((out += "\\x") += digits[byte >> 4]) += digits[byte & 15];
        else
            out += c;
    }
    return out;
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

Path Path::at(std::string_view attribute, std::optional<std::string> key) const {
    const TypeDescriptor* type = hops.empty() ? root->type : hops.back().attribute->element();
    Path deeper = *this;
    deeper.hops.push_back({type->find(attribute), std::move(key)});
    return deeper;
}

TreeError::TreeError(Path place, const std::string& reason) : TreeError(place.text(), reason) {
    place_ = std::move(place);
}
TreeError::TreeError(std::string_view path, const std::string& reason)
    : std::runtime_error(printable(std::string(path) + ": " + reason)) {}

Json::json_pointer pointerTo(const Path& place, const Json& root) {
    Json::json_pointer pointer;
    const Json* at = &root;
    for (const auto& [a, key] : place.hops) {
        const std::string name(a->name);
        if (!at->is_object() || !at->contains(name)) return pointer;
        pointer /= name;
        at = &at->at(name);
        if (!key) continue;
        const auto isMeant = [&a = a, &key = key](const std::string& written) {
            try {
                return written == key || a->normalKey(written) == key;
            } catch (const Vel::Error&) {
                return false;
            }
        };
        const Json* found = nullptr;
        for (const auto& [step, value] : at->items()) {
            if (found || !isMeant(at->is_array() ? memberKey(value).value_or("") : step)) continue;
            pointer /= step;
            found = &value;
        }
        if (!found) return pointer;
        at = found;
    }
    for (const std::string& field : place.fields) pointer /= field;
    return pointer;
}

Path Tree::parse(std::string_view text) const {
    try {
        return read(roots_, split(text));
    } catch (const std::runtime_error& error) {  // Vel::Error of a key too
        throw TreeError(text, error.what());
    }
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
        if (!value.is_object() || !value.contains(field)) throw TreeError(path, "not found");
        value = Json(value[field]);
    }
    return value;
}

bool Tree::hasAttribute(const Path& path) const {
    return !path.hops.empty() && !path.hops.back().key && holder(path);
}

Entity& Tree::writable(const Path& path) const {
    if (!path.root->writeProtection.empty()) throw TreeError(path, path.root->writeProtection);
    if (!path.fields.empty()) throw TreeError(path, "a value is set whole, not field by field");
    if (Entity* entity = path.root->entity()) return *entity;
    throw TreeError(path, "not found");
}

void Tree::set(std::string_view text, const Json& value) {
    const Path path = parse(text);
    Entity& entity = writable(path);

    // The same assignment, expressed from the root.
    Json whole = value;
    for (auto hop = path.hops.rbegin(); hop != path.hops.rend(); ++hop) {
        const auto& [a, key] = *hop;
        if (key && a->kind == Kind::set) {
            if (value != true) throw TreeError(path, "expected true, got " + shown(value));
            whole = Json::array({*key});
        } else if (key) {
            whole = Json::object({{*key, std::move(whole)}});
        }
        whole = Json::object({{std::string(a->name), std::move(whole)}});
    }
    Check(Path{path.root, {}, {}}).members(*path.root->type, keyTextOf(entity), &entity, whole);
    const Vel::Hold hold;
    applyMembers(entity, whole);
}

void Tree::del(std::string_view text) {
    const Path path = parse(text);
    writable(path);
    if (path.hops.empty() || !path.hops.back().key)
        throw TreeError(path, "only an entry or member, by its key, can be deleted");
    const auto& [a, key] = path.hops.back();
    const Vel::Hold hold;
    Entity* entity = holder(path);
    if (!entity || !a->eraseAt(*entity, *key)) throw TreeError(path, "not found");
}

}  // namespace Agent
