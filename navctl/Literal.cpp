#include "navctl/Literal.h"

#include <charconv>
#include <cstdint>
#include <string>

namespace Navctl {

using Agent::Json;

namespace {

constexpr int maxDepth = 16;  // answers nest three levels

class Parser {
  public:
    explicit Parser(std::string_view text) : text_(text) {}

    Json whole() {
        Json result = value(0);
        if (peek() != '\0') fail("unexpected text after the end");
        return result;
    }

  private:
    [[noreturn]] void fail(const std::string& reason) const {
        throw LiteralError("byte " + std::to_string(at_) + ": " + reason);
    }

    // The next character that is not a space; NUL at the end of the text.
    char peek() {
        while (at_ < text_.size() && (text_[at_] == ' ' || text_[at_] == '\n')) ++at_;
        if (at_ < text_.size() && text_[at_] == '\0') fail("a NUL byte");
        return at_ < text_.size() ? text_[at_] : '\0';
    }
    bool accept(char wanted) {
        const bool there = peek() == wanted;
        if (there) ++at_;
        return there;
    }

    Json value(int depth) {
        if (depth > maxDepth) fail("nested too deep");
        if (accept('{')) return dictionary(depth + 1);
        if (accept('[')) return sequence(']', depth + 1);
        if (accept('(')) return sequence(')', depth + 1);
        if (accept('\'')) return string();
        return number();
    }

    Json dictionary(int depth) {
        Json result = Json::object();
        while (!accept('}')) {
            if (peek() == '[') fail("a list cannot be a key");
            const std::string name = key(value(depth));
            if (!accept(':')) fail("':' is missing");
            result[name] = value(depth);
            if (!accept(',') && peek() != '}') fail("',' or '}' is missing");
        }
        return result;
    }

    Json sequence(char end, int depth) {
        Json result = Json::array();
        while (!accept(end)) {
            result.push_back(value(depth));
            if (!accept(',') && peek() != end) fail(std::string("',' or '") + end + "' is missing");
        }
        return result;
    }

    std::string key(const Json& value) const {
        if (value.is_string()) return value.get<std::string>();
        if (value.is_number()) return value.dump();
        std::string text;
        for (const Json& part : value) {
            if (!value.is_array() || part.is_structured()) fail("this cannot be a key");
            text += (text.empty() ? "" : ",") + key(part);
        }
        if (text.empty()) fail("this cannot be a key");
        return text;
    }

    Json string() {
        const size_t end = text_.find('\'', at_);
        if (end == text_.npos) fail("unterminated string");
        const std::string_view content = text_.substr(at_, end - at_);
        at_ = end + 1;
        return content;
    }

    Json number() {
        peek();
        uint64_t result = 0;
        const char* begin = text_.data() + at_;
        const auto [end, error] = std::from_chars(begin, text_.data() + text_.size(), result);
        if (error != std::errc()) fail("a value is missing");
        at_ += static_cast<size_t>(end - begin);
        return result;
    }

    std::string_view text_;
    size_t at_ = 0;
};

}  // namespace

Json parseLiteral(std::string_view text) {
    return Parser(text).whole();
}

}  // namespace Navctl
