#include "agent/linux/ipsec/Vici.h"

#include <charconv>
#include <vector>

namespace Agent::Linux::Vici {

namespace {

// What the next bytes of a message are.
enum class Element : uint8_t {
    sectionStart = 1,
    sectionEnd,
    keyValue,
    listStart,
    listItem,
    listEnd,
};

bool isNamed(Type type) {
    return type == Type::request || type == Type::subscribe || type == Type::unsubscribe ||
           type == Type::event;
}

class Writer {
  public:
    void byte(uint8_t value) { out_ += static_cast<char>(value); }
    void element(Element element) { byte(static_cast<uint8_t>(element)); }
    void name(const std::string& name) {
        if (name.size() > 0xff) throw Error("a name has more than 255 bytes");
        byte(static_cast<uint8_t>(name.size()));
        out_ += name;
    }
    void value(const std::string& value) {
        if (value.size() > 0xffff) throw Error("a value has more than 65535 bytes");
        byte(static_cast<uint8_t>(value.size() >> 8));
        byte(static_cast<uint8_t>(value.size()));
        out_ += value;
    }
    void section(const Json& section) {
        for (const auto& [key, member] : section.items()) {
            element(member.is_object()  ? Element::sectionStart
                    : member.is_array() ? Element::listStart
                                        : Element::keyValue);
            name(key);
            if (member.is_object()) {
                this->section(member);
                element(Element::sectionEnd);
            } else if (member.is_array()) {
                for (const Json& item : member) {
                    element(Element::listItem);
                    value(item.get_ref<const std::string&>());
                }
                element(Element::listEnd);
            } else {
                value(member.get_ref<const std::string&>());
            }
        }
    }
    std::string take() {
        const size_t size = out_.size();
        if (size > maxPacket) throw Error("a packet is too large");
        std::string bytes;
        for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(size >> shift);
        return bytes + out_;
    }

  private:
    std::string out_;
};

class Reader {
  public:
    explicit Reader(std::string_view bytes) : rest_(bytes) {}

    uint8_t byte() { return static_cast<uint8_t>(take(1).front()); }
    std::string name() { return std::string(take(byte())); }
    std::string value() {
        const size_t high = byte();
        return std::string(take(high << 8 | byte()));
    }
    Json section(int depth = 0) {
        if (depth == maxDepth) throw Error("sections are nested too deeply");
        // Appended to without looking for a member of the same name, which would take long for
        // many; of several the first is found.
        Json::object_t members;
        while (!rest_.empty()) {
            const auto element = static_cast<Element>(byte());
            if (element == Element::sectionEnd && depth > 0) return members;
            std::string key;
            Json member;
            if (element == Element::sectionStart)
                key = name(), member = section(depth + 1);
            else if (element == Element::keyValue)
                key = name(), member = value();
            else if (element == Element::listStart)
                key = name(), member = list();
            else
                throw Error("unexpected element " + std::to_string(static_cast<int>(element)));
            members.emplace_back(std::move(key), std::move(member));
        }
        if (depth > 0) throw Error("a section has no end");
        return members;
    }

  private:
    Json list() {
        Json items = Json::array();
        for (;;) {
            const auto element = static_cast<Element>(byte());
            if (element == Element::listEnd) return items;
            if (element != Element::listItem) throw Error("a list has something else than items");
            items.push_back(value());
        }
    }
    std::string_view take(size_t size) {
        if (size > rest_.size()) throw Error("a packet ends in the middle of an element");
        const std::string_view taken = rest_.substr(0, size);
        rest_.remove_prefix(size);
        return taken;
    }

    std::string_view rest_;
};

}  // namespace

std::string encode(const Packet& packet) {
    Writer writer;
    writer.byte(static_cast<uint8_t>(packet.type));
    if (isNamed(packet.type)) writer.name(packet.name);
    writer.section(packet.message);
    return writer.take();
}

Packet decode(std::string_view bytes) {
    Reader reader(bytes);
    Packet packet;
    packet.type = static_cast<Type>(reader.byte());
    if (packet.type > Type::event)
        throw Error("unknown packet type " + std::to_string(static_cast<int>(packet.type)));
    if (isNamed(packet.type)) packet.name = reader.name();
    packet.message = reader.section();
    return packet;
}

std::optional<Packet> Stream::next() {
    const auto rest = std::string_view(bytes_).substr(taken_);
    if (rest.size() < 4) return {};
    size_t size = 0;
    for (size_t i = 0; i < 4; ++i) size = size << 8 | static_cast<uint8_t>(rest[i]);
    if (size == 0 || size > maxPacket)
        throw Error("a packet of " + std::to_string(size) + " bytes");
    if (rest.size() < 4 + size) return {};
    Packet packet = decode(rest.substr(4, size));
    taken_ += 4 + size;
    // Moving the rest to the front is worth it when it is the smaller part.
    if (taken_ >= bytes_.size() / 2) bytes_.erase(0, std::exchange(taken_, 0));
    return packet;
}

std::string text(const Json& message, const char* name) {
    if (!message.is_object()) return {};
    const auto found = message.find(name);
    return found != message.end() && found->is_string() ? found->get<std::string>() : "";
}

uint64_t number(const Json& message, const char* name) {
    const std::string written = text(message, name);
    uint64_t value = 0;
    std::from_chars(written.data(), written.data() + written.size(), value);
    return value;
}

}  // namespace Agent::Linux::Vici
