#include "nav/counters/NavShard.h"

#include "nav/config/NavConstants.h"

namespace NavShard {

VEL_DEFINE(NavShard, NavCounters)

void NavPathCounterIndex::refuse() {
    throw Vel::RangeError(
        "NavPathCounterIndex::value < NavPathCounterIndex::min or > NavPathCounterIndex::max not "
        "allowed");
}

Vel::Ptr<LbProfileCounterControl> LbProfileCounterControl::writer(const Shard::Namespace& space) {
    auto control = Vel::make<LbProfileCounterControl>();
    control->writer_ = std::make_unique<LbProfileCounterMap::Writer>(space, lbProfileCounterName,
                                                                     Nav::NavConstants::maxLbIndex);
    return control;
}

Vel::Ptr<LbProfileCounterControl> LbProfileCounterControl::reader(const Shard::Namespace& space) {
    auto control = Vel::make<LbProfileCounterControl>();
    control->reader_ = std::make_unique<LbProfileCounterMap::Reader>(space, lbProfileCounterName);
    return control;
}

Vel::Ptr<NavCounters> navCountersFactory(const Vel::Name& name) {
    return Vel::make<NavCounters>(name);
}

void NavCounters::lbProfileCounterControlIs(Vel::Ptr<LbProfileCounterControl> control) {
    if (control_ == control) return;
    control_ = std::move(control);
    lbProfileCounterNotifyMountStatus();
}

LbProfileCounterMap::Writer& NavCounters::writer() const {
    if (!control_ || !control_->writer_)
        throw Vel::Error("NavCounters \"" + name() + "\" is not mounted for writing");
    return *control_->writer_;
}

void NavCounters::lbProfileCounterIs(const NavLbProfileCounterEntry& entry) {
    writer().valueIs(entry.key, entry);
    lbProfileCounterNotify(entry.key);
}

void NavCounters::lbProfileCounterDel(const NavLbProfileCounterKey& key) {
    if (writer().valueDel(key)) lbProfileCounterNotify(key);
}

void NavCounters::lbProfileCounterDelAll() {
    writer().clear();
    lbProfileCounterNotifyCollection();
}

bool NavCounters::lbProfileCounterCommit(const NavLbProfileCounterEntry& entry) {
    lbProfileCounterIs(entry);
    return lbProfileCounterCommit();
}

bool NavCounters::lbProfileCounterCommit() {
    if (writer().commit()) return true;
    lbProfileCounterNotifyCollection();
    return false;
}

void NavCounters::lbProfileCounterMounted() {
    writer().mountComplete();
}

bool NavCounters::lbProfileCounter(const NavLbProfileCounterKey& key,
                                   NavLbProfileCounterEntry& entry) const {
    if (!control_) return false;
    if (control_->writer_) return control_->writer_->find(key, entry);
    return control_->reader_->find(key, entry) == Shard::Lookup::found;
}

int NavCounters::lbProfileCounterFd() const {
    return control_ && control_->reader_ ? control_->reader_->fd() : -1;
}

bool NavCounters::lbProfileCounterAwait(std::chrono::milliseconds timeout) const {
    return control_ && control_->reader_ && control_->reader_->await(timeout);
}

std::string NavCounters::lbProfileCounterRefusal() const {
    return control_ && control_->reader_ ? control_->reader_->refusal() : std::string();
}

Shard::MapState NavCounters::lbProfileCounterUpdate() {
    if (!control_ || !control_->reader_) return Shard::MapState::absent;
    const Vel::Ptr<LbProfileCounterControl> control = control_;
    const Shard::MapState before = std::exchange(state_, control->reader_->update());
    const Shard::MapState now = state_;
    const Shard::News news = control->reader_->changes(
        [&](const NavLbProfileCounterKey& key) { lbProfileCounterNotify(key); });
    if (news == Shard::News::everything) lbProfileCounterNotifyCollection();
    if (now != before) {
        lbProfileCounterNotifyMountStatus();
        if (now == Shard::MapState::quiesced) lbProfileCounterNotifyQuiesced();
    }
    return now;
}

}  // namespace NavShard

using NavShard::NavLbProfileCounterEntry;

void Vel::Codec<NavLbProfileCounterEntry>::text(std::string& out,
                                                const NavLbProfileCounterEntry& entry) {
    out += "Value('NavShard::NavLbProfileCounterEntry', ** {'key': " + valueToStrep(entry.key);
    out += ", 'lbKeyInfo': " + valueToStrep(entry.lbKeyInfo);
    out += ", 'outBytes': " + valueToStrep(entry.outBytes);
    out += ", 'outPkts': " + valueToStrep(entry.outPkts);
    out += ", 'throughput': " + valueToStrep(entry.throughput);
    out += ", 'flows': " + valueToStrep(entry.flows) + ", 'pathCounter': [";
    const char* separator = "";
    for (const auto& path : entry.pathCounter) {
        out += std::exchange(separator, ", ") + valueToStrep(path);
    }
    out += "]})";
}

std::optional<NavLbProfileCounterEntry> Vel::Codec<NavLbProfileCounterEntry>::parse(TextReader&) {
    throw Error("No String constructor for NavLbProfileCounterEntry - has collection");
}

// The used ones of the path slots.
Vel::Datum Vel::Codec<NavLbProfileCounterEntry>::datum(const NavLbProfileCounterEntry& entry) {
    Datum::Members paths;
    for (const auto& path : entry.pathCounter)
        if (path != NavShard::NavPathCounterEntry{})
            paths.push_back(
                {std::to_string(path.pathId), Codec<NavShard::NavPathCounterEntry>::datum(path)});
    return {Datum::Members{
        {"lbId", {U64{entry.key.lbId}}},
        {"lbKeyInfo", Codec<Nav::LbProfileKey>::datum(entry.lbKeyInfo)},
        {"outBytes", {entry.outBytes}},
        {"outPkts", {entry.outPkts}},
        {"throughput", {entry.throughput}},
        {"flows", {entry.flows}},
        {"pathCounter", {std::move(paths)}},
    }};
}
