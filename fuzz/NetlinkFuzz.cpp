// Netlink messages: any bytes are read within their bounds, and no prefix is longer than its
// address.
#include <linux/rtnetlink.h>

#include "agent/linux/kernel/FibLookup.h"
#include "agent/linux/kernel/LinkState.h"
#include "agent/linux/kernel/NeighbourState.h"
#include "platform/netz/Assert.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace Agent::Linux;
    LinkState links;
    NeighbourState neighbours;
    for (const Message& message : Messages(std::as_bytes(std::span(data, size)))) {
        links.apply(message);
        neighbours.apply(message);
        refusalText(message);
        for (uint16_t type : {message.type, uint16_t{RTM_NEWROUTE}, uint16_t{RTM_NEWNEXTHOP}}) {
            Message as = message;
            as.type = type;
            for (const RouteVia& via : parseRoute(as).result.vias)
                VEL_ASSERT(via.weight >= 1 && via.weight <= 65536, "a weight that cannot be");
            parseNexthop(as);
        }
    }
    for (const Interface& interface : links.view().interfaces) {
        VEL_ASSERT(interface.primary4.prefixLength <= 32, "an IPv4 prefix longer than 32 bits");
        VEL_ASSERT(interface.primary6.prefixLength <= 128, "an IPv6 prefix longer than 128 bits");
    }
    return 0;
}
