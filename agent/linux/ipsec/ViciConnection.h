// A connection to charon's VICI socket. It reads and writes as much as the socket takes without
// waiting, in callbacks of the event loop. A connection that ends, fails, delivers something other
// than VICI, or no longer takes what is sent, is closed for good.
//
// Owned by Charon; on the event thread.
#pragma once

#include <functional>
#include <string>

#include "agent/linux/ipsec/Vici.h"
#include "agent/shell/EventLoop.h"

namespace Agent::Linux {

class ViciConnection {
  public:
    struct Callbacks {
        // May destroy the connection.
        std::function<void(const Vici::Packet&)> received;
        // Called once, when the connection is closed; may destroy it.
        std::function<void(const std::string& reason)> closed;
    };
    // The most that may wait to be sent, in bytes: several packets for each of 128 connections.
    static constexpr size_t maxWaiting = 4 << 20;
    // The most that is read in one callback, so that other events are not kept waiting.
    static constexpr size_t readAtOnce = 16 * 1024;

    // Connects at once or throws std::system_error.
    ViciConnection(EventLoop& loop, const std::string& path, Callbacks callbacks);
    ~ViciConnection();
    ViciConnection(const ViciConnection&) = delete;
    ViciConnection& operator=(const ViciConnection&) = delete;

    // A packet's bytes, with its length. Does not call back.
    void send(const std::string& bytes);
    // Waits for an answer, outside the event loop, and delivers it.
    void await(std::chrono::milliseconds patience);

  private:
    // As much of what waits as the socket takes now.
    void flush();
    void handleReadable();
    void handleWritable();
    void close(const std::string& reason);

    EventLoop& loop_;
    const Callbacks callbacks_;
    const int socket_;
    Vici::Stream stream_;
    std::string waiting_;  // bytes to be sent; while there are any, writable_ is registered
    std::string broken_;   // why nothing more can be sent; handleWritable() closes
    EventLoop::Registration readable_, writable_;
    bool* alive_ = nullptr;  // set to false by the destructor; non-null while packets are delivered
};

}  // namespace Agent::Linux
