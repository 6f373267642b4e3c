#include "platform/shard/ForwardingStatus.h"

namespace Shard {

namespace Fib {
VEL_DEFINE(Shard::Fib, ForwardingStatus)
}
namespace Fib6 {
VEL_DEFINE(Shard::Fib6, ForwardingStatus)
}

}  // namespace Shard
