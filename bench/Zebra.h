// FRR's zebra, started in this process's network namespace, and a client of its next-hop tracking
// that implements the required part of its API. Message formats: FRR developer's guide, "Zebra
// Protocol", as of FRR 8.4.
#pragma once

#include <span>
#include <string>

#include "bench/Bench.h"
#include "bench/RunDirectory.h"
#include "platform/netz/IpGenAddr.h"

namespace Bench {

class Zebra {
  public:
    // Why zebra cannot run here; empty if it can.
    static std::string refusal();

    // REQUIRES: no refusal. Tracks IPv4 addresses, at most 256, which differ in their last octet.
    explicit Zebra(std::span<const Netz::IpGenAddr> nexthops);
    ~Zebra();
    Zebra(const Zebra&) = delete;
    Zebra& operator=(const Zebra&) = delete;

    // Waits until each next hop has been reported as reached through this gateway; false after some
    // seconds.
    bool follow(const Netz::IpGenAddr& gateway);

  private:
    bool connect();
    void send(U32 command, const std::string& body);
    bool receive(std::string& message);

    const size_t tracked_;
    RunDirectory directory_;
    int process_ = 0;
    int socket_ = -1;
    std::string received_;
};

}  // namespace Bench
