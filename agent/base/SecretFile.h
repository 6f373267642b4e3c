// Files with secrets, which only their owner may have access to.
#pragma once

#include <string>

namespace Agent {

// The mode of a file that others than its owner have access to: "0644". Empty if they have none, or
// if the file cannot be examined.
std::string openMode(const std::string& file);

}  // namespace Agent
