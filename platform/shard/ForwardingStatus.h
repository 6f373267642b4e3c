// The forwarding tables: FECs by FEC id, one table for each address family. They are ordinary
// entities, so the rules of Entity.h apply to their writers, readers and subscribers. SharedFib.h
// publishes one in shared memory for other processes.
#pragma once

#include "platform/shard/Via.h"
#include "platform/vel/Entity.h"

namespace Shard {
namespace Fib {

class VEL_EXPORT ForwardingStatus : public Vel::Entity {
    VEL_ENTITY(ForwardingStatus, Vel::Name, name)
    VEL_MAP(Vel::U64, Fec, fec)
};

}  // namespace Fib

namespace Fib6 {

class VEL_EXPORT ForwardingStatus : public Vel::Entity {
    VEL_ENTITY(ForwardingStatus, Vel::Name, name)
    VEL_MAP(Vel::U64, Fib::Fec, fec)
};

}  // namespace Fib6
}  // namespace Shard
