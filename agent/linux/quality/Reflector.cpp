#include "agent/linux/quality/Reflector.h"

#include <algorithm>
#include <utility>

namespace Agent::Linux {

namespace {

std::optional<StampKey> keyFrom(const Vel::Secret& secret) {
    return secret.text.empty() ? std::nullopt : std::optional<StampKey>(secret.text);
}

}  // namespace

Reflector::Peer::Peer(const Vel::Secret& secret) : secret(secret), key(keyFrom(secret)) {}

void Reflector::Peer::secretIs(const Vel::Secret& value) {
    if (secret == value) return;
    secret = value;
    before.emplace(std::exchange(key, keyFrom(value)));
}

void Reflector::peersAre(const std::map<Pair, Vel::Secret>& peers,
                         const std::optional<Vel::Secret>& strangers) {
    std::erase_if(peers_, [&](const auto& peer) { return !peers.contains(peer.first); });
    for (const auto& [pair, secret] : peers)
        peers_.try_emplace(pair, secret).first->second.secretIs(secret);
    if (!strangers) return strangers_.reset();
    if (!strangers_) strangers_.emplace(*strangers);
    strangers_->secretIs(*strangers);
}

// The key to read and answer a packet with.
const StampKey* Reflector::Peer::keyOf(std::span<const std::byte> packet) {
    const auto opens = [&](const std::optional<StampKey>& each) {
        return defectOf(packet, each ? &*each : nullptr) == StampDefect::none;
    };
    // Without a key every packet can be read, those that are signed with the one before too.
    const bool isOld = before && (*before || !opens(key)) && opens(*before);
    if (!isOld && opens(key)) before.reset();
    const std::optional<StampKey>& used = isOld ? *before : key;
    return used ? &*used : nullptr;
}

bool Reflector::Peer::isWithinRate(Loom::Instant now) {
    const std::chrono::duration<double> passed = now - creditAt;
    credit = std::min(credit + passed.count() * maxRate, maxRate / 10);
    creditAt = now;
    if (credit < 1) return false;
    credit -= 1;
    return true;
}

// Null if the peer has too many.
Reflector::Session* Reflector::Peer::session(const Pair& ends, uint16_t port, uint16_t id,
                                             Loom::Instant now) {
    const auto is = [&](const Session& each) {
        return each.port == port && each.id == id && each.ends == ends;
    };
    auto found = std::ranges::find_if(sessions, is);
    if (found == sessions.end() && sessions.size() == maxSessions) {
        found = std::ranges::min_element(sessions, {}, &Session::usedAt);
        if (now - found->usedAt < idle) return nullptr;
        *found = {.ends = ends, .port = port, .id = id};
    } else if (found == sessions.end()) {
        found = sessions.insert(found, {.ends = ends, .port = port, .id = id});
    }
    found->usedAt = now;
    return &*found;
}

// A sender that starts again counts from 0, with later timestamps. A replayed packet has an earlier
// one. Without authentication, timestamps prove nothing, so only what came before is refused.
bool Reflector::Session::takes(const SenderPacket& packet, bool authenticated) {
    constexpr int32_t width = 64;
    const bool isLater = static_cast<int64_t>(packet.timestamp - latest) > 0;
    const auto ahead = static_cast<int32_t>(packet.sequence - highest);
    const bool isFirst = received == 0;
    if (!isFirst && ahead <= 0 && ahead > -width) {
        const uint64_t bit = uint64_t{1} << -ahead;
        if (!(received & bit)) return received |= bit, true;
        if (!isLater) return false;
    } else if (!isFirst && authenticated && !isLater) {
        return false;
    }
    received = !isFirst && ahead > 0 && ahead < width ? received << ahead | 1 : 1;
    highest = packet.sequence;
    latest = packet.timestamp;
    return true;
}

std::span<const std::byte> Reflector::answer(const Netz::IpGenAddr& local,
                                             const ProbeDatagram& datagram,
                                             std::span<std::byte> buffer, Loom::Instant now,
                                             std::chrono::nanoseconds sinceEpoch) {
    const auto refuse = [](uint64_t& count) { return ++count, std::span<const std::byte>(); };
    const Pair ends{local, datagram.peer};
    const auto found = peers_.find(ends);
    if (found == peers_.end() && !strangers_) return refuse(counts_.stranger);
    Peer& peer = found == peers_.end() ? *strangers_ : found->second;
    const StampKey* const key = peer.keyOf(datagram.data);
    const StampDefect defect = defectOf(datagram.data, key);
    if (defect == StampDefect::tooShort) return refuse(counts_.malformed);
    if (defect == StampDefect::notAuthentic) return refuse(counts_.notAuthentic);
    const SenderPacket probe = readSender(datagram.data, key);
    Session* const session = peer.session(ends, datagram.port, probe.sessionId, now);
    if (!session) return refuse(counts_.limited);
    if (!session->takes(probe, key != nullptr)) return refuse(counts_.replayed);
    if (!peer.isWithinRate(now)) return refuse(counts_.limited);
    ++counts_.answered;
    const std::span answer = buffer.first(datagram.data.size());
    std::ranges::copy(datagram.data, answer.begin());
    const auto base =
        write(ReflectorPacket{.sequence = session->next++,
                              .timestamp = ntpStamp(sinceEpoch),
                              .received = ntpStamp(datagram.sinceEpoch.value_or(sinceEpoch)),
                              .sender = probe,
                              .senderTtl = datagram.ttl},
              answer, key);
    refuseExtensions(answer.subspan(base.size()));
    return answer;
}

}  // namespace Agent::Linux
