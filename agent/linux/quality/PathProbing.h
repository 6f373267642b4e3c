// Probes each path from its source to its destination on its own interface (RFC 8762), publishes
// what comes of it, and answers the probes of the other ends. Owned by the platform; used on the
// event thread.
//
// Probes of all paths are spread over their intervals and sent at ticks. Answers wait in the socket
// until the next tick: the kernel has stamped them, so a tick costs a few system calls, however
// many packets there are, and nothing wakes the process in between. A path is judged only at a
// tick, after everything that has come for it was read.
#pragma once

#include <functional>
#include <map>
#include <set>

#include "agent/base/Json.h"
#include "agent/linux/kernel/LinkState.h"
#include "agent/linux/quality/DayClock.h"
#include "agent/linux/quality/ProbeSession.h"
#include "agent/linux/quality/Reflector.h"
#include "agent/router/PathQuality.h"
#include "agent/shell/EventLoop.h"
#include "nav/root/NavInputs.h"

namespace Agent::Linux {

class PathProbing {
  public:
    // Between two publications of the figures; a change of state is published at once.
    static constexpr Loom::Duration publishInterval = std::chrono::seconds(1);

    // The loop and `interfaces`, the present ones, must outlive this.
    PathProbing(const Nav::NavInputs& inputs, ForwardingPtr config, QualityStatus& quality,
                EventLoop& loop, std::function<const InterfaceView&()> interfaces);
    ~PathProbing();

    // A path whose next hop answers, and the interface that it leaves by.
    void pathIs(uint32_t pathIndex, const Nav::PathKey& path, const Interface& interface);
    void pathDel(uint32_t pathIndex);
    // Called after a change of the configuration.
    void configured();

    // What became of probes and answers so far: an object of
    //     paths      [{path, source, destination, and the fields of ProbeCounts}]
    //     reflector  {the fields of ReflectorCounts}
    Json report() const;

  private:
    // The end of paths at one address on one interface.
    struct Place {
        Netz::IpGenAddr addr;
        uint32_t ifIndex = 0;
        auto operator<=>(const Place&) const = default;
    };
    struct Source;
    struct Path {
        Nav::PathKey key;
        Place place;
        Netz::IntfId interface;
        Source* source = nullptr;             // null: not probed
        std::optional<ProbeSession> session;  // set exactly while source is
    };
    using PathEntry = std::pair<const uint32_t, Path>;
    struct Answering;

    ProbeValues valuesOf(const Netz::IntfId& interface) const;
    void follow(uint32_t pathIndex, Path& path);
    void end(uint32_t pathIndex, Path& path);
    Source* sourceAt(const Place& place);
    void tick();
    static Loom::Instant nextOf(const Source& source);
    void readAnswers(Source& source);
    void sendDue(Source& source, Loom::Instant now);
    void arm();
    void publish();
    void publish(uint32_t pathIndex, const Path& path);
    void reflect();
    void handleProbes(Answering& answering);
    void report(const Place& place, const std::string& what);

    const Nav::NavInputs in_;
    const ForwardingPtr config_;
    const Vel::Ptr<QualityStatus> quality_;
    EventLoop& loop_;
    const std::function<const InterfaceView&()> interfaces_;
    DayClock clock_;
    std::map<uint32_t, Path> paths_;  // by path index
    std::map<Place, std::unique_ptr<Source>> sources_;
    std::map<Nav::PathKey, ProbeSession::Memory> memories_;  // of paths that are not probed now
    Reflector reflector_;
    std::map<Place, std::unique_ptr<Answering>> answering_;
    std::set<std::pair<Place, std::string>> reported_;
    uint16_t lastSessionId_;
    Loom::Timer tick_, publication_;
};

}  // namespace Agent::Linux
