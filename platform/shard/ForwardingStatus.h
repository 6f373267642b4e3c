// The forwarding tables: FECs by FEC id, one table for each address family. They are entities like
// others, so who writes them, who reads them and who is told is as Entity.h says. SharedFib.h puts
// one into shared memory for other processes.
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
