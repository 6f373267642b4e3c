#include "agent/host/Host.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include "agent/model/Config.h"
#include "agent/observe/Explain.h"
#include "agent/observe/Foresight.h"
#include "agent/observe/Interfaces.h"
#include "agent/observe/Validate.h"

namespace Agent {

namespace {

Nav::NavDb* databaseOf(const Vel::Ptr<Nav::NavRootSm>& root) {
    const Nav::NavContainer* container = root ? root->navContainer() : nullptr;
    return container ? container->navDb() : nullptr;
}

std::vector<Root> makeRoots(const Nav::NavInputs& in, const Platform& platform,
                            const Vel::Ptr<Nav::NavRootSm>& root, ForwardingConfig* forwarding,
                            IpsecConfig* ipsec) {
    std::vector<Root> roots;
    const std::string written =
        std::string("/") + configName +
        (forwarding ? std::string(" and /") + forwardingName + " are" : " is") + " written";
    auto add = [&](auto& entity, const std::string& owner) {
        std::string protection;
        if (!platform.manual() && !owner.empty())
            protection = "this belongs to " + owner + "; on platform " + platform.name() +
                         " only " + written + " from outside";
        roots.push_back(Root::of(entity.velKey(), entity, protection));
    };
    const std::string library = "path selection", interfaces = "the interface service",
                      routing = "the routing service";
    add(*in.cliConfig, "");
    add(*in.pathConfigDir, library);
    add(*in.navStatusDir, library);
    add(*in.siteGroupStatus, library);
    add(*in.hwPathStatus, "the forwarding agent");
    add(*in.ipsecPathConfigDir, library);
    add(*in.ipsecPathStatusDir, "the IPsec service");
    add(*in.navFeaturePolicyDir, library);
    add(*in.ipStatusDir, interfaces);
    add(*in.ip6StatusDir, interfaces);
    add(*in.nexthopConfig, library);
    add(*in.nexthopStatus, routing);
    add(*in.forwardingStatus, routing);
    add(*in.forwarding6Status, routing);
    add(*in.routingHwRouteStatus, routing);
    roots.push_back({"navDb", &Nav::NavDb::velType,
                     [&root]() -> Vel::Entity* { return databaseOf(root); },
                     "this belongs to path selection, which alone writes it"});
    roots.push_back({forwardingName, &ForwardingConfig::velType,
                     [forwarding]() -> Vel::Entity* { return forwarding; },
                     forwarding ? "" : notForwarding});
    roots.push_back({ipsecName, &IpsecConfig::velType, [ipsec]() -> Vel::Entity* { return ipsec; },
                     "IPsec profiles are written only by the file of --ipsec"});
    return roots;
}

// A file in memory: accepts an answer of any size without blocking and without a reader.
class MemoryFile {
  public:
    MemoryFile() : descriptor_(memfd_create("answer", MFD_CLOEXEC)) {
        if (descriptor_ < 0) throw std::system_error(errno, std::generic_category(), "show");
    }
    ~MemoryFile() { close(descriptor_); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    int descriptor() const { return descriptor_; }
    std::string content() const {
        std::string text;
        std::array<char, 65536> bytes;
        for (ssize_t count; (count = pread(descriptor_, bytes.data(), bytes.size(),
                                           static_cast<off_t>(text.size()))) > 0;)
            text.append(bytes.data(), static_cast<size_t>(count));
        return text;
    }

  private:
    const int descriptor_;
};

}  // namespace

Host::Host(Vel::Scheduler& scheduler, std::unique_ptr<Platform> platform, ForwardingPtr forwarding,
           IpsecPtr ipsec, std::string eventsFile, std::string historyFile)
    : forwarding_(std::move(forwarding)),
      ipsec_(std::move(ipsec)),
      inputs_(Nav::makeNavInputs(Vel::Ptr<Vel::Scheduler>(scheduler))),
      platform_(std::move(platform)),
      tree_(makeRoots(inputs_, *platform_, root_, forwarding_.get(), ipsec_.get())),
      events_(std::move(eventsFile)),
      configuration_({*inputs_.cliConfig, forwarding_.get(), ipsec_.get()},
                     {*inputs_.ipStatusDir, [this] { platform_->configured(); }, scheduler, events_,
                      std::move(historyFile)}) {
    root_ = Nav::NavRootSmIs(inputs_);
    platform_->start(inputs_);
    if (QualityStatus* measured = platform_->quality()) quality_.emplace(inputs_, *measured);
    observer_.emplace(
        inputs_, *platform_, [this] { return database(); }, events_);
}

Host::~Host() {
    observer_.reset();
    platform_->stop();
    root_ = nullptr;
}

// The library writes as much of its answer as a descriptor accepts without waiting, so it gets one
// that accepts everything.
std::string Host::show(const std::string& word) {
    const MemoryFile file;
    Vel::Dir& requests = *inputs_.navCliRequestDir;
    const Vel::Name name = std::to_string(++commands_);
    requests.requestIs(name, [&](AgentCommandRequest& request) {
        request.socketIs(static_cast<Vel::U32>(file.descriptor()));
        request.commandIs(word);
    });
    requests.requestDel(name);
    return file.content();
}

std::string Host::summary() const {
    const auto isUp = [](const auto& each) { return each.second.state.up; };
    const auto& paths = observer_->paths();
    return std::to_string(std::ranges::count_if(paths, isUp)) + " of " +
           std::to_string(paths.size()) + " paths are up";
}

Nav::NavDb* Host::database() const {
    return databaseOf(root_);
}

Json Host::carriers() const {
    Json carriers = Json::object();
    if (const Nav::LbProfileStatus* ids = inputs_.navStatusDir->navLbProfileStatus())
        for (const Nav::LbProfileStatusEntry& entry : ids->lbProfileStatusEntry())
            carriers[Vel::Codec<Nav::LbProfileKey>::key(entry.key())] =
                carriersOf(*platform_, entry);
    return carriers;
}

Json Host::quality(const Json& request) const {
    if (!quality_) throw RequestError("platform " + platform_->name() + " measures no paths");
    const auto path = request.find("path");
    if (path == request.end()) return quality_->paths();
    if (!path->is_string()) throw RequestError("path: expected a string");
    return quality_->history(*path);
}

Controlled Host::controlled() {
    return {tree_,
            configuration_,
            events_,
            platform_->name(),
            platform_->manual(),
            [this](const std::string& word) { return show(word); },
            [this] { return platform_->forwarding(); },
            [this](std::shared_ptr<const Transaction> transaction) {
                observer_->observe();
                return [this, transaction = std::move(transaction)] {
                    return foresee(inputs_, database(), *platform_, *observer_, *transaction);
                };
            },
            {{"explain",
              [this](const Json& request) {
                  const Question question = questionOf(request);
                  observer_->observe();
                  return explain(inputs_, *platform_, *observer_, question);
              }},
             {"interfaces",
              [this](const Json&) {
                  observer_->observe();
                  return interfaces(inputs_, *platform_, *observer_);
              }},
             {"quality", [this](const Json& request) { return quality(request); }},
             {"carriers", [this](const Json&) { return carriers(); }},
             {"ipsec", [this](const Json&) { return platform_->ipsec(); }}},
            {{"validate",
              [this](const Json&) { return Json(validate(inputs_, database(), *platform_)); }}}};
}

}  // namespace Agent
