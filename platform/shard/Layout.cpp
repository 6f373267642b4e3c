#include "platform/shard/Layout.h"

#include <algorithm>
#include <string>

#include "platform/netz/Error.h"
#include "platform/shard/Extents.h"

namespace Shard {

Geometry Geometry::of(const Shape& shape, uint32_t capacity, uint64_t listBytes) {
    Geometry g{};
    g.shape = shape;
    g.capacity = capacity;
    // So large that most keys are in their home slot.
    g.homes = std::bit_ceil(std::max(capacity, 32U)) * 4;
    g.ringRecords = g.homes / 2;
    g.unitBytes = shape.unitBytes();
    // A replaced value rests before its units are reused (Extents), which takes spare blocks; lists
    // also lose the rest of their last unit, and some space to gaps between them.
    const uint64_t spare = uint64_t{Extents::rest + 1} * g.unitsFor(shape.valueBytes);
    const uint64_t lists = capacity * uint64_t{2} + listBytes / 64 * 5 / 4;
    const uint64_t units = spare + (shape.list ? lists : capacity);
    if (capacity == 0 || capacity > maxUnits || units >= maxUnits) {
        throw Vel::Error("a shared map cannot have a capacity of " + std::to_string(capacity));
    }
    g.units = static_cast<uint32_t>(units);
    return g;
}

bool Geometry::sound() const {
    const bool shapeSound = shape.keyBytes > 0 && shape.keyBytes <= maxKeyBytes &&
                            shape.keyBytes % 8 == 0 && shape.valueBytes <= maxValueBytes &&
                            shape.list <= 1;
    return shapeSound && capacity > 0 && capacity <= maxUnits && std::has_single_bit(homes) &&
           homes <= 2 * maxUnits && std::has_single_bit(ringRecords) &&
           ringRecords <= 2 * maxUnits && unitBytes == shape.unitBytes() && units < maxUnits &&
           units >= unitsFor(shape.valueBytes);
}

}  // namespace Shard
