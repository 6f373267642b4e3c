#include "agent/linux/quality/ReflectorThread.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "agent/linux/kernel/Thread.h"
#include "agent/linux/quality/DayClock.h"
#include "agent/model/ForwardingConfig.h"
#include "platform/netz/Error.h"

namespace Agent::Linux {

namespace {

int opened(int descriptor) {
    if (descriptor < 0) throw std::system_error(errno, std::generic_category());
    return descriptor;
}

void follow(int epoll, int descriptor) {
    epoll_event event{.events = EPOLLIN, .data = {.fd = descriptor}};
    opened(epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event));
}

}  // namespace

ReflectorThread::Answering::Answering(const Place& place)
    : place(place), socket(ProbeSocket::Role::reflector, place, probePort) {}

ReflectorThread::ReflectorThread()
    : epoll_(opened(epoll_create1(EPOLL_CLOEXEC))), end_(opened(eventfd(0, EFD_CLOEXEC))) {
    follow(epoll_, end_);
    thread_ = startThread("reflector", [this] { run(); });
}

ReflectorThread::~ReflectorThread() {
    eventfd_write(end_, 1);
    thread_.join();
    close(end_);
    close(epoll_);
}

void ReflectorThread::peersAre(const std::map<Reflector::Pair, Vel::Secret>& peers,
                               const std::optional<Vel::Secret>& strangers) {
    const std::lock_guard lock(mutex_);
    reflector_.peersAre(peers, strangers);
}

void ReflectorThread::placesAre(
    const std::set<Place>& places,
    const std::function<void(const Place&, const std::string&)>& refused) {
    const std::lock_guard lock(mutex_);
    std::set<Place> missing = places;
    std::erase_if(sockets_,
                  [&](const auto& each) { return missing.erase(each.second->place) == 0; });
    for (const Place& place : missing) {
        try {
            auto answering = std::make_unique<Answering>(place);
            const int descriptor = answering->socket.fd();
            follow(epoll_, descriptor);
            sockets_.emplace(descriptor, std::move(answering));
        } catch (const std::runtime_error& error) {
            refused(place, error.what());
        }
    }
}

ReflectorCounts ReflectorThread::counts() const {
    const std::lock_guard lock(mutex_);
    return reflector_.counts();
}

void ReflectorThread::run() {
    for (;;) {
        std::array<epoll_event, 16> events;
        const int count = epoll_wait(epoll_, events.data(), events.size(), -1);
        for (int i = 0; i < count; ++i) {
            const int descriptor = events[static_cast<size_t>(i)].data.fd;
            if (descriptor == end_) return;
            const std::lock_guard lock(mutex_);
            // The socket may have been closed meanwhile.
            const auto found = sockets_.find(descriptor);
            if (found != sockets_.end()) answer(*found->second);
        }
    }
}

void ReflectorThread::answer(Answering& answering) {
    std::vector<ProbeDatagram> answers;
    answering.socket.receive([&](const ProbeDatagram& probe) {
        const auto answer = reflector_.answer(answering.place.addr, probe, buffers_[answers.size()],
                                              Loom::MonotonicClock().now(), DayClock::now());
        if (answer.empty()) return;
        answers.push_back({.peer = probe.peer,
                           .port = probe.port,
                           .trafficClass = static_cast<uint8_t>(probe.trafficClass & 0xfc),
                           .data = answer});
    });
    answering.socket.send(answers, [](size_t, int) {});
}

}  // namespace Agent::Linux
