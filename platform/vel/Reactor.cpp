#include "platform/vel/Reactor.h"

namespace Vel {

void nullInput(std::string_view reactor, std::string_view attribute) {
    std::string text = "null value for mutator parameter of ";
    text.append(reactor).append("::").append(attribute).append(" not allowed");
    throw Error(text);
}

}  // namespace Vel
