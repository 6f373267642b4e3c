// Answers the probes of others in a thread of its own. The other ends hold their paths for dead if
// answers fail to come for some hundred milliseconds, so answers do not wait for the event thread.
//
// Owned by PathProbing, which calls it on the event thread. The thread knows nothing but the
// reflector and its sockets; one lock guards these, held for one batch of packets at most.
#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "agent/linux/quality/Reflector.h"

namespace Agent::Linux {

class ReflectorThread {
  public:
    ReflectorThread();
    ~ReflectorThread();

    // Whose probes are answered, as in Reflector.
    void peersAre(const std::map<Reflector::Pair, Vel::Secret>& peers,
                  const std::optional<Vel::Secret>& strangers);
    // Where they are answered. Calls refused(place, reason) where the kernel does not permit it;
    // another call tries again.
    void placesAre(const std::set<Place>& places,
                   const std::function<void(const Place&, const std::string&)>& refused);
    ReflectorCounts counts() const;

  private:
    struct Answering {
        explicit Answering(const Place& place);

        const Place place;
        ProbeSocket socket;
    };

    void run();
    void answer(Answering& answering);

    const int epoll_, end_;  // end_ becomes readable when the thread is to end
    mutable std::mutex mutex_;
    Reflector reflector_;                                // guarded by mutex_
    std::map<int, std::unique_ptr<Answering>> sockets_;  // by descriptor; guarded by mutex_
    // The answers to one batch of probes; used by the thread only.
    std::array<std::array<std::byte, ProbeSocket::maxSize>, ProbeSocket::batch> buffers_;
    std::thread thread_;
};

}  // namespace Agent::Linux
