// The scalar types that entities and values are made of.
#pragma once

#include <cstdint>
#include <string>

namespace Vel {

using U8 = std::uint8_t;
using U16 = std::uint16_t;
using U32 = std::uint32_t;
using U64 = std::uint64_t;
using String = std::string;
using Name = std::string;  // the name of an entity

// A text that is shown to nobody, such as a key. As data it stays a Secret, so that whoever writes
// data as text hides it unless told otherwise.
struct Secret {
    String text;
    bool operator==(const Secret&) const = default;

    static constexpr const char* hidden = "(hidden)";  // shown in its place, unless it is empty
};

}  // namespace Vel
