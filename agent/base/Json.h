// JSON as the agent, its clients and the configuration files use it. Everything read here may come
// from anybody: texts are bounded in depth, must be UTF-8, and an error says where it is.
#pragma once

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Agent {

// Objects keep the order in which their members were written: that order means something, since
// an object that is assigned assigns its members in it.
using Json = nlohmann::ordered_json;

// A text that is no JSON, or a file that cannot be read. what() is "line 3, column 7: reason" or
// the system's reason; the caller puts the file's name before it.
class JsonError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// A JSON text that holds what may not stand there. what() is "/path/to/member: reason", the place
// being a JSON pointer (RFC 6901) into the text; of the whole text just the reason.
class PlacedError : public std::runtime_error {
  public:
    PlacedError(Json::json_pointer place, const std::string& reason)
        : std::runtime_error((place.empty() ? "" : place.to_string() + ": ") + reason),
          place_(std::move(place)),
          reason_(reason) {}
    const Json::json_pointer& place() const { return place_; }
    const std::string& reason() const { return reason_; }

  private:
    Json::json_pointer place_;
    std::string reason_;
};

// Containers may stand this deep in each other. What the agent keeps nests less than ten levels.
inline constexpr int maxJsonDepth = 64;
// An object has this many members at most, since finding one in a Json takes a walk over them.
inline constexpr int maxJsonMembers = 4096;

// The value of a text; JsonError if it is none, passes these bounds, or is not UTF-8.
Json parseJson(std::string_view text);

// One line without its newline. Never throws for what a string holds: bytes that are no UTF-8 come
// out as the replacement character.
std::string dumpLine(const Json& value);

// The line, counted from 1, on which the member or element `place` of a valid JSON text begins; the
// line of the nearest enclosing one that is there if it is not.
size_t lineOf(std::string_view text, const Json::json_pointer& place);

// The whole of a file, "-" being standard input. JsonError with the system's reason.
std::string readFile(const std::string& name);

}  // namespace Agent
