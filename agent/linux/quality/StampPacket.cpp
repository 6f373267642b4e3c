#include "agent/linux/quality/StampPacket.h"

#include <nettle/memops.h>

#include <algorithm>
#include <array>

#include "platform/netz/Assert.h"

namespace Agent::Linux {

namespace {

constexpr size_t signedSize = 96, digestSize = 16;

// Where the fields of a packet begin. What is between them must be zero when sent.
struct SenderLayout {
    size_t sequence, timestamp, errorEstimate, sessionId, size;
};
constexpr SenderLayout senderLayout{0, 4, 12, 14, stampSize};
constexpr SenderLayout signedSenderLayout{0, 16, 24, 26, authenticatedStampSize};

struct ReflectorLayout {
    SenderLayout own;  // the reflector's fields stand where the sender's do
    size_t received, senderSequence, senderTimestamp, senderErrorEstimate, senderTtl;
};
constexpr ReflectorLayout reflectorLayout{senderLayout, 16, 24, 28, 36, 40};
constexpr ReflectorLayout signedReflectorLayout{signedSenderLayout, 32, 48, 64, 72, 80};

// Numbers in network byte order.
template <class T>
void put(std::span<std::byte> packet, size_t at, T value) {
    for (size_t i = sizeof(T); i-- > 0; value = static_cast<T>(static_cast<uint64_t>(value) >> 8))
        packet[at + i] = static_cast<std::byte>(value);
}
template <class T>
void get(std::span<const std::byte> packet, size_t at, T& value) {
    uint64_t wide = 0;
    for (size_t i = 0; i < sizeof(T); ++i) wide = wide << 8 | static_cast<uint8_t>(packet[at + i]);
    value = static_cast<T>(wide);
}

// The first octets of a packet, all zero.
std::span<std::byte> clear(std::span<std::byte> to, size_t size) {
    VEL_ASSERT(to.size() >= size, "a buffer smaller than the packet");
    std::ranges::fill(to.first(size), std::byte{0});
    return to.first(size);
}

const uint8_t* octets(std::span<const std::byte> bytes) {
    return reinterpret_cast<const uint8_t*>(bytes.data());
}

}  // namespace

StampKey::StampKey(std::string_view secret) {
    hmac_sha256_set_key(&keyed_, secret.size(), reinterpret_cast<const uint8_t*>(secret.data()));
}

void StampKey::digest(std::span<const std::byte> packet, uint8_t* to) const {
    hmac_sha256_ctx context = keyed_;
    hmac_sha256_update(&context, signedSize, octets(packet));
    hmac_sha256_digest(&context, digestSize, to);
}

void StampKey::sign(std::span<std::byte> packet) const {
    digest(packet, reinterpret_cast<uint8_t*>(packet.subspan(signedSize).data()));
}

bool StampKey::signedIt(std::span<const std::byte> packet) const {
    std::array<uint8_t, digestSize> expected;
    digest(packet, expected.data());
    return memeql_sec(expected.data(), octets(packet.subspan(signedSize)), digestSize) != 0;
}

StampDefect defectOf(std::span<const std::byte> packet, const StampKey* key) {
    if (packet.size() < (key ? authenticatedStampSize : stampSize)) return StampDefect::tooShort;
    if (key && !key->signedIt(packet)) return StampDefect::notAuthentic;
    return StampDefect::none;
}

SenderPacket readSender(std::span<const std::byte> packet, const StampKey* key) {
    const SenderLayout& layout = key ? signedSenderLayout : senderLayout;
    SenderPacket result;
    get(packet, layout.sequence, result.sequence);
    get(packet, layout.timestamp, result.timestamp);
    get(packet, layout.errorEstimate, result.errorEstimate);
    get(packet, layout.sessionId, result.sessionId);
    return result;
}

std::span<std::byte> write(const SenderPacket& packet, std::span<std::byte> to,
                           const StampKey* key) {
    const SenderLayout& layout = key ? signedSenderLayout : senderLayout;
    to = clear(to, layout.size);
    put(to, layout.sequence, packet.sequence);
    put(to, layout.timestamp, packet.timestamp);
    put(to, layout.errorEstimate, packet.errorEstimate);
    put(to, layout.sessionId, packet.sessionId);
    if (key) key->sign(to);
    return to;
}

ReflectorPacket readReflector(std::span<const std::byte> packet, const StampKey* key) {
    const ReflectorLayout& layout = key ? signedReflectorLayout : reflectorLayout;
    ReflectorPacket result;
    get(packet, layout.own.sequence, result.sequence);
    get(packet, layout.own.timestamp, result.timestamp);
    get(packet, layout.own.errorEstimate, result.errorEstimate);
    get(packet, layout.own.sessionId, result.sender.sessionId);
    get(packet, layout.received, result.received);
    get(packet, layout.senderSequence, result.sender.sequence);
    get(packet, layout.senderTimestamp, result.sender.timestamp);
    get(packet, layout.senderErrorEstimate, result.sender.errorEstimate);
    get(packet, layout.senderTtl, result.senderTtl);
    return result;
}

std::span<std::byte> write(const ReflectorPacket& packet, std::span<std::byte> to,
                           const StampKey* key) {
    const ReflectorLayout& layout = key ? signedReflectorLayout : reflectorLayout;
    to = clear(to, layout.own.size);
    put(to, layout.own.sequence, packet.sequence);
    put(to, layout.own.timestamp, packet.timestamp);
    put(to, layout.own.errorEstimate, packet.errorEstimate);
    put(to, layout.own.sessionId, packet.sender.sessionId);
    put(to, layout.received, packet.received);
    put(to, layout.senderSequence, packet.sender.sequence);
    put(to, layout.senderTimestamp, packet.sender.timestamp);
    put(to, layout.senderErrorEstimate, packet.sender.errorEstimate);
    put(to, layout.senderTtl, packet.senderTtl);
    if (key) key->sign(to);
    return to;
}

void refuseExtensions(std::span<std::byte> extensions) {
    constexpr std::byte unrecognised{0x80}, malformed{0x40}, integrity{0x20};
    constexpr size_t header = 4;  // flags, type, length of the value
    while (extensions.size() >= header) {
        uint16_t length = 0;
        get(extensions, 2, length);
        const bool fits = length <= extensions.size() - header;
        extensions[0] &= ~(malformed | integrity);
        extensions[0] |= unrecognised | (fits ? std::byte{0} : malformed);
        if (!fits) return;
        extensions = extensions.subspan(header + length);
    }
}

uint64_t ntpStamp(std::chrono::nanoseconds sinceEpoch) {
    constexpr uint64_t from1900 = 2'208'988'800;
    const auto nanoseconds = static_cast<uint64_t>(sinceEpoch.count());
    const uint64_t fraction = ((nanoseconds % 1'000'000'000) << 32) / 1'000'000'000;
    return (nanoseconds / 1'000'000'000 + from1900) << 32 | fraction;  // the era is not sent
}

std::chrono::nanoseconds between(uint64_t earlier, uint64_t later, uint16_t errorEstimate) {
    using std::chrono::nanoseconds;
    constexpr int64_t second = 1'000'000'000;
    if (errorEstimate & ErrorEstimate::ptpFormat) {
        const auto seconds = static_cast<int32_t>((later >> 32) - (earlier >> 32));
        const auto rest =
            static_cast<int64_t>(later & 0xffffffff) - static_cast<int64_t>(earlier & 0xffffffff);
        return nanoseconds(seconds * second + rest);
    }
    const auto difference = static_cast<int64_t>(later - earlier);
    const auto rest = static_cast<int64_t>(static_cast<uint64_t>(difference) & 0xffffffff);
    return nanoseconds((difference >> 32) * second + ((rest * second) >> 32));
}

}  // namespace Agent::Linux
