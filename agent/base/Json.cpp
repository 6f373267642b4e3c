#include "agent/base/Json.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <utility>
#include <vector>

namespace Agent {

namespace {

// Counts lines as the parser takes characters: `line` is that of the last one taken, so a SAX event
// knows its line, and so does the refusal of a number, behind which the parser has read one more.
class CountingIterator {
  public:
    using difference_type = std::ptrdiff_t;
    using value_type = char;
    using pointer = const char*;
    using reference = const char&;
    using iterator_category = std::input_iterator_tag;

    CountingIterator(const char* at, size_t& line) : at_(at), line_(&line) {}
    reference operator*() const { return *at_; }
    CountingIterator& operator++() {
        if (std::exchange(atNewline_, *at_++ == '\n')) ++*line_;
        return *this;
    }
    CountingIterator operator++(int) {
        CountingIterator before = *this;
        ++*this;
        return before;
    }
    bool operator==(const CountingIterator& other) const { return at_ == other.at_; }

  private:
    const char* at_;
    size_t* line_;
    bool atNewline_ = false;  // whether the last character taken ended a line
};

// Parses a text and remembers the line of the longest prefix of `place` that it finds.
class PlaceFinder : public nlohmann::json_sax<Json> {
  public:
    PlaceFinder(const Json::json_pointer& place, const size_t& line) : line_(line) {
        for (auto rest = place; !rest.empty(); rest.pop_back()) steps_.push_back(rest.back());
    }
    size_t found() const { return found_; }

    bool null() override { return scalar(); }
    bool boolean(bool) override { return scalar(); }
    bool number_integer(number_integer_t) override { return scalar(); }
    bool number_unsigned(number_unsigned_t) override { return scalar(); }
    bool number_float(number_float_t, const string_t&) override { return scalar(); }
    bool string(string_t&) override { return scalar(); }
    bool binary(binary_t&) override { return scalar(); }
    bool start_object(std::size_t) override { return open(false); }
    bool end_object() override { return close(); }
    bool start_array(std::size_t) override { return open(true); }
    bool end_array() override { return close(); }
    bool key(string_t& name) override {
        open_.back().step = name;
        note();
        return true;
    }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
        return false;
    }

  private:
    struct Container {
        bool isArray;
        size_t count = 0;
        std::string step;
    };

    bool scalar() {
        element();
        return true;
    }
    bool open(bool isArray) {
        element();
        open_.push_back({isArray, 0, {}});
        return true;
    }
    bool close() {
        open_.pop_back();
        return true;
    }
    void element() {
        if (open_.empty() || !open_.back().isArray) return;
        open_.back().step = std::to_string(open_.back().count++);
        note();
    }
    void note() {
        if (open_.size() <= deepest_ || open_.size() > steps_.size()) return;
        for (size_t i = 0; i < open_.size(); ++i) {
            if (open_[i].step != steps_[steps_.size() - 1 - i]) return;
        }
        deepest_ = open_.size();
        found_ = line_;
    }

    const size_t& line_;
    std::vector<std::string> steps_;  // in reverse order
    std::vector<Container> open_;
    size_t deepest_ = 0;
    size_t found_ = 1;
};

}  // namespace

Json parseJson(std::string_view text, Comments comments) {
    size_t line = 1;
    auto refuse = [&line] [[noreturn]] (const std::string& reason) {
        throw JsonError("line " + std::to_string(line) + ": " + reason);
    };
    // The parser would take a NUL byte for the end of the text.
    if (const size_t nul = text.find('\0'); nul != text.npos) {
        line += static_cast<size_t>(std::count(text.begin(), text.begin() + nul, '\n'));
        refuse("a NUL byte");
    }
    std::array<int, maxJsonDepth + 2> members{};  // of the object that is open at each depth
    auto bounded = [&](int depth, Json::parse_event_t event, const Json&) {
        if (depth > maxJsonDepth)
            refuse("nested deeper than " + std::to_string(maxJsonDepth) + " levels");
        const auto level = static_cast<size_t>(depth);
        if (event == Json::parse_event_t::object_start) members[level + 1] = 0;
        if (event == Json::parse_event_t::key && ++members[level] > maxJsonMembers)
            refuse("an object of more than " + std::to_string(maxJsonMembers) + " members");
        return true;
    };
    try {
        return Json::parse(CountingIterator(text.data(), line),
                           CountingIterator(text.data() + text.size(), line), bounded, true,
                           comments == Comments::ignored);
    } catch (const Json::exception& error) {
        const std::string message = error.what();
        const size_t place = message.find("line ");
        // The parser gives no line for a number that is too large.
        if (place == message.npos) refuse(message.substr(message.find(']') + 2));
        // What the parser read last is left out: it may be a part of a secret.
        throw JsonError(message.substr(place, message.find("; last read") - place));
    }
}

std::string dumpLine(const Json& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

size_t lineOf(std::string_view text, const Json::json_pointer& place) {
    size_t line = 1;
    PlaceFinder finder(place, line);
    const CountingIterator begin(text.data(), line);
    Json::sax_parse(begin, CountingIterator(text.data() + text.size(), line), &finder,
                    Json::input_format_t::json, true, true);
    return finder.found();
}

std::string readFile(const std::string& name) {
    std::ifstream file;
    if (name != "-") file.open(name, std::ios::binary);
    std::ostringstream text;
    // Opening a directory succeeds; the first read fails.
    if (name != "-" && !file) throw JsonError(std::strerror(errno));
    std::istream& in = name == "-" ? std::cin : file;
    errno = 0;
    if (in.peek() != std::char_traits<char>::eof()) text << in.rdbuf();
    if (in.bad() || errno == EISDIR) throw JsonError(std::strerror(errno != 0 ? errno : EIO));
    return text.str();
}

}  // namespace Agent
