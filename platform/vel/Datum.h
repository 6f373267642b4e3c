// A tree of plain data: the form of an attribute's value for code that knows the attribute only by
// name. The control socket and the configuration loader convert it to and from JSON.
#pragma once

#include <string>
#include <variant>
#include <vector>

#include "platform/vel/Types.h"

namespace Vel {

struct Datum;
struct DatumMember;

struct Datum {
    using List = std::vector<Datum>;
    using Members = std::vector<DatumMember>;  // in order, names unique

    // monostate is null. Negative numbers and numbers with a fraction are doubles.
    std::variant<std::monostate, bool, U64, double, String, List, Members, Secret> value;

    bool isNull() const { return value.index() == 0; }
    template <class T>
    const T* as() const {
        return std::get_if<T>(&value);
    }
    friend bool operator==(const Datum& a, const Datum& b);
};

struct DatumMember {
    String name;
    Datum value;
    bool operator==(const DatumMember&) const = default;
};

inline bool operator==(const Datum& a, const Datum& b) {
    return a.value == b.value;
}

}  // namespace Vel
