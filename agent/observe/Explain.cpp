#include "agent/observe/Explain.h"

#include <algorithm>
#include <optional>

#include "agent/shell/ControlServer.h"
#include "nav/types/PathName.h"

namespace Agent {

using Vel::U32;

namespace {

Json orNull(const std::string& text) {
    return text.empty() ? Json() : Json(text);
}

bool isAbout(const std::string& asked, const ConfiguredPath& path, const PathState& state) {
    return asked.empty() || asked == state.name() || asked == path.interface.str() ||
           asked == state.key.srcAddr.stringValue() || asked == path.destination.stringValue();
}

Json pathRow(const ConfiguredPath& path, const Observer::PathRecord& record) {
    const PathState& state = record.state;
    const bool hasSource = !state.key.srcAddr.isZero();
    return {{"path", state.index == 0 ? Json() : Json(state.name())},
            {"pathGroup", path.site.name},
            {"interface", path.interface.stringValue()},
            {"site", path.site.routerIp.stringValue()},
            {"source", hasSource ? Json(state.key.srcAddr.stringValue()) : Json()},
            {"destination", path.destination.stringValue()},
            {"vrf", hasSource ? Json(state.vrf.str()) : Json()},
            {"state", state.up ? "up" : "down"},
            {"since", timeText(record.since)},
            {"reason", orNull(state.up ? state.remark : state.reason.text)},
            {"shownBy", orNull(state.reason.shownBy)}};
}

// The configured applications: what each bound VRF's policy wants for each site.
class Applications {
  public:
    Applications(const Nav::NavInputs& inputs, const Platform& platform, const Observer& observer,
                 const Question& question)
        : in_(inputs), platform_(platform), observer_(observer), question_(question) {}

    Json rows() {
        for (const Nav::VrfConfig& binding : in_.cliConfig->vrfConfig()) explainVrf(binding);
        return std::move(rows_);
    }

  private:
    using Priorities = std::map<Vel::Name, U32>;  // of path groups
    struct Application {
        std::string name;
        Priorities groups;    // the first rule that lists a group governs it
        std::string unknown;  // a profile that is named, but not configured
    };

    void explainVrf(const Nav::VrfConfig& binding) {
        const Nav::PolicyConfig* policy = in_.cliConfig->policyConfig(binding.policyName());
        if (!policy) {
            if (question_.site.empty() && question_.application.empty())
                add(binding.vrfName(), {}, {},
                    "policy " + binding.policyName() + " is not configured");
            return;
        }
        for (const auto& [id, application] : applicationsOf(*policy))
            if (question_.application.empty() || question_.application == application.name)
                explainApplication(binding.vrfName(), id, application);
    }

    std::map<U32, Application> applicationsOf(const Nav::PolicyConfig& policy) const {
        std::map<U32, Application> applications;
        for (const auto& rule : policy.appProfilePolicyRuleList())
            addRule(applications[rule.appProfileId()], rule.appProfileName(), rule.lbGrpName());
        if (policy.defaultRuleCfgd())
            addRule(applications[0], "default", policy.defaultLbGrpName());
        return applications;
    }

    void addRule(Application& application, const std::string& name,
                 const std::string& profile) const {
        if (application.name.empty()) application.name = name;
        const auto* config = in_.cliConfig->loadBalanceProfile(profile);
        if (!config)
            application.unknown = profile;
        else
            for (const auto& [group, priority] : config->pathGroupPriority())
                application.groups.emplace(group, priority);
    }

    void explainApplication(const L3::VrfName& vrf, U32 id, const Application& application) {
        std::set<Netz::IpGenAddr> sites;
        for (const auto& [group, priority] : application.groups)
            if (const Nav::PathGroupConfig* config = in_.cliConfig->pathGroupConfig(group))
                for (const Nav::RemoteViaConfig& site : config->remoteViaConfig())
                    sites.insert(site.remoteAddr());
        if (sites.empty() && question_.site.empty())
            add(vrf, application.name, {},
                application.unknown.empty()
                    ? "no path group of its load-balance profile has a site"
                    : "load-balance profile " + application.unknown + " is not configured");
        for (const Netz::IpGenAddr& site : sites)
            if (question_.site.empty() || question_.site == site.stringValue())
                explainSite(vrf, id, application, site);
    }

    void explainSite(const L3::VrfName& vrf, U32 id, const Application& application,
                     const Netz::IpGenAddr& site) {
        const auto* status = in_.routingHwRouteStatus->vrfStatus(vrf);
        const auto vrfId = Routing::Hardware::knownVrfId(vrf, status ? status->vrfId() : 0);
        const auto* ids = in_.navStatusDir->navLbProfileStatus();
        const Nav::LbProfileStatusEntry* entry =
            vrfId && ids ? ids->lbProfileStatusEntry({site, id, *vrfId}) : nullptr;
        const std::vector<U32> carriers =
            entry ? carriersOf(platform_, *entry) : std::vector<U32>();
        std::string reason;
        if (carriers.empty())
            reason = whyNone(vrf, vrfId.has_value(), entry, site);
        else if (!platform_.choose(*entry).suitable)
            reason = "no path meets its constraints";
        Json& row = add(vrf, application.name, site.stringValue(), reason);
        if (!entry) return;
        row["loadBalanceId"] = entry->lbIndex();
        for (const U32 index : carriers) row["paths"].push_back(Nav::pathName(index));
        if (const auto choice = observer_.choices().find(entry->key());
            choice != observer_.choices().end())
            row["since"] = timeText(choice->second.since);
        row["better"] = better(application.groups, *entry, carriers);
    }

    std::string whyNone(const L3::VrfName& vrf, bool vrfIdKnown,
                        const Nav::LbProfileStatusEntry* entry, const Netz::IpGenAddr& site) const {
        if (!in_.cliConfig->navConfigured()) return "path selection is switched off";
        if (!vrfIdKnown) return "the id of VRF " + vrf.str() + " is not known";
        if (entry) return "no path to the site is usable";
        return "no path to " + site.stringValue() + " has come up yet";
    }

    // The configured paths of at least the priority that carries the traffic, which do not carry
    // it.
    Json better(const Priorities& groups, const Nav::LbProfileStatusEntry& entry,
                const std::vector<U32>& carriers) const {
        std::optional<U32> carrying;
        for (const auto& member : entry.pathEntry())
            if (std::ranges::count(carriers, member.pathIndex) != 0) carrying = member.priority;
        Json paths = Json::array();
        for (const auto& [path, record] : observer_.paths()) {
            const auto priority = groups.find(path.site.name);
            if (path.site.routerIp != entry.key().vtepIp || priority == groups.end() ||
                (carrying && priority->second > *carrying) ||
                std::ranges::count(carriers, record.state.index) != 0)
                continue;
            const std::string reason =
                record.state.up ? whyUnused(entry, record.state.index) : record.state.reason.text;
            paths.push_back({{"path", record.state.index == 0 ? Json() : Json(record.state.name())},
                             {"pathGroup", path.site.name},
                             {"interface", path.interface.stringValue()},
                             {"destination", path.destination.stringValue()},
                             {"priority", priority->second},
                             {"reason", reason}});
        }
        return paths;
    }

    // Why a path that is up does not carry the traffic.
    std::string whyUnused(const Nav::LbProfileStatusEntry& entry, U32 index) const {
        const Constraints limits = Constraints::of(entry);
        const PathQuality* quality = qualityOf(platform_, index);
        if (!entry.pathEntry(index)) return "it is up, but not a member of the load-balance id";
        if (!quality || limits.none()) return "it is a member of the load-balance id, but not used";
        if (!limits.metBy(*quality)) return limits.compare(*quality);
        return "not good for long enough: " + limits.compare(*quality);
    }

    Json& add(const L3::VrfName& vrf, const std::string& application, const std::string& site,
              const std::string& reason) {
        rows_.push_back({{"vrf", vrf.str()},
                         {"application", orNull(application)},
                         {"site", orNull(site)},
                         {"loadBalanceId", nullptr},
                         {"paths", Json::array()},
                         {"since", nullptr},
                         {"reason", orNull(reason)},
                         {"better", Json::array()}});
        return rows_.back();
    }

    const Nav::NavInputs& in_;
    const Platform& platform_;
    const Observer& observer_;
    const Question& question_;
    Json rows_ = Json::array();
};

}  // namespace

Question questionOf(const Json& request) {
    Question question;
    for (const auto& [name, text] :
         {std::pair("path", &question.path), std::pair("site", &question.site),
          std::pair("application", &question.application)}) {
        const auto found = request.find(name);
        if (found == request.end()) continue;
        if (!found->is_string()) throw RequestError(std::string(name) + ": expected a string");
        *text = found->get<std::string>();
    }
    return question;
}

Json explain(const Nav::NavInputs& inputs, const Platform& platform, const Observer& observer,
             const Question& question) {
    Json answer = {{"paths", Json::array()}, {"applications", Json::array()}};
    if (question.application.empty())
        for (const auto& [path, record] : observer.paths())
            if (isAbout(question.path, path, record.state) &&
                (question.site.empty() || question.site == path.site.routerIp.stringValue()))
                answer["paths"].push_back(pathRow(path, record));
    if (question.path.empty())
        answer["applications"] = Applications(inputs, platform, observer, question).rows();
    const auto refuse = [](const char* what, const std::string& asked) {
        if (!asked.empty()) throw RequestError(what + (" \"" + asked) + "\" is not configured");
    };
    if (answer["paths"].empty() && answer["applications"].empty()) {
        refuse("path", question.path);
        refuse("application", question.application);
        refuse("site", question.site);
    }
    return answer;
}

}  // namespace Agent
