#include "agent/model/Watch.h"

#include <algorithm>
#include <utility>

#include "agent/model/DatumJson.h"
#include "agent/model/Follower.h"

namespace Agent {

namespace {

Watcher::Line lineOf(const std::string& path, Json value) {
    const char* event = value.is_null() ? "del" : "set";
    return std::make_shared<const std::string>(
        dumpLine({{"event", event}, {"path", path}, {"value", std::move(value)}}));
}

// Whether a path, in normal form, is another one or lies below it.
bool contains(const std::string& outer, const std::string& path) {
    return path.starts_with(outer) &&
           (path.size() == outer.size() || path[outer.size()] == '/' || path[outer.size()] == '[');
}

}  // namespace

// The watches of one root.
struct Watches::Feed {
    // One path, in normal form, and its watchers, each once.
    struct Watch {
        Path path;
        std::vector<Watcher*> watchers;
        Watcher::Line
            last;  // last sent for this path; at first the line that its first value would make
    };

    Feed(const Tree& tree, const Root& root) : tree(tree), root(root) { follow(); }

    void follow();
    template <class Value>
    void tell(const std::string& path, Value value);
    void tellValue(const std::string& text, Watch& watch);
    void send(Watch& watch, const Watcher::Line& line);

    const Tree& tree;
    const Root& root;
    std::map<std::string, Watch> watches;
    std::map<Watcher*, Watcher::Line> sent;  // the last line sent to each watcher
    std::optional<Follower> follower;        // empty while the root has no entity
};

void Watches::Feed::follow() {
    follower.reset();
    if (Vel::Entity* entity = root.entity())
        follower.emplace(*entity, [this](const Follower::Change& change) {
            tell("/" + root.name + change.path(), [&] { return toJson(change.value()); });
        });
}

// Sends a change to the watchers of its path and of the paths above it; watchers of a path below it
// are sent the value there.
template <class Value>
void Watches::Feed::tell(const std::string& path, Value value) {
    Watcher::Line line;
    for (auto& [text, watch] : watches) {
        if (contains(text, path)) {
            if (!line) line = lineOf(path, value());
            send(watch, line);
        } else if (contains(path, text)) {
            tellValue(text, watch);
        }
    }
}

void Watches::Feed::tellValue(const std::string& text, Watch& watch) {
    Json now;
    try {
        now = tree.get(watch.path);
    } catch (const TreeError&) {
        // A field that the value does not have.
    }
    send(watch, lineOf(text, std::move(now)));
}

void Watches::Feed::send(Watch& watch, const Watcher::Line& line) {
    if (watch.last && *watch.last == *line) return;
    watch.last = line;
    for (Watcher* watcher : watch.watchers)
        if (std::exchange(sent[watcher], line) != line) watcher->sendEvent(line);
}

Watches::Watches(const Tree& tree) : tree_(tree) {}

Watches::~Watches() = default;

Json Watches::add(const Path& path, Watcher& watcher) {
    Json value = tree_.get(path);
    auto& feed = feeds_[path.root];
    if (!feed) feed = std::make_unique<Feed>(tree_, *path.root);
    const std::string text = path.text();
    auto [place, isNew] = feed->watches.try_emplace(text, Feed::Watch{path, {}, {}});
    Feed::Watch& watch = place->second;
    if (isNew && !path.hops.empty()) watch.last = lineOf(text, value);
    if (std::ranges::count(watch.watchers, &watcher) == 0) watch.watchers.push_back(&watcher);
    return value;
}

void Watches::remove(Watcher& watcher) {
    for (auto& [root, feed] : feeds_) {
        feed->sent.erase(&watcher);
        for (auto& [text, watch] : feed->watches) std::erase(watch.watchers, &watcher);
        std::erase_if(feed->watches, [](const auto& each) { return each.second.watchers.empty(); });
    }
    std::erase_if(feeds_, [](const auto& each) { return each.second->watches.empty(); });
}

size_t Watches::countOf(const Watcher& watcher) const {
    size_t count = 0;
    for (const auto& [root, feed] : feeds_)
        for (const auto& [text, watch] : feed->watches)
            count += static_cast<size_t>(std::ranges::count(watch.watchers, &watcher));
    return count;
}

void Watches::rootChanged() {
    for (const auto& [root, feed] : feeds_) {
        const Vel::Entity* entity = root->entity();
        if (feed->follower ? &feed->follower->entity() == entity : !entity) continue;
        feed->follow();
        feed->tell("/" + root->name,
                   [&] { return entity ? toJson(Vel::toDatum(*entity)) : Json(); });
    }
}

}  // namespace Agent
