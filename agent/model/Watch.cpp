#include "agent/model/Watch.h"

#include <map>

#include "agent/model/DatumJson.h"

namespace Agent {

using Vel::Attribute;
using Vel::Entity;
using Kind = Vel::Attribute::Kind;

// One entity that is followed, and those below it. `depth` hops of the path lead here; at the full
// number everything here and below counts.
struct Watch::Node {
    Node(Watch& watch, Entity& entity, size_t depth, std::string path)
        : watch(watch), entity(entity), depth(depth), path(std::move(path)) {
        for (Vel::Ordinal i = 0; i < entity.type().count; ++i) {
            const Attribute& a = entity.type().attributes[i];
            if (a.kind == Kind::child && relevant(a, {})) follow(i, {});
            if (a.kind != Kind::collection) continue;
            for (const std::string& key : a.keys(entity))
                if (relevant(a, key)) follow(i, key);
        }
        changes = entity.subscribeAll(this, [](void* self, const void* key, Vel::Ordinal ordinal) {
            static_cast<Node*>(self)->changed(ordinal, key);
        });
    }

    bool relevant(const Attribute& a, const std::string& key) const {
        if (depth >= watch.path_.hops.size()) return true;
        const Path::Hop& hop = watch.path_.hops[depth];
        return hop.attribute == &a && (!hop.key || *hop.key == key);
    }
    std::string pathTo(const Attribute& a, const std::string& key) const {
        return path + step(a, a.keyed() ? &key : nullptr);
    }

    // Takes up the entity that now stands there, and lets go of the one that did. Whether there was
    // any, before or now.
    bool follow(Vel::Ordinal ordinal, const std::string& key) {
        const Attribute& a = entity.type().attributes[ordinal];
        Entity* now = a.find(entity, key);
        auto& node = below[{ordinal, key}];
        const bool any = node || now;
        if (node && &node->entity != now) node.reset();
        if (now && !node) node = std::make_unique<Node>(watch, *now, depth + 1, pathTo(a, key));
        if (!now) below.erase({ordinal, key});
        return any;
    }

    void changed(Vel::Ordinal ordinal, const void* keyOfChange) {
        const Attribute& a = entity.type().attributes[ordinal];
        const std::string key = a.keyed() ? a.keyText(keyOfChange) : std::string();
        if (!relevant(a, key)) return;
        // An element that came and went before this was read has been told of already.
        if ((a.kind == Kind::collection || a.kind == Kind::child) && !follow(ordinal, key)) return;
        if (depth + 1 < watch.path_.hops.size() || !watch.path_.fields.empty())
            return watch.changedAbove();
        if (!a.keyed()) return watch.tell(pathTo(a, key), toJson(a.get(entity)));
        if (a.kind != Kind::collection)
            return watch.tell(pathTo(a, key), toJson(a.getAt(entity, key).value_or(Vel::Datum{})));
        const Entity* element = a.find(entity, key);
        watch.tell(pathTo(a, key), element ? toJson(Vel::toDatum(*element)) : Json());
    }

    Watch& watch;
    Entity& entity;  // gone when nobody tells of changes any more
    const size_t depth;
    const std::string path;
    std::map<std::pair<Vel::Ordinal, std::string>, std::unique_ptr<Node>> below;
    Vel::Subscription changes;
};

Watch::Watch(const Tree& tree, Path path, Sink sink)
    : tree_(tree), path_(std::move(path)), text_(path_.text()), sink_(std::move(sink)) {
    follow();
    field_ = valueNow();
    there_ = !field_.is_null();
    if (path_.fields.empty()) field_ = nullptr;
}

Watch::~Watch() = default;

void Watch::follow() {
    if (Entity* entity = path_.root->entity())
        root_ = std::make_unique<Node>(*this, *entity, 0, "/" + path_.root->name);
}

void Watch::rootChanged() {
    Entity* entity = path_.root->entity();
    if (root_ ? &root_->entity == entity : !entity) return;
    root_.reset();
    follow();
    changedAbove();
}

Json Watch::valueNow() const {
    try {
        return tree_.get(path_);
    } catch (const TreeError&) {
        return nullptr;  // a field that the value does not have
    }
}

// Something on the way to the path changed, or the value that it ends in.
void Watch::changedAbove() {
    Json now = valueNow();
    if (now.is_null() && !there_) return;
    if (!path_.fields.empty() && now == std::exchange(field_, now)) return;
    tell(text_, std::move(now));
}

void Watch::tell(const std::string& path, Json value) {
    const bool there = !value.is_null();
    if (path == text_) there_ = there;
    sink_({{"event", there ? "set" : "del"}, {"path", path}, {"value", std::move(value)}});
}

}  // namespace Agent
