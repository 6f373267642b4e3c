// Converts the entity runtime's Datum to JSON and back, in the same order. Secrets are hidden,
// unless the caller writes a file for their owner.
#pragma once

#include "agent/base/Json.h"
#include "platform/vel/Datum.h"
#include "platform/vel/Entity.h"

namespace Agent {

enum class Secrets { hidden, shown };

Json toJson(const Vel::Datum& datum, Secrets secrets = Secrets::hidden);
Vel::Datum toDatum(const Json& json);
// A configuration as its owner's file has it, keys included; null if there is none.
Json wholeConfig(const Vel::Entity* config);

}  // namespace Agent
