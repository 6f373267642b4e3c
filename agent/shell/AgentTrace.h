// The trace facility of the agent itself. Operators read its levels up to 5 in the log; docs/log.md
// lists the lines.
#pragma once

#include "platform/trace/Duolog.h"

namespace Agent {

inline Duolog::Facility agentTrace{"agent"};

// Traces a text that is longer than Duolog keeps of a plain string.
struct LongText {
    std::string text;
    friend std::ostream& operator<<(std::ostream& out, const LongText& self) {
        return out << self.text;
    }
};

}  // namespace Agent
