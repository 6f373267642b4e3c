// Probes each path from its source to its destination on its own interface (RFC 8762), publishes
// what comes of it, and has the probes of the other ends answered. Owned by the platform; used on
// the event thread.
//
// Probes are sent at ticks, those of all paths at as few moments of their interval as possible:
// waking the process costs more than a packet. Answers wait in the socket until the next tick; the
// kernel has stamped them. A path is judged only at a tick, after everything that has come for it
// was read.
#pragma once

#include <functional>
#include <map>
#include <set>

#include "agent/base/Json.h"
#include "agent/linux/kernel/LinkState.h"
#include "agent/linux/quality/DayClock.h"
#include "agent/linux/quality/ProbeSession.h"
#include "agent/linux/quality/ReflectorThread.h"
#include "agent/router/PathQuality.h"
#include "nav/root/NavInputs.h"

namespace Agent::Linux {

class PathProbing {
  public:
    // The figures of a path are published each tenth of its window, and at least as often as this;
    // a change of state at once.
    static constexpr Loom::Duration publishInterval = std::chrono::seconds(1);
    // What the kernel has refused is tried again, and new interfaces are found.
    static constexpr Loom::Duration reviewInterval = std::chrono::seconds(1);

    // `interfaces` gives the present ones.
    PathProbing(const Nav::NavInputs& inputs, ForwardingPtr config, QualityStatus& quality,
                std::function<const InterfaceView&()> interfaces);
    ~PathProbing();

    // A path whose next hop answers, the interface that it leaves by, and whether it is secured by
    // IPsec. Probes of a secured path are, too.
    void pathIs(uint32_t pathIndex, const Nav::PathKey& path, const Interface& interface,
                bool secured);
    void pathDel(uint32_t pathIndex);
    // Called after a change of the configuration.
    void configured();
    // Whether IPsec did not protect the latest probe of a secured path, so that it was dropped.
    bool unprotected(uint32_t pathIndex) const;

    // What became of probes and answers so far: an object of
    //     paths      [{path, source, destination, and the fields of ProbeCounts}]
    //     reflector  {the fields of ReflectorCounts}
    Json report() const;

  private:
    struct Source;
    struct Path {
        Nav::PathKey key;
        Netz::IntfId interface;
        uint32_t ifIndex = 0;
        bool secured = false;
        bool unprotected = false;             // its latest probe was
        Place place;                          // where it is probed
        Source* source = nullptr;             // null: not probed
        std::optional<ProbeSession> session;  // set exactly while source is
        size_t slot = 0;                      // of its source
        Loom::Instant publishAt{};
    };
    using PathEntry = std::pair<const uint32_t, Path>;

    ProbeValues valuesOf(const Netz::IntfId& interface) const;
    // Where packets between a path's source and others leave and come.
    Place placeOf(const Netz::IpGenAddr& source, uint32_t ifIndex, bool secured) const;
    void follow(uint32_t pathIndex, Path& path);
    void end(uint32_t pathIndex, Path& path);
    Source* sourceAt(const Place& place);
    void tick();
    static Loom::Instant nextOf(const Source& source);
    void readAnswers(Source& source);
    void sendDue(Source& source, Loom::Instant now);
    void arm();
    void publish(uint32_t pathIndex, Path& path);
    void review();
    void reflect();
    void report(const Place& place, const std::string& what);

    const Nav::NavInputs in_;
    const ForwardingPtr config_;
    const Vel::Ptr<QualityStatus> quality_;
    const std::function<const InterfaceView&()> interfaces_;
    DayClock clock_;
    std::map<uint32_t, Path> paths_;  // by path index
    std::map<Place, std::unique_ptr<Source>> sources_;
    std::map<Nav::PathKey, ProbeSession::Memory> memories_;  // of paths that are not probed now
    ReflectorThread reflector_;
    std::set<std::pair<Place, std::string>> reported_;
    uint16_t lastSessionId_;
    Loom::Timer tick_, review_;
};

}  // namespace Agent::Linux
