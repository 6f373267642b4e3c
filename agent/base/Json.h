// JSON for the agent, its clients and the configuration files. Its input is not trusted: texts are
// bounded in depth, must be UTF-8, and every error names the place.
#pragma once

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Agent {

// Objects keep the order in which their members were written. The order matters: the members of an
// object are assigned in that order.
using Json = nlohmann::ordered_json;

// A text that is not JSON, or a file that cannot be read. what() is "line 3, column 7: reason" or
// the system's reason; the caller prepends the file's name.
class JsonError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// A JSON text with invalid content. what() is "/path/to/member: reason", where the place is a JSON
// pointer (RFC 6901) into the text; for the whole text it is only the reason.
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

// The largest depth of nested containers. The agent's data nests less than ten levels.
inline constexpr int maxJsonDepth = 64;
// The largest number of members of an object: finding a member of a Json walks over them.
inline constexpr int maxJsonMembers = 4096;

// Files that people write may contain comments, `// …` and `/* … */`; other texts are strict JSON.
enum class Comments { refused, ignored };

// The value of a text; throws JsonError if it is not JSON, exceeds these limits, or is not UTF-8.
Json parseJson(std::string_view text, Comments comments = Comments::refused);

// The text on one line, without a newline. Never throws because of a string's content: bytes that
// are not UTF-8 are written as the replacement character.
std::string dumpLine(const Json& value);

// The line, counted from 1, on which the member or element `place` of a valid JSON text begins; if
// it is not present, the line of its nearest enclosing one that is. The text may contain comments.
size_t lineOf(std::string_view text, const Json::json_pointer& place);

// The content of a file; "-" is standard input. Throws JsonError with the system's reason.
std::string readFile(const std::string& name);

}  // namespace Agent
