#include "agent/model/Follower.h"

#include "agent/model/Tree.h"

namespace Agent {

using Vel::Attribute;
using Vel::Entity;
using Kind = Vel::Attribute::Kind;

// One followed entity, with the entities in it.
struct Follower::Change::Node {
    Node(const Changed& changed, Entity& entity, const Node* parent, std::string step)
        : changed(changed), entity(entity), parent(parent), step(std::move(step)) {
        for (Vel::Ordinal i = 0; i < entity.type().count; ++i) {
            const Attribute& a = entity.type().attributes[i];
            if (a.kind == Kind::child) follow(i, {});
            if (a.kind != Kind::collection) continue;
            for (const std::string& key : a.keys(entity)) follow(i, key);
        }
        changes = entity.subscribeAll(this, [](void* self, const void* key, Vel::Ordinal ordinal) {
            static_cast<Node*>(self)->handle(ordinal, key);
        });
    }

    std::string path() const { return parent ? parent->path() + step : std::string(); }

    // Follows the present entity instead of the previous one. Returns whether there is or was one.
    bool follow(Vel::Ordinal ordinal, const std::string& key) {
        const Attribute& a = entity.type().attributes[ordinal];
        Entity* now = a.find(entity, key);
        auto& node = inside[{ordinal, key}];
        const bool any = node || now;
        if (node && &node->entity != now) node.reset();
        if (now && !node)
            node = std::make_unique<Node>(changed, *now, this,
                                          Agent::step(a, a.keyed() ? &key : nullptr));
        if (!now) inside.erase({ordinal, key});
        return any;
    }

    void handle(Vel::Ordinal ordinal, const void* key) {
        const Attribute& a = entity.type().attributes[ordinal];
        const Change change(*this, a, key);
        // An element that was added and removed before this call has been reported already.
        if ((a.kind == Kind::collection || a.kind == Kind::child) &&
            !follow(ordinal, change.keyText()))
            return;
        changed(change);
    }

    const Changed& changed;
    Entity& entity;  // not used after the owner has announced its removal
    const Node* const parent;
    const std::string step;  // from the parent's path to this one
    std::map<std::pair<Vel::Ordinal, std::string>, std::unique_ptr<Node>> inside;
    Vel::Subscription changes;
};

std::string Follower::Change::path() const {
    const std::string key = keyText();
    return node_.path() + step(attribute_, attribute_.keyed() ? &key : nullptr);
}

Vel::Datum Follower::Change::value() const {
    if (!attribute_.keyed()) return attribute_.get(node_.entity);
    const std::string key = keyText();
    if (attribute_.kind != Kind::collection)
        return attribute_.getAt(node_.entity, key).value_or(Vel::Datum{});
    const Entity* element = attribute_.find(node_.entity, key);
    return element ? Vel::toDatum(*element) : Vel::Datum{};
}

Follower::Follower(Entity& entity, Changed changed)
    : changed_(std::move(changed)),
      top_(std::make_unique<Node>(changed_, entity, nullptr, std::string())) {}

Follower::~Follower() = default;

const Entity& Follower::entity() const {
    return top_->entity;
}

}  // namespace Agent
