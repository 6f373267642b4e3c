// The choice of the member paths that carry the traffic of each load-balance key: priorities,
// constraints, and what was measured, damped so that a path does not come and go with every
// measurement. Owned by a platform's forwarding side; used on the event thread.
//
// A path is suitable for constraints from the start, unless its first figures exceed them. Later it
// has to exceed them without interruption for its group's `down` delay to become unsuitable, and to
// meet them for its `up` delay to become suitable again. A path that becomes unsuitable within
// `calmTime` of its return needs twice the delay of that return for its next one, up to
// `longestReturn`. A path of which nothing is measured is suitable.
//
// Each move that a measurement causes is logged with the measurement.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <set>

#include "agent/router/Constraints.h"

namespace Agent {

class MemberChoice {
  public:
    struct Delays {
        Loom::Duration up{}, down{};
    };
    // In multiples of a path's `up` delay.
    static constexpr int calmTime = 300;
    static constexpr int longestReturn = 64;

    // The forwarding side that acts on the choice.
    struct User {
        // How long the paths of a path group have to be good, or bad.
        std::function<Delays(const Vel::String& pathGroup)> delays;
        // Whether packets can be sent over a path now.
        std::function<bool(Vel::U32 pathIndex)> usable;
        // Another choice may be due: an entry was created, removed, or has got other members or
        // constraints, or a measurement made a member suitable or unsuitable.
        std::function<void(const Nav::LbProfileKey&)> choiceChanged;
    };

    MemberChoice(const Nav::NavInputs& inputs, QualityStatus& quality, User user);

    // Begins to follow the entries, and calls the user for each. REQUIRES: called once.
    void start();

    Chosen choose(const Nav::LbProfileStatusEntry& entry) const;
    // "voice to 10.255.0.2", with the VRF unless it is "default".
    std::string trafficOf(const Nav::LbProfileKey& key) const;

  private:
    // How a path came to be suitable, or not, for some constraints.
    struct Standing {
        bool judged = false;
        std::optional<Loom::Instant> contrary;  // since when the figures say the opposite
        std::optional<Loom::Instant> returned;  // when the path became suitable again
        Loom::Duration wait{};                  // of its last return, or for its next
    };
    // The keys with the same constraints. Exists while it has keys.
    struct Group {
        std::set<Nav::LbProfileKey> keys;
        std::map<Vel::U32, Standing> paths;  // those with figures, by path index
        std::set<Vel::U32> unsuitable;       // of `paths`
    };
    using Groups = std::map<Constraints, Group>;

    struct VelLbProfileStatusEntry final : Vel::Object {
        VelLbProfileStatusEntry(MemberChoice& choice, Nav::LbProfileStatusEntry& entry);
        void handleInitialized() { handleGeneration(); }
        void handleGeneration();
        void doCleanup();

        MemberChoice& choice;
        const Vel::Ptr<Nav::LbProfileStatusEntry> entry;
        Constraints constraints;  // as listed in groups_
        Vel::Subscription generation;
    };

    void handleLbProfileStatus();
    void list(const Nav::LbProfileKey& key, const Constraints& constraints);
    void unlist(const Nav::LbProfileKey& key, const Constraints& constraints);
    void handleQuality(const Vel::U32& pathIndex);
    void handleTimer();
    void judge(Groups::value_type& group, Vel::U32 pathIndex);
    void suitableIs(Groups::value_type& group, Vel::U32 pathIndex, bool suitable);
    const Nav::LbProfileStatusEntry* entryOf(const Nav::LbProfileKey& key) const;
    Delays delaysOf(const Group& group, Vel::U32 pathIndex) const;
    std::string reasonOf(const Constraints& constraints, Vel::U32 pathIndex) const;
    void report(const Nav::LbProfileKey& key, Vel::U32 pathIndex, const std::string& reason,
                const Chosen& before, const Chosen& after) const;

    const Nav::NavInputs in_;
    const Vel::Ptr<QualityStatus> quality_;
    const User user_;
    Groups groups_;
    Loom::Timer timer_;  // runs when the earliest delay is over
    std::optional<Loom::Instant> wake_;
    std::optional<Vel::EntryReactorsOf<VelLbProfileStatusEntry,
                                       decltype(Nav::LbProfileStatus::lbProfileStatusEntryAttr)>>
        entries_;
    Vel::Subscription lbProfileStatus_, measured_;
};

}  // namespace Agent
