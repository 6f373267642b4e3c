#include "platform/netz/VrfName.h"

#include <ostream>

#include "platform/netz/Error.h"

namespace L3 {

void VrfName::refuse() {
    throw Vel::RangeError("VrfName::bytes > VrfName::maxLength not allowed");
}

std::ostream& operator<<(std::ostream& out, const VrfName& name) {
    return out << name.str();
}

}  // namespace L3
