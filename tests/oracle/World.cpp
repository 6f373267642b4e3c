#include "tests/oracle/World.h"

#include <set>

namespace Oracle {

using Vel::Attribute;
using Vel::Datum;
using Vel::Entity;

namespace {

const std::set<std::string_view> publishedRoots{"pathConfigDir",       "navStatusDir",
                                                "siteGroupStatus",     "ipsecPathConfigDir",
                                                "navFeaturePolicyDir", "nexthopConfig"};

Entity* rootOf(const Nav::NavInputs& in, std::string_view name) {
    Entity* found = nullptr;
    eachRoot(in, [&](std::string_view root, Entity& entity) {
        if (root == name) found = &entity;
    });
    return found;
}

void copy(const Entity& from, Entity& to) {
    const auto& type = from.type();
    for (size_t i = 0; i < type.count; ++i) {
        const Attribute& a = type.attributes[i];
        if (a.kind == Attribute::Kind::plain) a.set(to, a.get(from));
        if (a.kind == Attribute::Kind::child && a.find(from, ""))
            copy(*a.find(from, ""), *a.find(to, ""));
        if (!a.keyed()) continue;
        for (const std::string& key : a.keys(from))
            if (a.kind == Attribute::Kind::collection)
                copy(*a.find(from, key), a.create(to, key, [](Entity&) {}));
            else
                a.setAt(to, key, *a.getAt(from, key));
    }
}

// Takes "/name" or "/name[key]" from the front of a path.
struct Step {
    explicit Step(std::string_view& path) {
        const size_t end = path.find_first_of("/[", 1);
        name = path.substr(1, end - 1);
        path.remove_prefix(std::min(end, path.size()));
        if (!path.starts_with("[")) return;
        const size_t close = path.find(']');
        key = path.substr(1, close - 1);
        path.remove_prefix(close + 1);
    }
    std::string_view name, key;
};

}  // namespace

std::string toLine(const Event& event) {
    if (event.op == Event::Op::restart && event.path.empty())
        return R"({"op":"ping","id":"restart over what is left"})";
    std::string line =
        event.op == Event::Op::del ? R"({"op":"del","path":")" : R"({"op":"set","path":")";
    line += event.path + '"';
    if (event.op == Event::Op::restart) line += R"(,"id":"while restarting over what is left")";
    if (event.op != Event::Op::del) line += ",\"value\":" + json(event.value);
    return line + (event.run ? "}" : R"(,"id":"tasks held back"})");
}

ThrowingAssertions::ThrowingAssertions() {
    Vel::assertHandlerIs([](const char* text, const char*, int) -> void {
        throw std::runtime_error(std::string("assertion failed: ") + text);
    });
}
ThrowingAssertions::~ThrowingAssertions() {
    Vel::assertHandlerIs(nullptr);
}

size_t setting(const char* name, size_t otherwise) {
    const char* text = std::getenv(name);
    return text ? std::strtoull(text, nullptr, 10) : otherwise;
}

void eachRoot(const Nav::NavInputs& in,
              const std::function<void(std::string_view, Vel::Entity&)>& f) {
    Vel::eachField<Nav::NavInputs>([&](const auto& field) {
        auto& input = *(in.*field.member);
        if constexpr (std::is_base_of_v<Entity, std::remove_reference_t<decltype(input)>>)
            f(std::string_view(field.name), input);
    });
}

World::World() : in(Nav::makeNavInputs(Vel::make<Vel::Scheduler>(clock_))) {
    start();
}

World::World(const World& from, bool published, bool started) {
    Vel::eachField<Nav::NavInputs>([&](const auto& field) {
        auto& input = in.*field.member;
        using T = std::remove_reference_t<decltype(*input)>;
        if constexpr (std::is_same_v<T, Vel::Scheduler>)
            input = Vel::make<T>(clock_);
        else
            input = Vel::make<T>(Vel::Name(field.name));
    });
    if (published) {
        in.navStatusDir->navPathStatusDirIs("navPathStatusDir");
        in.navStatusDir->navLbProfileStatusIs("navLbProfileDir");
    }
    eachRoot(from.in, [&](std::string_view name, const Entity& entity) {
        Entity& mine = *rootOf(in, name);
        if (&mine != &entity && (published || !publishedRoots.contains(name))) copy(entity, mine);
    });
    if (started) start();
}

World::~World() {
    root = nullptr;
}

void World::apply(const Event& event) {
    const Vel::Hold hold;  // an element made on the way may be removed by what that sets off
    std::string_view rest = event.path;
    Entity* at = rootOf(in, Step(rest).name);
    while (at && !rest.empty()) {
        const Step step(rest);
        const Attribute& attribute = *at->type().find(step.name);
        if (rest.empty() && event.op == Event::Op::del) {
            attribute.eraseAt(*at, step.key);
        } else if (attribute.kind == Attribute::Kind::collection) {
            at = event.op == Event::Op::del ? attribute.find(*at, step.key)
                                            : &attribute.create(*at, step.key, [](Entity&) {});
        } else if (attribute.keyed()) {
            attribute.setAt(*at, step.key, event.value);
        } else {
            attribute.set(*at, event.value);
        }
    }
}

Flat World::published() const {
    Flat all;
    eachRoot(in, [&](std::string_view name, const Entity& entity) {
        if (publishedRoots.contains(name)) flatten(entity, "/" + std::string(name), all);
    });
    if (const Nav::NavDb* db = navDb()) flatten(*db, "/navDb", all);
    return all;
}

}  // namespace Oracle
