#include "agent/linux/ipsec/Charon.h"

#include <algorithm>
#include <system_error>

namespace Agent::Linux {

namespace {

// On the connection of commands: what lists consist of.
constexpr const char* elements[] = {"list-sa", "list-conn"};
// On the connection of events.
constexpr const char* subscribed[] = {"log", "ike-updown", "child-updown"};

}  // namespace

Charon::Charon(EventLoop& loop, Loom::TaskScheduler& scheduler, std::string socket,
               Callbacks callbacks)
    : loop_(loop),
      scheduler_(scheduler),
      socket_(std::move(socket)),
      callbacks_(std::move(callbacks)),
      reopen_(scheduler, Loom::call<&Charon::open>(*this)),
      silence_(scheduler, Loom::call<&Charon::handleSilence>(*this)) {
    reopen_.armIn({});
}

ViciConnection::Callbacks Charon::callbacks(void (Charon::*received)(const Vici::Packet&)) {
    return {[this, received](const Vici::Packet& packet) { (this->*received)(packet); },
            [this](const std::string& reason) { end(reason); }};
}

void Charon::open() {
    try {
        commands_.emplace(loop_, socket_, callbacks(&Charon::handleAnswer));
        events_.emplace(loop_, socket_, callbacks(&Charon::handleEvent));
    } catch (const std::system_error& error) {
        return end(error.code().message());
    }
    for (const char* name : elements) commands_->send(Vici::encode({Vici::Type::subscribe, name}));
    for (const char* name : subscribed) events_->send(Vici::encode({Vici::Type::subscribe, name}));
    unconfirmed_ = std::size(elements) + std::size(subscribed);
    silence_.armIn(answerTime);
}

void Charon::handleAnswer(const Vici::Packet& packet) {
    switch (packet.type) {
        case Vici::Type::confirmed:
            return handleEvent(packet);
        case Vici::Type::event:
            if (sent_ && queue_.front().element) queue_.front().element(packet.message);
            return;
        case Vici::Type::response: {
            if (!sent_) return end("charon has answered a command that was not sent");
            const Answer answer = std::move(queue_.front().answer);
            queue_.pop_front();
            sent_ = false;
            silence_.disarm();
            sendNext();
            if (answer) answer(packet.message);
            return;
        }
        default:
            return end("charon does not know " + (sent_ ? queue_.front().name : "an event"));
    }
}

void Charon::handleEvent(const Vici::Packet& packet) {
    if (packet.type == Vici::Type::event) {
        if (up_) callbacks_.event(packet.name, packet.message);
        return;
    }
    if (packet.type != Vici::Type::confirmed) return end("charon does not know an event");
    if (unconfirmed_ == 0) return end("charon has confirmed what was not subscribed to");
    if (--unconfirmed_ != 0) return;
    const auto up = [this](const Json& stats) {
        up_ = true;
        told_.clear();
        delay_ = firstDelay;
        callbacks_.up(stats);
    };
    request("stats", Json::object(), up);
}

void Charon::request(const std::string& command, const Json& message, Answer answer,
                     Element element) {
    queue_.push_back({command, Vici::encode({Vici::Type::request, command, message}),
                      std::move(answer), std::move(element)});
    sendNext();
}

void Charon::sendNext() {
    if (sent_ || queue_.empty()) return;
    sent_ = true;
    silence_.armIn(answerTime);
    commands_->send(std::exchange(queue_.front().bytes, {}));
}

void Charon::drain() {
    const Loom::Instant end = scheduler_.now() + drainTime;
    while (up_ && !queue_.empty() && scheduler_.now() < end)
        commands_->await(std::chrono::milliseconds(50));
}

void Charon::handleSilence() {
    end("charon does not answer");
}

void Charon::end(std::string reason) {
    commands_.reset();
    events_.reset();
    queue_.clear();
    sent_ = false;
    silence_.disarm();
    up_ = false;
    reopen_.armIn(delay_);
    delay_ = std::min(2 * delay_, lastDelay);
    if (std::exchange(told_, reason) != reason) callbacks_.down(reason);
}

}  // namespace Agent::Linux
