#include "platform/vel/Describe.h"

#include "platform/vel/Entity.h"

namespace Vel {

constinit const TypeDescriptor* TypeDescriptor::all = nullptr;

TypeDescriptor::TypeDescriptor(const char* name_, const Attribute* attributes_, size_t count_)
    : name(name_), attributes(attributes_), count(count_), next(all) {
    all = this;
}

const Attribute* TypeDescriptor::find(std::string_view attribute) const {
    for (size_t i = 0; i < count; ++i)
        if (attributes[i].name == attribute) return &attributes[i];
    return nullptr;
}

std::map<std::string, U32> liveObjects() {
    std::map<std::string, U32> live;
    for (const auto* type = TypeDescriptor::all; type; type = type->next)
        if (type->live) live[type->name] = type->live;
    return live;
}

Datum toDatum(const Entity& entity) {
    const TypeDescriptor& type = entity.type();
    Datum::Members members;
    members.reserve(type.count);
    for (size_t i = 0; i < type.count; ++i)
        members.push_back({String(type.attributes[i].name), type.attributes[i].get(entity)});
    return {std::move(members)};
}

void reinstantiated(std::string_view attribute, std::string_view wanted, std::string_view current) {
    std::string text =
        "Reinstantiating the pointer interface where constructor parameter attribute _";
    text.append(attribute).append(" has a different value of ").append(wanted);
    text.append(" than the current value of ").append(current).append(" not allowed");
    throw Error(text);
}

}  // namespace Vel
