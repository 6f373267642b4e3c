// The forwarding tables: FECs by FEC id, one table per address family.
#pragma once

#include "platform/shard/Via.h"
#include "platform/vel/Entity.h"

namespace Shard::Fib {

class VEL_EXPORT ForwardingStatus : public Vel::Entity {
    VEL_ENTITY(ForwardingStatus, Vel::Name, name)
    VEL_MAP(Vel::U64, Fec, fec)
};

}  // namespace Shard::Fib

namespace Shard::Fib6 {

class VEL_EXPORT ForwardingStatus : public Vel::Entity {
    VEL_ENTITY(ForwardingStatus, Vel::Name, name)
    VEL_MAP(Vel::U64, Fib::Fec, fec)
};

}  // namespace Shard::Fib6
