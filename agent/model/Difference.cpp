#include "agent/model/Difference.h"

#include "agent/model/DatumJson.h"
#include "agent/model/Tree.h"

namespace Agent {

using Vel::Attribute;
using Vel::Datum;
using Vel::Entity;

namespace {

class Comparison {
  public:
    Comparison(std::vector<Difference>& differences, const Entity& before, const Entity& after)
        : differences_(differences), before_(before), after_(after) {}

    void addAttribute(const Attribute& a, const std::string& path) {
        if (a.kind == Attribute::Kind::plain) add(path, a.get(before_), a.get(after_));
        if (a.kind == Attribute::Kind::child)
            addDifferences(differences_, *a.find(before_, {}), *a.find(after_, {}), path);
    }

    void addElements(const Attribute& a, const std::string& path) {
        for (const std::string& key : a.keys(before_)) addElement(a, path + step(a, &key), key);
        for (const std::string& key : a.keys(after_))
            if (!has(a, before_, key)) addElement(a, path + step(a, &key), key);
    }

  private:
    static bool has(const Attribute& a, const Entity& entity, const std::string& key) {
        return a.kind == Attribute::Kind::collection ? a.find(entity, key) != nullptr
                                                     : a.getAt(entity, key).has_value();
    }

    void addElement(const Attribute& a, const std::string& path, const std::string& key) {
        if (a.kind != Attribute::Kind::collection)
            return add(path, a.getAt(before_, key).value_or(Datum{}),
                       a.getAt(after_, key).value_or(Datum{}));
        const Entity *before = a.find(before_, key), *after = a.find(after_, key);
        if (before && after) return addDifferences(differences_, *before, *after, path);
        add(path, before ? toDatum(*before) : Datum{}, after ? toDatum(*after) : Datum{});
    }

    void add(const std::string& path, Datum before, Datum after) {
        if (before != after) differences_.push_back({path, std::move(before), std::move(after)});
    }

    std::vector<Difference>& differences_;
    const Entity &before_, &after_;
};

}  // namespace

void addDifferences(std::vector<Difference>& differences, const Entity& before, const Entity& after,
                    const std::string& path) {
    const Vel::TypeDescriptor& type = before.type();
    Comparison comparison(differences, before, after);
    for (size_t i = 0; i < type.count; ++i) {
        const Attribute& a = type.attributes[i];
        if (a.keyed())
            comparison.addElements(a, path);
        else
            comparison.addAttribute(a, path + step(a, nullptr));
    }
}

Json toJson(const std::vector<Difference>& differences) {
    Json array = Json::array();
    for (const Difference& each : differences)
        array.push_back(
            {{"path", each.path}, {"before", toJson(each.before)}, {"after", toJson(each.after)}});
    return array;
}

}  // namespace Agent
