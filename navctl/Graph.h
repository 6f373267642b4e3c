// Values over time as bars of block characters, for a terminal.
#pragma once

#include <string>

#include "agent/base/Json.h"

namespace Navctl {

// A heading, five lines of bars, and the axis of time. Each column is the largest of as many
// successive values as make all of them fit `width` columns. A null leaves its column empty; a 0
// does not. The scale begins at 0. REQUIRES: values is an array of numbers and nulls, and width is
// not 0.
std::string graph(const std::string& heading, const Agent::Json& values, double secondsEach,
                  size_t width);

}  // namespace Navctl
