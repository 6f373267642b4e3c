#include "platform/shard/ForwardingStatus.h"

namespace Shard::Fib {
VEL_DEFINE(Shard::Fib, ForwardingStatus)
}
namespace Shard::Fib6 {
VEL_DEFINE(Shard::Fib6, ForwardingStatus)
}
