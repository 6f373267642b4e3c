// Messages of the Versatile IKE Control Interface, by which charon is driven: packets over a
// stream socket, each with a length of four bytes in network order in front. The format is
// described in strongSwan's src/libcharon/plugins/vici/README.md.
//
// A message is a JSON object whose members are texts, lists of texts and objects. A text may have
// any bytes, so a message must not be printed as it is; it may also have secrets.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "agent/base/Json.h"

namespace Agent::Linux::Vici {

// Bytes that are not VICI. what() is the reason.
class Error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The number is the packet's first byte.
enum class Type : uint8_t {
    request,      // from here: a command
    response,     // to the oldest command without one
    unknown,      // the same, of a command that charon does not know
    subscribe,    // from here: to an event
    unsubscribe,  // from here
    confirmed,    // of the oldest subscription
    refused,      // the same, of an event that charon does not know
    event,
};

struct Packet {
    Type type = Type::request;
    std::string name{};  // of a command or event; empty of answers
    Json message = Json::object();

    bool operator==(const Packet&) const = default;
};

// The largest packet, in bytes without its length, that charon sends or takes.
inline constexpr size_t maxPacket = 512 * 1024;
inline constexpr int maxDepth = 16;  // of sections; charon's lists have 4

// With its length in front. Throws Error if it is too large, or a name or text is too long.
std::string encode(const Packet& packet);
// Of a packet without its length. Throws Error.
Packet decode(std::string_view bytes);

// Cuts what a socket delivers into packets.
class Stream {
  public:
    void append(std::string_view bytes) { bytes_.append(bytes); }
    // The next packet; empty until it is complete. Throws Error; nothing may follow then.
    std::optional<Packet> next();

  private:
    std::string bytes_;
    size_t taken_ = 0;  // of bytes_; always less than its size, or 0
};

// A member of a message as a text or a number; empty, or 0, if it is missing or of another kind.
std::string text(const Json& message, const char* name);
uint64_t number(const Json& message, const char* name);

}  // namespace Agent::Linux::Vici
