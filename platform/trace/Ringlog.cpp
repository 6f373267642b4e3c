#include "platform/trace/Ringlog.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <csetjmp>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "platform/netz/Assert.h"
#include "platform/trace/WallClock.h"

namespace Ringlog {
namespace {

alignas(64) uint8_t memory[capacity + maxRecord];

constinit WallClock wallClock;

jmp_buf* rendering = nullptr;  // where a rendering that cannot continue returns to

// While one exists no record is made, and a failed assertion ends the rendering of a value instead
// of the process. If no exception can leave, the calls of the rendering are abandoned with all they
// hold: that leaks, but a post-mortem cannot reach its end in any other way.
class Reading {
  public:
    Reading()
        : before_(Vel::assertHandlerIs(unreadable)), terminate_(std::set_terminate(abandon)) {}
    ~Reading() {
        std::set_terminate(terminate_);
        Vel::assertHandlerIs(before_);
    }

  private:
    [[noreturn]] static void unreadable(const char* text, const char*, int) { throw text; }
    [[noreturn]] static void abandon() {
        if (rendering) std::longjmp(*rendering, 1);
        std::abort();
    }

    Busy busy_;
    Vel::AssertHandler before_;
    std::terminate_handler terminate_;
};

void appendTime(int64_t time, std::string& out) {
    const time_t seconds = time / 1000000000;
    tm local;
    localtime_r(&seconds, &local);
    char text[40];
    out.append(text, strftime(text, sizeof text, "%FT%T.", &local));
    const auto micros = static_cast<unsigned>(time / 1000 % 1000000);
    char* end = std::to_chars(text, std::end(text), micros + 1000000).ptr;
    out.append(text + 1, end);
    out.append(text, strftime(text, sizeof text, "%z", &local));
    out.insert(out.size() - 2, ":");  // RFC 3339 writes the offset as +01:00
}

Header headerAt(uint64_t position) {
    Header header{};
    std::memcpy(&header, memory + position % capacity, sizeof(Header));
    return header;
}

// Appends the text of a record's arguments. Returns false if a part could not be rendered.
bool render(uint64_t position, const Site& site, std::string& text) {
    jmp_buf here;
    rendering = &here;
    bool whole = setjmp(here) == 0;
    try {
        if (whole) site.render(site, memory + position % capacity + sizeof(Header), text);
    } catch (...) {
        whole = false;
    }
    rendering = nullptr;
    return whole;
}

std::string textAt(uint64_t position, const Site& site) {
    std::string text;
    if (render(position, site, text)) return text;
    escape(text, 0);
    return text + "(unreadable)";
}

Line lineAt(uint64_t position) {
    const Header header = headerAt(position);
    const Site& site = *header.site;
    const std::string text = textAt(position, site);
    Line result;
    std::string& line = result.line;
    appendTime(header.time, line);
    line.append(" ").append(site.facility.name()).append(":") += std::to_string(site.level);
    line += ' ';
    if (!text.starts_with(site.function)) line.append(site.function).append(": ");
    result.textOffset = line.size();
    result.textLength = text.size();
    result.level = site.level;
    const std::string_view file = site.file;
    line.append(text).append(" (").append(file.substr(file.rfind('/') + 1)).append(":");
    line.append(std::to_string(site.line)).append(")");
    return result;
}

// Positions of the newest `count` records, oldest first.
std::vector<uint64_t> positions(size_t count) {
    std::vector<uint64_t> result;
    uint64_t at = state.head;
    size_t size = state.lastSize;
    while (size && result.size() < count && state.head - (at - size) <= capacity) {
        result.push_back(at -= size);
        size = headerAt(at).previousSize;
    }
    std::reverse(result.begin(), result.end());
    return result;
}

bool writeAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(fd, text.data(), text.size());
        if (written <= 0) return false;
        text.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

// The length of the UTF-8 sequence that starts with this lead byte; 0 if it is no lead byte.
size_t sequenceLength(unsigned char lead) {
    if (lead < 0x80) return 1;
    if (lead >= 0xC2 && lead <= 0xDF) return 2;
    if (lead >= 0xE0 && lead <= 0xEF) return 3;
    if (lead >= 0xF0 && lead <= 0xF4) return 4;
    return 0;
}
bool continues(char c) {
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// How many bytes at the front of the text form one printable character; 0 if they form none.
size_t printable(std::string_view text) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const size_t length = sequenceLength(byte(0));
    if (length == 0 || length > text.size()) return 0;
    if (length == 1) return byte(0) >= 0x20 && byte(0) != 0x7F ? 1 : 0;
    for (size_t i = 1; i < length; ++i)
        if (!continues(text[i])) return 0;
    const bool control = byte(0) == 0xC2 && byte(1) < 0xA0;
    const bool overlong =
        (byte(0) == 0xE0 && byte(1) < 0xA0) || (byte(0) == 0xF0 && byte(1) < 0x90);
    const bool noCharacter =
        (byte(0) == 0xED && byte(1) > 0x9F) || (byte(0) == 0xF4 && byte(1) > 0x8F);
    return control || overlong || noCharacter ? 0 : length;
}

}  // namespace

constinit State state{.memory = memory};

bool prepare() {
    if (state.attention & busy) {
        ++state.dropped;
        return false;
    }
    if (state.attention & untimed) {
        state.time = wallClock.now();
        if (state.events) state.attention &= ~untimed;
    }
    return true;
}

std::vector<std::string> last(size_t count) {
    const Reading reading;
    std::vector<std::string> result;
    for (const uint64_t at : positions(count)) result.push_back(lineAt(at).line);
    return result;
}

Line newest() {
    const Reading reading;
    return lineAt(state.head - state.lastSize);
}

void dump(int fd) {
    const Reading reading;
    for (const uint64_t at : positions(capacity))
        if (!writeAll(fd, lineAt(at).line + "\n")) return;
    if (state.dropped) writeAll(fd, std::to_string(state.dropped) + " records were dropped\n");
}

void escape(std::string& text, size_t begin) {
    for (size_t at = begin; at < text.size();) {
        if (const size_t length = printable(std::string_view(text).substr(at))) {
            at += length;
            continue;
        }
        constexpr char digits[] = "0123456789abcdef";
        const auto byte = static_cast<unsigned char>(text[at]);
        const char escaped[] = {'\\', 'x', digits[byte >> 4], digits[byte & 15]};
        text.replace(at, 1, escaped, sizeof escaped);
        at += sizeof escaped;
    }
}

void dropCutCharacter(std::string& text, size_t begin) {
    size_t lead = text.size();
    while (lead > begin && lead + 4 > text.size() && continues(text[lead - 1])) --lead;
    if (lead == begin) return;
    --lead;
    if (sequenceLength(static_cast<unsigned char>(text[lead])) > text.size() - lead)
        text.resize(lead);
}

}  // namespace Ringlog
