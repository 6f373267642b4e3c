// What the kernel's IPsec (XFRM, <linux/xfrm.h>) has been given for the agent's connections:
// security associations and policies whose reqid is one of the agent's numbers. Charon makes and
// removes them; those of a charon that was killed remain, and nobody else knows that they are
// superfluous.
//
// Changes nothing but what remove() is called for.
#pragma once

#include <linux/xfrm.h>

#include <vector>

#include "agent/linux/kernel/NetlinkSocket.h"

namespace Agent::Linux {

struct XfrmState {
    xfrm_usersa_id id{};
    uint32_t reqid = 0;

    uint32_t spi() const;  // as charon writes it
};

struct XfrmPolicy {
    xfrm_userpolicy_id id{};
    uint32_t reqid = 0;
};

struct XfrmObjects {
    std::vector<XfrmState> states;  // without those that only reserve an SPI
    std::vector<XfrmPolicy> policies;

    size_t size() const { return states.size() + policies.size(); }
};

class Xfrm {
  public:
    // The objects with a reqid of `count` numbers from `first` on. Empty if the kernel refuses to
    // tell, for example without CAP_NET_ADMIN.
    XfrmObjects read(uint32_t first, uint32_t count);
    // Objects that are no longer present are passed over.
    void remove(const XfrmObjects& objects);

  private:
    RequestSocket socket_{NETLINK_XFRM};
};

}  // namespace Agent::Linux
