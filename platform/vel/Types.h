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

}  // namespace Vel
