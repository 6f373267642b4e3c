// The agent's session with charon: one connection for commands, which are sent one after the other,
// and one for events. The session is up when charon has told its state and sends events. It ends
// when a connection does, or when a command is not answered in time; then it is opened again, with
// growing delays.
//
// Owned by the IpsecService; on the event thread. No call but drain() waits for charon.
#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <string>

#include "agent/linux/ipsec/ViciConnection.h"
#include "platform/loom/TaskScheduler.h"

namespace Agent::Linux {

class Charon {
  public:
    // A charon that has not answered a command by then has hung.
    static constexpr Loom::Duration answerTime = std::chrono::seconds(10);
    static constexpr Loom::Duration drainTime = std::chrono::seconds(5);
    // Between two attempts to open the session; the delay doubles from the first to the second.
    static constexpr Loom::Duration firstDelay = std::chrono::milliseconds(50);
    static constexpr Loom::Duration lastDelay = std::chrono::seconds(1);

    struct Callbacks {
        // The session is up; with charon's answer to the command "stats".
        std::function<void(const Json& stats)> up;
        // The session is no longer up, or could not be opened, the first time or for another reason
        // than the last time. Commands without an answer are forgotten.
        std::function<void(const std::string& reason)> down;
        // One of the subscribed events.
        std::function<void(const std::string& name, const Json& message)> event;
    };
    using Answer = std::function<void(const Json& message)>;
    // Called for each element of a list; the answer comes after the last one.
    using Element = std::function<void(const Json& message)>;

    Charon(EventLoop& loop, Loom::TaskScheduler& scheduler, std::string socket,
           Callbacks callbacks);

    bool up() const { return up_; }
    // REQUIRES: up(). Throws Vici::Error if the message cannot be encoded.
    void request(const std::string& command, const Json& message, Answer answer,
                 Element element = {});
    // Waits until all commands are answered, but not longer than `drainTime`. For the end of the
    // agent, since charon forgets what a client that has gone has asked for.
    void drain();

  private:
    struct Command {
        std::string name, bytes;
        Answer answer;
        Element element;
    };

    void open();
    ViciConnection::Callbacks callbacks(void (Charon::*received)(const Vici::Packet&));
    void handleAnswer(const Vici::Packet& packet);
    void handleEvent(const Vici::Packet& packet);
    void sendNext();
    void handleSilence();
    void end(std::string reason);  // which may lie in a connection, and these are closed

    EventLoop& loop_;
    Loom::TaskScheduler& scheduler_;
    const std::string socket_;
    const Callbacks callbacks_;
    std::optional<ViciConnection> commands_, events_;
    size_t unconfirmed_ = 0;     // subscriptions of both connections
    std::deque<Command> queue_;  // the first one has been sent if sent_
    bool sent_ = false;
    bool up_ = false;
    std::string told_;  // the reason of the last callback, if that was down
    Loom::Duration delay_ = firstDelay;
    Loom::Timer reopen_, silence_;
};

}  // namespace Agent::Linux
