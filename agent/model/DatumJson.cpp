#include "agent/model/DatumJson.h"

namespace Agent {

namespace {

struct ToJson {
    const Secrets secrets;

    Json operator()(std::monostate) const { return nullptr; }
    Json operator()(const Vel::Datum::List& list) const {
        Json array = Json::array();
        for (const Vel::Datum& element : list) array.push_back(toJson(element, secrets));
        return array;
    }
    Json operator()(const Vel::Datum::Members& members) const {
        // Names are unique, so they need not be looked up one by one.
        Json::object_t object;
        object.reserve(members.size());
        for (const auto& [name, value] : members) object.emplace_back(name, toJson(value, secrets));
        return object;
    }
    Json operator()(const Vel::Secret& secret) const {
        const bool show = secrets == Secrets::shown || secret.text.empty();
        return show ? secret.text : Vel::Secret::hidden;
    }
    template <class Scalar>
    Json operator()(const Scalar& scalar) const {
        return scalar;
    }
};

}  // namespace

Json toJson(const Vel::Datum& datum, Secrets secrets) {
    return std::visit(ToJson{secrets}, datum.value);
}

Json wholeConfig(const Vel::Entity* config) {
    return config ? toJson(Vel::toDatum(*config), Secrets::shown) : Json();
}

Vel::Datum toDatum(const Json& json) {
    switch (json.type()) {
        case Json::value_t::boolean:
            return {json.get<bool>()};
        case Json::value_t::number_unsigned:
            return {json.get<Vel::U64>()};
        case Json::value_t::number_integer:
            if (json.get<int64_t>() >= 0) return {json.get<Vel::U64>()};
            return {json.get<double>()};
        case Json::value_t::number_float:
            return {json.get<double>()};
        case Json::value_t::string:
            return {json.get<std::string>()};
        case Json::value_t::array: {
            Vel::Datum::List list;
            for (const Json& element : json) list.push_back(toDatum(element));
            return {std::move(list)};
        }
        case Json::value_t::object: {
            Vel::Datum::Members members;
            for (const auto& [name, value] : json.items())
                members.push_back({name, toDatum(value)});
            return {std::move(members)};
        }
        default:
            return {};
    }
}

}  // namespace Agent
