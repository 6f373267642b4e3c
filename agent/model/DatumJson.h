// What the entity runtime calls a datum, as JSON and back. Order is kept both ways.
#pragma once

#include "agent/base/Json.h"
#include "platform/vel/Datum.h"

namespace Agent {

Json toJson(const Vel::Datum& datum);
Vel::Datum toDatum(const Json& json);

}  // namespace Agent
