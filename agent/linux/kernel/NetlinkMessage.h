// Netlink messages as bytes: readers for received messages, a writer for requests.
//
// The readers work on untrusted memory. They copy out of it, check every length against the bytes
// present, and end at the first record that does not fit; a value that is missing or too short
// reads as empty. So a parser built from them is safe on any input. Views stay valid as long as the
// bytes they were made from. Format: RFC 3549, <linux/netlink.h>.
#pragma once

#include <linux/netlink.h>

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>
#include <type_traits>
#include <vector>

#include "platform/netz/IpGenAddr.h"

namespace Agent::Linux {

using Bytes = std::span<const std::byte>;

// The value at the start of the bytes; empty if there are too few.
template <class T>
std::optional<T> readAs(Bytes bytes) {
    static_assert(std::is_trivially_copyable_v<T>);
    if (bytes.size() < sizeof(T)) return {};
    T value;
    std::memcpy(&value, bytes.data(), sizeof(T));
    return value;
}

// The address of a family (AF_INET, AF_INET6) whose octets are at the start of the bytes.
std::optional<Netz::IpGenAddr> readAddr(unsigned family, Bytes bytes);

// The length to which netlink pads messages, their headers and attributes.
constexpr size_t aligned(size_t size) {
    return (size + 3) & ~size_t{3};
}
inline Bytes dropFront(Bytes bytes, size_t size) {
    return size < bytes.size() ? bytes.subspan(size) : Bytes();
}

struct NetlinkAttribute {
    uint16_t type = 0;  // without the nesting and byte order flags
    Bytes data;

    std::optional<uint32_t> u32() const { return readAs<uint32_t>(data); }
    std::string_view text() const;  // up to the first zero byte
};

struct Message {
    uint16_t type = 0;
    uint16_t flags = 0;
    uint32_t sequence = 0;
    uint32_t port = 0;  // of the socket whose request this replies to or follows from; 0: none
    Bytes payload;

    // The fixed header at the start of a message of this type.
    template <class T>
    std::optional<T> header() const {
        return readAs<T>(payload);
    }
};

// A forward range over records that each begin with their own length. `Step` takes the next record
// off the bytes, or returns an empty value if none fits.
template <class Record, std::optional<Record> Step(Bytes& rest)>
class Records {
  public:
    explicit Records(Bytes bytes) : bytes_(bytes) {}

    class Iterator {
      public:
        explicit Iterator(Bytes rest) : rest_(rest) { ++*this; }
        const Record& operator*() const { return *record_; }
        Iterator& operator++() {
            record_ = Step(rest_);
            return *this;
        }
        bool operator==(std::default_sentinel_t) const { return !record_; }

      private:
        Bytes rest_;
        std::optional<Record> record_;
    };
    Iterator begin() const { return Iterator(bytes_); }
    std::default_sentinel_t end() const { return {}; }

  private:
    Bytes bytes_;
};

std::optional<NetlinkAttribute> takeAttribute(Bytes& rest);
std::optional<Message> takeMessage(Bytes& rest);

using Attributes = Records<NetlinkAttribute, takeAttribute>;
using Messages = Records<Message, takeMessage>;

// The attributes that follow the fixed header T of a message.
template <class T>
Attributes attributesAfter(const Message& message) {
    return Attributes(dropFront(message.payload, aligned(sizeof(T))));
}

// Builds messages one after the other in one buffer.
class MessageWriter {
  public:
    template <class Header>
    void begin(uint16_t type, uint16_t flags, uint32_t sequence, const Header& header) {
        start_ = bytes_.size();
        append(nlmsghdr{0, type, static_cast<uint16_t>(flags | NLM_F_REQUEST), sequence, 0});
        append(header);
    }
    void attribute(uint16_t type, std::unsigned_integral auto value) {
        attribute(type, std::as_bytes(std::span(&value, 1)));
    }
    void attribute(uint16_t type, const Netz::IpGenAddr& addr) {
        attribute(type, std::as_bytes(std::span(addr.data(), addr.size())));
    }
    void attribute(uint16_t type, std::string_view text) {
        attribute(type, std::as_bytes(std::span(text)));
    }
    void attribute(uint16_t type, Bytes data);
    // An attribute that contains those that `fill` writes.
    void nested(uint16_t type, const auto& fill) {
        const size_t start = bytes_.size();
        attribute(type | NLA_F_NESTED, Bytes());
        fill();
        const auto length = static_cast<uint16_t>(bytes_.size() - start);
        std::memcpy(bytes_.data() + start, &length, sizeof length);
    }
    // Copies a message that was written before, with another sequence number.
    void message(Bytes written, uint32_t sequence);

    Bytes bytes() const { return bytes_; }
    void clear() { bytes_.clear(); }

  private:
    template <class T>
    void append(const T& value) {
        append(std::as_bytes(std::span(&value, 1)));
    }
    void append(Bytes data);

    std::vector<std::byte> bytes_;
    size_t start_ = 0;  // of the message being written
};

}  // namespace Agent::Linux
