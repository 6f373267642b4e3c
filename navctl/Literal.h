// The text form of the agent's answers to show commands: literal dictionaries, lists and tuples of
// single-quoted strings and unsigned numbers, each element followed by an optional ", ".
#pragma once

#include <stdexcept>
#include <string_view>

#include "agent/base/Json.h"

namespace Navctl {

using Agent::Json;

// A text that is not a literal; what() gives the position and the reason.
class LiteralError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The text as JSON: a tuple becomes an array, a key that is not a string becomes its text (the
// members of a tuple joined by commas). Strict: no text may follow the literal, strings have no
// escapes, and a key is a string, a number or a tuple of these.
Agent::Json parseLiteral(std::string_view text);

}  // namespace Navctl
